#include "VEL_TimerManager.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <new>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <vector>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_TimerManagerCircularQueue.h"
#include "VEL_TimerManagerLinearQueue.h"
#include "VEL_Tools.h"

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr milliseconds kTick(125);

// What the tests read from inside a running manager.
class ProbeAccess {
public:
    virtual ~ProbeAccess() = default;
    virtual size_t timerCount() = 0;
    // Only while the timer cannot fire (its date is read unlocked by the timer thread).
    virtual basis::TimeValue dateOf(unsigned long id) = 0;
    virtual long slotOf(unsigned long id) = 0;
    virtual long currentSlot() = 0;  // -1 without a wheel
    virtual basis::TimeValue wheelDate() = 0;
    virtual bool stopping() = 0;

    std::atomic<unsigned long> passes{0};
    std::atomic<int> throwOnPass{0};  // the next pass throws: 1 bad_alloc, 2 runtime_error, 3 int
};

template <class Base>
class Probe : public Base, public ProbeAccess {
public:
    static VEL_TimerManager* Create() { return VEL_TimerManager::Started(new Probe()); }

    size_t timerCount() override {
        basis::ReadGuard<basis::RWThreadMutex> hold(this->_registryLock);
        return this->_registry.size();
    }
    basis::TimeValue dateOf(unsigned long id) override {
        basis::ReadGuard<basis::RWThreadMutex> hold(this->_registryLock);
        return this->_registry.at(static_cast<std::uint32_t>(id))->getCurrentDate();
    }
    long slotOf(unsigned long id) override {
        basis::ReadGuard<basis::RWThreadMutex> hold(this->_registryLock);
        return static_cast<long>(this->_registry.at(static_cast<std::uint32_t>(id))->getPos());
    }
    long currentSlot() override {
        if constexpr (std::is_base_of<VEL_TimerManagerCircularQueue, Base>::value) {
            basis::ReadGuard<basis::RWThreadMutex> hold(this->_registryLock);
            return static_cast<long>(this->_current);
        }
        return -1;
    }
    basis::TimeValue wheelDate() override {
        if constexpr (std::is_base_of<VEL_TimerManagerCircularQueue, Base>::value) {
            basis::ReadGuard<basis::RWThreadMutex> hold(this->_registryLock);
            return this->_wheelDate;
        }
        return basis::TimeValue();
    }
    bool stopping() override { return this->isStopping(); }

protected:
    void notifyActivity() override {
        ++passes;
        switch (throwOnPass.exchange(0)) {
            case 1:
                throw std::bad_alloc();
            case 2:
                throw std::runtime_error("probe");
            case 3:
                throw 3;
            default:
                break;
        }
    }
};

VEL_TimerManager::Factory_t probeFactory(VELTimerAlgorithm_t algorithm) {
    switch (algorithm) {
        case kVELTimerAlgo_Linear:
            return &Probe<VEL_TimerManagerLinearQueue>::Create;
        case kVELTimerAlgo_Circular:
            return &Probe<VEL_TimerManagerCircularQueue>::Create;
        default:
            return nullptr;
    }
}

// Records each call with its time and the manager's pass count at its start.
class Recorder : public VEL_TimerSubscriberInterface {
public:
    struct Event {
        unsigned long id;
        Clock::time_point at;
        unsigned long pass;
    };

    explicit Recorder(ProbeAccess* probe = nullptr) : _probe(probe) {}

    // Runs inside handleEvent before the call is recorded: may block, throw or unsubscribe.
    std::function<void(unsigned long)> before;

    void handleEvent(unsigned long id) override {
        const Event event{id, Clock::now(), _probe != nullptr ? _probe->passes.load() : 0};
        if (before) {
            before(id);
        }
        std::lock_guard<std::mutex> hold(_lock);
        _events.push_back(event);
        _changed.notify_all();
    }
    void cancel() override { ++cancels; }

    bool waitFor(size_t count, milliseconds limit) {
        std::unique_lock<std::mutex> hold(_lock);
        return _changed.wait_for(hold, limit, [&] { return _events.size() >= count; });
    }
    std::vector<Event> events() {
        std::lock_guard<std::mutex> hold(_lock);
        return _events;
    }

    std::atomic<int> cancels{0};

private:
    ProbeAccess* const _probe;
    std::mutex _lock;
    std::condition_variable _changed;
    std::vector<Event> _events;
};

