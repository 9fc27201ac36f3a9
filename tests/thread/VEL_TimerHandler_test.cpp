#include "VEL_TimerHandler.h"

#include <cstdint>
#include <functional>
#include <list>
#include <new>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_TimerManager.h"
#include "VEL_TimerRegistry.h"
#include "VEL_TimerSubscriberInterface.h"
#include "VEL_Tools.h"

namespace {

// A manager without a thread: records the handlers put back into its queue.
class FakeManager : public VEL_TimerManager {
public:
    unsigned long unsubscribe(unsigned long) override { return 0; }
    std::vector<unsigned long> placedArgs;

protected:
    unsigned long subscribeImpl(const boost::shared_ptr<VEL_TimerSubscriberInterface>&,
                                unsigned long, long) override {
        return 0;
    }
    void subscribeHandler(VEL_TimerHandler*, unsigned long arg) override {
        placedArgs.push_back(arg);
    }
    void placeHandler(VEL_TimerHandler* handler) override { subscribeHandler(handler, 0); }
    bool executeSubscribers() override { return true; }
};

class Counter : public VEL_TimerSubscriberInterface {
public:
    void handleEvent(unsigned long id) override {
        ids.push_back(id);
        if (log != nullptr) {
            log->push_back(this);
        }
        if (raise) {
            raise();
        }
    }
    void cancel() override { ++cancels; }

    std::vector<unsigned long> ids;
    int cancels = 0;
    std::vector<Counter*>* log = nullptr;
    std::function<void()> raise;
};

class TimerHandlerTest : public ::testing::Test {
protected:
    ~TimerHandlerTest() override {
        for (VEL_TimerHandler& handler : _handlers) {
            handler.unlock();
        }
    }
    // A handler outside any pool, armed at date `now`.
    VEL_TimerHandler& arm(unsigned long duration, long repeat,
                          const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber,
                          const basis::TimeValue& now = basis::TimeValue(100, 250000)) {
        _handlers.emplace_back();
        _handlers.back().setTimer(duration, repeat, subscriber, nullptr, now);
        return _handlers.back();
    }

    FakeManager _manager;
    std::list<VEL_TimerHandler> _handlers;
};

TEST_F(TimerHandlerTest, RepeatCountGivesTheNumberOfShotsOneIntervalApart) {
    const int kLimit = 20;
    // 0 and 1 both mean once; a count beyond 32 bits is clamped, not cut down to 1. Every shot
    // of a counted timer moves its date on by one interval, the last one too (it used not to);
    // a single shot of count 0 does not.
    const struct {
        long repeat;
        int shots;
        long moves;
    } cases[] = {{0, 1, 0},
                 {1, 1, 1},
                 {2, 2, 2},
                 {3, 3, 3},
                 {0x100000001L, kLimit, kLimit},
                 {-1, kLimit, kLimit},
                 {-7, kLimit, kLimit}};
    for (const auto& [repeat, shots, moves] : cases) {
        SCOPED_TRACE(repeat);
        auto counter = boost::make_shared<Counter>();
        VEL_TimerHandler& handler = arm(2, repeat, counter);
        _manager.placedArgs.clear();
        int fired = 0;
        while (fired < kLimit && !handler.trigger(&_manager, 7)) {
            ++fired;
        }
        EXPECT_EQ(counter->ids.size(), static_cast<size_t>(shots));
        EXPECT_EQ(counter->ids.front(), handler.getID());
        // Put back after each shot but the last, with the strategy's argument passed through;
        // the date is `moves` intervals after the first expiry (100.25 s + 2 s).
        const long rearmed = static_cast<long>(_manager.placedArgs.size());
        EXPECT_EQ(rearmed, shots == kLimit ? kLimit : shots - 1);
        EXPECT_EQ(handler.getCurrentDate(), basis::TimeValue(102 + 2 * moves, 250000));
        EXPECT_EQ(_manager.placedArgs, std::vector<unsigned long>(rearmed, 7));
    }
    // The interval is clamped to 32 bits as well.
    VEL_TimerHandler& longest = arm(0x100000005UL, 0, boost::make_shared<Counter>());
    EXPECT_EQ(longest.getCurrentDate(), basis::TimeValue(100 + 0xFFFFFFFFL, 250000));
}

TEST_F(TimerHandlerTest, CancelFalseLetsThePendingShotFireWithoutTellingTheSubscriber) {
    auto counter = boost::make_shared<Counter>();
    VEL_TimerHandler& handler = arm(1, -1, counter);
    EXPECT_FALSE(handler.trigger(&_manager, 0));
    handler.cancel(false);
    EXPECT_TRUE(handler.trigger(&_manager, 0));
    EXPECT_EQ(counter->ids.size(), 2u);
    EXPECT_EQ(counter->cancels, 0);
    EXPECT_FALSE(handler.isCanceled());
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
        veltest::RecordingSink sink(kVELTrace_ThreadError);
        veltest::ScopedSink installed(&sink);
        auto thrower = boost::make_shared<Counter>();
        thrower->raise = c.raise;
        VEL_TimerHandler& handler = arm(1, -1, thrower);
        EXPECT_TRUE(handler.trigger(&_manager, 0));
        const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
        ASSERT_EQ(lines.size(), 1u);
        EXPECT_EQ(lines[0].level, kVELLevel_Error);
        EXPECT_EQ(lines[0].text, "THREAD - " + VEL_Tools::GetErrStr(c.code) + " ; " + c.text);
    }
    EXPECT_TRUE(_manager.placedArgs.empty());
}

