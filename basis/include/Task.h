/// @file
#ifndef BASIS_INCLUDE_TASK_H
#define BASIS_INCLUDE_TASK_H

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "Thread.h"
#include "Tools.h"

namespace basis {

/// basis::Task: an active object. A derived class implements open() (set up, then activate) and
/// run() (the body of each thread); activate() starts the threads, wait() joins them.
///
/// Each started thread calls run() once. No thread of an activate() call enters run() before
/// every thread of that call has stored its id, and activate() returns only then: each thread
/// sees the ids of the others, and the caller sees them all.
///
/// Ownership: the task owns its threads. A derived class must make its threads end (and wait()
/// for them) before its own destructor finishes, since run() is one of its members; ~Task joins
/// any thread still left as a last resort.
///
/// Thread safety: activate, wait and getThreadCount may be called from any thread; wait() called
/// from one of the task's own threads does not join that thread.
class Task {
public:
    Task() = default;
    virtual ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    /// Sets the task up and starts its threads with activate().
    virtual Err_t open() = 0;

    /// Blocks until every thread of the task has ended. kErr_Ok.
    Err_t wait();
    /// Number of threads started and not yet joined by wait().
    unsigned long getThreadCount() const;

protected:
    ///@{
    /// Starts `threadCount` threads running run(). With `ids`, stores each thread's identity in
    /// ids[0 .. threadCount-1]. kErr_Ok, kErr_BadValue for a count of 0, or kErr_Thread when the
    /// system refused a thread (its error number is stored as the last system error; threads
    /// already started keep running).
    Err_t activate(unsigned long threadCount);
    Err_t activate(unsigned long threadCount, ThreadID_t* ids);
    ///@}

    /// The body of each thread, called once per thread; its result is not used.
    virtual bool run() = 0;

    /// Stops the task. The base version only waits for the threads when `waitForThreads` is set;
    /// derived classes first tell their loop to end.
    virtual Err_t close(bool waitForThreads);

private:
    void threadBody(ThreadID_t* idSlot);

    /// Guards _threads and _starting; with _allStarted, the gate at which the threads of an
    /// activate() call wait for each other before entering run(). A leaf lock.
    mutable std::mutex _lock;
    std::condition_variable _allStarted;  ///< notified when _starting drops to 0
    unsigned long _starting = 0;          ///< threads started that have not stored their id yet
    std::vector<std::thread> _threads;
};

}  // namespace basis

#endif  // BASIS_INCLUDE_TASK_H