std::string strategyName(const ::testing::TestParamInfo<VELTimerAlgorithm_t>& info) {
    const char* const names[] = {"Linear", "Circular", "CircularAsync"};
    return names[info.param];
}

long long millisecondsBetween(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration_cast<milliseconds>(to - from).count();
}

class TimerServiceTest : public ::testing::TestWithParam<VELTimerAlgorithm_t> {
protected:
    void SetUp() override {
        VEL_TimerManager::CloseSingleton();
        VEL_TimerManager::RegisterFactory(probeFactory(GetParam()));
        _manager = VEL_TimerManager::GetInstance();
        _probe = dynamic_cast<ProbeAccess*>(_manager);
        ASSERT_NE(_probe, nullptr);
    }
    void TearDown() override {
        VEL_TimerManager::CloseSingleton();
        VEL_TimerManager::RegisterFactory(nullptr);
    }
    bool isAsync() const { return GetParam() == kVELTimerAlgo_CircularAsync; }
    bool timersEnd() {
        return veltest::WaitFor([this] { return _probe->timerCount() == 0; },
                                std::chrono::seconds(3));
    }
    // Waits until the monotonic clock has passed `date`.
    static bool reach(const basis::TimeValue& date) {
        return veltest::WaitFor([&] { return basis::TimeValue::GetHRTime() > date; });
    }

    // Subscribes `older`, then `newer`, for one second, again until both have the same expiry
    // date (a pair may straddle a tick boundary). Returns their identifiers.
    std::pair<unsigned long, unsigned long> sameDatePair(
            const boost::shared_ptr<VEL_TimerSubscriberInterface>& older,
            const boost::shared_ptr<VEL_TimerSubscriberInterface>& newer, long period) {
        for (;;) {
            const unsigned long olderId = _manager->subscribe(older, 1, period, false);
            const unsigned long newerId = _manager->subscribe(newer, 1, period, false);
            if (_probe->dateOf(olderId) == _probe->dateOf(newerId)) {
                return {olderId, newerId};
            }
            EXPECT_EQ(_manager->unsubscribe(olderId), olderId);
            EXPECT_EQ(_manager->unsubscribe(newerId), newerId);
        }
    }

    VEL_TimerManager* _manager = nullptr;
    ProbeAccess* _probe = nullptr;
};

TEST_P(TimerServiceTest, OneShotFiresOnceAfterItsDelay) {
    auto zero = boost::make_shared<Recorder>();
    auto one = boost::make_shared<Recorder>();
    const Clock::time_point start = Clock::now();
    const unsigned long zeroId = _manager->subscribe(zero, 1, 0, false);
    const unsigned long oneId = _manager->subscribe(one, 1, 1, false);
    ASSERT_NE(zeroId, 0u);
    ASSERT_NE(oneId, zeroId);
    ASSERT_TRUE(zero->waitFor(1, std::chrono::seconds(3)));
    ASSERT_TRUE(one->waitFor(1, std::chrono::seconds(3)));
    for (const auto& timer : {std::make_pair(zero, zeroId), std::make_pair(one, oneId)}) {
        const Recorder::Event event = timer.first->events().at(0);
        EXPECT_EQ(event.id, timer.second);
        EXPECT_GE(millisecondsBetween(start, event.at), 1000 - kTick.count());
        EXPECT_LE(millisecondsBetween(start, event.at), 2500);
    }
    EXPECT_TRUE(timersEnd());  // nothing left to fire again
    EXPECT_EQ(zero->events().size() + one->events().size(), 2u);
}

TEST_P(TimerServiceTest, CountedTimerFiresThatManyTimesOneIntervalApart) {
    auto recorder = boost::make_shared<Recorder>();
    const Clock::time_point start = Clock::now();
    ASSERT_NE(_manager->subscribe(recorder, 1, 3, false), 0u);
    ASSERT_TRUE(recorder->waitFor(3, std::chrono::seconds(6)));
    const std::vector<Recorder::Event> events = recorder->events();
    Clock::time_point previous = start;
    for (const Recorder::Event& event : events) {
        EXPECT_GE(millisecondsBetween(previous, event.at), 1000 - kTick.count());
        EXPECT_LE(millisecondsBetween(previous, event.at), 2000);
        previous = event.at;
    }
    EXPECT_TRUE(timersEnd());
    EXPECT_EQ(recorder->events().size(), 3u);
}