TEST_F(TimerHandlerTest, SlotKeepsDatesSortedWithTheNewestFirstAmongEqualDates) {
    // Seconds of each handler's date, in insertion order: goes first, last, or in between.
    const long dates[] = {5, 3, 5, 7, 3, 6, 5, 1, 9};
    std::vector<VEL_TimerHandler*> inserted;
    VEL_TimerSlot slot;
    for (long date : dates) {
        inserted.push_back(&arm(0, 0, boost::make_shared<Counter>(), basis::TimeValue(date, 0)));
        slot.insert(*inserted.back());
    }
    EXPECT_EQ(slot.getCount(), 9u);
    EXPECT_TRUE(slot.remove(*inserted[5]));
    EXPECT_FALSE(slot.remove(*inserted[5]));  // in no slot any more
    // By insertion index: date 1 (#7); dates 3 (#4, #1); dates 5 (#6, #2, #0); 7 (#3); 9 (#8).
    for (int index : {7, 4, 1, 6, 2, 0, 3}) {
        EXPECT_EQ(slot.takeDue(basis::TimeValue(8, 0)), inserted[index]) << index;
    }
    EXPECT_EQ(slot.takeDue(basis::TimeValue(8, 999999)), nullptr);  // 9 s is later
    EXPECT_EQ(slot.takeDue(basis::TimeValue(9, 0)), inserted[8]);
    EXPECT_EQ(slot.getCount(), 0u);
}

TEST_F(TimerHandlerTest, SlotKeepsEachDateInOrderWhateverPlaceOfItsGroupLeaves) {
    // Five handlers share date 4, one each for dates 2 and 6. Removing the newest, a middle and
    // the oldest of the group must leave the rest in order, and the group must vanish with its
    // last handler while the other dates stay.
    std::vector<VEL_TimerHandler*> inserted;
    VEL_TimerSlot slot;
    const auto insert = [&](long date) {
        inserted.push_back(&arm(0, 0, boost::make_shared<Counter>(), basis::TimeValue(date, 0)));
        slot.insert(*inserted.back());
    };
    for (long date : {4, 2, 4, 4, 6, 4, 4}) {
        insert(date);
    }
    // Date 4, newest first: #6, #5, #3, #2, #0.
    EXPECT_TRUE(slot.remove(*inserted[6]));  // the newest
    EXPECT_TRUE(slot.remove(*inserted[3]));  // in the middle
    EXPECT_TRUE(slot.remove(*inserted[0]));  // the oldest
    EXPECT_FALSE(slot.remove(*inserted[3]));
    EXPECT_EQ(slot.getCount(), 4u);
    insert(4);  // #7, newest of the group again
    for (int index : {1, 7, 5, 2}) {
        EXPECT_EQ(slot.takeDue(basis::TimeValue(5, 0)), inserted[index]) << index;
    }
    EXPECT_EQ(slot.takeDue(basis::TimeValue(5, 0)), nullptr);
    insert(4);  // #8: a fresh group for a date that had emptied
    EXPECT_TRUE(slot.remove(*inserted[8]));
    EXPECT_EQ(slot.takeDue(basis::TimeValue(9, 0)), inserted[4]);
    EXPECT_EQ(slot.getCount(), 0u);
    // Cleared with handlers in a group: they can be placed again.
    insert(3);
    insert(3);
    slot.clear();
    EXPECT_FALSE(slot.remove(*inserted[9]));
    slot.insert(*inserted[9]);
    EXPECT_EQ(slot.takeDue(basis::TimeValue(3, 0)), inserted[9]);
}

