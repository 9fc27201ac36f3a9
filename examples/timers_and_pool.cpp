// vel-timers-pool: the timer service calls back after a delay; a thread pool runs work items.
//
//   ./build/examples/vel-timers-pool
//
// A heartbeat timer fires three times, a second apart, while four pool threads add up the
// numbers of eight ranges. Both report as they go; the program ends when both are done.
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

#include <boost/make_shared.hpp>

#include "vel.h"

namespace {

using Clock = std::chrono::steady_clock;
const Clock::time_point kStart = Clock::now();

double elapsed() {
    return std::chrono::duration<double>(Clock::now() - kStart).count();
}

// What the threads report to main().
struct Progress {
    std::mutex lock;
    std::condition_variable changed;
    int ticks = 0;
    int sums = 0;
};

// Called on the timer thread each time its timer falls due.
class Heartbeat : public VEL_TimerSubscriberInterface {
public:
    explicit Heartbeat(Progress& progress) : _progress(progress) {}

    void handleEvent(unsigned long timerId) override {
        std::lock_guard<std::mutex> hold(_progress.lock);
        std::printf("[%4.2f s] timer %lu: tick %d\n", elapsed(), timerId, ++_progress.ticks);
        _progress.changed.notify_all();
    }

private:
    Progress& _progress;
};

// One work item: adds up a range of numbers on a pool thread.
class RangeSum : public VEL_Executable {
public:
    RangeSum(unsigned long first, unsigned long last, Progress& progress)
        : _first(first), _last(last), _progress(progress) {}

    void execute() override {
        unsigned long long sum = 0;
        for (unsigned long n = _first; n <= _last; ++n) {
            sum += n;
        }
        std::lock_guard<std::mutex> hold(_progress.lock);
        _sum = sum;
        std::printf("[%4.2f s] pool: %lu..%lu adds up to %llu\n", elapsed(), _first, _last, sum);
        ++_progress.sums;
        _progress.changed.notify_all();
    }

    unsigned long long sum() const { return _sum; }

private:
    const unsigned long _first;
    const unsigned long _last;
    Progress& _progress;
    unsigned long long _sum = 0;  // written under _progress.lock
};

}  // namespace

int main() {
    Progress progress;

    // A timer: first after 1 s, then every second, 3 times in all. The manager keeps the
    // subscriber alive until the timer ends.
    auto heartbeat = boost::make_shared<Heartbeat>(progress);
    VEL_TimerManager* timers = VEL_TimerManager::GetInstance();
    timers->subscribe(heartbeat, 1, 3, false);

    // A pool of 4 threads; exec() queues an item, which stays ours to delete (after the pool,
    // which joins its threads when it goes).
    std::vector<std::unique_ptr<RangeSum>> items;
    VEL_ThreadPool pool(4);
    pool.open();
    for (unsigned long i = 0; i < 8; ++i) {
        items.emplace_back(new RangeSum(i * 1000000 + 1, (i + 1) * 1000000, progress));
        pool.exec(items.back().get());
    }

    std::unique_lock<std::mutex> hold(progress.lock);
    const bool done = progress.changed.wait_for(hold, std::chrono::seconds(10), [&progress] {
        return progress.ticks == 3 && progress.sums == 8;
    });
    hold.unlock();
    pool.stop();                         // the threads end; the items were all run
    VEL_TimerManager::CloseSingleton();  // stops the timer thread

    unsigned long long total = 0;
    for (const auto& item : items) {
        total += item->sum();
    }
    std::printf("total %llu (expected %llu)\n", total, 8000000ull * 8000001ull / 2);
    return done && total == 8000000ull * 8000001ull / 2 ? 0 : 1;
}