TEST_P(TimerServiceTest, RawSubscriberRepeatsUntilUnsubscribedAndIsToldOnce) {
    Recorder recorder;
    const unsigned long id = _manager->subscribe(&recorder, 1, -1);
    ASSERT_TRUE(recorder.waitFor(2, std::chrono::seconds(4)));
    EXPECT_EQ(recorder.events().at(1).id, id);
    // Between two shots the timer waits in the queue: unsubscribe cancels it outright.
    ASSERT_FALSE(recorder.waitFor(3, milliseconds(300)));
    EXPECT_EQ(_manager->unsubscribe(id), id);
    EXPECT_EQ(recorder.cancels.load(), 1);
    EXPECT_EQ(_probe->timerCount(), 0u);
    EXPECT_EQ(_manager->unsubscribe(id), 0u);  // unknown by now
    EXPECT_FALSE(recorder.waitFor(3, milliseconds(1200)));
    EXPECT_EQ(recorder.cancels.load(), 1);
}

TEST_P(TimerServiceTest, WeakSubscriberDestroyedBeforeItFiresIsNotCalled) {
    veltest::RecordingSink sink(kVELTrace_Thread);
    veltest::ScopedSink installed(&sink);
    auto weak = boost::make_shared<Recorder>();
    auto strong = boost::make_shared<Recorder>();
    boost::weak_ptr<Recorder> weakWatch = weak;
    boost::weak_ptr<Recorder> strongWatch = strong;
    _manager->subscribe(weak, 1, 0, true);
    _manager->subscribe(strong, 1, 0, false);
    weak.reset();
    strong.reset();
    EXPECT_TRUE(weakWatch.expired());     // the timer did not keep it alive
    EXPECT_FALSE(strongWatch.expired());  // this one it did
    EXPECT_TRUE(veltest::WaitFor(
            [&] { return sink.contains("Handle event of already deleted subscriber"); },
            std::chrono::seconds(3)));
    EXPECT_TRUE(timersEnd());
    EXPECT_TRUE(strongWatch.expired());  // released when its timer ended
    const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "THREAD - Handle event of already deleted subscriber");
    EXPECT_EQ(lines[0].level, kVELLevel_Info);
}

TEST_P(TimerServiceTest, TimersWithTheSameDateFireNewestFirst) {
    auto recorder = boost::make_shared<Recorder>();
    const auto [older, newer] = sameDatePair(recorder, recorder, 0);
    ASSERT_TRUE(recorder->waitFor(2, std::chrono::seconds(3)));
    const std::vector<Recorder::Event> events = recorder->events();
    EXPECT_EQ(events[0].id, newer);
    EXPECT_EQ(events[1].id, older);
}

TEST_P(TimerServiceTest, UnsubscribeOfATimerOnItsWayToItsCallback) {
    veltest::Gate gate;
    auto running = boost::make_shared<Recorder>();
    auto pending = boost::make_shared<Recorder>();
    running->before = [&gate](unsigned long) { gate.pass(); };
    boost::weak_ptr<Recorder> pendingWatch = pending;
    // Same date: the newer one runs first and blocks while the older one waits its turn.
    const std::pair<unsigned long, unsigned long> ids = sameDatePair(pending, running, -1);
    const unsigned long pendingId = ids.first;
    const unsigned long runningId = ids.second;
    pending.reset();
    ASSERT_TRUE(gate.waitEntered(std::chrono::seconds(3)));
    // The waiting one is released at once and never called.
    EXPECT_EQ(_manager->unsubscribe(pendingId), 0u);
    EXPECT_TRUE(pendingWatch.expired());
    // The running one: unsubscribe waits for its callback to return.
    std::atomic<bool> returned{false};
    unsigned long result = 1;
    std::thread canceller([&] {
        result = _manager->unsubscribe(runningId);
        returned.store(true);
    });
    EXPECT_FALSE(veltest::WaitFor([&] { return returned.load(); }, milliseconds(200)));
    gate.open();
    canceller.join();
    EXPECT_EQ(result, 0u);
    EXPECT_TRUE(timersEnd());
    EXPECT_EQ(running->events().size(), 1u);
    EXPECT_EQ(running->cancels.load(), 0);
}

