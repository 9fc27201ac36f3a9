#include "ThreadMutex.h"

#include <pthread.h>

#include <cstring>

namespace basis {

namespace {

unsigned long selfHandle() {
    return static_cast<unsigned long>(pthread_self());
}

}  // namespace

bool ThreadMutex::tryAcquire() {
    if (pthread_mutex_trylock(&_mutex) != 0) {
        return false;
    }
    _owner.store(selfHandle(), std::memory_order_relaxed);
    return true;
}

Err_t ThreadMutex::setName(const char* name) {
    if (name == nullptr) {
        return kErr_BadValue;
    }
    std::strncpy(_name, name, sizeof(_name) - 1);
    return kErr_Ok;
}

Err_t RecursiveThreadMutex::acquire() {
    _mutex.lock();
    _owner.store(selfHandle(), std::memory_order_relaxed);
    ++_depth;
    return kErr_Ok;
}

Err_t RecursiveThreadMutex::release() {
    if (_owner.load(std::memory_order_relaxed) != selfHandle()) {
        return kErr_ThreadRelease;
    }
    if (--_depth == 0) {
        _owner.store(0, std::memory_order_relaxed);
    }
    _mutex.unlock();
    return kErr_Ok;
}

bool RecursiveThreadMutex::isHeldBySelf() const {
    return _owner.load(std::memory_order_relaxed) == selfHandle();
}

}  // namespace basis
