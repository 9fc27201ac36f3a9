#include "VEL_TimerManager.h"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
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
#include "VEL_TimerManagerCircularQueueAsync.h"
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
    // Read the handler's date and slot only while its timer cannot fire.
    virtual VEL_TimerHandler& handler(unsigned long id) = 0;
    // The current slot and its date (-1 without a wheel).
    virtual std::pair<long, basis::TimeValue> wheel() = 0;
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
    VEL_TimerHandler& handler(unsigned long id) override {
        basis::ReadGuard<basis::RWThreadMutex> hold(this->_registryLock);
        VEL_TimerHandler* found = this->_registry.find(static_cast<std::uint32_t>(id));
        if (found == nullptr) {
            throw std::out_of_range("no timer " + std::to_string(id));
        }
        return *found;
    }
    std::pair<long, basis::TimeValue> wheel() override {
        if constexpr (std::is_base_of<VEL_TimerManagerCircularQueue, Base>::value) {
            basis::ReadGuard<basis::RWThreadMutex> hold(this->_registryLock);
            return {static_cast<long>(this->_current), this->_wheelDate};
        }
        return {-1, basis::TimeValue()};
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
        }
    }
};

VEL_TimerManager::Factory_t probeFactory(VELTimerAlgorithm_t algorithm) {
    switch (algorithm) {
        case kVELTimerAlgo_Linear:
            return &Probe<VEL_TimerManagerLinearQueue>::Create;
        case kVELTimerAlgo_Circular:
            return &Probe<VEL_TimerManagerCircularQueue>::Create;
        case kVELTimerAlgo_CircularAsync:
            return &Probe<VEL_TimerManagerCircularQueueAsync>::Create;
    }
    return nullptr;
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
    ~Recorder() override {
        if (onDestroy) {
            onDestroy();
        }
    }
    std::function<void()> onDestroy;

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
    basis::TimeValue dateOf(unsigned long id) { return _probe->handler(id).getCurrentDate(); }
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
            if (dateOf(olderId) == dateOf(newerId)) {
                return {olderId, newerId};
            }
            EXPECT_EQ(_manager->unsubscribe(olderId), olderId);
            EXPECT_EQ(_manager->unsubscribe(newerId), newerId);
        }
    }

    VEL_TimerManager* _manager = nullptr;
    ProbeAccess* _probe = nullptr;
};

TEST_P(TimerServiceTest, FiresOnceCountTimesOrUntilUnsubscribedOneIntervalApart) {
    auto once = boost::make_shared<Recorder>();
    auto thrice = boost::make_shared<Recorder>();
    Recorder repeating;  // a raw subscriber
    const Clock::time_point start = Clock::now();
    ASSERT_NE(_manager->subscribe(once, 1, 0, false), 0u);
    ASSERT_NE(_manager->subscribe(thrice, 1, 3, false), 0u);
    const unsigned long id = _manager->subscribe(&repeating, 1, -1);
    ASSERT_TRUE(thrice->waitFor(3, std::chrono::seconds(6)));
    ASSERT_TRUE(repeating.waitFor(3, std::chrono::seconds(2)));
    // Between two shots the timer waits in the queue: unsubscribe cancels it outright.
    ASSERT_FALSE(repeating.waitFor(4, milliseconds(300)));
    EXPECT_EQ(_manager->unsubscribe(id), id);
    EXPECT_EQ(repeating.cancels.load(), 1);
    EXPECT_TRUE(timersEnd());                  // the counted ones have nothing left to fire
    EXPECT_EQ(_manager->unsubscribe(id), 0u);  // unknown by now
    const std::vector<Recorder::Event> histories[] = {once->events(), thrice->events(),
                                                      repeating.events()};
    for (size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(histories[i].size(), i == 0 ? 1u : 3u);
        Clock::time_point previous = start;
        for (const Recorder::Event& event : histories[i]) {
            EXPECT_GE(millisecondsBetween(previous, event.at), 1000 - kTick.count());
            EXPECT_LE(millisecondsBetween(previous, event.at), 2000);
            previous = event.at;
        }
    }
    EXPECT_EQ(histories[2].back().id, id);
    EXPECT_FALSE(repeating.waitFor(4, milliseconds(1200)));
    EXPECT_EQ(repeating.cancels.load(), 1);
}

