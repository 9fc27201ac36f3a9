/// @file
#ifndef THREAD_INCLUDE_VEL_TIMERMANAGER_H
#define THREAD_INCLUDE_VEL_TIMERMANAGER_H

#include <atomic>
#include <cstdint>
#include <functional>

#include <boost/shared_ptr.hpp>

#include "CondThreadMutex.h"
#include "Object.h"
#include "RWThreadMutex.h"
#include "Task.h"
#include "Thread.h"
#include "ThreadMutex.h"
#include "TimeValue.h"
#include "VEL_Err.h"
#include "VEL_TimerHandler.h"
#include "VEL_TimerRegistry.h"
#include "VEL_TimerSubscriberInterface.h"

/// The strategy of the timer manager (see VEL_TimerManager).
enum VELTimerAlgorithm_t {
    kVELTimerAlgo_Linear = 0,
    kVELTimerAlgo_Circular = 1,
    kVELTimerAlgo_CircularAsync = 2
};

/// VEL_TimerManager: the process-wide timer service. It calls subscribers back after a delay, once,
/// a given number of times or until cancelled, from its own thread.
///
/// The manager is an abstract active object; three strategies derive from it and decide how
/// pending timers are kept and found due:
/// @verbatim
///   kVELTimerAlgo_Linear        VEL_TimerManagerLinearQueue         one sorted list
///   kVELTimerAlgo_Circular      VEL_TimerManagerCircularQueue       a 64-slot wheel, 125 ms a slot
///   kVELTimerAlgo_CircularAsync VEL_TimerManagerCircularQueueAsync  the wheel, with callbacks run
///                                                                    by a second thread (default)
/// @endverbatim
/// The application picks one with Init or RegisterFactory before the first GetInstance.
///
/// Times: a timer's interval is in whole seconds. Its first expiry is the next 125 ms boundary of
/// the monotonic clock after the moment of subscribing, plus the interval; repetitions follow
/// every interval from that expiry, so they do not drift. A callback never runs before its expiry
/// and, while the timer thread keeps up, at most two ticks (250 ms) after it.
///
/// Ownership: the manager owns its handlers (from its pool) and, for timers subscribed by shared
/// pointer without `weak`, one reference to the subscriber until the timer ends. A weak or raw
/// subscription keeps nothing alive; a raw subscriber must be unsubscribed before it is destroyed.
/// CloseSingleton destroys the singleton.
///
/// Thread safety: any thread may subscribe and unsubscribe, also from inside a callback.
/// Callbacks run on the manager's threads, one at a time. GetInstance may race with itself;
/// CloseSingleton must not race with any other use of the manager; from a callback, or from a
/// subscriber's destructor during a close, it is refused (see there). Code that only cancels (a
/// destructor's unsubscribe) reaches the manager through PeekInstance, which never creates one.
///
/// Lock order: _InstanceMutex, then a handler's mutex, then _registryLock, then a slot's lock.
/// A handler's mutex is held during its callback, which may subscribe and unsubscribe, so it is
/// never taken while the registry or a slot is locked. The pool's lock, the identifier
/// generator's lock and _wakeLock are taken alone.
class VEL_TimerManager : public basis::Task {
public:
    /// Makes a started manager (open() called); it becomes the singleton.
    using Factory_t = VEL_TimerManager* (*)();

    /// One tick of the timers' clock, 125 ms, in microseconds.
    static constexpr long kTickMicroseconds = 125000;

    /// Chooses the strategy of the next manager created. Any thread.
    static void Init(VELTimerAlgorithm_t algorithm);
    /// Registers a factory, which takes precedence over the algorithm (null removes it).
    static void RegisterFactory(Factory_t factory);
    /// The singleton, created on first call: by the factory if one is registered, else by the
    /// algorithm (an unknown algorithm gives null). Throws std::runtime_error when the timer
    /// thread cannot be started; no instance is stored then. Any thread.
    static VEL_TimerManager* GetInstance();
    /// The singleton if it exists, else null; never creates one. Any thread.
    static VEL_TimerManager* PeekInstance();
    /// Stops the singleton's threads, ends every pending timer (subscribers are released, not
    /// told), destroys the singleton and forgets the given-back identifiers. A later GetInstance
    /// creates a fresh manager with the then-current factory or algorithm. Called on one of the
    /// manager's threads (from a callback, or a subscriber's destructor run there), or from a
    /// subscriber's destructor while a close is under way, it closes nothing and returns, after
    /// a warning traced under mask 36.
    /// REQUIRES: no other thread uses the manager.
    static void CloseSingleton();

    ~VEL_TimerManager() override;

    /// Starts the timer thread. kErr_Ok; throws std::runtime_error (and traces under mask 36) when
    /// the thread cannot be started.
    basis::Err_t open() override;

