#include "VEL_ThreadPool.h"

#include <atomic>
#include <chrono>
#include <future>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace {

// Records the order in which items run, and counts items that were deleted.
struct Journal {
    std::mutex lock;
    std::vector<int> ran;
    std::atomic<int> deleted{0};

    size_t ranCount() {
        std::lock_guard<std::mutex> hold(lock);
        return ran.size();
    }
};

class RecordingItem : public VEL_Executable {
public:
    RecordingItem(Journal& journal, int id) : _journal(journal), _id(id) {}
    ~RecordingItem() override { ++_journal.deleted; }
    void execute() override {
        if (_id < 0) {
            throw std::runtime_error("item failed");
        }
        if (_id == 0) {
            throw 42;
        }
        std::lock_guard<std::mutex> hold(_journal.lock);
        _journal.ran.push_back(_id);
    }

private:
    Journal& _journal;
    int _id;  // below 0 throws a std::exception, 0 throws something else
};

// Keeps its worker busy until released.
class BlockingItem : public VEL_Executable {
public:
    void execute() override {
        started.set_value();
        release.get_future().wait();
    }
    std::promise<void> started;
    std::promise<void> release;
};

TEST(ThreadPoolTest, OneThreadRunsItemsInOrderAndOutlivesItemsThatThrow) {
    veltest::RecordingSink sink(kVELTrace_ThreadError);
    veltest::ScopedSink installed(&sink);
    Journal journal;
    RecordingItem items[] = {{journal, 1}, {journal, -1}, {journal, 2}, {journal, 0}, {journal, 3}};
    VEL_ThreadPool pool(1);
    ASSERT_EQ(pool.open(), basis::kErr_Ok);
    for (RecordingItem& item : items) {
        ASSERT_EQ(pool.exec(&item), kVELErr_Ok);
    }
    ASSERT_TRUE(veltest::WaitFor([&] { return journal.ranCount() == 3; }));
    EXPECT_EQ(journal.ran, (std::vector<int>{1, 2, 3}));
    EXPECT_EQ(journal.deleted.load(), 0);  // executed items stay their creator's
    const std::vector<std::string> texts = sink.texts();
    ASSERT_EQ(texts.size(), 2u);
    EXPECT_EQ(texts[0].rfind("THREAD - A STL exception has been caught {", 0), 0u) << texts[0];
    EXPECT_NE(texts[0].find(" ; item failed"), std::string::npos) << texts[0];
    EXPECT_EQ(texts[1].rfind("THREAD - An unknown exception has been caught {", 0), 0u) << texts[1];
}

TEST(ThreadPoolTest, StopRefusesFurtherWorkAndIsIdempotent) {
    Journal journal;
    RecordingItem item(journal, 1);
    VEL_ThreadPool pool(2);
    ASSERT_EQ(pool.open(), basis::kErr_Ok);
    EXPECT_EQ(pool.exec(nullptr), kVELErr_InvalidPointer);
    EXPECT_EQ(pool.stop(), kVELErr_Ok);
    EXPECT_EQ(pool.exec(&item), kVELErr_QueueNotActive);
    EXPECT_EQ(pool.stop(), kVELErr_Ok);
    EXPECT_TRUE(pool.isStopped());
    EXPECT_EQ(pool.wait(), basis::kErr_Ok);  // idle workers were woken and ended
    EXPECT_EQ(journal.ranCount(), 0u);
}

// A pool of one thread kept busy by an item until the test releases it (also when it fails, so
// that the pool's destructor can join the thread).
class BusyPoolTest : public testing::Test {
protected:
    void occupy(unsigned long maxNb) {
        pool.reset(new VEL_ThreadPool(1, maxNb, false));
        ASSERT_EQ(pool->open(), basis::kErr_Ok);
        ASSERT_EQ(pool->exec(&busy), kVELErr_Ok);
        busy.started.get_future().wait();
    }
    void release() {
        if (!released) {
            released = true;
            busy.release.set_value();
        }
    }
    void TearDown() override { release(); }

    BlockingItem busy;
    bool released = false;
    Journal journal;
    std::unique_ptr<VEL_ThreadPool> pool;  // destroyed first
};

TEST_F(BusyPoolTest, CleanDeletesWhatAStoppedPoolLeftWithoutRunningIt) {
    occupy(8);
    for (int id = 1; id <= 3; ++id) {
        ASSERT_EQ(pool->exec(new RecordingItem(journal, id)), kVELErr_Ok);
    }
    ASSERT_EQ(pool->stop(), kVELErr_Ok);
    release();
    EXPECT_EQ(pool->clean(), kVELErr_Ok);
    EXPECT_EQ(journal.deleted.load(), 3);
    EXPECT_EQ(journal.ranCount(), 0u);
    EXPECT_EQ(pool->getNbElement(), 0u);
    EXPECT_EQ(pool->exec(&busy), kVELErr_QueueNotActive);  // clean leaves the queue inactive
}

TEST(ThreadPoolTest, DestroyingARunningPoolStopsAndJoinsItsThreads) {
    Journal journal;
    RecordingItem item(journal, 1);
    {
        VEL_ThreadPool pool(3);
        ASSERT_EQ(pool.open(), basis::kErr_Ok);
        ASSERT_EQ(pool.exec(&item), kVELErr_Ok);
        ASSERT_TRUE(veltest::WaitFor([&] { return journal.ranCount() == 1; }));
        EXPECT_EQ(pool.getThreadCount(), 3u);
    }  // must neither hang nor leave a thread touching the destroyed queue
    EXPECT_EQ(journal.ranCount(), 1u);
}

}  // namespace