// A repeating weak timer whose subscriber had gone used to live, and trace, for ever.
TEST_P(TimerServiceTest, WeakSubscriberDestroyedBeforeItFiresIsNotCalledAndItsTimerEnds) {
    veltest::RecordingSink sink(kVELTrace_Thread);
    veltest::ScopedSink installed(&sink);
    auto weak = boost::make_shared<Recorder>();
    auto strong = boost::make_shared<Recorder>();
    boost::weak_ptr<Recorder> weakWatch = weak;
    boost::weak_ptr<Recorder> strongWatch = strong;
    // The strong one ends its own repeating timer from its callback.
    std::atomic<unsigned long> result{1};
    strong->before = [&](unsigned long id) { result.store(_manager->unsubscribe(id)); };
    _manager->subscribe(weak, 1, -1, true);
    _manager->subscribe(strong, 1, -1, false);
    weak.reset();
    strong.reset();
    EXPECT_TRUE(weakWatch.expired());     // the timer did not keep it alive
    EXPECT_FALSE(strongWatch.expired());  // this one it did, until the timer ended
    EXPECT_TRUE(timersEnd());
    EXPECT_TRUE(strongWatch.expired());
    EXPECT_EQ(result.load(), 0u);  // it was on its way to this very callback
    const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].text, "THREAD - Handle event of already deleted subscriber");
    EXPECT_EQ(lines[0].level, kVELLevel_Info);
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

