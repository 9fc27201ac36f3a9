#include "Task.h"

#include <atomic>
#include <set>

#include <gtest/gtest.h>

namespace {

class CountingTask : public basis::Task {
public:
    ~CountingTask() override { wait(); }
    basis::Err_t open() override { return activate(3, _ids); }
    basis::Err_t start(unsigned long n) { return activate(n); }

    std::atomic<int> runs{0};
    std::atomic<bool> sawOwnId{true};
    basis::ThreadID_t _ids[3];

protected:
    bool run() override {
        // activate() stores the ids before any thread enters run().
        bool found = false;
        for (const basis::ThreadID_t& id : _ids) {
            found = found || basis::Thread::Equal(id, basis::Thread::Self());
        }
        if (!found) {
            sawOwnId = false;
        }
        ++runs;
        return true;
    }
};

TEST(TaskTest, ActivateRunsEachThreadOnceWithItsIdStored) {
    CountingTask task;
    ASSERT_EQ(task.open(), basis::kErr_Ok);
    EXPECT_EQ(task.wait(), basis::kErr_Ok);
    EXPECT_EQ(task.runs.load(), 3);
    EXPECT_TRUE(task.sawOwnId.load());
    std::set<basis::ThreadID_t> distinct(std::begin(task._ids), std::end(task._ids));
    EXPECT_EQ(distinct.size(), 3u);
    EXPECT_EQ(task.getThreadCount(), 0u);
}

TEST(TaskTest, ZeroThreadsIsRefused) {
    CountingTask task;
    EXPECT_EQ(task.start(0), basis::kErr_BadValue);
    EXPECT_EQ(task.getThreadCount(), 0u);
}

}  // namespace
