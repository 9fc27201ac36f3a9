#include "VEL_QueueBase.h"

#include <chrono>
#include <future>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_Queue.h"

namespace {

// Tells how many threads are blocked in the queue, so that a test acts only once they sleep.
template <class T>
class ProbeQueue : public VEL_Queue<T> {
public:
    using VEL_Queue<T>::VEL_Queue;
    unsigned long blocked(bool consumers) const {
        typename VEL_QueueBase<T>::Hold hold(this->_mutex);
        return consumers ? this->_getWaiters.blocked : this->_putWaiters.blocked;
    }
};

// Records the queue's count at each crossing (the notifier may read it: the count is exact
// under the queue mutex, which the notifier runs with).
class RecordingNotifier : public VEL_QueueWMNotifier {
public:
    void onHighWaterMark() override { high.push_back(queue->getNbElement()); }
    void onLowWaterMark() override { low.push_back(queue->getNbElement()); }
    VEL_Queue<int>* queue = nullptr;
    std::vector<unsigned long> high;
    std::vector<unsigned long> low;
};

VEL_QueueLimits marks(std::uint32_t highWM, std::uint32_t lowWM) {
    return VEL_QueueLimits(10, VEL_QueueLimits::kDefaultMaxSize, highWM, lowWM);
}

TEST(QueueBaseTest, InactiveAndNonBlockingQueuesAnswerAtOnce) {
    VEL_Queue<int> queue(2, false, false, 1);
    int value = 1;
    EXPECT_EQ(queue.put(&value, nullptr), kVELErr_QueueNotActive);
    EXPECT_EQ(queue.get(&value, nullptr), kVELErr_QueueNotActive);
    ASSERT_EQ(queue.activate(), kVELErr_Ok);
    EXPECT_EQ(queue.get(&value, nullptr), kVELErr_QueueEmpty);
    EXPECT_EQ(queue.put(&value, nullptr), kVELErr_Ok);
    EXPECT_EQ(queue.put_front(&value, nullptr), kVELErr_Ok);
    EXPECT_EQ(queue.put(&value, nullptr), kVELErr_QueueFull);
    EXPECT_EQ(queue.put_front(&value, nullptr), kVELErr_QueueFull);
    EXPECT_EQ(queue.get(&value, nullptr), kVELErr_Ok);
    EXPECT_EQ(queue.get(&value, nullptr), kVELErr_Ok);
    EXPECT_EQ(queue.get(&value, nullptr), kVELErr_QueueEmpty);
}

TEST(QueueBaseTest, TimedWaitsOnFullAndEmptyEndWithTimeoutAfterTheirLimit) {
    VEL_Queue<int> empty(1, true, true, 1);
    VEL_Queue<int> full(1, true, true, 1);
    int value = 1;
    ASSERT_EQ(full.put(&value, nullptr), kVELErr_Ok);
    const basis::TimeValue limit(0, 150000);
    for (VEL_Queue<int>* queue : {&empty, &full}) {
        const auto start = std::chrono::steady_clock::now();
        const VELErr_t result =
                queue == &empty ? empty.get(&value, &limit) : full.put(&value, &limit);
        const auto waited = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(result, kVELErr_Timeout);
        EXPECT_GE(waited, std::chrono::milliseconds(150));
        EXPECT_LT(waited, std::chrono::milliseconds(1150));
    }
    EXPECT_EQ(empty.get(&value, &basis::TimeValue::kZero), kVELErr_Timeout);
    EXPECT_EQ(full.put_front(&value, &basis::TimeValue::kZero), kVELErr_Timeout);
}

TEST(QueueBaseTest, DeactivateReleasesEveryBlockedProducerAndConsumer) {
    ProbeQueue<int> empty(1, true, true, 1);
    ProbeQueue<int> full(1, true, true, 1);
    int value = 1;
    ASSERT_EQ(full.put(&value, nullptr), kVELErr_Ok);
    std::vector<std::future<VELErr_t>> calls;
    for (int i = 0; i < 2; ++i) {
        calls.push_back(std::async(std::launch::async, [&] {
            int out = 0;
            return empty.get(&out, nullptr);
        }));
        calls.push_back(std::async(std::launch::async, [&] { return full.put(&value, nullptr); }));
    }
    // Deactivate only once all four really sleep in the queue.
    ASSERT_TRUE(
            veltest::WaitFor([&] { return empty.blocked(true) == 2 && full.blocked(false) == 2; }));
    EXPECT_EQ(empty.deactivate(), kVELErr_Ok);
    EXPECT_EQ(full.deactivate(), kVELErr_Ok);
    for (std::future<VELErr_t>& call : calls) {
        ASSERT_EQ(call.wait_for(std::chrono::seconds(5)), std::future_status::ready);
        EXPECT_EQ(call.get(), kVELErr_QueueNotActive);
    }
    EXPECT_EQ(full.getNbElement(), 1u);  // deactivation keeps the elements
}

TEST(QueueBaseTest, EachWaterMarkCrossingIsReportedOnce) {
    RecordingNotifier notifier;
    VEL_Queue<int> queue(marks(3, 2), &notifier, true, true, 1);
    notifier.queue = &queue;
    int value = 0;
    // Count after each step: 1 2 3 4(high) 5 4 3 4(high) 3 2 1(low) 0.
    const char steps[] = "pppPpggpgggg";
    for (const char* step = steps; *step != '\0'; ++step) {
        const VELErr_t result = *step == 'g'   ? queue.get(&value, nullptr)
                                : *step == 'P' ? queue.put_front(&value, nullptr)
                                               : queue.put(&value, nullptr);
        ASSERT_EQ(result, kVELErr_Ok) << "step " << step - steps;
    }
    EXPECT_EQ(notifier.high, (std::vector<unsigned long>{4, 4}));
    EXPECT_EQ(notifier.low, (std::vector<unsigned long>{1}));
}

TEST(QueueBaseTest, NotifierCallingBackIntoItsQueueGetsMutexErrorInsteadOfDeadlock) {
    struct Reentrant : VEL_QueueWMNotifier {
        VEL_Queue<int>* queue = nullptr;
        std::vector<VELErr_t> results;
        void onHighWaterMark() override {
            int value = 0;
            results = {queue->put(&value, nullptr), queue->get(&value, nullptr),
                       queue->deactivate()};
        }
        void onLowWaterMark() override {}
    } notifier;
    VEL_Queue<int> queue(marks(0, 0), &notifier, true, true, 1);
    notifier.queue = &queue;
    int value = 5;
    ASSERT_EQ(queue.put(&value, nullptr), kVELErr_Ok);
    EXPECT_EQ(notifier.results, std::vector<VELErr_t>(3, kVELErr_Mutex));
    EXPECT_TRUE(queue.isActive());
}

TEST(QueueBaseTest, GetRemainingDrainsOnlyADeactivatedQueueAndTracesRefusals) {
    veltest::RecordingSink sink(kVELTrace_ThreadError);
    veltest::ScopedSink installed(&sink);
    RecordingNotifier notifier;
    VEL_Queue<int> queue(marks(1024, 2), &notifier, true, true, 1);
    notifier.queue = &queue;
    int out = 0;
    EXPECT_EQ(queue.getRemaining(&out), kVELErr_QueueActive);
    for (int value = 1; value <= 3; ++value) {
        ASSERT_EQ(queue.put(&value, nullptr), kVELErr_Ok);
    }
    ASSERT_EQ(queue.deactivate(), kVELErr_Ok);
    for (int expected = 1; expected <= 3; ++expected) {
        ASSERT_EQ(queue.getRemaining(&out), kVELErr_Ok);
        EXPECT_EQ(out, expected);
    }
    EXPECT_EQ(notifier.low, (std::vector<unsigned long>{1}));
    EXPECT_EQ(queue.getRemaining(&out), kVELErr_QueueSpawn);
    const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].level, kVELLevel_Error);
    EXPECT_EQ(lines[0].text.rfind("THREAD - Queue is active {", 0), 0u) << lines[0].text;
    EXPECT_EQ(lines[1].text.rfind("THREAD - Queue is empty,Failed to spawn a thread {", 0), 0u)
            << lines[1].text;
}

}  // namespace