TEST_P(TimerServiceTest, SubscriberIsNeverCalledAfterUnsubscribeReturns) {
    // Raw subscribers of timers firing every tick, each marked gone as soon as its unsubscribe
    // returns; half are destroyed then too (a late call is a use after free). A callback takes
    // a millisecond, so that unsubscribes meet timers on their way to their callbacks.
    struct Guarded : VEL_TimerSubscriberInterface {
        std::atomic<bool> gone{false};
        std::atomic<int>* calls = nullptr;
        std::atomic<int>* lateCalls = nullptr;
        void handleEvent(unsigned long) override {
            ++*calls;
            std::this_thread::sleep_for(milliseconds(1));
            *lateCalls += gone.load() ? 1 : 0;
        }
    };
    std::atomic<int> calls{0};
    std::atomic<int> lateCalls{0};
    int onTheirWay = 0;
    std::vector<std::unique_ptr<Guarded>> kept;
    const unsigned seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    std::mt19937 random(seed);
    for (const Clock::time_point end = Clock::now() + milliseconds(1500); Clock::now() < end;) {
        std::vector<std::pair<unsigned long, std::unique_ptr<Guarded>>> timers(32);
        const int callsBefore = calls.load();
        for (auto& [id, subscriber] : timers) {
            subscriber.reset(new Guarded);
            subscriber->calls = &calls;
            subscriber->lateCalls = &lateCalls;
            id = _manager->subscribe(subscriber.get(), 0, -1);
        }
        ASSERT_TRUE(veltest::WaitFor([&] { return calls.load() > callsBefore; }));
        // Not a wait for a condition: it moves the unsubscribes to random points of the batch
        // of callbacks, which runs the newest timer first.
        std::this_thread::sleep_for(milliseconds(random() % 40));
        for (size_t i = 0; i < timers.size(); ++i) {
            onTheirWay += _manager->unsubscribe(timers[i].first) == 0 ? 1 : 0;
            timers[i].second->gone.store(true);
            if (i % 2 == 0) {
                kept.push_back(std::move(timers[i].second));
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
    const basis::TimeValue slowBase = dateOf(slowId) - basis::TimeValue(1, 0);
    ASSERT_TRUE(reach(slowBase + tick + tick));
    const unsigned long b = _manager->subscribe(later, 1, 0, false);
    ASSERT_TRUE(reach(dateOf(b) - basis::TimeValue(1, 0) + tick));
    const unsigned long c = _manager->subscribe(later, 1, 0, false);
    const basis::TimeValue lastDate = dateOf(c);
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
    // Exceptions out of the loop itself, one pass each (a throwing callback is the handler's).
    for (int kind = 1; kind <= 3; ++kind) {
        _probe->throwOnPass.store(kind);
        ASSERT_TRUE(veltest::WaitFor([&] { return _probe->throwOnPass.load() == 0; }));
    }
    auto after = boost::make_shared<Recorder>();
    _manager->subscribe(after, 0, 0, false);
    EXPECT_TRUE(after->waitFor(1, std::chrono::seconds(2)));
    const char* const expected[][2] = {
            {"Allocation of data failed {", "} ; VEL_TimerManager caught memory exception."},
            {"A STL exception has been caught {", "} ; VEL_TimerManager caught STL exception."},
            {"An unknown exception has been caught {",
             "} ; VEL_TimerManager caught unknown exception."}};
    const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
    ASSERT_EQ(lines.size(), 3u);
    for (size_t i = 0; i < lines.size(); ++i) {
        // The number between the braces is the timer thread's last system error.
        const std::string& text = lines[i].text;
        const size_t close = text.find('}');
        ASSERT_NE(close, std::string::npos) << text;
        EXPECT_EQ(text.substr(0, text.find('{') + 1), std::string("THREAD - ") + expected[i][0]);
        EXPECT_EQ(text.substr(close), expected[i][1]);
        EXPECT_EQ(lines[i].level, kVELLevel_Error);
    }
}

TEST_P(TimerServiceTest, CloseSingletonEndsEveryTimerAndReleasesItsSubscriber) {
    veltest::Gate gate;
    auto running = boost::make_shared<Recorder>();
    auto pending = boost::make_shared<Recorder>();
    running->before = [&gate](unsigned long) { gate.pass(); };
    boost::weak_ptr<Recorder> runningWatch = running;
    boost::weak_ptr<Recorder> pendingWatch = pending;
    // Released by the close, a subscriber may still cancel its own timer on its way out.
    auto waiting = boost::make_shared<Recorder>();
    unsigned long waitingId = 0;
    VEL_TimerManager* seen = nullptr;
    unsigned long result = 1;
    waiting->onDestroy = [&] {
        seen = VEL_TimerManager::PeekInstance();
        result = seen != nullptr ? seen->unsubscribe(waitingId) : 1;
    };
    waitingId = _manager->subscribe(waiting, 5, 0, false);
    waiting.reset();
    sameDatePair(pending, running, 0);  // same date: the newer one, running, fires first
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
    // It still found the manager, with nothing left to cancel.
    EXPECT_EQ(seen, _manager);
    EXPECT_EQ(result, 0u);
}

// Child body: closes the manager from a callback, then from a subscriber's destructor during a
// close. Both used to kill the process. Exits 0 when both were refused with their warning, the
// manager went on serving, and the close from this ordinary thread went through.
[[noreturn]] void closeFromInsideTheTimerService(VEL_TimerManager* manager) {
    veltest::RecordingSink sink(kVELTrace_ThreadError);
    veltest::ScopedSink installed(&sink);
    auto closer = boost::make_shared<Recorder>();
    closer->before = [](unsigned long) { VEL_TimerManager::CloseSingleton(); };
    (void)manager->subscribe(closer, 0, 0, false);
    if (!closer->waitFor(1, std::chrono::seconds(3))) {
        std::_Exit(2);
    }
    auto later = boost::make_shared<Recorder>();
    (void)manager->subscribe(later, 0, 0, false);
    if (VEL_TimerManager::PeekInstance() != manager ||
        !later->waitFor(1, std::chrono::seconds(3))) {
        std::_Exit(3);
    }
    auto released = boost::make_shared<Recorder>();
    released->onDestroy = [] { VEL_TimerManager::CloseSingleton(); };
    (void)manager->subscribe(released, 5, 0, false);
    released.reset();  // the manager holds the last reference, which the close drops
    VEL_TimerManager::CloseSingleton();
    if (VEL_TimerManager::PeekInstance() != nullptr) {
        std::_Exit(4);
    }
    const std::string refused = "THREAD - " + VEL_Tools::GetErrStr(kVELErr_TaskRunning) + " ; ";
    const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
    const bool traced =
            lines.size() == 2 && lines[0].level == kVELLevel_Warn &&
            lines[0].text == refused +
                                     "CloseSingleton called from a timer thread: the timer "
                                     "manager stays open" &&
            lines[1].level == kVELLevel_Warn &&
            lines[1].text == refused +
                                     "CloseSingleton called while the timer manager is "
                                     "closing: ignored";
    std::_Exit(traced ? 0 : 5);
}

TEST_P(TimerServiceTest, CloseSingletonFromACallbackOrAClosingDestructorIsRefused) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // the child needs a manager with its threads
    EXPECT_EXIT(closeFromInsideTheTimerService(_manager), ::testing::ExitedWithCode(0), "");
}

INSTANTIATE_TEST_SUITE_P(Strategies, TimerServiceTest,
                         ::testing::Values(kVELTimerAlgo_Linear, kVELTimerAlgo_Circular,
                                           kVELTimerAlgo_CircularAsync),
                         strategyName);

class TimerWheelTest : public TimerServiceTest {};

TEST_P(TimerWheelTest, SlotFollowsTheExpiryDate) {
    // One tick after the date: 8 ticks a second plus one, modulo 64 slots; a timer more than
    // a turn ahead waits in its slot while the wheel passes it.
    const std::pair<unsigned long, long> cases[] = {{0, 1}, {1, 9}, {7, 57}, {8, 1}, {10, 17}};
    auto recorder = boost::make_shared<Recorder>();
    for (const auto& [duration, ahead] : cases) {
        SCOPED_TRACE(duration);
        std::pair<long, basis::TimeValue> wheel;
        unsigned long id = 0;
        do {  // again if the wheel turned meanwhile, or had not yet turned to the current tick
            if (id != 0) {
                _manager->unsubscribe(id);
            }
            wheel = _probe->wheel();
            id = _manager->subscribe(recorder, duration, 0, false);
        } while (_probe->wheel() != wheel ||
                 dateOf(id) - basis::TimeValue(static_cast<long>(duration), 0) != wheel.second);
        const long slot = static_cast<long>(_probe->handler(id).getPos());
        EXPECT_EQ(slot, (wheel.first + ahead) % 64);
        if (duration == 8) {
            ASSERT_TRUE(veltest::WaitFor([&] { return _probe->wheel().first == (slot + 2) % 64; },
                                         std::chrono::seconds(2)));
            EXPECT_EQ(_probe->handler(id).getPos(), static_cast<unsigned long>(slot));
        }
        if (duration >= 7) {
            EXPECT_EQ(_manager->unsubscribe(id), id);  // still waiting
        }
    }
    EXPECT_TRUE(timersEnd());
    EXPECT_EQ(recorder->events().size(), 2u);
}

INSTANTIATE_TEST_SUITE_P(Strategies, TimerWheelTest,
                         ::testing::Values(kVELTimerAlgo_Circular, kVELTimerAlgo_CircularAsync),
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
    EXPECT_TRUE(instanceIs<VEL_TimerManagerCircularQueueAsync>());  // nothing configured
    VEL_TimerManager::CloseSingleton();
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
