/// @file
#ifndef THREAD_INCLUDE_VEL_THREADPOOL_H
#define THREAD_INCLUDE_VEL_THREADPOOL_H

#include <atomic>

#include "Task.h"
#include "ThreadMutex.h"
#include "Tools.h"
#include "VEL_Err.h"
#include "VEL_Executable.h"
#include "VEL_Queue.h"

/// VEL_ThreadPool: runs VEL_Executable items on a fixed number of threads that all take from one
/// bounded blocking queue.
///
/// Life cycle: construct (queue active, no thread) -> open() starts the threads -> exec() any
/// number of times -> stop() deactivates the queue: blocked callers of exec() and idle threads
/// return at once, a busy thread finishes its current item and ends -> optionally clean() deletes
/// what was left -> destroy. open() after stop() starts threads again but does not re-activate
/// the queue, so they end at once; clean() leaves the queue inactive too.
///
/// Ownership: the pool never deletes an item it executed; items are their creator's. clean()
/// deletes the items it discards; items still queued when the pool is destroyed are not deleted.
/// An exception escaping execute() is traced (mask kVELTrace_ThreadError) and the thread carries
/// on with the next item.
///
/// Thread safety: exec, stop, isStopped and getNbElement may be called from any thread, also from
/// inside an item. open, clean and the destructor must not be called from a pool thread. The
/// destructor stops the pool and joins its threads before the queue is destroyed.
///
/// Lock order: _mutex, then the queue's mutex.
class VEL_ThreadPool : public basis::Task {
public:
    ///@{
    /// A pool of `nbThreads` threads over a blocking queue of at most 1024 items, or `maxNb`
    /// items (other limits by default; above the 32-bit maximum, that maximum). The third
    /// argument of the second form is not used.
    explicit VEL_ThreadPool(unsigned long nbThreads);
    VEL_ThreadPool(unsigned long nbThreads, unsigned long maxNb, bool unused);
    ///@}
    ~VEL_ThreadPool() override;

    /// Clears the stopped flag and starts the threads. basis::kErr_Ok; kErr_BadValue for a
    /// pool of 0 threads; kErr_Thread when the system refused a thread.
    basis::Err_t open() override;

protected:
    /// Body of each pool thread: takes items and executes them until the pool stops.
    bool run() override;

public:
    /// Stops the pool once: deactivates the queue, which wakes every idle thread and every caller
    /// blocked in exec(). kVELErr_Ok (also when already stopped), or the queue's status.
    virtual VELErr_t stop();
    /// Queues `item` for execution, waiting while the queue is full. kVELErr_Ok;
    /// kVELErr_QueueNotActive once the pool is stopped (also for a caller that was waiting);
    /// kVELErr_InvalidPointer for a null item.
    virtual VELErr_t exec(VEL_Executable* item);
    /// Discards what a stopped pool left: joins its threads, re-activates the queue, deletes every
    /// waiting item without executing it, and deactivates the queue. On a pool that is not stopped
    /// it deletes nothing but still leaves the queue inactive. kVELErr_Ok when the queue is empty
    /// afterwards; otherwise the status of the last failed get, or kVELErr_TaskRunning when the
    /// pool was not stopped.
    virtual VELErr_t clean();

    /// True once stop() has run, until open() starts the pool again.
    bool isStopped() const { return _stopped.load(); }
    /// Items waiting in the queue (a snapshot).
    unsigned long getNbElement() const { return _queue.getNbElement(); }

private:
    void executeItem(VEL_Executable* item);

    VEL_Queue<VEL_Executable*> _queue;
    const unsigned long _nbThreads;
    std::atomic<bool> _stopped{false};
    basis::ThreadMutex _mutex;  ///< serialises open and stop
};

#endif  // THREAD_INCLUDE_VEL_THREADPOOL_H
