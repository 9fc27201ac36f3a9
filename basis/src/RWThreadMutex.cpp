#include "RWThreadMutex.h"

#include <pthread.h>

namespace basis {

namespace {

unsigned long selfHandle() {
    return static_cast<unsigned long>(pthread_self());
}

}  // namespace

Err_t RWThreadMutex::acquireRead() {
    if (_writer.load(std::memory_order_relaxed) == selfHandle()) {
        return kErr_ThreadAcquire;  // the writer itself would deadlock
    }
    _mutex.lock_shared();
    return kErr_Ok;
}

Err_t RWThreadMutex::acquireWrite() {
    if (_writer.load(std::memory_order_relaxed) == selfHandle()) {
        return kErr_ThreadAcquire;
    }
    _mutex.lock();
    _writer.store(selfHandle(), std::memory_order_relaxed);
    return kErr_Ok;
}

Err_t RWThreadMutex::release() {
    // Only the writer can find its own handle here: readers never store theirs.
    if (_writer.load(std::memory_order_relaxed) == selfHandle()) {
        _writer.store(0, std::memory_order_relaxed);
        _mutex.unlock();
    } else {
        _mutex.unlock_shared();
    }
    return kErr_Ok;
}

}  // namespace basis
