/// @file
#ifndef THREAD_INCLUDE_VEL_TIMERMANAGERCIRCULARQUEUE_H
#define THREAD_INCLUDE_VEL_TIMERMANAGERCIRCULARQUEUE_H

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "TimeValue.h"
#include "VEL_TimerHandler.h"
#include "VEL_TimerManager.h"

/// VEL_TimerManagerCircularQueue: the timer manager's wheel. Armed timers wait in one of 64 slots;
/// the wheel turns by one slot every 125 ms tick (a turn is 8 s), and the timer thread fires the
/// timers of each slot that falls due.
///
/// Invariants:
/// @verbatim
///   - _wheelDate is the date at which slot _current falls due; both move on together, one slot
///     and one tick at a time, and only on the timer thread;
///   - a handler waits in slot (_current + max(1, ceil((date - _wheelDate) / tick) + 1)) mod 64 as
///     computed when it was placed: one tick after its date while the timer thread keeps up. A
///     date more than a turn ahead maps into the wheel modulo 64; the slot is passed over until a
///     turn at which the date has passed;
///   - when a slot falls due, its handlers with a date not later than now leave it for the due
///     list, earliest first (among equal dates the newest first), and are triggered after the
///     wheel has caught up with now, with no slot lock and no registry lock held.
/// @endverbatim
///
/// Ownership, thread safety and lock order: as VEL_TimerManager. Each slot has its own lock, so
/// placing a timer in one slot does not wait for the timer thread working on another.
class VEL_TimerManagerCircularQueue : public VEL_TimerManager {
public:
    static constexpr unsigned long kSlotCount = 64;  ///< slots of the wheel

    /// Creates a started wheel manager (not the singleton: see VEL_TimerManager::GetInstance).
    /// Throws std::runtime_error when its thread cannot be started.
    static VEL_TimerManager* GetInstance();

    ~VEL_TimerManagerCircularQueue() override;

    unsigned long unsubscribe(unsigned long id) override;

protected:
    VEL_TimerManagerCircularQueue();

    unsigned long subscribeImpl(const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber,
                                unsigned long duration, long period) override;
    void subscribeHandler(VEL_TimerHandler* handler, unsigned long arg) override;
    void placeHandler(VEL_TimerHandler* handler) override VEL_NO_THREAD_SAFETY_ANALYSIS;
    bool executeSubscribers() override VEL_NO_THREAD_SAFETY_ANALYSIS;
    /// Stops the thread; once it has ended, empties the wheel (the timers stay registered).
    basis::Err_t close(bool waitForThreads) override;

    /// Moves the due handlers of every slot that has fallen due by `now` into _due, turning the
    /// wheel. Timer thread: the only writer of the wheel's date and index, so it reads them
    /// unlocked.
    void collectDue(const basis::TimeValue& now) VEL_NO_THREAD_SAFETY_ANALYSIS;
    /// Unlinks every handler from the slots and the due list (the timers stay registered).
    void clearWheel();

    /// The wheel; each slot has its own lock.
    VEL_TimerSlot _slots[kSlotCount];
    std::uint32_t _current VEL_GUARDED_BY(_registryLock) = 0;   ///< written by the timer thread
    basis::TimeValue _wheelDate VEL_GUARDED_BY(_registryLock);  ///< written by the timer thread
    VEL_TimerDueList _due;                                      ///< timer thread only
};

#endif  // THREAD_INCLUDE_VEL_TIMERMANAGERCIRCULARQUEUE_H
