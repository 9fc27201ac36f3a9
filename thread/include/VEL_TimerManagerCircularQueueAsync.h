/// @file
#ifndef THREAD_INCLUDE_VEL_TIMERMANAGERCIRCULARQUEUEASYNC_H
#define THREAD_INCLUDE_VEL_TIMERMANAGERCIRCULARQUEUEASYNC_H

#include <memory>

#include "VEL_Queue.h"
#include "VEL_TimerHandler.h"
#include "VEL_TimerManagerCircularQueue.h"

/// VEL_TimerManagerCircularQueueAsync: the default timer manager. It keeps the wheel of
/// VEL_TimerManagerCircularQueue, but its timer thread only finds the due timers: it hands each
/// one, as an execution request, through a queue to a second thread, which calls the subscriber.
/// A slow callback therefore never holds up the wheel: expiries are still found, repetitions
/// placed and new timers slotted on time. Callbacks still run one at a time, in the order their
/// timers fell due, so a slow callback delays the callbacks queued behind it.
///
/// A queued timer stays registered until its trigger ends it, so it is treated like a timer in
/// the timer thread's hands: unsubscribe returns 0 and releases its subscriber, and the close
/// drops the queued requests and ends their timers without calling them. A request the queue
/// cannot take (memory exhausted) goes back into the wheel and is handed over a tick later.
///
/// Ownership, thread safety and lock order: as VEL_TimerManager; the queue's own lock is taken
/// alone. Both threads are stopped and joined before the manager is destroyed.
class VEL_TimerManagerCircularQueueAsync : public VEL_TimerManagerCircularQueue {
public:
    /// Creates a started manager of this kind (not the singleton: see
    /// VEL_TimerManager::GetInstance). Throws std::runtime_error when a thread cannot start.
    static VEL_TimerManager* GetInstance();

    ~VEL_TimerManagerCircularQueueAsync() override;

    /// Starts the second stage, then the timer thread. kErr_Ok; throws std::runtime_error (and
    /// traces under mask 36) when either cannot start, leaving no thread running.
    basis::Err_t open() override;

protected:
    VEL_TimerManagerCircularQueueAsync();

    /// Hands the handler to the second stage, which ends the timer when it is done: false.
    bool triggerSubscriber(VEL_TimerHandler* handler, unsigned long slot) override;
    /// Also wakes the second stage, which then stops.
    void stopTimer() override;
    basis::Err_t close(bool waitForThreads) override;

private:
    struct Request {
        VEL_TimerHandler* handler;
        unsigned long slot;
    };
    class SecondStage;

    /// The second stage's loop: triggers the requests in order until the queue is deactivated.
    void runRequests();

    VEL_Queue<Request> _requests;
    std::unique_ptr<SecondStage> _stage;
};

#endif  // THREAD_INCLUDE_VEL_TIMERMANAGERCIRCULARQUEUEASYNC_H
