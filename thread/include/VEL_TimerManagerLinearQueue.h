/// @file
#ifndef THREAD_INCLUDE_VEL_TIMERMANAGERLINEARQUEUE_H
#define THREAD_INCLUDE_VEL_TIMERMANAGERLINEARQUEUE_H

#include <boost/shared_ptr.hpp>

#include "VEL_TimerHandler.h"
#include "VEL_TimerManager.h"

/// VEL_TimerManagerLinearQueue: the timer manager with one list of armed timers sorted by expiry
/// date (earliest first, among equal dates the newest first). The timer thread wakes at every
/// 125 ms boundary of the monotonic clock and fires every timer whose date has passed; since
/// expiry dates stand on tick boundaries, a timer fires at its date, as scheduling allows.
///
/// Ownership, thread safety and lock order: as VEL_TimerManager, the list's lock taking the place
/// of a slot's lock.
class VEL_TimerManagerLinearQueue : public VEL_TimerManager {
public:
    /// Creates a started manager of this kind (not the singleton: see
    /// VEL_TimerManager::GetInstance). Throws std::runtime_error when its thread cannot start.
    static VEL_TimerManager* GetInstance();

    ~VEL_TimerManagerLinearQueue() override;

    unsigned long unsubscribe(unsigned long id) override;

protected:
    VEL_TimerManagerLinearQueue() = default;

    unsigned long subscribeImpl(const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber,
                                unsigned long duration, long period) override;
    void subscribeHandler(VEL_TimerHandler* handler, unsigned long arg) override;
    void placeHandler(VEL_TimerHandler* handler) override;
    bool executeSubscribers() override;
    /// Stops the thread; once it has ended, empties the list (the timers stay registered).
    basis::Err_t close(bool waitForThreads) override;

    /// Moves every handler whose date is not later than `now` into _due. Timer thread.
    void collectDue(const basis::TimeValue& now);
    /// Unlinks every handler from the list and the due list (the timers stay registered).
    void clearList();

    VEL_TimerSlot _list;    ///< every waiting handler, at position 0
    VEL_TimerDueList _due;  ///< timer thread only
};

#endif  // THREAD_INCLUDE_VEL_TIMERMANAGERLINEARQUEUE_H
