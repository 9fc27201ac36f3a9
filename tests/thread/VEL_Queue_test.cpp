#include "VEL_Queue.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"

namespace {

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