TEST_P(TimerServiceTest, CallbackMayUnsubscribeItsOwnTimer) {
    auto recorder = boost::make_shared<Recorder>();
    std::atomic<unsigned long> result{1};
    recorder->before = [&](unsigned long id) { result.store(_manager->unsubscribe(id)); };
    _manager->subscribe(recorder, 0, -1, false);
    ASSERT_TRUE(recorder->waitFor(1, std::chrono::seconds(2)));
    EXPECT_TRUE(timersEnd());
    EXPECT_EQ(result.load(), 0u);  // it was on its way to this very callback
    EXPECT_EQ(recorder->events().size(), 1u);
}

TEST_P(TimerServiceTest, SubscriberIsNeverCalledAfterUnsubscribeReturns) {
    // Raw subscribers, each destroyed as soon as its unsubscribe returns (a late call would
    // touch freed memory) while their timers fire every tick. Each callback takes a millisecond,
    // so that the unsubscribes meet timers on their way to their callbacks.
    struct Guarded : VEL_TimerSubscriberInterface {
        std::atomic<bool> gone{false};
        std::atomic<int>* lateCalls;
        std::atomic<int>* calls;
        void handleEvent(unsigned long) override {
            ++*calls;
            std::this_thread::sleep_for(milliseconds(1));
            if (gone.load()) {
                ++*lateCalls;
            }
        }
    };
    int onTheirWay = 0;
    std::vector<std::unique_ptr<Guarded>> kept;
    std::atomic<int> lateCalls{0};
    std::atomic<int> calls{0};
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    const Clock::time_point end = Clock::now() + milliseconds(1500);
    int rounds = 0;
    while (Clock::now() < end && rounds < 200) {
        ++rounds;
        std::vector<std::unique_ptr<Guarded>> subscribers;
        std::vector<unsigned long> ids;
        const int callsBefore = calls.load();
        for (int i = 0; i < 32; ++i) {
            subscribers.emplace_back(new Guarded);
            subscribers.back()->lateCalls = &lateCalls;
            subscribers.back()->calls = &calls;
            ids.push_back(_manager->subscribe(subscribers.back().get(), 0, -1));
        }
        ASSERT_TRUE(veltest::WaitFor([&] { return calls.load() > callsBefore; },
                                     std::chrono::seconds(2)));
        // Not a wait for a condition: it moves the unsubscribes to random points of the batch
        // of callbacks, which runs the newest timer first.
        std::this_thread::sleep_for(milliseconds(random() % 40));
        for (size_t i = 0; i < ids.size(); ++i) {
            onTheirWay += _manager->unsubscribe(ids[i]) == 0 ? 1 : 0;
            subscribers[i]->gone.store(true);
            // Half are destroyed at once (a late call is a use after free); the others are kept,
            // so that a late call is also counted where that goes unnoticed.
            if (i % 2 == 0) {
                subscribers[i].reset();
            } else {
                kept.push_back(std::move(subscribers[i]));
            }
        }
    }
    EXPECT_TRUE(timersEnd());
    EXPECT_EQ(lateCalls.load(), 0);
    EXPECT_GT(onTheirWay, 0);  // the race was met
}

TEST_P(TimerServiceTest, SlowCallback) {
    veltest::Gate gate;
    auto slow = boost::make_shared<Recorder>(_probe);
    auto later = boost::make_shared<Recorder>(_probe);
    slow->before = [&gate](unsigned long) { gate.pass(); };
    const basis::TimeValue tick(0, kTick.count() * 1000);
    const unsigned long slowId = _manager->subscribe(slow, 1, 0, false);
    // Two more timers, each at least two ticks later than the previous one.
    const basis::TimeValue slowBase = _probe->dateOf(slowId) - basis::TimeValue(1, 0);
    ASSERT_TRUE(reach(slowBase + tick + tick));
    const unsigned long b = _manager->subscribe(later, 1, 0, false);
    ASSERT_TRUE(reach(_probe->dateOf(b) - basis::TimeValue(1, 0) + tick));
    const unsigned long c = _manager->subscribe(later, 1, 0, false);
    const basis::TimeValue lastDate = _probe->dateOf(c);
    ASSERT_TRUE(gate.waitEntered(std::chrono::seconds(3)));
    ASSERT_TRUE(reach(lastDate + tick + tick + tick));
    const unsigned long passesWhileBlocked = _probe->passes.load();
    gate.open();
    ASSERT_TRUE(later->waitFor(2, std::chrono::seconds(2)));
    const Recorder::Event slowEvent = slow->events().at(0);
    const std::vector<Recorder::Event> events = later->events();
    EXPECT_EQ(events[0].id, b);
    EXPECT_EQ(events[1].id, c);
    EXPECT_LE(millisecondsBetween(slowEvent.at, events[1].at), 3000);
    if (isAsync()) {
        // The wheel went on turning while the callback ran on the second stage.
        EXPECT_GE(passesWhileBlocked - slowEvent.pass, 3u);
    } else {
        // The timer thread was held up; its next pass caught up both slots before triggering.
        EXPECT_EQ(passesWhileBlocked, slowEvent.pass);
        EXPECT_EQ(events[0].pass, events[1].pass);
        EXPECT_EQ(events[0].pass, slowEvent.pass + 1);
    }
}

