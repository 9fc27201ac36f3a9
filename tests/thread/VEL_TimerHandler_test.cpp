#include "VEL_TimerHandler.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <list>
#include <new>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_TimerManager.h"
#include "VEL_TimerSubscriberInterface.h"
#include "VEL_Tools.h"

namespace {

using Clock = std::chrono::steady_clock;

// A manager without a thread: records what handlers ask of it.
class FakeManager : public VEL_TimerManager {
public:
    std::vector<VEL_TimerHandler*> placed;
    std::vector<unsigned long> args;

    unsigned long unsubscribe(unsigned long) override { return 0; }

protected:
    unsigned long subscribeImpl(const boost::shared_ptr<VEL_TimerSubscriberInterface>&,
                                unsigned long, long) override {
        return 0;
    }
    void subscribeHandler(VEL_TimerHandler* handler, unsigned long arg) override {
        placed.push_back(handler);
        args.push_back(arg);
    }
    bool executeSubscribers() override { return true; }
};

class Counter : public VEL_TimerSubscriberInterface {
public:
    explicit Counter(std::vector<std::string>* log = nullptr, std::string name = "")
        : _log(log), _name(std::move(name)) {}
    void handleEvent(unsigned long id) override {
        ids.push_back(id);
        if (_log != nullptr) {
            _log->push_back(_name);
        }
    }
    void cancel() override { ++cancels; }

    std::vector<unsigned long> ids;
    std::atomic<int> cancels{0};

private:
    std::vector<std::string>* _log;
    std::string _name;
};

class TimerHandlerTest : public ::testing::Test {
protected:
    void TearDown() override {
        for (VEL_TimerHandler* handler : _armed) {
            handler->unlock();
        }
    }
    // A handler outside any pool, armed at date `now`.
    VEL_TimerHandler& arm(unsigned long duration, long repeat,
                          const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber,
                          const basis::TimeValue& now = basis::TimeValue(100, 250000)) {
        _handlers.emplace_back();
        VEL_TimerHandler& handler = _handlers.back();
        handler.setTimer(duration, repeat, subscriber, nullptr, now);
        _armed.push_back(&handler);
        return handler;
    }
    // Triggers until the timer ends (at most `limit` times); returns the number of triggers.
    int fireUntilDone(VEL_TimerHandler& handler, int limit) {
        for (int shot = 1; shot <= limit; ++shot) {
            if (handler.trigger(&_manager, 7)) {
                return shot;
            }
        }
        return limit + 1;
    }

    FakeManager _manager;
    std::list<VEL_TimerHandler> _handlers;
    std::vector<VEL_TimerHandler*> _armed;
};

TEST_F(TimerHandlerTest, RepeatCountGivesTheNumberOfShotsSpacedByTheInterval) {
    struct Case {
        long repeat;
        int shots;
    };
    // 0 and 1 both mean once; a count beyond 32 bits is clamped, not truncated to 1.
    const Case cases[] = {{0, 1}, {1, 1}, {2, 2}, {3, 3}, {0x100000001L, 21}, {-1, 21}, {-7, 21}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.repeat);
        auto counter = boost::make_shared<Counter>();
        VEL_TimerHandler& handler = arm(2, c.repeat, counter);
        _manager.placed.clear();
        EXPECT_EQ(fireUntilDone(handler, 20), c.shots);
        const int fired = c.shots > 20 ? 20 : c.shots;
        ASSERT_EQ(counter->ids.size(), static_cast<size_t>(fired));
        EXPECT_EQ(counter->ids.front(), handler.getID());
        // Re-armed after every shot but the last, each time one interval later, from the first
        // expiry on (100.25 s + 2 s), with the strategy's argument passed through.
        EXPECT_EQ(_manager.placed.size(), static_cast<size_t>(c.shots > 20 ? 20 : fired - 1));
        EXPECT_EQ(handler.getCurrentDate(),
                  basis::TimeValue(102 + 2 * static_cast<long>(_manager.placed.size()), 250000));
        for (unsigned long arg : _manager.args) {
            EXPECT_EQ(arg, 7u);
        }
        _manager.args.clear();
    }
}

TEST_F(TimerHandlerTest, IntervalIsClampedTo32Bits) {
    VEL_TimerHandler& handler = arm(0x100000005UL, 0, boost::make_shared<Counter>());
    EXPECT_EQ(handler.getDuration(), 0xFFFFFFFFUL);
    EXPECT_EQ(handler.getCurrentDate(), basis::TimeValue(100 + 0xFFFFFFFFL, 250000));
}

