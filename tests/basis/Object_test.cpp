#include "Object.h"

#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Item {
    int value = 0;
};

// A shared object goes back to the pool at its last unlock only, and is handed out again.
TEST(ObjectPoolTest, ObjectReturnsAtItsLastUnlockAndIsHandedOutAgain) {
    basis::ObjectMgr<Item> pool(4);
    basis::Object<Item>* first = nullptr;
    ASSERT_EQ(pool.getFreeObject(&first), basis::kErr_Ok);
    EXPECT_EQ(pool.getCount(), 4u);  // one block made
    EXPECT_EQ(first->getLockCount(), 1u);
    first->get()->value = 42;
    first->lock();
    first->unlock();
    EXPECT_EQ(pool.getFreeCount(), 3u);
    first->unlock();
    EXPECT_EQ(pool.getFreeCount(), 4u);
    basis::Object<Item>* second = nullptr;
    ASSERT_EQ(pool.getFreeObject(&second), basis::kErr_Ok);
    EXPECT_EQ(second, first);
    EXPECT_EQ((*second)->value, 42);  // the pool does not reset what it lends
    second->unlock();
}

TEST(ObjectPoolTest, ExhaustedPoolGrowsByBlocksAndStaysConsistentAcrossThreads) {
    basis::ObjectMgr<Item> pool(8);
    basis::ObjectProducerMgrMtSafe<Item> producer(pool);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&producer] {
            std::vector<basis::Object<Item>*> held;
            for (int i = 0; i < 500; ++i) {
                basis::Object<Item>* object = nullptr;
                if (producer.getFreeObject(&object) == basis::kErr_Ok) {
                    held.push_back(object);
                }
                if (held.size() > 5) {
                    held.front()->unlock();
                    held.erase(held.begin());
                }
            }
            for (basis::Object<Item>* object : held) {
                object->unlock();
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(pool.getCount() % 8, 0u);
    EXPECT_EQ(pool.getFreeCount(), pool.getCount());
}

}  // namespace
