#include "BufferMgr.h"

#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Exception.h"

namespace {

basis::BufferMgr* manager() {
    return basis::BufferMgr::Default();
}

TEST(BufferMgrTest, RequestAboveTheLargestBufferYieldsNothing) {
    EXPECT_EQ(manager()->allocate(67108865), nullptr);
    EXPECT_EQ(manager()->allocate(0xFFFFFFFFul), nullptr);
    basis::Buffer* largest = manager()->allocate(67108864);
    ASSERT_NE(largest, nullptr);
    EXPECT_EQ(largest->size(), 67108864u);
    largest->release();
}

TEST(BufferMgrTest, ReleasedBufferIsReusedForTheSameSizeClass) {
    basis::Buffer* first = manager()->allocate(3000);
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first->size(), 3000u);
    EXPECT_GE(first->capacity(), 3000u);
    char* storage = first->data();
    first->release();
    basis::Buffer* second = manager()->allocate(4000);  // same class (4 KiB)
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(second->data(), storage);
    EXPECT_EQ(second->size(), 4000u);
    second->release();
}

TEST(BufferMgrTest, ResizeKeepsContentsAndRefusesOversize) {
    basis::Buffer* buffer = manager()->allocate(10);
    ASSERT_NE(buffer, nullptr);
    std::memcpy(buffer->data(), "0123456789", 10);
    buffer->resize(100000);
    EXPECT_EQ(buffer->size(), 100000u);
    EXPECT_EQ(std::memcmp(buffer->data(), "0123456789", 10), 0);
    buffer->resize(4);
    EXPECT_EQ(buffer->size(), 4u);
    EXPECT_THROW(buffer->resize(67108865), basis::BufferException);
    EXPECT_EQ(buffer->size(), 4u);
    EXPECT_EQ(std::memcmp(buffer->data(), "0123", 4), 0);
    buffer->release();
}

TEST(BufferMgrTest, OutstandingCountFollowsAllocateAndReleaseAcrossThreads) {
    const unsigned long before = manager()->getOutstanding();
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 2000; ++i) {
                basis::Buffer* buffer = manager()->allocate(static_cast<unsigned long>(i * 37));
                buffer->data()[0] = 'x';
                buffer->release();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(manager()->getOutstanding(), before);
}

}  // namespace