TEST_F(TimerHandlerTest, CancelFalseLetsThePendingShotFireWithoutTellingTheSubscriber) {
    auto counter = boost::make_shared<Counter>();
    VEL_TimerHandler& handler = arm(1, -1, counter);
    EXPECT_FALSE(handler.trigger(&_manager, 0));
    handler.cancel(false);
    EXPECT_TRUE(handler.trigger(&_manager, 0));
    EXPECT_EQ(counter->ids.size(), 2u);
    EXPECT_EQ(counter->cancels.load(), 0);
    EXPECT_FALSE(handler.isCanceled());
}

TEST_F(TimerHandlerTest, CancelTrueTellsTheSubscriberOnceAndSilencesIt) {
    auto counter = boost::make_shared<Counter>();
    boost::weak_ptr<Counter> watch = counter;
    VEL_TimerHandler& handler = arm(1, -1, counter);
    EXPECT_FALSE(handler.trigger(&_manager, 0));
    handler.cancel(true);
    handler.cancel(true);
    EXPECT_EQ(counter->cancels.load(), 1);
    EXPECT_TRUE(handler.isCanceled());
    EXPECT_TRUE(handler.trigger(&_manager, 0));
    EXPECT_EQ(counter->ids.size(), 1u);
    counter.reset();
    EXPECT_TRUE(watch.expired());  // the handler no longer holds it
}

TEST_F(TimerHandlerTest, CancelTrueWaitsForARunningCallback) {
    veltest::Gate gate;
    class Blocking : public VEL_TimerSubscriberInterface {
    public:
        explicit Blocking(veltest::Gate& g) : _gate(g) {}
        void handleEvent(unsigned long) override {
            _gate.pass();
            returned.store(true);
        }
        void cancel() override { cancelledAfterReturn.store(returned.load()); }
        std::atomic<bool> returned{false};
        std::atomic<bool> cancelledAfterReturn{false};

    private:
        veltest::Gate& _gate;
    };
    auto subscriber = boost::make_shared<Blocking>(gate);
    VEL_TimerHandler& handler = arm(1, 0, subscriber);
    std::thread timer([&] { (void)handler.trigger(&_manager, 0); });
    ASSERT_TRUE(gate.waitEntered(std::chrono::seconds(5)));
    std::atomic<bool> cancelled{false};
    std::thread canceller([&] {
        handler.cancel(true);
        cancelled.store(true);
    });
    EXPECT_FALSE(
            veltest::WaitFor([&] { return cancelled.load(); }, std::chrono::milliseconds(200)));
    gate.open();
    timer.join();
    canceller.join();
    EXPECT_TRUE(subscriber->cancelledAfterReturn.load());
}

TEST_F(TimerHandlerTest, ThrowingCallbackIsTracedAndEndsTheTimer) {
    struct Case {
        std::function<void()> raise;
        VELErr_t code;
        const char* text;
    };
    const Case cases[] = {
            {[] { throw std::bad_alloc(); }, kVELErr_Alloc, "Timer caught memory exception."},
            {[] { throw std::runtime_error("x"); }, kVELErr_StlException,
             "Timer caught STL exception."},
            {[] { throw 42; }, kVELErr_UnknownException, "Timer caught unknown exception."}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.text);
        class Thrower : public VEL_TimerSubscriberInterface {
        public:
            explicit Thrower(std::function<void()> r) : _raise(std::move(r)) {}
            void handleEvent(unsigned long) override { _raise(); }

        private:
            std::function<void()> _raise;
        };
        veltest::RecordingSink sink(kVELTrace_ThreadError);
        veltest::ScopedSink installed(&sink);
        VEL_TimerHandler& handler = arm(1, -1, boost::make_shared<Thrower>(c.raise));
        basis::Thread::SetLastSystemErr(0);
        EXPECT_TRUE(handler.trigger(&_manager, 0));
        const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, kVELLevel_Error);
        EXPECT_EQ(lines[0].text, "THREAD - " + VEL_Tools::GetErrStr(c.code) + " ; " + c.text);
    }
    EXPECT_TRUE(_manager.placed.empty());
}

