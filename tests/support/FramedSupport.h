// Framed-connection helpers: a log of the events of every connection of a test, in order, and
// an application handler that echoes and logs what happens to its connection.
#ifndef TESTS_SUPPORT_FRAMEDSUPPORT_H
#define TESTS_SUPPORT_FRAMEDSUPPORT_H

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "VEL_FramedConnection.h"
#include "VEL_Message.h"

namespace veltest {

// Events of every connection of a test, in the order they happened.
class EventLog {
public:
    void add(const std::string& event) {
        std::lock_guard<std::mutex> hold(_lock);
        _events.push_back(event);
        _changed.notify_all();
    }
    std::vector<std::string> events() const {
        std::lock_guard<std::mutex> hold(_lock);
        return _events;
    }
    std::size_t count(const std::string& event) const {
        std::lock_guard<std::mutex> hold(_lock);
        return static_cast<std::size_t>(std::count(_events.begin(), _events.end(), event));
    }
    bool waitCount(const std::string& event, std::size_t times,
                   std::chrono::milliseconds limit = std::chrono::seconds(10)) {
        std::unique_lock<std::mutex> hold(_lock);
        return _changed.wait_for(hold, limit, [&] {
            return static_cast<std::size_t>(std::count(_events.begin(), _events.end(), event)) >=
                   times;
        });
    }

private:
    mutable std::mutex _lock;
    std::condition_variable _changed;
    std::vector<std::string> _events;
};

// An application handler that echoes every message (unless `onMessageHook` says otherwise) and
// logs "<tag> close <reason>", "<tag> drained" and, for a send that failed, "<tag> send <code>".
class Recorder : public VEL_ConnectionHandler {
public:
    Recorder(EventLog& log, std::string tag) : _log(log), _tag(std::move(tag)) {}

    void onMessage(VEL_FramedConnection& connection, VEL_Message& message) override {
        ++messages;
        if (onMessageHook) {
            onMessageHook(connection, message);
            return;
        }
        const VELErr_t code = connection.send(&message);
        if (code == kVELErr_QueueFull) {
            ++queueFull;
        } else if (code != kVELErr_Ok) {
            _log.add(_tag + " send " + std::to_string(code));
        }
    }
    void onClose(VEL_FramedConnection& /*connection*/, VELErr_t reason) override {
        closedOn = pthread_self();
        _log.add(closeEvent(reason));
    }
    void onDrained(VEL_FramedConnection& /*connection*/) override { _log.add(_tag + " drained"); }

    std::string closeEvent(VELErr_t reason) const {
        return _tag + " close " + std::to_string(reason);
    }

    std::function<void(VEL_FramedConnection&, VEL_Message&)> onMessageHook;
    std::atomic<unsigned long> messages{0};
    std::atomic<unsigned long> queueFull{0};
    std::atomic<pthread_t> closedOn{};

private:
    EventLog& _log;
    const std::string _tag;
};

}  // namespace veltest

#endif  // TESTS_SUPPORT_FRAMEDSUPPORT_H
