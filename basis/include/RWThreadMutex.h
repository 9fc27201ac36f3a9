/// @file
/// basis::RWThreadMutex: a readers-writer lock (many readers or one writer), and the scope guards
/// ReadGuard and WriteGuard that hold it for one scope.
///
/// Thread safety: any thread may acquire and release. Not recursive: a thread that holds the lock
/// (for reading or writing) must not acquire it again.
#ifndef BASIS_INCLUDE_RWTHREADMUTEX_H
#define BASIS_INCLUDE_RWTHREADMUTEX_H

#include <atomic>
#include <shared_mutex>

#include "ThreadAnnotations.h"
#include "Tools.h"

namespace basis {

/// The readers-writer lock (see the file comment).
class VEL_CAPABILITY("mutex") RWThreadMutex {
public:
    RWThreadMutex() = default;
    virtual ~RWThreadMutex() = default;
    RWThreadMutex(const RWThreadMutex&) = delete;
    RWThreadMutex& operator=(const RWThreadMutex&) = delete;

    ///@{
    /// Takes the lock for reading (shared) or writing (exclusive), waiting as long as needed.
    /// kErr_Ok, or kErr_ThreadAcquire when the calling thread holds it for writing.
    virtual Err_t acquireRead();
    virtual Err_t acquireWrite();
    ///@}
    /// Releases what the calling thread holds, whether read or write.
    virtual Err_t release();

private:
    std::shared_mutex _mutex;
    std::atomic<unsigned long> _writer{0};  ///< pthread handle of the writer, 0 when none
};

/// Holds `M` for reading for one scope.
template <class M>
class ReadGuard {
public:
    /// Takes `mutex` for reading; the destructor releases it.
    explicit ReadGuard(M& mutex) : _mutex(mutex) { (void)_mutex.acquireRead(); }
    ~ReadGuard() { (void)_mutex.release(); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;

private:
    M& _mutex;
};

/// Holds `M` for writing for one scope.
template <class M>
class WriteGuard {
public:
    /// Takes `mutex` for writing; the destructor releases it.
    explicit WriteGuard(M& mutex) : _mutex(mutex) { (void)_mutex.acquireWrite(); }
    ~WriteGuard() { (void)_mutex.release(); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;

private:
    M& _mutex;
};

}  // namespace basis

#endif  // BASIS_INCLUDE_RWTHREADMUTEX_H