TEST_F(TimerHandlerTest, UnlockReleasesTheSubscriberTheIdentifierAndThePoolObject) {
    VEL_TimerHandler::CloseGenerator();  // no given-back numbers from other tests
    basis::ObjectMgr<VEL_TimerHandler> pool(4);
    basis::Object<VEL_TimerHandler>* first = nullptr;
    basis::Object<VEL_TimerHandler>* second = nullptr;
    ASSERT_EQ(pool.getFreeObject(&first), basis::kErr_Ok);
    ASSERT_EQ(pool.getFreeObject(&second), basis::kErr_Ok);
    auto counter = boost::make_shared<Counter>();
    boost::weak_ptr<Counter> watch = counter;
    (*first)->setTimer(1, 0, counter, first, basis::TimeValue(1, 0));
    (*second)->setTimer(1, 0, counter, second, basis::TimeValue(1, 0));
    counter.reset();
    const unsigned long a = (*first)->getID();
    const unsigned long b = (*second)->getID();
    EXPECT_EQ(b, a + 1);
    const unsigned long freeBefore = pool.getFreeCount();
    (*second)->unlock();
    (*first)->unlock();
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(pool.getFreeCount(), freeBefore + 2);
    // Given-back numbers come back oldest first.
    VEL_TimerHandler& c = arm(1, 0, boost::make_shared<Counter>());
    VEL_TimerHandler& d = arm(1, 0, boost::make_shared<Counter>());
    EXPECT_EQ(c.getID(), b);
    EXPECT_EQ(d.getID(), a);
    // A closed generator forgets them but not the last number issued.
    VEL_TimerHandler& e = arm(1, 0, boost::make_shared<Counter>());
    e.unlock();
    _armed.pop_back();
    VEL_TimerHandler::CloseGenerator();
    VEL_TimerHandler& f = arm(1, 0, boost::make_shared<Counter>());
    EXPECT_EQ(f.getID(), e.getID() + 1);
}

TEST_F(TimerHandlerTest, RetainedHandlerLeavesThePoolOnlyAfterDetachAndUnlock) {
    basis::ObjectMgr<VEL_TimerHandler> pool(1);
    basis::Object<VEL_TimerHandler>* object = nullptr;
    ASSERT_EQ(pool.getFreeObject(&object), basis::kErr_Ok);
    auto counter = boost::make_shared<Counter>();
    boost::weak_ptr<Counter> watch = counter;
    (*object)->setTimer(1, -1, counter, object, basis::TimeValue(1, 0));
    counter.reset();
    (*object)->retain();
    (*object)->detach();  // drops the subscriber without telling it
    EXPECT_TRUE(watch.expired());
    EXPECT_EQ(pool.getFreeCount(), 0u);
    EXPECT_TRUE((*object)->trigger(&_manager, 0));  // a pending shot finds nothing to call
    (*object)->unlock();
    EXPECT_EQ(pool.getFreeCount(), 1u);
}

TEST(TimerSlotTest, KeepsDatesSortedWithTheNewestFirstAmongEqualDates) {
    // Seconds of each handler's date, in insertion order: front, back and middle insertions.
    const long dates[] = {5, 3, 5, 7, 3, 6, 5, 1, 9};
    std::list<VEL_TimerHandler> handlers;
    VEL_TimerSlot slot;
    std::lock_guard<basis::ThreadMutex> hold(slot.getLock());
    std::vector<VEL_TimerHandler*> inserted;
    for (long date : dates) {
        handlers.emplace_back();
        handlers.back().setTimer(0, 0, boost::make_shared<Counter>(), nullptr,
                                 basis::TimeValue(date, 0));
        slot.insert(handlers.back());
        inserted.push_back(&handlers.back());
    }
    EXPECT_EQ(slot.getCount(), 9u);
    // Removal of a waiting handler, and of one that is in no slot.
    EXPECT_TRUE(slot.remove(*inserted[5]));
    EXPECT_FALSE(slot.remove(*inserted[5]));
    // Expected order by insertion index: 1 (date 1: #7), dates 3: #4 then #1, dates 5: #6, #2,
    // #0, then 7 (#3) and 9 (#8); #5 was removed.
    const int expected[] = {7, 4, 1, 6, 2, 0, 3};
    for (int index : expected) {
        EXPECT_EQ(slot.takeDue(basis::TimeValue(8, 0)), inserted[index]) << index;
    }
    EXPECT_EQ(slot.takeDue(basis::TimeValue(8, 999999)), nullptr);  // 9 s is later
    EXPECT_EQ(slot.takeDue(basis::TimeValue(9, 0)), inserted[8]);
    EXPECT_EQ(slot.getCount(), 0u);
    for (VEL_TimerHandler& handler : handlers) {
        handler.unlock();
    }
}

TEST(CompositeTimerSubscriberTest, CallsEverySubscriberInListOrderWithTheSameId) {
    std::vector<std::string> log;
    Counter a(&log, "a");
    Counter b(&log, "b");
    Counter c(&log, "c");
    VEL_CompositeTimerSubscriber composite({&c, &a, &b});
    VEL_CompositeTimerSubscriber copy(composite);
    copy.handleEvent(42);
    EXPECT_EQ(log, (std::vector<std::string>{"c", "a", "b"}));
    for (Counter* counter : {&a, &b, &c}) {
        EXPECT_EQ(counter->ids, std::vector<unsigned long>{42});
    }
    composite.cancel();  // not forwarded
    EXPECT_EQ(a.cancels.load() + b.cancels.load() + c.cancels.load(), 0);
}

}  // namespace
