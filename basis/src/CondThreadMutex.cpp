#include "CondThreadMutex.h"

#include <pthread.h>

#include <chrono>
#include <cstring>

namespace basis {

Err_t CondThreadMutex::wait(const TimeValue* timeout, bool) {
    if (!_mutex.isHeldBySelf()) {
        return kErr_ThreadAcquire;
    }
    const unsigned long start = _generation.load();
    const auto woken = [this, start] { return _generation.load() != start; };
    // The std::mutex is held through the ThreadMutex; adopt it for the wait and hand it back.
    std::unique_lock<std::mutex> hold(_mutex._mutex, std::adopt_lock);
    const unsigned long owner = _mutex._owner.exchange(0, std::memory_order_relaxed);
    bool signalled = true;
    if (timeout == nullptr) {
        _cond.wait(hold, woken);
    } else {
        // One deadline on the monotonic clock: spurious wake-ups never extend the wait.
        const auto deadline = std::chrono::steady_clock::now() +
                              std::chrono::microseconds(timeout->toMicroseconds());
        signalled = _cond.wait_until(hold, deadline, woken);
    }
    _mutex._owner.store(owner, std::memory_order_relaxed);
    hold.release();
    return signalled ? kErr_Ok : kErr_Timeout;
}

Err_t CondThreadMutex::signal() {
    _generation.fetch_add(1);
    _cond.notify_one();
    return kErr_Ok;
}

Err_t CondThreadMutex::broadcast() {
    _generation.fetch_add(1);
    _cond.notify_all();
    return kErr_Ok;
}

Err_t CondThreadMutex::setName(const char* name) {
    if (name == nullptr) {
        return kErr_BadValue;
    }
    std::strncpy(_name, name, sizeof(_name) - 1);
    return kErr_Ok;
}

}  // namespace basis
