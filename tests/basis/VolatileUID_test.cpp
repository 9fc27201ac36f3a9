#include "VolatileUID.h"

#include <cstdint>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "BoundedString.h"
#include "Tools.h"

namespace {

TEST(VolatileUIDTest, IssuesFromOneAndReusesOldestGivenBackFirst) {
    basis::VolatileUID<unsigned long> ids;
    EXPECT_EQ(ids.getID(), 1u);
    EXPECT_EQ(ids.getID(), 2u);
    EXPECT_EQ(ids.getID(), 3u);
    ids.releaseID(2);
    ids.releaseID(1);
    EXPECT_EQ(ids.getID(), 2u);
    EXPECT_EQ(ids.getID(), 1u);
    EXPECT_EQ(ids.getID(), 4u);
    ids.releaseID(4);
    ids.dropReleased();
    EXPECT_EQ(ids.getID(), 5u);  // the dropped number is not reused, the counter is kept
}

TEST(VolatileUIDTest, KeepsGivenBackOrderWhileItsStoreWrapsAndGrows) {
    basis::VolatileUID<unsigned long> ids;
    for (int i = 0; i < 400; ++i) {
        (void)ids.getID();
    }
    std::vector<unsigned long> expected;
    const auto giveBack = [&](unsigned long from, unsigned long to) {
        for (unsigned long id = from; id <= to; ++id) {
            ids.releaseID(id);
            expected.push_back(id);
        }
    };
    giveBack(300, 349);  // 50 in a store of 64
    for (int i = 0; i < 30; ++i) {
        EXPECT_EQ(ids.getID(), expected.front());
        expected.erase(expected.begin());
    }
    giveBack(1, 150);  // wraps around the store's end, then makes it grow twice
    for (unsigned long want : expected) {
        EXPECT_EQ(ids.getID(), want);
    }
    EXPECT_EQ(ids.getID(), 401u);
}

TEST(VolatileUIDTest, WrapsToOneNeverToZero) {
    basis::VolatileUID<unsigned long> ids(UINT32_MAX - 1);
    EXPECT_EQ(ids.getID(), UINT32_MAX);
    EXPECT_EQ(ids.getID(), 1u);
}

TEST(VolatileUIDTest, ConcurrentCallersGetDistinctNumbers) {
    basis::VolatileUID<unsigned long> ids;
    std::vector<std::vector<unsigned long>> got(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&ids, &got, t] {
            for (int i = 0; i < 1000; ++i) {
                got[t].push_back(ids.getID());
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    std::set<unsigned long> all;
    for (const auto& list : got) {
        all.insert(list.begin(), list.end());
    }
    EXPECT_EQ(all.size(), 4000u);
    EXPECT_EQ(*all.rbegin(), 4000u);
}

TEST(BoundedStringTest, KeepsZeroBytesAndCutsAtCapacity) {
    const char raw[] = {'a', '\0', 'b', 'c'};
    basis::BoundedString<16> key(raw, sizeof(raw));
    EXPECT_EQ(key.length(), 4u);
    EXPECT_EQ(key.data()[2], 'b');
    basis::BoundedString<4> cut("abcdefgh");
    EXPECT_EQ(cut.length(), 4u);
    EXPECT_STREQ(cut.c_str(), "abcd");
    EXPECT_EQ(basis::BoundedString<16>(raw, 4), key);
    EXPECT_NE(basis::BoundedString<16>(raw, 3), key);
}

TEST(NextPrimeTest, SmallestPrimeNotBelow) {
    EXPECT_EQ(basis::nextPrime_(0), 2u);
    EXPECT_EQ(basis::nextPrime_(8), 11u);
    EXPECT_EQ(basis::nextPrime_(11), 11u);
    EXPECT_EQ(basis::nextPrime_(1000), 1009u);
    EXPECT_EQ(basis::nextPrime_(2048), 2053u);
}

TEST(KeelExceptionTest, RecordsFramesNewestFirst) {
    keel::Exception e("broken", keel::Exception::kStatus_Thread);
    e.addStackFrame(keel::StackFrame("a/File", 10, "f", "inner"));
    e.addStackFrame(keel::StackFrame("b/File", 20, "g", "outer"));
    EXPECT_STREQ(e.what(), "broken");
    EXPECT_EQ(e.dumpStack(true), "b/File(20) g: outer\na/File(10) f: inner\n");
    EXPECT_EQ(e.toString(false), "broken");
}

}  // namespace
