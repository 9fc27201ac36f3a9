// Arming and cancelling timers: `count` timers of 10 to 69 s are armed for one shared subscriber,
// then each is cancelled in the order armed (none falls due meanwhile). Both sides are
// thread-safe, hold a reference to the subscriber per timer, find a timer by its identifier and
// tell the subscriber when it is cancelled.
#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "BenchRunner.h"
#include "Cases.h"
#include "TimeValue.h"
#include "VEL_TimerManager.h"
#include "VEL_TimerSubscriberInterface.h"

namespace velbench {

namespace {

class CountingSubscriber : public VEL_TimerSubscriberInterface {
public:
    void handleEvent(unsigned long /*timerId*/) override { ++fired; }
    void cancel() override { ++cancelled; }

    std::atomic<unsigned long> fired{0};
    std::atomic<unsigned long> cancelled{0};
};

// The reference: deadlines in a std::multimap under one std::mutex, with an index from the
// identifier to the timer's place in the map.
class MultimapTimers {
public:
    unsigned long subscribe(const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber,
                            unsigned long seconds) {
        const basis::TimeValue deadline =
                basis::TimeValue::GetHRTime() + basis::TimeValue(static_cast<long>(seconds), 0);
        std::lock_guard<std::mutex> hold(_lock);
        const unsigned long id = ++_lastId;
        const auto placed = _timers.emplace(deadline, Timer{id, subscriber});
        _index.emplace(id, placed);
        return id;
    }

    // The identifier when the timer was waiting (its subscriber told), 0 otherwise.
    unsigned long unsubscribe(unsigned long id) {
        boost::shared_ptr<VEL_TimerSubscriberInterface> subscriber;
        {
            std::lock_guard<std::mutex> hold(_lock);
            const auto found = _index.find(id);
            if (found == _index.end()) {
                return 0;
            }
            subscriber = std::move(found->second->second.subscriber);
            _timers.erase(found->second);
            _index.erase(found);
        }
        subscriber->cancel();  // outside the lock, as the timer manager does
        return id;
    }

private:
    struct Timer {
        unsigned long id;
        boost::shared_ptr<VEL_TimerSubscriberInterface> subscriber;
    };
    using Timers = std::multimap<basis::TimeValue, Timer>;

    std::mutex _lock;  // guards everything below
    unsigned long _lastId = 0;
    Timers _timers;
    std::unordered_map<unsigned long, Timers::iterator> _index;
};

class TimerCase : public Case {
public:
    std::string id() const override { return "timers"; }
    std::string title() const override { return "timers, arm + cancel"; }
    std::string unit() const override { return "timers/s"; }
    std::vector<Reference> references() const override {
        return {{"std::multimap by deadline", 1.0}};
    }
    unsigned long workCount(bool quick) const override { return quick ? 5000 : 100000; }
    // Full size, so that both sides are measured in their steady state: the handler pool and
    // the registry have grown to 100k timers once, and the reference's heap holds as many nodes.
    unsigned long warmUpCount(bool quick) const override { return workCount(quick); }

    void setUp(bool /*quick*/) override {
        _manager = VEL_TimerManager::GetInstance();
        if (_manager == nullptr) {
            throw BenchError("no timer manager");
        }
        _subscriber = boost::make_shared<CountingSubscriber>();
        _multimap = std::make_unique<MultimapTimers>();
    }

    double run(std::size_t index, unsigned long count) override {
        _ids.assign(count, 0);
        const unsigned long cancelledBefore = _subscriber->cancelled.load();
        const double start = Now();
        if (index == 0) {
            for (unsigned long i = 0; i < count; ++i) {
                _ids[i] = _manager->subscribe(_subscriber, duration(i), 0, false);
            }
            for (unsigned long i = 0; i < count; ++i) {
                if (_manager->unsubscribe(_ids[i]) != _ids[i] || _ids[i] == 0) {
                    throw BenchError("a vel timer was not cancelled");
                }
            }
        } else {
            for (unsigned long i = 0; i < count; ++i) {
                _ids[i] = _multimap->subscribe(_subscriber, duration(i));
            }
            for (unsigned long i = 0; i < count; ++i) {
                if (_multimap->unsubscribe(_ids[i]) != _ids[i]) {
                    throw BenchError("a multimap timer was not cancelled");
                }
            }
        }
        const double seconds = Now() - start;
        if (_subscriber->cancelled.load() - cancelledBefore != count) {
            throw BenchError("the subscriber was not told of every cancel");
        }
        return seconds;
    }

    void tearDown() override {
        VEL_TimerManager::CloseSingleton();
        _manager = nullptr;
        _multimap.reset();
        _subscriber.reset();
    }

private:
    static unsigned long duration(unsigned long i) { return 10 + i % 60; }

    VEL_TimerManager* _manager = nullptr;
    boost::shared_ptr<CountingSubscriber> _subscriber;
    std::unique_ptr<MultimapTimers> _multimap;
    std::vector<unsigned long> _ids;
};

}  // namespace

std::unique_ptr<Case> MakeTimerCase() {
    return std::make_unique<TimerCase>();
}

}  // namespace velbench
