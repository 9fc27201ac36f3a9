#include "ThreadMutex.h"

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "CondThreadMutex.h"
#include "Exception.h"
#include "Guard.h"
#include "RWThreadMutex.h"
#include "Thread.h"

namespace {

using basis::kErr_Ok;

TEST(ThreadMutexTest, SecondAcquireAndReleaseByAnotherThreadAreRefused) {
    basis::ThreadMutex mutex;
    ASSERT_EQ(mutex.acquire(), kErr_Ok);
    EXPECT_EQ(mutex.acquire(), basis::kErr_ThreadAcquire);
    basis::Err_t fromOther = kErr_Ok;
    std::thread other([&] { fromOther = mutex.release(); });
    other.join();
    EXPECT_EQ(fromOther, basis::kErr_ThreadRelease);
    EXPECT_EQ(mutex.release(), kErr_Ok);
    EXPECT_EQ(mutex.release(), basis::kErr_ThreadRelease);
}

class ThreadMutexKindTest : public ::testing::TestWithParam<basis::ThreadMutex::Kind> {};

// Both kinds exclude under contention (the counter is a plain long: a lost update or, under
// TSan, a race shows a broken lock), refuse tryAcquire while held, and come back owned from a
// condition wait that ends with a time-out after its limit.
TEST_P(ThreadMutexKindTest, ExcludesUnderContentionAndComesBackOwnedFromAWait) {
    basis::ThreadMutex mutex(GetParam());
    constexpr int kThreads = 3;
    constexpr long kRounds = 20000;
    long counter = 0;
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i) {
        threads.emplace_back([&] {
            for (long round = 0; round < kRounds; ++round) {
                std::lock_guard<basis::ThreadMutex> hold(mutex);
                ++counter;
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(counter, kThreads * kRounds);

    ASSERT_EQ(mutex.acquire(), kErr_Ok);
    bool otherGotIt = true;
    std::thread other([&] { otherGotIt = mutex.tryAcquire(); });
    other.join();
    EXPECT_FALSE(otherGotIt);
    basis::CondThreadMutex cond(mutex);
    const basis::TimeValue limit(0, 50000);
    const basis::TimeValue start = basis::TimeValue::GetHRTime();
    EXPECT_EQ(cond.wait(&limit), basis::kErr_Timeout);
    const basis::TimeValue waited = basis::TimeValue::GetHRTime() - start;
    EXPECT_GE(waited, limit);
    EXPECT_LT(waited, basis::TimeValue(2, 0));
    EXPECT_TRUE(mutex.isHeldBySelf());
    EXPECT_EQ(mutex.release(), kErr_Ok);
    EXPECT_TRUE(mutex.tryAcquire());
    EXPECT_EQ(mutex.release(), kErr_Ok);
}

INSTANTIATE_TEST_SUITE_P(Kinds, ThreadMutexKindTest,
                         ::testing::Values(basis::ThreadMutex::kSleeping,
                                           basis::ThreadMutex::kSpinning));

TEST(ThreadMutexTest, GuardThrowsThreadExceptionWithItsFrameOnFailedAcquire) {
    basis::ThreadMutex mutex;
    basis::GuardEx<basis::ThreadMutex> outer(mutex);
    try {
        basis::GuardEx<basis::ThreadMutex> inner(mutex);
        FAIL() << "a second guard on the same mutex must throw";
    } catch (const basis::ThreadException& e) {
        EXPECT_EQ(e.getStatusName(), "kErr_ThreadAcquire");
        ASSERT_EQ(e.getStack().size(), 1u);
        EXPECT_EQ(e.getStack()[0].getFile(), "basis/Guard");
        EXPECT_EQ(e.getStack()[0].getFunction(),
                  "basis::GuardEx<class basis::ThreadMutex>::__ctor");
        EXPECT_EQ(e.getDescription(), basis::Tools::GetErrStr(basis::kErr_ThreadAcquire));
    }
    EXPECT_TRUE(mutex.isHeldBySelf());  // the outer guard still holds it
}

TEST(ThreadMutexTest, RecursiveMutexCountsItsAcquisitions) {
    basis::RecursiveThreadMutex mutex;
    ASSERT_EQ(mutex.acquire(), kErr_Ok);
    ASSERT_EQ(mutex.acquire(), kErr_Ok);
    EXPECT_EQ(mutex.release(), kErr_Ok);
    EXPECT_TRUE(mutex.isHeldBySelf());
    EXPECT_EQ(mutex.release(), kErr_Ok);
    EXPECT_FALSE(mutex.isHeldBySelf());
    EXPECT_EQ(mutex.release(), basis::kErr_ThreadRelease);
}

TEST(CondThreadMutexTest, SignalWakesWaiterAndWaitWithoutTheMutexIsRefused) {
    basis::ThreadMutex mutex;
    basis::CondThreadMutex cond(mutex);
    EXPECT_EQ(cond.wait(nullptr), basis::kErr_ThreadAcquire);

    bool ready = false;
    std::thread signaller([&] {
        std::lock_guard<basis::ThreadMutex> hold(mutex);
        ready = true;
        cond.signal();
    });
    const basis::TimeValue limit(10, 0);
    ASSERT_EQ(mutex.acquire(), kErr_Ok);
    basis::Err_t result = kErr_Ok;
    while (!ready && result == kErr_Ok) {
        result = cond.wait(&limit);
    }
    EXPECT_TRUE(ready);
    EXPECT_EQ(result, kErr_Ok);
    mutex.release();
    signaller.join();
}

TEST(RWThreadMutexTest, ReadersShareAndWriterExcludes) {
    basis::RWThreadMutex lock;
    ASSERT_EQ(lock.acquireRead(), kErr_Ok);
    std::atomic<bool> secondReaderIn{false};
    std::thread reader([&] {
        basis::ReadGuard<basis::RWThreadMutex> hold(lock);
        secondReaderIn = true;
    });
    reader.join();  // would hang if readers excluded each other
    EXPECT_TRUE(secondReaderIn);

    std::atomic<bool> writerIn{false};
    std::thread writer([&] {
        basis::WriteGuard<basis::RWThreadMutex> hold(lock);
        writerIn = true;
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(writerIn);  // still excluded by our read lock
    lock.release();
    writer.join();
    EXPECT_TRUE(writerIn);
}

TEST(ThreadTest, IdentityOrderAndLastSystemError) {
    const basis::ThreadID_t self = basis::Thread::Self();
    EXPECT_FALSE(basis::Thread::Equal(self, basis::Thread::kInvalidID));
    EXPECT_NE(basis::Thread::ToNumber(self), 0u);
    basis::ThreadID_t other;
    std::thread([&] {
        other = basis::Thread::Self();
        basis::Thread::SetLastSystemErr(77);
    }).join();
    EXPECT_FALSE(basis::Thread::Equal(self, other));
    EXPECT_TRUE((self < other) != (other < self));
    basis::Thread::SetLastSystemErr(5);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 5);  // per thread: 77 stayed in the other one
    EXPECT_EQ(errno, 5);
}

}  // namespace
