// Reactor helpers: a scripted, recording handler, a reactor over an in-memory back end, and the
// factories of the real back ends, over which the reactor tests are parameterised.
#ifndef TESTS_SUPPORT_REACTORSUPPORT_H
#define TESTS_SUPPORT_REACTORSUPPORT_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_EventHandler.h"
#include "VEL_IOReactor.h"

namespace veltest {

// Records each call-back as "in", "out", "ito" or "close"; each answers with its hook's result
// (true without hook). Set the hooks before the handler is registered.
class ScriptedHandler : public VEL_EventHandler {
public:
    static boost::shared_ptr<ScriptedHandler> Make(unsigned int handle) {
        return boost::shared_ptr<ScriptedHandler>(new ScriptedHandler(handle));
    }

    bool handleInput() override { return call("in", onInput); }
    bool handleOutput(void* arg) override { return call(arg ? "out(arg)" : "out", onOutput); }
    bool handleInactivity() override { return call("ito", onInactivity); }
    bool handleClose() override { return call("close", onClose); }

    std::vector<std::string> calls() const;
    int count(const std::string& name) const;
    // Waits until `name` was called at least `times` times.
    bool waitFor(const std::string& name, int times,
                 std::chrono::milliseconds limit = std::chrono::seconds(5)) const;

    std::function<bool()> onInput, onOutput, onInactivity, onClose;

private:
    explicit ScriptedHandler(unsigned int handle) : VEL_EventHandler(handle) {}
    bool call(const char* name, const std::function<bool()>& hook);

    mutable std::mutex _lock;
    mutable std::condition_variable _changed;
    std::vector<std::string> _calls;
};

// A reactor over an in-memory back end. A wait reports what script() queued, blocking until
// something is queued, a wake-up comes or the time-out passes; in spin mode it returns at once.
class FakeIOReactor : public VEL_IOReactor {
public:
    explicit FakeIOReactor(unsigned long size = 16, bool spin = false);
    ~FakeIOReactor() override { stopLoop(); }

    void script(unsigned int handle, unsigned short ops);
    // Calls made to the back end, as "add h ops", "remove h", "change h ops", "resize".
    std::vector<std::string> backEndCalls() const;
    int wakeUps() const;

    using VEL_IOReactor::GetPollingError;

protected:
    VELErr_t waitForEvents(const basis::TimeValue* timeout) override;
    VELErr_t addHandle(unsigned int handle, unsigned short ops) override {
        return record("add " + std::to_string(handle) + " " + std::to_string(ops));
    }
    VELErr_t removeHandle(unsigned int handle) override {
        return record("remove " + std::to_string(handle));
    }
    VELErr_t changeHandleOps(unsigned int handle, unsigned short ops) override {
        return record("change " + std::to_string(handle) + " " + std::to_string(ops));
    }
    VELErr_t doSetSize() override { return record("resize"); }
    VELErr_t wakeUp() override;

private:
    VELErr_t record(const std::string& call);

    const bool _spin;
    mutable std::mutex _lock;
    std::condition_variable _changed;
    std::vector<VELReadyHandle_t> _script;
    std::vector<std::string> _calls;
    bool _woken = false;
    int _wakeUps = 0;
};

// Reads what waits on `fd` without blocking; false once the stream has ended or on an error.
bool Drain(int fd);

// Removes `handler` and waits until the reactor thread has applied the removal and let the
// handler go (the caller holds the only other reference): its descriptor may be closed then.
template <class Handler>
void RemoveAndWait(VEL_IOReactor& reactor, const boost::shared_ptr<Handler>& handler) {
    EXPECT_EQ(reactor.removeEventHandler(handler), kVELErr_Ok);
    EXPECT_TRUE(WaitFor([&handler] { return handler.use_count() == 1; }));
}

// Stops a reactor, joins its loop thread and cleans it; checks that every handler was let go.
void StopAndClean(VEL_IOReactor& reactor);

// Builds a reactor of one back end (not yet initialised).
using ReactorFactory = std::unique_ptr<VEL_IOReactor> (*)(unsigned long size,
                                                          const basis::TimeValue& idleTimeout);
std::unique_ptr<VEL_IOReactor> MakeSelectReactor(unsigned long size,
                                                 const basis::TimeValue& idleTimeout);
std::unique_ptr<VEL_IOReactor> MakeEpollReactor(unsigned long size,
                                                const basis::TimeValue& idleTimeout);
// The back end's name, for the names of parameterised tests.
std::string BackEndName(const ::testing::TestParamInfo<ReactorFactory>& tested);

}  // namespace veltest

#endif  // TESTS_SUPPORT_REACTORSUPPORT_H
