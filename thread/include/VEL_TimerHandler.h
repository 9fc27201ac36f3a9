/// @file
#ifndef THREAD_INCLUDE_VEL_TIMERHANDLER_H
#define THREAD_INCLUDE_VEL_TIMERHANDLER_H

#include <atomic>
#include <cstdint>

#include <boost/intrusive/list.hpp>
#include <boost/intrusive/set.hpp>
#include <boost/shared_ptr.hpp>

#include "Object.h"
#include "ThreadMutex.h"
#include "TimeValue.h"
#include "VEL_TimerSubscriberInterface.h"
#include "VolatileUID.h"

class VEL_TimerManager;

/// VEL_TimerHandler: one armed timer of the timer manager, and the two intrusive lists a handler
/// lives in while it waits: VEL_TimerSlot (pending timers sorted by expiry date) and
/// VEL_TimerDueList (timers found due, waiting for their trigger on the timer thread).
///
/// A handler holds the timer's identifier, its expiry date on the monotonic clock, its interval
/// and repeat count, the slot it sits in and a shared reference to its subscriber. The manager
/// takes handlers from its pool (basis::ObjectMgr<VEL_TimerHandler>), arms them with setTimer,
/// fires them with trigger and gives them back with unlock.
///
/// Identifiers come from one process-wide basis::VolatileUID: a fresh one at each setTimer, given
/// back by unlock (so numbers are reused oldest first). CloseGenerator forgets the given-back
/// numbers but keeps the last one issued, so identifiers stay unique across a manager restart.
///
/// Invariants of the lists:
/// @verbatim
///   - a handler is in at most one slot; while it is, getPos() names that slot and its date does
///     not change (the slot is ordered by it);
///   - a slot keeps one group per distinct date, groups sorted earliest first; within a group the
///     handler inserted last comes first. The newest handler of each group sits in the slot's
///     tree (its slot hook linked), the older ones hang from it in a chain, newest to oldest;
///   - insert costs O(log d) for d distinct dates in the slot, remove and takeDue O(1) unless a
///     group empties (O(log d) then); neither allocates: the handler carries the links. Expiry
///     dates stand on tick boundaries, so d stays small even when a slot holds many timers.
/// @endverbatim
/// Ownership: the pool owns every handler; the handler owns one reference to its subscriber
/// until the timer is cancelled or unlocked.
///
/// Thread safety: trigger runs on a timer thread; cancel, isCanceled and unlock may run on any
/// thread. The handler's mutex guards the subscriber reference and is held during handleEvent, so
/// cancel(true) waits for a running callback. It is not recursive: a callback must not cancel(true)
/// its own handler. The date, duration and position are written by the manager while it holds the
/// locks that own the handler (see VEL_TimerManager); read them only there. VEL_TimerSlot and
/// VEL_TimerDueList are not locked: their users hold the slot's lock, or keep the list on one
/// thread.
class VEL_TimerHandler {
public:
    VEL_TimerHandler() = default;
    ~VEL_TimerHandler() = default;
    VEL_TimerHandler(const VEL_TimerHandler&) = delete;
    VEL_TimerHandler& operator=(const VEL_TimerHandler&) = delete;

    /// Arms the handler: stores the interval (clamped to 32 bits), the repeat count (0 or 1: one
    /// shot, n > 1: n shots, any negative value: until cancelled), the subscriber and the pool
    /// object that carries this handler (may be null for a handler outside any pool), draws a
    /// fresh identifier, and sets the expiry date to `now` plus `duration` whole seconds.
    /// REQUIRES: the handler is not armed.
    void setTimer(unsigned long duration, long repeatCount,
                  boost::shared_ptr<VEL_TimerSubscriberInterface> subscriber,
                  basis::Object<VEL_TimerHandler>* pooled,
                  const basis::TimeValue& now) VEL_NO_THREAD_SAFETY_ANALYSIS;

    /// Fires the timer: calls the subscriber's handleEvent(identifier) with the handler's mutex
    /// held. Returns true when the timer is finished (cancelled, last shot, or the callback threw:
    /// the exception is traced under mask 36), false when it has moved its date on by the interval
    /// and put itself back through manager->subscribeHandler(this, arg). Timer thread only.
    bool trigger(VEL_TimerManager* manager, unsigned long arg);

    /// final false: the timer fires no more after its pending expiry; the subscriber is not told.
    /// final true: calls the subscriber's cancel() and drops the reference, waiting for a running
    /// callback to return first; the handler then reads as cancelled. Any thread.
    void cancel(bool final);
    /// True once the subscriber reference is dropped. Any thread.
    bool isCanceled() const;

    /// Keeps the handler out of its pool until the matching detach(), so that a thread that has
    /// lost the race with the timer thread may still touch it. Any thread.
    void retain();
    /// Drops the subscriber without telling it, waiting for a running callback to return, unless
    /// the caller is that callback; then ends what retain() began. Any thread.
    void detach();

    /// Ends the handler's life as a timer: drops the subscriber reference, gives the identifier
    /// back and returns the handler to its pool. Call once per setTimer.
    void unlock();
    /// cancel(true) and unlock() in one hold of the handler's mutex.
    void cancelAndUnlock();

    /// The interval, whole seconds.
    unsigned long getDuration() const { return _duration; }
    /// The timer's identifier.
    unsigned long getID() const { return _id; }
    ///@{
    /// The slot the handler was last placed in.
    unsigned long getPos() const { return _pos.load(std::memory_order_relaxed); }
    void setPos(unsigned long pos) { _pos.store(pos, std::memory_order_relaxed); }
    ///@}
    /// The expiry date (monotonic clock).
    const basis::TimeValue& getCurrentDate() const { return _date; }

