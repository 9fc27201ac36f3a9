/// @file
#ifndef BASIS_INCLUDE_CONDTHREADMUTEX_H
#define BASIS_INCLUDE_CONDTHREADMUTEX_H

#include <pthread.h>

#include <atomic>

#include "ThreadMutex.h"
#include "TimeValue.h"
#include "Tools.h"

namespace basis {

/// basis::CondThreadMutex: a condition variable bound to a ThreadMutex.
///
/// wait() needs the bound mutex held by the caller; it releases it while waiting and holds it
/// again on return. Time limits are relative, turned into one deadline on the monotonic clock at
/// entry. Every signal or broadcast moves a generation counter, and wait() returns only when the
/// counter moved or the deadline passed, so a spurious wake-up of the system never ends or
/// extends a wait. Callers still re-check their predicate: another thread may have consumed what
/// the signal announced.
///
/// Thread safety: any thread may wait, signal and broadcast; signal and broadcast with the bound
/// mutex held, or a waiter that has just tested its predicate may miss the wake-up.
class CondThreadMutex {
public:
    /// A condition bound to `mutex`, which must outlive it.
    explicit CondThreadMutex(ThreadMutex& mutex);
    ~CondThreadMutex();
    CondThreadMutex(const CondThreadMutex&) = delete;
    CondThreadMutex& operator=(const CondThreadMutex&) = delete;

    /// Waits until signalled or until `timeout` (relative; null waits without limit) has passed.
    /// kErr_Ok when woken, kErr_Timeout when the limit passed, kErr_ThreadAcquire when the caller
    /// does not hold the bound mutex. The second argument is unused (kept for the interface).
    /// REQUIRES: the bound mutex is held by the caller.
    Err_t wait(const TimeValue* timeout, bool unused = false);
    ///@{
    /// Wakes one waiter / every waiter.
    Err_t signal();
    Err_t broadcast();
    ///@}

    /// A diagnostic label, cut to 47 characters. kErr_Ok, or kErr_BadValue for null.
    /// REQUIRES: the condition is not yet shared.
    Err_t setName(const char* name);
    /// The label ("" until set).
    const char* getName() const { return _name; }

private:
    ThreadMutex& _mutex;
    pthread_cond_t _cond;  ///< on CLOCK_MONOTONIC
    std::atomic<unsigned long> _generation{0};
    char _name[48] = {};
};

}  // namespace basis

#endif  // BASIS_INCLUDE_CONDTHREADMUTEX_H
