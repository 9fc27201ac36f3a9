#include "VEL_Queue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_FastQueue.h"
#include "VEL_QueueBase.h"

namespace {

using Queue = VEL_FastQueue<std::uint64_t>;  // 8-byte elements, like pointers

VEL_QueueLimits limits(std::uint32_t maxNb, std::uint32_t maxSize = 0x100000) {
    return VEL_QueueLimits(maxNb, maxSize, 1024, 0);
}

std::vector<std::uint64_t> range(std::uint64_t first, std::uint64_t count) {
    std::vector<std::uint64_t> values;
    for (std::uint64_t value = first; value < first + count; ++value) {
        values.push_back(value);
    }
    return values;
}

void putAll(Queue& queue, const std::vector<std::uint64_t>& values) {
    for (const std::uint64_t& value : values) {
        ASSERT_EQ(queue.put(&value, nullptr), kVELErr_Ok) << "value " << value;
    }
}

// Takes everything out of a non-blocking queue, in order.
std::vector<std::uint64_t> drain(Queue& queue) {
    std::vector<std::uint64_t> out;
    std::uint64_t value = 0;
    while (queue.get(&value, nullptr) == kVELErr_Ok) {
        out.push_back(value);
    }
    return out;
}

// Moves the head of an empty ring to index `head`, then puts 0 .. count-1 (wrapping past the end).
void fillFrom(Queue& queue, std::uint64_t head, std::uint64_t count) {
    putAll(queue, range(100, head));
    for (std::uint64_t i = 0, value = 0; i < head; ++i) {
        ASSERT_EQ(queue.get(&value, nullptr), kVELErr_Ok);
    }
    putAll(queue, range(0, count));
}

TEST(FastQueueTest, CapacityIsTheSmallerOfCountAndSizeLimits) {
    struct Case {
        std::uint32_t maxNb, maxSize;
        unsigned long capacity;
    };
    // Limits without room are raised to one element by the constructor.
    const Case cases[] = {{10, 16, 2},  {10, 79, 9}, {10, 80, 10}, {10, 81, 10},
                          {0, 1024, 1}, {10, 7, 1},  {0, 0, 1}};
    for (const Case& c : cases) {
        Queue queue(limits(c.maxNb, c.maxSize), nullptr, false, true, 1);
        EXPECT_EQ(queue.getRealMaxNb(), c.capacity) << c.maxNb << "/" << c.maxSize;
        putAll(queue, range(0, c.capacity));
        std::uint64_t extra = 99;
        EXPECT_EQ(queue.put(&extra, nullptr), kVELErr_QueueFull) << c.maxNb << "/" << c.maxSize;
    }
    // A count above 32 bits used to be cut to its low bits (4 and 0, raised to 1).
    for (const unsigned long maxNb : {0x100000004ul, 0x100000000ul, 0xFFFFFFFFul}) {
        EXPECT_EQ(Queue(maxNb, false, true, 1).getRealMaxNb(), 0x100000u / 8) << maxNb;
    }
    Queue queue(limits(10, 160), nullptr, false, true, 1);
    putAll(queue, range(0, 3));
    EXPECT_EQ(queue.getSizeUsage(), 15u);  // 3 elements of 8 bytes in 160
    EXPECT_EQ(queue.setLimits(limits(0), nullptr, true), kVELErr_BadValue);
    EXPECT_EQ(queue.setLimits(limits(4, 7), nullptr, true), kVELErr_BadValue);
    EXPECT_EQ(queue.getRealMaxNb(), 10u);
    EXPECT_EQ(drain(queue), range(0, 3));
}

TEST(FastQueueTest, PutFrontIsTakenNextAlsoWhenTheHeadWraps) {
    Queue queue(limits(4), nullptr, false, true, 1);
    std::uint64_t value = 10;
    ASSERT_EQ(queue.put_front(&value, nullptr), kVELErr_Ok);  // empty queue, head at 0
    putAll(queue, {11, 12});
    value = 9;
    ASSERT_EQ(queue.put_front(&value, nullptr), kVELErr_Ok);
    EXPECT_EQ(drain(queue), range(9, 4));
}

TEST(FastQueueTest, AutoResizeDoublesAFullQueueUpToThirtyTwoBits) {
    struct Case {
        VEL_QueueLimits start;
        std::uint32_t maxNb, maxSize;  // after three puts into a ring of two
    };
    // Doubling past 0xFFFFFFFF must saturate, not wrap to a limit without room.
    const Case cases[] = {{limits(2, 1000), 4, 2000},
                          {limits(0x80000000u, 16), 0xFFFFFFFFu, 32},
                          {limits(2, 0x80000000u), 4, 0xFFFFFFFFu}};
    for (const Case& c : cases) {
        Queue queue(c.start, nullptr, false, true, 1);
        putAll(queue, range(0, 2));
        std::uint64_t value = 2;
        ASSERT_EQ(queue.put(&value, nullptr), kVELErr_QueueFull);
        queue.setAutoResizable(true);
        ASSERT_EQ(queue.put(&value, nullptr), kVELErr_Ok);
        EXPECT_EQ(queue.getRealMaxNb(), 4u);
        EXPECT_EQ(queue.getLimits().getMaxNb(), c.maxNb);
        EXPECT_EQ(queue.getLimits().getMaxSize(), c.maxSize);
        EXPECT_EQ(drain(queue), range(0, 3));
    }
}

// A ring of `capacity` with its head moved to `head` and `held` elements, resized: shrinking keeps
// the oldest elements, growing unwraps a wrapped run shorter than, as long as or longer than the
// added room; the ring then fills to its new size and goes on turning.
TEST(FastQueueTest, ResizingKeepsTheOldestElementsInOrder) {
    struct Case {
        std::uint32_t capacity;
        std::uint64_t head, held;
        std::uint32_t newMaxNb;
    };
    const Case cases[] = {{8, 0, 6, 4}, {8, 5, 6, 4}, {8, 5, 3, 4}, {8, 7, 8, 1}, {8, 3, 0, 2},
                          {4, 2, 4, 8}, {4, 2, 4, 6}, {4, 1, 4, 5}, {4, 3, 4, 5}, {4, 0, 4, 6}};
    for (const Case& c : cases) {
        SCOPED_TRACE(::testing::Message()
                     << c.capacity << "@" << c.head << "+" << c.held << "->" << c.newMaxNb);
        Queue queue(limits(c.capacity), nullptr, false, true, 1);
        fillFrom(queue, c.head, c.held);
        ASSERT_EQ(queue.setLimits(limits(c.newMaxNb), nullptr, true), kVELErr_Ok);
        const std::uint64_t kept = std::min<std::uint64_t>(c.held, c.newMaxNb);
        EXPECT_EQ(queue.getNbElement(), kept);
        putAll(queue, range(kept, c.newMaxNb - kept));  // the back continues after the kept
        std::uint64_t extra = 99;
        EXPECT_EQ(queue.put(&extra, nullptr), kVELErr_QueueFull);
        EXPECT_EQ(drain(queue), range(0, c.newMaxNb));
        putAll(queue, range(10, c.newMaxNb));
        EXPECT_EQ(drain(queue), range(10, c.newMaxNb));
    }
}

// Copyable but not movable: taking an element out copies it, so the slot must destroy its own.
struct CopyOnly {
    std::shared_ptr<int> shared;
    CopyOnly() = default;
    explicit CopyOnly(std::shared_ptr<int> value) : shared(std::move(value)) {}
    CopyOnly(const CopyOnly&) = default;
    CopyOnly& operator=(const CopyOnly&) = default;
};

TEST(FastQueueTest, ElementsAreReleasedWhenTakenDroppedOrLeft) {
    const CopyOnly element(std::make_shared<int>(1));
    {
        VEL_FastQueue<CopyOnly> queue(4, false, true, 1);
        for (int i = 0; i < 4; ++i) {
            ASSERT_EQ(queue.put(&element, nullptr), kVELErr_Ok);
        }
        CopyOnly out;
        ASSERT_EQ(queue.get(&out, nullptr), kVELErr_Ok);
        out.shared.reset();
        EXPECT_EQ(element.shared.use_count(), 4);  // the slot let go of its copy
        ASSERT_EQ(queue.setLimits(limits(1), nullptr, true), kVELErr_Ok);
        EXPECT_EQ(element.shared.use_count(), 2);  // two dropped by shrinking
    }
    EXPECT_EQ(element.shared.use_count(), 1);  // the last one went with the queue
}

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

constexpr int kProducers = 4;
constexpr int kConsumers = 4;
constexpr long kPerProducer = 5000;
constexpr long kTotal = kProducers * kPerProducer;

TEST(QueueConcurrencyTest, ManyProducersAndConsumersDeliverEveryElementOnce) {
    // A small ring keeps both sides blocking and waking all the time.
    VEL_Queue<long> queue(8, true, true, 1);
    std::atomic<long> delivered{0};
    std::atomic<int> failures{0};
    std::vector<std::vector<long>> received(kConsumers);
    std::vector<std::thread> threads;
    for (int c = 0; c < kConsumers; ++c) {
        threads.emplace_back([&, c] {
            // No time limit: a lost wake-up leaves elements undelivered.
            for (;;) {
                long value = -1;
                const VELErr_t result = queue.get(&value, nullptr);
                if (result != kVELErr_Ok) {
                    failures += result == kVELErr_QueueNotActive ? 0 : 1;
                    return;
                }
                received[c].push_back(value);
                ++delivered;
            }
        });
    }
    for (int p = 0; p < kProducers; ++p) {
        threads.emplace_back([&, p] {
            for (long i = 0; i < kPerProducer; ++i) {
                const long value = p * kPerProducer + i;  // distinct across producers
                const VELErr_t result =
                        i % 7 == 3 ? queue.put_front(&value, nullptr) : queue.put(&value, nullptr);
                failures += result == kVELErr_Ok ? 0 : 1;
            }
        });
    }
    const bool allDelivered =
            veltest::WaitFor([&] { return delivered.load() == kTotal; }, std::chrono::seconds(20));
    EXPECT_EQ(queue.deactivate(), kVELErr_Ok);  // ends the consumers in every case
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_TRUE(allDelivered) << delivered.load() << " of " << kTotal;
    EXPECT_EQ(failures.load(), 0);
    std::vector<long> all;
    for (const std::vector<long>& part : received) {
        all.insert(all.end(), part.begin(), part.end());
    }
    std::sort(all.begin(), all.end());
    ASSERT_EQ(all.size(), static_cast<size_t>(kTotal));
    for (long i = 0; i < kTotal; ++i) {
        ASSERT_EQ(all[i], i) << "value missing or repeated";
    }
}

}  // namespace