    /// Forgets the given-back identifiers; the next one drawn follows the last one issued.
    /// Called when the manager shuts down. Any thread.
    static void CloseGenerator();

protected:
    /// The process-wide generator, made on first use.
    /// REQUIRES: *_GeneratorLock held.
    static basis::VolatileUID<unsigned long>* GetGenerator();

private:
    friend class VEL_StaticInit;
    friend class VEL_TimerSlot;
    friend class VEL_TimerDueList;

    static unsigned long DrawID();
    static void ReturnID(unsigned long id);

    /// Drops the subscriber reference under the mutex (unless the caller holds it) and returns
    /// it, after calling its cancel() when `tell` is set and it is still there.
    boost::shared_ptr<VEL_TimerSubscriberInterface> takeSubscriber(bool tell);
    /// Gives the identifier back and the handler to its pool.
    void giveBack();

    /// What cancelling a waiting timer touches comes first, so that it shares few cache lines;
    /// the timer has usually long left the cache by then.
    std::uint32_t _id = 0;
    std::atomic<std::uint32_t> _pos{0};  ///< the slot the handler was last placed in
    boost::shared_ptr<VEL_TimerSubscriberInterface> _subscriber VEL_GUARDED_BY(_mutex);
    basis::Object<VEL_TimerHandler>* _pooled = nullptr;
    boost::intrusive::set_member_hook<> _slotHook;  ///< linked while newest of its date in a slot
    VEL_TimerHandler* _newer = nullptr;  ///< the next newer handler of the same date and slot
    VEL_TimerHandler* _older = nullptr;  ///< the next older one; both null outside a slot
    mutable basis::ThreadMutex _mutex;   ///< guards _subscriber and the calls to it
    basis::TimeValue _date;              ///< expiry date (monotonic clock)
    std::uint32_t _duration = 0;         ///< interval in whole seconds
    std::atomic<std::int32_t> _repeatCount{0};
    boost::intrusive::list_member_hook<> _dueHook;  ///< linked while in a due list

    /// Created at library start-up. Guards _Generator and _LastIssued.
    static basis::ThreadMutex* _GeneratorLock;
    static basis::VolatileUID<unsigned long>* _Generator;
    static std::uint32_t _LastIssued;  ///< last identifier issued by a closed generator
};

/// Pending timers sorted by expiry date (see VEL_TimerHandler for its invariants). Not locked by
/// itself: its users hold getLock().
class VEL_TimerSlot {
public:
    VEL_TimerSlot() = default;
    ~VEL_TimerSlot() { clear(); }
    VEL_TimerSlot(const VEL_TimerSlot&) = delete;
    VEL_TimerSlot& operator=(const VEL_TimerSlot&) = delete;

    /// Guards every other operation of the slot.
    basis::ThreadMutex& getLock() { return _lock; }

    /// Places `handler` before every handler whose date is not earlier than its own.
    /// REQUIRES: the handler is in no slot.
    void insert(VEL_TimerHandler& handler);
    /// Unlinks `handler` if it is in this slot; false when it is in no slot.
    /// REQUIRES: the handler is in no other slot.
    bool remove(VEL_TimerHandler& handler);
    /// Unlinks and returns the first handler if its date is not later than `now`, else null.
    VEL_TimerHandler* takeDue(const basis::TimeValue& now);
    /// The number of handlers in the slot.
    unsigned long getCount() const { return _count; }
    /// Unlinks every handler.
    void clear();

private:
    struct EarlierDate {
        bool operator()(const VEL_TimerHandler& a, const VEL_TimerHandler& b) const {
            return a.getCurrentDate() < b.getCurrentDate();
        }
    };
    /// The newest handler of each date, one per date.
    using Tree = boost::intrusive::set<
            VEL_TimerHandler,
            boost::intrusive::member_hook<VEL_TimerHandler, boost::intrusive::set_member_hook<>,
                                          &VEL_TimerHandler::_slotHook>,
            boost::intrusive::compare<EarlierDate>, boost::intrusive::constant_time_size<false>>;

    /// Unlinks the newest handler of its date; the next older one, if any, takes its place.
    void removeNewest(VEL_TimerHandler& handler);

    basis::ThreadMutex _lock;
    Tree _newest;
    unsigned long _count = 0;
};

/// Timers found due, waiting for their trigger on the timer thread. Not locked: kept on one
/// thread.
class VEL_TimerDueList {
public:
    VEL_TimerDueList() = default;
    ~VEL_TimerDueList() { clear(); }
    VEL_TimerDueList(const VEL_TimerDueList&) = delete;
    VEL_TimerDueList& operator=(const VEL_TimerDueList&) = delete;

    /// Appends `handler`. REQUIRES: it is in no due list.
    void pushBack(VEL_TimerHandler& handler) { _handlers.push_back(handler); }
    /// Unlinks and returns the first handler, or null when the list is empty.
    VEL_TimerHandler* popFront();
    /// True when no handler is waiting.
    bool isEmpty() const { return _handlers.empty(); }
    /// Unlinks every handler.
    void clear() { _handlers.clear(); }

private:
    using List = boost::intrusive::list<
            VEL_TimerHandler,
            boost::intrusive::member_hook<VEL_TimerHandler, boost::intrusive::list_member_hook<>,
                                          &VEL_TimerHandler::_dueHook>>;
    List _handlers;
};

#endif  // THREAD_INCLUDE_VEL_TIMERHANDLER_H
