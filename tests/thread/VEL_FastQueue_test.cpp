#include "VEL_FastQueue.h"

#include <cstdint>
#include <memory>
#include <vector>

#include <gtest/gtest.h>

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

}  // namespace
