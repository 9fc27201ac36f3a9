// Work items through a pool of two threads: the calling thread queues `count` items, each of
// which only counts itself; the time runs until the last one has run. Both pools hold at most
// 1024 waiting items (VEL_ThreadPool's default bound), so the producer blocks while the queue is
// full in both.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "Cases.h"
#include "VEL_Executable.h"
#include "VEL_ThreadPool.h"

namespace velbench {

namespace {

constexpr unsigned long kWorkers = 2;
constexpr std::size_t kQueueBound = 1024;

// Counts its executions and wakes the waiter when the expected number is reached.
class CountingItem : public VEL_Executable {
public:
    void expect(unsigned long count) {
        std::lock_guard<std::mutex> hold(_lock);
        _executed.store(0);
        _expected = count;
    }
    void execute() override {
        if (_executed.fetch_add(1, std::memory_order_relaxed) + 1 == _expected) {
            std::lock_guard<std::mutex> hold(_lock);
            _done.notify_all();
        }
    }
    // Throws BenchError when the items have not all run within 60 s.
    void await() {
        std::unique_lock<std::mutex> hold(_lock);
        if (!_done.wait_for(hold, std::chrono::seconds(60),
                            [this] { return _executed.load() >= _expected; })) {
            throw BenchError("the pool did not run every item");
        }
    }

private:
    std::atomic<unsigned long> _executed{0};
    std::atomic<unsigned long> _expected{0};
    std::mutex _lock;
    std::condition_variable _done;
};

// The reference: a bounded std::deque under one std::mutex, two condition variables, and
// std::thread workers.
class PlainPool {
public:
    explicit PlainPool(unsigned long threads) {
        for (unsigned long i = 0; i < threads; ++i) {
            _workers.emplace_back([this] { work(); });
        }
    }
    ~PlainPool() {
        {
            std::lock_guard<std::mutex> hold(_lock);
            _stopped = true;
        }
        _notEmpty.notify_all();
        _notFull.notify_all();
        for (std::thread& worker : _workers) {
            worker.join();
        }
    }
    PlainPool(const PlainPool&) = delete;
    PlainPool& operator=(const PlainPool&) = delete;

    void exec(VEL_Executable* item) {
        {
            std::unique_lock<std::mutex> hold(_lock);
            _notFull.wait(hold, [this] { return _items.size() < kQueueBound; });
            _items.push_back(item);
        }
        _notEmpty.notify_one();
    }

private:
    void work() {
        for (;;) {
            VEL_Executable* item = nullptr;
            {
                std::unique_lock<std::mutex> hold(_lock);
                _notEmpty.wait(hold, [this] { return _stopped || !_items.empty(); });
                if (_items.empty()) {
                    return;
                }
                item = _items.front();
                _items.pop_front();
            }
            _notFull.notify_one();
            item->execute();
        }
    }

    std::mutex _lock;  // guards _items and _stopped
    std::condition_variable _notEmpty;
    std::condition_variable _notFull;
    std::deque<VEL_Executable*> _items;
    bool _stopped = false;
    std::vector<std::thread> _workers;
};

class ThreadPoolCase : public Case {
public:
    std::string id() const override { return "pool"; }
    std::string title() const override { return "thread pool, 2 workers"; }
    std::string unit() const override { return "items/s"; }
    std::vector<Reference> references() const override {
        return {{"std::mutex+condvar queue", 1.0}};
    }
    unsigned long workCount(bool quick) const override { return quick ? 20000 : 1000000; }

    void setUp(bool /*quick*/) override {
        _velPool = std::make_unique<VEL_ThreadPool>(kWorkers);
        if (_velPool->open() != basis::kErr_Ok) {
            throw BenchError("VEL_ThreadPool did not start");
        }
        _plainPool = std::make_unique<PlainPool>(kWorkers);
    }

    double run(std::size_t index, unsigned long count) override {
        _item.expect(count);
        const double start = Now();
        for (unsigned long i = 0; i < count; ++i) {
            if (index == 0) {
                const VELErr_t code = _velPool->exec(&_item);
                if (code != kVELErr_Ok) {
                    FailStatus("VEL_ThreadPool::exec", code);
                }
            } else {
                _plainPool->exec(&_item);
            }
        }
        _item.await();
        return Now() - start;
    }

    void tearDown() override {
        if (_velPool) {
            (void)_velPool->stop();
            (void)_velPool->wait();
        }
        _velPool.reset();
        _plainPool.reset();
    }

private:
    CountingItem _item;
    std::unique_ptr<VEL_ThreadPool> _velPool;
    std::unique_ptr<PlainPool> _plainPool;
};

}  // namespace

std::unique_ptr<Case> MakeThreadPoolCase() {
    return std::make_unique<ThreadPoolCase>();
}

}  // namespace velbench
