/// @file
/// basis::ThreadMutex and basis::RecursiveThreadMutex: the library's mutual exclusion.
///
/// Both add owner tracking to a system mutex, so that misuse is reported instead of being
/// undefined behaviour: acquiring a ThreadMutex the calling thread already holds returns
/// kErr_ThreadAcquire (instead of deadlocking), releasing a mutex the caller does not hold returns
/// kErr_ThreadRelease. They also satisfy BasicLockable (lock/unlock) so that standard guards can
/// be used inside the library.
///
/// ThreadMutex is a POSIX mutex of one of two kinds. A sleeping mutex puts a thread that finds it
/// held to sleep at once. A spinning (adaptive) mutex lets that thread spin briefly, with
/// back-off, first: made for mutexes that several threads take all the time for a few
/// instructions each, such as a work queue's, where the holder usually lets go within the spin
/// and neither thread makes a futex call. Uncontended, the sleeping kind is a little cheaper.
/// RecursiveThreadMutex wraps std::recursive_mutex.
///
/// Thread safety: any thread may acquire and release. setName must be called before the mutex is
/// shared (it is a diagnostic label only).
#ifndef BASIS_INCLUDE_THREADMUTEX_H
#define BASIS_INCLUDE_THREADMUTEX_H

#include <pthread.h>

#include <atomic>
#include <mutex>

#include "ThreadAnnotations.h"
#include "Tools.h"

namespace basis {

/// A POSIX mutex, sleeping or spinning, with owner tracking (see the file comment).
class VEL_CAPABILITY("mutex") ThreadMutex {
public:
    /// What a thread that finds the mutex held does: sleep at once, or spin briefly first.
    enum Kind { kSleeping, kSpinning };

    ///@{
    /// A sleeping mutex, or one of the given kind (see above).
    constexpr ThreadMutex() = default;
    explicit constexpr ThreadMutex(Kind kind) : _mutex(InitialState(kind)) {}
    ///@}
    ~ThreadMutex() { (void)pthread_mutex_destroy(&_mutex); }
    ThreadMutex(const ThreadMutex&) = delete;
    ThreadMutex& operator=(const ThreadMutex&) = delete;

    /// kErr_Ok, or kErr_ThreadAcquire when the calling thread already holds the mutex.
    /// Inline: the work queues take this mutex once per element.
    Err_t acquire() VEL_ACQUIRE() {
        const unsigned long self = SelfHandle();
        if (_owner.load(std::memory_order_relaxed) == self) {
            return kErr_ThreadAcquire;  // would deadlock on itself
        }
        (void)pthread_mutex_lock(&_mutex);  // a valid mutex not held by the caller: cannot fail
        _owner.store(self, std::memory_order_relaxed);
        return kErr_Ok;
    }
    /// kErr_Ok, or kErr_ThreadRelease when the calling thread does not hold the mutex.
    Err_t release() VEL_RELEASE() {
        if (_owner.load(std::memory_order_relaxed) != SelfHandle()) {
            return kErr_ThreadRelease;
        }
        _owner.store(0, std::memory_order_relaxed);
        (void)pthread_mutex_unlock(&_mutex);  // held by the caller: cannot fail
        return kErr_Ok;
    }
    /// True when the mutex was free and is now held by the caller.
    bool tryAcquire();
    /// True when the calling thread holds the mutex.
    bool isHeldBySelf() const { return _owner.load(std::memory_order_relaxed) == SelfHandle(); }

    /// A diagnostic label, cut to 31 characters. kErr_Ok, or kErr_BadValue for null.
    /// REQUIRES: the mutex is not yet shared.
    Err_t setName(const char* name);
    /// The label ("" until set).
    const char* getName() const { return _name; }

    ///@{
    /// BasicLockable, for std::lock_guard and std::unique_lock.
    void lock() VEL_ACQUIRE() { (void)acquire(); }
    void unlock() VEL_RELEASE() { (void)release(); }
    ///@}

private:
    friend class CondThreadMutex;

    static constexpr pthread_mutex_t InitialState(Kind kind) {
        if (kind == kSpinning) {
            pthread_mutex_t spinning = PTHREAD_ADAPTIVE_MUTEX_INITIALIZER_NP;
            return spinning;
        }
        pthread_mutex_t sleeping = PTHREAD_MUTEX_INITIALIZER;
        return sleeping;
    }
    static unsigned long SelfHandle() { return static_cast<unsigned long>(pthread_self()); }

    /// The owner right before the lock word, so that both usually share a cache line: every
    /// acquire and release writes the two.
    std::atomic<unsigned long> _owner{0};  ///< pthread handle of the holder, 0 when free
    pthread_mutex_t _mutex = PTHREAD_MUTEX_INITIALIZER;
    char _name[32] = {};
};

/// A std::recursive_mutex with owner tracking (see the file comment).
class VEL_CAPABILITY("mutex") RecursiveThreadMutex {
public:
    constexpr RecursiveThreadMutex() = default;
    RecursiveThreadMutex(const RecursiveThreadMutex&) = delete;
    RecursiveThreadMutex& operator=(const RecursiveThreadMutex&) = delete;

    /// The holder may acquire again; each acquire needs its release. Always kErr_Ok.
    Err_t acquire() VEL_ACQUIRE();
    /// kErr_Ok, or kErr_ThreadRelease when the calling thread does not hold the mutex.
    Err_t release() VEL_RELEASE();
    /// True when the calling thread holds the mutex.
    bool isHeldBySelf() const;

    ///@{
    /// BasicLockable, for std::lock_guard and std::unique_lock.
    void lock() VEL_ACQUIRE() { (void)acquire(); }
    void unlock() VEL_RELEASE() { (void)release(); }
    ///@}

private:
    std::recursive_mutex _mutex;
    std::atomic<unsigned long> _owner{0};  ///< pthread handle of the holder, 0 when free
    unsigned long _depth = 0;              ///< written by the holder only
};

}  // namespace basis

#endif  // BASIS_INCLUDE_THREADMUTEX_H