    /// Arms a timer for `subscriber`: first after `duration` seconds, then every `duration` seconds
    /// as `period` says (0 or 1: once, n > 1: n times, negative: until unsubscribed). Returns the
    /// timer's identifier (0 when memory ran out). With `weak` the manager holds only a weak
    /// reference: a subscriber destroyed meanwhile is not called (a line is traced under mask 4
    /// instead) and its timer ends, repeating or not. Any thread.
    unsigned long subscribe(const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber,
                            unsigned long duration, long period, bool weak);
    /// The same for an object the manager does not own.
    /// REQUIRES: the object outlives the timer, or is unsubscribed before it is destroyed.
    unsigned long subscribe(VEL_TimerSubscriberInterface* subscriber, unsigned long duration,
                            long period);
    /// Cancels timer `id`. Returns `id` when the timer was waiting: its subscriber's cancel() has
    /// been called and it is released. Returns 0 for an unknown identifier, or when the timer was
    /// already on its way to its callback: the subscriber is then released without being told,
    /// after a running callback has returned (unless the caller is that callback). Either way the
    /// subscriber is not called again once this returns. Any thread.
    virtual unsigned long unsubscribe(unsigned long id) = 0;

    /// Traces `text` as a thread-module error line: "THREAD - <text of code> ; <text>", level 3,
    /// under mask 36. For exceptions caught on the timer threads.
    static void TraceCaught(VELErr_t code, const char* text);

protected:
    friend class VEL_TimerHandler;

    VEL_TimerManager();

    /// The timer thread: calls executeSubscribers until the stop flag is set; an exception it
    /// throws is traced and the loop goes on. Returns the last result.
    bool run() override;

    /// Arms a handler for `subscriber` and places it; returns its identifier. Any thread.
    virtual unsigned long subscribeImpl(
            const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber,
            unsigned long duration, long period) = 0;
    /// Places an armed handler in the queue; also re-arms a repeating timer. Any thread.
    virtual void subscribeHandler(VEL_TimerHandler* handler, unsigned long arg) = 0;
    /// subscribeHandler for a caller that holds _registryLock, for reading or for writing.
    virtual void placeHandler(VEL_TimerHandler* handler) = 0;
    /// Ends timer `id`: removes it from the registry and gives its handler back. Unknown: nothing.
    virtual void removeTimer(unsigned long id);
    /// The timer thread's loop; returns true once the stop flag is seen, after at most one tick.
    virtual bool executeSubscribers() = 0;
    /// Called by the loop on every pass. Does nothing here.
    virtual void notifyActivity();
    /// Sets the stop flag and wakes the timer thread. Any thread.
    virtual void stopTimer();
    /// Fires one due handler; true when its timer has ended. Timer thread.
    virtual bool triggerSubscriber(VEL_TimerHandler* handler, unsigned long arg);

    // For the strategies.

    /// Runs `work` on a timer thread: an exception it throws is traced (mask 36) and dropped.
    static void RunCatching(const std::function<void()>& work);
    /// Marks the calling thread as one of the manager's own threads, where CloseSingleton is
    /// refused. Called first by every thread the manager starts.
    static void EnterTimerThread();
    /// Traces (mask 36) and throws the std::runtime_error of a thread that could not start.
    [[noreturn]] static void ThrowSpawnFailure();

    /// `date` with its microseconds moved to the next 125 ms boundary, by a whole tick when it
    /// stands on one.
    static basis::TimeValue NextTick(const basis::TimeValue& date);
    /// Hands a started manager over to its caller; deletes it if open() throws.
    static VEL_TimerManager* Started(VEL_TimerManager* manager);
    /// subscribeImpl of the strategies: takes a handler from the pool, arms it from the next tick
    /// boundary, enters it in the registry and places it with placeHandler, under one hold of the
    /// registry lock. Returns its identifier, or 0 when no handler could be made.
    unsigned long startTimer(const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber,
                             unsigned long duration, long period);
    /// unsubscribe over `slots` (the handler sits in slots[getPos()] when it is waiting).
    unsigned long cancelTimer(unsigned long id, VEL_TimerSlot* slots);
    /// Triggers the handlers of `due` in order, removing the timers that end; stops early when
    /// the manager is stopping. Timer thread.
    void triggerAll(VEL_TimerDueList& due);
    /// Waits `span` (clamped to 0 .. one tick) or until stopTimer. Timer thread.
    void sleepFor(const basis::TimeValue& span);
    /// True once the timer thread has been told to end.
    bool isStopping() const { return _stop.load(); }

    std::atomic<bool> _stop{true};  ///< false while the timer thread should keep running
    basis::ThreadID_t _threadId;    ///< the timer thread, stored by activate
    /// The armed timers by identifier.
    VEL_TimerRegistry _registry VEL_GUARDED_BY(_registryLock);
    basis::RWThreadMutex _registryLock;  ///< guards _registry and, in the wheel, its turning
    /// The handlers, lent to armed timers.
    basis::ObjectMgr<VEL_TimerHandler> _handlerPool;

private:
    class RawPtrWrapperSubscriber;
    class WeakPtrWrapperSubscriber;

    static VEL_TimerManager* Create(VELTimerAlgorithm_t algorithm);
    /// Empties the registry and gives every handler back. REQUIRES: the threads have ended.
    void releaseAll();

    basis::ThreadMutex _wakeLock;  ///< leaf lock; with _wakeUp, the timer thread's sleep
    basis::CondThreadMutex _wakeUp{_wakeLock};

    static std::atomic<VELTimerAlgorithm_t> _Algo;
    static std::atomic<Factory_t> _Factory;
    static std::atomic<VEL_TimerManager*> _Instance;
    static basis::ThreadMutex _InstanceMutex;  ///< guards the creation and the end of _Instance
};

#endif  // THREAD_INCLUDE_VEL_TIMERMANAGER_H