TEST(CompositeTimerSubscriberTest, CallsEverySubscriberInListOrderWithTheSameId) {
    std::vector<Counter*> log;
    Counter a, b, c;
    for (Counter* counter : {&a, &b, &c}) {
        counter->log = &log;
    }
    VEL_CompositeTimerSubscriber composite({&c, &a, &b});
    VEL_CompositeTimerSubscriber copy(composite);
    copy.handleEvent(42);
    EXPECT_EQ(log, (std::vector<Counter*>{&c, &a, &b}));
    EXPECT_EQ(a.ids, std::vector<unsigned long>{42});
    composite.cancel();  // not forwarded
    EXPECT_EQ(a.cancels + b.cancels + c.cancels, 0);
}

// Distinct fake handler addresses; the registry never dereferences them.
VEL_TimerHandler* fake(std::uint32_t id) {
    return reinterpret_cast<VEL_TimerHandler*>(static_cast<std::uintptr_t>(id) * 16 + 8);
}

// Runs a random mix of inserts and erases over `ids` against a std::unordered_map and checks
// every identifier of `ids` after each step.
void replay(const std::vector<std::uint32_t>& ids, unsigned seed, int steps) {
    VEL_TimerRegistry registry;
    std::unordered_map<std::uint32_t, VEL_TimerHandler*> model;
    std::mt19937 random(seed);
    for (int step = 0; step < steps; ++step) {
        const std::uint32_t id = ids[random() % ids.size()];
        if (random() % 3 != 0) {
            VEL_TimerHandler* handler = fake(id + static_cast<std::uint32_t>(step));
            registry.insert(id, handler);
            model[id] = handler;
        } else {
            const auto found = model.find(id);
            EXPECT_EQ(registry.erase(id), found == model.end() ? nullptr : found->second);
            if (found != model.end()) {
                model.erase(found);
            }
        }
        ASSERT_EQ(registry.size(), model.size()) << "step " << step;
        if (step % 97 == 0) {
            for (std::uint32_t each : ids) {
                const auto found = model.find(each);
                ASSERT_EQ(registry.find(each), found == model.end() ? nullptr : found->second)
                        << "id " << each << " step " << step;
            }
        }
    }
}

TEST(TimerRegistryTest, AgreesWithAHashMapForDenseCollidingAndWrappingIdentifiers) {
    std::vector<std::uint32_t> dense;
    for (std::uint32_t id = 1; id <= 3000; ++id) {
        dense.push_back(id);
    }
    // Every one of these has the same home cell in tables of up to 2^16 cells, and the last
    // ones sit at the end of the table, so probe runs wrap around to its start.
    std::vector<std::uint32_t> colliding;
    for (std::uint32_t k = 1; k <= 600; ++k) {
        colliding.push_back(k * 65536 + 1023);
        colliding.push_back(k * 65536 + 1);
    }
    replay(dense, 1, 30000);
    replay(colliding, 2, 20000);
}

TEST(TimerRegistryTest, NeverFindsIdentifierZeroOrAnIdentifierItWasNotGiven) {
    VEL_TimerRegistry registry;
    EXPECT_EQ(registry.find(7), nullptr);  // no table yet
    EXPECT_EQ(registry.erase(7), nullptr);
    registry.insert(7, fake(7));
    EXPECT_EQ(registry.find(0), nullptr);
    EXPECT_EQ(registry.erase(0), nullptr);
    EXPECT_EQ(registry.find(7 + 1024), nullptr);  // same home cell, not entered
    registry.insert(7, fake(8));                  // replaces
    EXPECT_EQ(registry.size(), 1u);
    EXPECT_EQ(registry.erase(7), fake(8));
    EXPECT_EQ(registry.erase(7), nullptr);
}

TEST(TimerRegistryTest, SwapHandsEveryEntryOverForOneVisitEach) {
    VEL_TimerRegistry registry;
    for (std::uint32_t id = 1; id <= 5000; ++id) {
        registry.insert(id, fake(id));
    }
    VEL_TimerRegistry taken;
    taken.swap(registry);
    EXPECT_EQ(registry.size(), 0u);
    EXPECT_EQ(registry.find(1), nullptr);
    std::set<VEL_TimerHandler*> visited;
    taken.forEach([&visited](VEL_TimerHandler* handler) { visited.insert(handler); });
    EXPECT_EQ(visited.size(), 5000u);
    EXPECT_EQ(visited.count(fake(5000)), 1u);
    registry.insert(9, fake(9));  // the emptied one still works
    EXPECT_EQ(registry.find(9), fake(9));
}

}  // namespace
