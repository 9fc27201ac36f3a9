#include "CondThreadMutex.h"

#include <pthread.h>
#include <time.h>

#include <cerrno>
#include <cstring>

namespace basis {

CondThreadMutex::CondThreadMutex(ThreadMutex& mutex) : _mutex(mutex) {
    // Deadlines are dates of GetHRTime, so the condition waits on the same clock.
    pthread_condattr_t attributes;
    (void)pthread_condattr_init(&attributes);
    (void)pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
    (void)pthread_cond_init(&_cond, &attributes);  // cannot fail on Linux
    (void)pthread_condattr_destroy(&attributes);
}

CondThreadMutex::~CondThreadMutex() {
    (void)pthread_cond_destroy(&_cond);
}

Err_t CondThreadMutex::wait(const TimeValue* timeout, bool) {
    if (!_mutex.isHeldBySelf()) {
        return kErr_ThreadAcquire;
    }
    timespec deadline{};
    if (timeout != nullptr) {
        // One deadline: spurious wake-ups never extend the wait.
        const TimeValue at = TimeValue::GetHRTime() + *timeout;
        deadline.tv_sec = at.getSecond();
        deadline.tv_nsec = at.getMicrosecond() * 1000L;
    }
    const unsigned long start = _generation.load();
    // The system mutex is released and taken back by the wait; the owner is kept aside.
    const unsigned long owner = _mutex._owner.exchange(0, std::memory_order_relaxed);
    while (_generation.load() == start) {
        if (timeout == nullptr) {
            (void)pthread_cond_wait(&_cond, &_mutex._mutex);
        } else if (pthread_cond_timedwait(&_cond, &_mutex._mutex, &deadline) == ETIMEDOUT) {
            break;
        }
    }
    _mutex._owner.store(owner, std::memory_order_relaxed);
    return _generation.load() != start ? kErr_Ok : kErr_Timeout;
}

Err_t CondThreadMutex::signal() {
    _generation.fetch_add(1);
    (void)pthread_cond_signal(&_cond);
    return kErr_Ok;
}

Err_t CondThreadMutex::broadcast() {
    _generation.fetch_add(1);
    (void)pthread_cond_broadcast(&_cond);
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