TEST_P(TimerServiceTest, ExceptionsDoNotStopTheTimerThread) {
    veltest::RecordingSink sink(kVELTrace_ThreadError);
    veltest::ScopedSink installed(&sink);
    auto thrower = boost::make_shared<Recorder>();
    thrower->before = [](unsigned long) { throw std::bad_alloc(); };
    _manager->subscribe(thrower, 0, -1, false);
    EXPECT_TRUE(timersEnd());  // a callback that throws ends its timer
    // Exceptions out of the loop itself, one pass each.
    for (int kind = 1; kind <= 3; ++kind) {
        _probe->throwOnPass.store(kind);
        ASSERT_TRUE(veltest::WaitFor([&] { return _probe->throwOnPass.load() == 0; }));
    }
    auto after = boost::make_shared<Recorder>();
    _manager->subscribe(after, 0, 0, false);
    EXPECT_TRUE(after->waitFor(1, std::chrono::seconds(2)));
    const char* const expected[][2] = {
            {"Allocation of data failed {", "} ; Timer caught memory exception."},
            {"Allocation of data failed {", "} ; VEL_TimerManager caught memory exception."},
            {"A STL exception has been caught {", "} ; VEL_TimerManager caught STL exception."},
            {"An unknown exception has been caught {",
             "} ; VEL_TimerManager caught unknown exception."}};
    const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
    ASSERT_EQ(lines.size(), 4u);
    for (size_t i = 0; i < lines.size(); ++i) {
        const std::string& text = lines[i].text;
        const std::string head = std::string("THREAD - ") + expected[i][0];
        const std::string tail = expected[i][1];
        EXPECT_EQ(text.compare(0, head.size(), head), 0) << text;
        EXPECT_GE(text.size(), tail.size());
        EXPECT_EQ(text.compare(text.size() - tail.size(), tail.size(), tail), 0) << text;
        EXPECT_EQ(lines[i].level, kVELLevel_Error);
    }
}

// Tells whether the manager was reachable, and what unsubscribing itself gave, when destroyed.
class SelfCancelling : public VEL_TimerSubscriberInterface {
public:
    SelfCancelling(std::atomic<int>* seen, std::atomic<unsigned long>* result)
        : _seen(seen), _result(result) {}
    ~SelfCancelling() override {
        VEL_TimerManager* manager = VEL_TimerManager::PeekInstance();
        _seen->store(manager != nullptr ? 1 : 0);
        if (manager != nullptr) {
            _result->store(manager->unsubscribe(id));
        }
    }
    void handleEvent(unsigned long) override {}
    void cancel() override { ++cancels; }
    unsigned long id = 0;
    std::atomic<int> cancels{0};

private:
    std::atomic<int>* _seen;
    std::atomic<unsigned long>* _result;
};

