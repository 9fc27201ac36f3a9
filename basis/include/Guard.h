/// @file
#ifndef BASIS_INCLUDE_GUARD_H
#define BASIS_INCLUDE_GUARD_H

#include <exception>

#include "ThreadMutex.h"
#include "Tools.h"

namespace basis {

/// Name of the guard type, as recorded in the stack frame of a ThreadException.
template <class M>
struct GuardName;
/// The name of GuardEx<ThreadMutex>.
template <>
struct GuardName<ThreadMutex> {
    /// "basis::GuardEx<class basis::ThreadMutex>".
    static const char* Get() { return "basis::GuardEx<class basis::ThreadMutex>"; }
};
/// The name of GuardEx<RecursiveThreadMutex>.
template <>
struct GuardName<RecursiveThreadMutex> {
    /// "basis::GuardEx<class basis::RecursiveThreadMutex>".
    static const char* Get() { return "basis::GuardEx<class basis::RecursiveThreadMutex>"; }
};

/// Builds and throws the ThreadException of a failed guard; `function` is "__ctor" or "~GuardEx".
[[noreturn]] void ThrowGuardFailure(Err_t result, const char* guardName, const char* function,
                                    unsigned long line, const char* statusName);

/// basis::GuardEx<M>: holds a ThreadMutex or RecursiveThreadMutex for one scope, and throws a
/// basis::ThreadException when the mutex cannot be acquired or released (instead of returning a
/// status that a constructor cannot return).
///
/// The destructor is noexcept(false): a failed release throws, except while another exception is
/// already unwinding the stack, when it is dropped (throwing then would terminate the process).
///
/// Thread safety: a guard belongs to the thread that created it.
template <class M>
class GuardEx {
public:
    /// Acquires `mutex`; throws basis::ThreadException when it cannot. The destructor releases it.
    explicit GuardEx(M& mutex) : _mutex(mutex) {
        const Err_t result = _mutex.acquire();
        if (result != kErr_Ok) {
            ThrowGuardFailure(result, GuardName<M>::Get(), "__ctor", __LINE__,
                              "kErr_ThreadAcquire");
        }
    }
    ~GuardEx() noexcept(false) {
        const Err_t result = _mutex.release();
        if (result != kErr_Ok && std::uncaught_exceptions() == 0) {
            ThrowGuardFailure(result, GuardName<M>::Get(), "~GuardEx", __LINE__,
                              "kErr_ThreadRelease");
        }
    }
    GuardEx(const GuardEx&) = delete;
    GuardEx& operator=(const GuardEx&) = delete;

private:
    M& _mutex;
};

}  // namespace basis

#endif  // BASIS_INCLUDE_GUARD_H
