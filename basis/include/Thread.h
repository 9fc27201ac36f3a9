/// @file
#ifndef BASIS_INCLUDE_THREAD_H
#define BASIS_INCLUDE_THREAD_H

#include <sys/types.h>

namespace basis {

/// Identity of a thread: its pthread handle and its kernel thread id, compared together (the
/// system gives an ended thread's handle to a later thread, with another kernel id). The default
/// value (all zero) is kInvalidID, "no thread"; pthread_self() is never 0 on Linux.
struct ThreadID_t {
    unsigned long handle = 0;  ///< pthread_t
    pid_t tid = 0;             ///< gettid(), printed in trace lines
};

///@{
/// Equal when both the handle and the kernel id are.
bool operator==(const ThreadID_t& a, const ThreadID_t& b);
bool operator!=(const ThreadID_t& a, const ThreadID_t& b);
///@}
/// Strict weak order on (handle, kernel id), so identities can be kept in ordered sets.
bool operator<(const ThreadID_t& a, const ThreadID_t& b);

/// basis::Thread: identity of threads and the per-thread "last system error".
///
/// The last system error is a thread_local of its own rather than errno, because tracing,
/// allocation and locking may overwrite errno between a failing call and the moment its status
/// text is built. Each failure site stores errno here right after the failing call.
///
/// Thread safety: all functions are static and safe from any thread.
class Thread {
public:
    Thread() = delete;

    static constexpr ThreadID_t kInvalidID{};  ///< "no thread"

    /// The calling thread's identity.
    static ThreadID_t Self();
    /// a == b.
    static bool Equal(const ThreadID_t& a, const ThreadID_t& b) { return a == b; }
    /// The kernel thread id recorded with `id` (0 for kInvalidID).
    static unsigned int ToNumber(const ThreadID_t& id);
    /// Lets another thread run (std::this_thread::yield).
    static void YieldControl();

    /// The error number this thread last stored with SetLastSystemErr (0 if none).
    static long GetLastSystemErr();
    /// Stores `err` as this thread's last system error and also sets errno to it.
    static void SetLastSystemErr(long err);
};

}  // namespace basis

#endif  // BASIS_INCLUDE_THREAD_H