TEST_P(TimerServiceTest, CloseSingletonEndsEveryTimerAndReleasesItsSubscriber) {
    veltest::Gate gate;
    auto running = boost::make_shared<Recorder>();
    auto pending = boost::make_shared<Recorder>();
    running->before = [&gate](unsigned long) { gate.pass(); };
    std::atomic<int> seen{-1};
    std::atomic<unsigned long> result{1};
    auto waiting = boost::make_shared<SelfCancelling>(&seen, &result);
    boost::weak_ptr<Recorder> runningWatch = running;
    boost::weak_ptr<Recorder> pendingWatch = pending;
    waiting->id = _manager->subscribe(waiting, 5, 0, false);
    waiting.reset();
    sameDatePair(pending, running, 0);
    ASSERT_TRUE(gate.waitEntered(std::chrono::seconds(3)));
    std::thread closer([] { VEL_TimerManager::CloseSingleton(); });
    EXPECT_TRUE(veltest::WaitFor([&] { return _probe->stopping(); }));
    gate.open();
    closer.join();
    EXPECT_EQ(VEL_TimerManager::PeekInstance(), nullptr);
    EXPECT_EQ(running->events().size(), 1u);
    EXPECT_TRUE(pending->events().empty());
    EXPECT_EQ(pending->cancels.load(), 0);
    running.reset();
    pending.reset();
    EXPECT_TRUE(runningWatch.expired());
    EXPECT_TRUE(pendingWatch.expired());
    // Released during the close, it still found the manager, with nothing left to cancel.
    EXPECT_EQ(seen.load(), 1);
    EXPECT_EQ(result.load(), 0u);
}

INSTANTIATE_TEST_SUITE_P(Strategies, TimerServiceTest,
                         ::testing::Values(kVELTimerAlgo_Linear, kVELTimerAlgo_Circular),
                         strategyName);

class TimerWheelTest : public TimerServiceTest {};

TEST_P(TimerWheelTest, SlotFollowsTheExpiryDate) {
    struct Case {
        unsigned long duration;
        long slotsAhead;
    };
    // One tick after the date: 8 ticks a second, plus one, modulo 64 slots.
    const Case cases[] = {{0, 1}, {1, 9}, {7, 57}, {8, 1}, {10, 17}};
    auto recorder = boost::make_shared<Recorder>();
    for (const Case& c : cases) {
        SCOPED_TRACE(c.duration);
        long before = 0;
        unsigned long id = 0;
        basis::TimeValue wheelDate;
        do {  // again if the wheel turned meanwhile, or had not yet turned to the current tick
            if (id != 0) {
                _manager->unsubscribe(id);
            }
            before = _probe->currentSlot();
            wheelDate = _probe->wheelDate();
            id = _manager->subscribe(recorder, c.duration, 0, false);
        } while (_probe->currentSlot() != before ||
                 _probe->dateOf(id) - basis::TimeValue(static_cast<long>(c.duration), 0) !=
                         wheelDate);
        EXPECT_EQ(_probe->slotOf(id), (before + c.slotsAhead) % 64);
        if (c.duration >= 7) {
            EXPECT_EQ(_manager->unsubscribe(id), id);
        }
    }
    EXPECT_TRUE(recorder->waitFor(2, std::chrono::seconds(2)));
}

TEST_P(TimerWheelTest, TimerMoreThanATurnAheadIsPassedOver) {
    auto recorder = boost::make_shared<Recorder>();
    const unsigned long id = _manager->subscribe(recorder, 8, 0, false);
    const long slot = _probe->slotOf(id);
    // Wait until the wheel has gone two slots past it.
    ASSERT_TRUE(veltest::WaitFor([&] { return _probe->currentSlot() == (slot + 2) % 64; },
                                 std::chrono::seconds(2)));
    EXPECT_TRUE(recorder->events().empty());
    EXPECT_EQ(_probe->slotOf(id), slot);
    EXPECT_EQ(_manager->unsubscribe(id), id);  // still waiting in its slot
    EXPECT_EQ(recorder->cancels.load(), 1);
}

INSTANTIATE_TEST_SUITE_P(Strategies, TimerWheelTest, ::testing::Values(kVELTimerAlgo_Circular),
                         strategyName);

class TimerStrategyChoiceTest : public ::testing::Test {
protected:
    void SetUp() override { VEL_TimerManager::CloseSingleton(); }
    void TearDown() override {
        VEL_TimerManager::CloseSingleton();
        VEL_TimerManager::RegisterFactory(nullptr);
        VEL_TimerManager::Init(kVELTimerAlgo_CircularAsync);
    }
    template <class T>
    static bool instanceIs() {
        return dynamic_cast<T*>(VEL_TimerManager::GetInstance()) != nullptr;
    }
};

TEST_F(TimerStrategyChoiceTest, InitAndFactoryTakeEffectAtTheNextCreation) {
    VEL_TimerManager::Init(kVELTimerAlgo_Linear);
    EXPECT_EQ(VEL_TimerManager::PeekInstance(), nullptr);
    VEL_TimerManager* first = VEL_TimerManager::GetInstance();
    EXPECT_NE(dynamic_cast<VEL_TimerManagerLinearQueue*>(first), nullptr);
    EXPECT_EQ(VEL_TimerManager::GetInstance(), first);
    VEL_TimerManager::Init(kVELTimerAlgo_Circular);
    EXPECT_TRUE(instanceIs<VEL_TimerManagerLinearQueue>());  // until the next creation
    VEL_TimerManager::CloseSingleton();
    EXPECT_EQ(VEL_TimerManager::PeekInstance(), nullptr);
    EXPECT_TRUE(instanceIs<VEL_TimerManagerCircularQueue>());
    // A factory wins over the algorithm, from the next creation on.
    VEL_TimerManager::RegisterFactory(&Probe<VEL_TimerManagerLinearQueue>::Create);
    EXPECT_TRUE(instanceIs<VEL_TimerManagerCircularQueue>());
    VEL_TimerManager::CloseSingleton();
    EXPECT_TRUE(instanceIs<Probe<VEL_TimerManagerLinearQueue>>());
    VEL_TimerManager::CloseSingleton();
    VEL_TimerManager::RegisterFactory(nullptr);
    VEL_TimerManager::Init(static_cast<VELTimerAlgorithm_t>(3));
    EXPECT_EQ(VEL_TimerManager::GetInstance(), nullptr);  // unknown algorithm
}

TEST_F(TimerStrategyChoiceTest, IdentifiersStayUniqueAcrossARestart) {
    VEL_TimerManager::Init(kVELTimerAlgo_Circular);
    auto recorder = boost::make_shared<Recorder>();
    const unsigned long first = VEL_TimerManager::GetInstance()->subscribe(recorder, 5, 0, false);
    const unsigned long second = VEL_TimerManager::GetInstance()->subscribe(recorder, 5, 0, false);
    EXPECT_EQ(VEL_TimerManager::GetInstance()->unsubscribe(first), first);
    // Given back: reused first.
    EXPECT_EQ(VEL_TimerManager::GetInstance()->subscribe(recorder, 5, 0, false), first);
    VEL_TimerManager::CloseSingleton();
    EXPECT_EQ(VEL_TimerManager::GetInstance()->subscribe(recorder, 5, 0, false), second + 1);
}

TEST_F(TimerStrategyChoiceTest, ThreadThatCannotStartIsReportedAndNothingIsStored) {
    veltest::RecordingSink sink(kVELTrace_ThreadError);
    veltest::ScopedSink installed(&sink);
    VEL_TimerManager::Init(kVELTimerAlgo_Linear);
    // Threads asking for an impossible stack cannot be created.
    pthread_attr_t saved;
    pthread_attr_t huge;
    ASSERT_EQ(pthread_getattr_default_np(&saved), 0);
    ASSERT_EQ(pthread_attr_init(&huge), 0);
    ASSERT_EQ(pthread_attr_setstacksize(&huge, static_cast<size_t>(1) << 46), 0);
    ASSERT_EQ(pthread_setattr_default_np(&huge), 0);
    std::string what;
    try {
        VEL_TimerManager::GetInstance();
    } catch (const std::runtime_error& e) {
        what = e.what();
    }
    const long err = basis::Thread::GetLastSystemErr();
    ASSERT_EQ(pthread_setattr_default_np(&saved), 0);
    pthread_attr_destroy(&huge);
    pthread_attr_destroy(&saved);
    EXPECT_NE(err, 0);
    EXPECT_EQ(what, "Failed to spawn timer manager thread : " + std::to_string(err));
    EXPECT_EQ(VEL_TimerManager::PeekInstance(), nullptr);
    ASSERT_EQ(sink.texts().size(), 1u);
    EXPECT_EQ(sink.texts()[0],
              "THREAD -  Unknown error :206 {" + std::to_string(err) +
                      "} ; Failed to spawn timer manager thread : " + std::to_string(err));
    EXPECT_NE(VEL_TimerManager::GetInstance(), nullptr);  // a later attempt may succeed
}

}  // namespace
