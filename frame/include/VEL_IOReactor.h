/// @file
#ifndef FRAME_INCLUDE_VEL_IOREACTOR_H
#define FRAME_INCLUDE_VEL_IOREACTOR_H

#include <atomic>
#include <cstddef>
#include <vector>

#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "Object.h"
#include "Task.h"
#include "ThreadAnnotations.h"
#include "ThreadMutex.h"
#include "TimeValue.h"
#include "VEL_Err.h"
#include "VEL_EventHandler.h"
#include "VEL_PollingEntry.h"

/// One handle that a back end's wait found ready, with the operations found (kVELOp_Read,
/// kVELOp_Write, or VEL_IOReactor::kInvalidHandleOp for a handle the system says is not open).
struct VELReadyHandle_t {
    unsigned int handle;  ///< The socket handle.
    unsigned short ops;   ///< The operations found ready.
};

/// VEL_IOReactor: the core of the reactor, a basis::Task whose one thread waits for readiness on
/// many socket handles and calls the matching VEL_EventHandler call-backs.
///
/// @verbatim
///   VEL_SelectIOReactor reactor(1000, basis::TimeValue(2, 0));
///   reactor.init();                                   // the wake-up socket
///   reactor.open();                                   // starts the reactor thread
///   reactor.addEventHandler(handler, basis::TimeValue(), kVELOp_Read);   // from any thread
///   ...
///   reactor.stop();  reactor.wait();  reactor.clean();   // every handler gets handleClose()
/// @endverbatim
///
/// The polling itself comes from a back end (VEL_SelectIOReactor); the core settles the rest:
/// - Registration from any thread never touches the polling set: add, remove and change mark the
///   handle's entry, queue it on the modification list and wake the reactor thread, which applies
///   the queued changes (processModifSet) before it waits again. A handler that removes itself or
///   changes its own operations from its call-back takes effect at once, without a wake-up.
/// - One pass of the loop: dispatch the entries found ready by the previous wait (the pending
///   list, most recently reported first), apply the queued changes, check inactivity when due,
///   wait. No lock is held while a call-back runs, so call-backs may register, change and remove
///   any handler, and other threads may do the same meanwhile.
/// - Order: the handlers of handles found ready by the same wait are called in descending handle
///   order with the select back end (it reports them in ascending order); the epoll back end
///   reports them in the kernel's order, so they may be called in any order. Each handler's own
///   call-backs keep their order (input, output, inactivity, close).
/// - Inactivity: a handler registered with a zero time-out gets the reactor's default
///   (getInactivityTimeout, 1800 s unless set), one registered with kNoInactivityTimeout is never
///   checked. Checks run every getInactivityCheckFreq() seconds (0: never) and, on a busy reactor,
///   at least every 2000 passes; a handler silent for longer than its time-out gets
///   handleInactivity() once per period. Dates are monotonic (GetHRTime). A change of operations
///   made from a thread other than the handler's own call-back switches the inactivity check off
///   for that handler. Checks run between passes, and a reactor waiting without limit makes no
///   pass while nothing happens: set do-idle to notice silence on a quiet reactor (its idle
///   time-out then bounds the delay).
/// - Registering the same handle twice gives kVELErr_FdRegistered; registering it again before a
///   removal was applied turns the removal into a change. Remove a handler before closing its
///   handle: Linux reuses a closed descriptor's number at once.
/// - Idle: with setDoIdle(true) a wait lasts at most the idle time-out, after which handleIdle()
///   runs on the reactor thread.
///
/// The reactor can also be driven without its thread (init, start, then waitEvents and
/// processEvents in turn, from one thread at a time): the driving thread is the reactor thread.
///
/// A back end supplies waitForEvents (reporting what it found through reportReady), addHandle,
/// removeHandle, changeHandleOps and wakeUp, and calls stopLoop() first in its destructor.
///
/// Ownership: the reactor holds each registered handler by shared pointer until the removal is
/// applied (or clean() has run); it never closes handles itself. Stop the loop (stop(), then
/// wait()) before destroying a reactor of a class that overrides its hooks; the back ends' own
/// destructors stop and join the loop otherwise.
///
/// Thread safety: any thread may add, change or remove handlers, set the configuration and call
/// stop(); dispatch and the back-end calls happen on the reactor thread only. init(), open(),
/// start(), initStop() and clean() are called by the owner while the loop is not running.
class VEL_IOReactor : public basis::Task {
public:
    /// The time-out of a handler that is never checked for inactivity (-1 s).
    static const basis::TimeValue kNoInactivityTimeout;
    /// The reactor's inactivity time-out until setInactivityTimeout (1800 s).
    static const basis::TimeValue kDefaultInactivityTimeout;
    /// Passes after which a busy reactor checks inactivity even within its period.
    static constexpr unsigned short kPassesPerCheck = 2000;
    /// Reported by a back end for a handle that is not an open descriptor.
    static constexpr unsigned short kInvalidHandleOp = 0x8000;

    /// At most `size` handlers; waits last at most `idleTimeout` once setDoIdle(true). Stopped.
    /// Throws std::bad_alloc when the tables cannot be allocated.
    VEL_IOReactor(unsigned long size, const basis::TimeValue& idleTimeout);
    ~VEL_IOReactor() override;

    /// Starts the reactor thread, which runs the loop until stop(); first waits for a previous
    /// loop thread to end. basis::kErr_Thread when the thread cannot start.
    /// REQUIRES: init() succeeded; the loop is not running.
    basis::Err_t open() override;

    /// Prepares the back end (the wake-up socket). Here: kVELErr_Ok.
    virtual VELErr_t init();
    /// Registers `handler` for `ops` (kVELOp_Read | kVELOp_Write). `inactivityTimeout` zero: the
    /// reactor's default; kNoInactivityTimeout: never checked. kVELErr_InvalidPointer for a null
    /// handler, kVELErr_InvalidSocket for a handler without handle, kVELErr_ReactorFull when
    /// getSize() handlers are registered, kVELErr_FdRegistered when the handle is registered
    /// (also from the handle's own call-back, unless it removed itself first), kVELErr_Alloc,
    /// or the failure of the wake-up. Any thread.
    virtual VELErr_t addEventHandler(const boost::shared_ptr<VEL_EventHandler>& handler,
                                     const basis::TimeValue& inactivityTimeout, unsigned short ops);
    /// Unregisters the handler of `handler`'s handle; the reactor drops its reference once the
    /// removal is applied (at once when called from the handler's own call-back). Removing it
    /// twice is Ok from its own call-back, kVELErr_HandlerNotRegistered otherwise, as for a handle
    /// never registered; kVELErr_InvalidEntry when the entry was found inconsistent (it is
    /// dropped). Any thread.
    virtual VELErr_t removeEventHandler(const boost::shared_ptr<VEL_EventHandler>& handler);
    /// Replaces the operations of a registered handler (0 stops polling it). From the handler's
    /// own call-back the change takes effect at once and keeps its inactivity check; otherwise it
    /// is queued and the handler is no longer checked for inactivity. kVELErr_HandlerNotRegistered,
    /// kVELErr_InvalidEntry (the entry is dropped), a back-end failure. Any thread.
    virtual VELErr_t changeEventHandlerOps(const boost::shared_ptr<VEL_EventHandler>& handler,
                                           unsigned short ops);
    /// From a call-back of `handler` (the reactor thread dispatching it): dispatches `ops`
    /// (kVELOp_Read, kVELOp_Write) to it again at the next pass, without waiting for its
    /// descriptor. For a handler that holds input its descriptor no longer shows (bytes a
    /// secure stream has already decrypted) and that stopped reading to let the others have their
    /// turn. The next wait only polls, and the handler is called with what that poll found
    /// besides, among the other ready handlers; nothing is dispatched when it has been removed or
    /// replaced meanwhile. kVELErr_InvalidAction when not called from the handler's own
    /// call-back; kVELErr_Alloc.
    VELErr_t redispatch(const boost::shared_ptr<VEL_EventHandler>& handler, unsigned short ops);
    /// processEvents(), then, when that succeeded, waitEvents(). Reactor thread.
    virtual VELErr_t waitAndProcessEvents();
    /// Waits for readiness: without limit, or at most the idle time-out with do-idle on, after
    /// which handleIdle() runs (true: kVELErr_Timeout, false: kVELErr_UserCode); only polls when
    /// a handler asked to be dispatched again (redispatch), whose operations are then marked
    /// ready with those found. kVELErr_ReactorStopped once stopped; a back-end failure (see
    /// GetPollingError). Reactor thread.
    virtual VELErr_t waitEvents();
    /// Dispatches the pending entries, then applies the queued changes. kVELErr_UserCode when a
    /// handler failed (the entries not yet dispatched stay pending for the next call), or the
    /// failure of a queued change (the rest stays queued). Reactor thread.
    virtual VELErr_t processEvents();
    /// For a reactor driven from application threads instead of its own task thread: the thread
    /// that called processEvents()/waitEvents() is the reactor thread until it calls this, under
    /// the same lock that serialises the drivers. Afterwards its registration calls take the
    /// general (queued) path, so they never touch the dispatch state of another driver.
    void leaveReactorThread();
    /// Called by the loop with each failed pass's status; the answer is ignored. Acts on
    /// kVELErr_BadFd only: the handlers of registered handles that are no longer open sockets
    /// are removed (none found: traced as a corrupt reactor). Reactor thread.
    virtual bool handleError(VELErr_t status);
    /// Hook called at the top of every pass and before each dispatch. Here: nothing.
    virtual void notifyActivity();
    /// Changes the maximum number of handlers; the back end is told on the reactor thread.
    /// kVELErr_BadReactorSize for 0 or fewer than getNbElement(), kVELErr_Alloc, the wake-up's
    /// failure. Any thread.
    virtual VELErr_t setSize(unsigned long size);
    /// Gives every registered handler handleClose() once, on the calling thread, which becomes
    /// the reactor thread, whatever the other handlers answer; then unregisters the handlers that
    /// did not remove themselves and applies the queued changes: the reactor is left empty.
    /// Returns the first failure (kVELErr_UserCode for a handleClose() that returned false), after
    /// the whole walk; each failure is traced. REQUIRES: the loop has ended.
    virtual VELErr_t clean();

    /// The maximum number of handlers. Any thread.
    unsigned long getSize() const { return _size.load(); }
    /// The number of registered handlers. Any thread.
    unsigned long getNbElement() const { return _nbElements.load(); }
    /// True from stop() (and from construction) until start(). Any thread.
    bool isStopped() const { return _stopped.load(); }
    ///@{
    /// The do-idle flag: with it on, a wait lasts at most the idle time-out, then handleIdle()
    /// runs. Any thread.
    void setDoIdle(bool doIdle) { _doIdle.store(doIdle); }
    bool isIdle() const { return _doIdle.load(); }
    ///@}
    ///@{
    /// The longest wait while do-idle is on. Any thread.
    void setIdleTimeout(const basis::TimeValue& timeout);
    basis::TimeValue getIdleTimeout() const;
    ///@}
    ///@{
    /// The inactivity time-out of handlers registered with a zero time-out (1800 s unless set).
    /// Any thread.
    void setInactivityTimeout(const basis::TimeValue& timeout);
    basis::TimeValue getInactivityTimeout() const;
    ///@}
    /// Seconds between inactivity checks; 0 disables them. Takes effect at the next pass.
    void setInactivityCheckFreq(unsigned short seconds);
    /// Seconds between inactivity checks; 0: none.
    unsigned short getInactivityCheckFreq() const { return _checkFreq.load(); }
    /// The last non-zero status of a loop pass.
    VELErr_t getLastError() const { return _lastError.load(); }

    /// Asks the loop to end (it returns kVELErr_ReactorStopped from its wait) and wakes it; a
    /// loop started later ends at once unless start() or initStop() ran meanwhile. Returns the
    /// wake-up's failure. Any thread.
    VELErr_t stop();
    /// Make a stopped reactor usable again (clear the stopped and stop-requested flags).
    void start();
    /// The same as start().
    void initStop();

protected:
    // Back-end interface. Each runs on the reactor thread; add, remove and change may run under
    // the table lock, so they must not register handlers, call out or trace.

    /// Waits at most `timeout` (null: no limit) and reports what it found through reportReady.
    /// kVELErr_Ok, kVELErr_Timeout when nothing came, kVELErr_ReactorStopped when stopped, or
    /// GetPollingError() for a failed wait.
    virtual VELErr_t waitForEvents(const basis::TimeValue* timeout) = 0;
    /// Adds `handle` to the polling set, watched for `ops`.
    virtual VELErr_t addHandle(unsigned int handle, unsigned short ops) = 0;
    /// Takes `handle` out of the polling set.
    virtual VELErr_t removeHandle(unsigned int handle) = 0;
    /// Watches `handle` for `ops` from now on.
    virtual VELErr_t changeHandleOps(unsigned int handle, unsigned short ops) = 0;
    /// Adapts the back end to getSize(). Here: kVELErr_Ok.
    virtual VELErr_t doSetSize();
    /// Makes a blocked waitForEvents return soon. Any thread.
    virtual VELErr_t wakeUp() = 0;
    /// Called when a wait with do-idle on timed out; false makes waitEvents fail. Here: true.
    virtual bool handleIdle();
    /// For handleError: true when the registered `handle` was closed since it was registered.
    /// Here: it is not an open socket (getsockopt). Runs under the table lock.
    virtual bool isClosedHandle(unsigned int handle);

    /// The reactor thread's loop: one pass after another until the reactor is stopped.
    bool run() override;
    /// Stops the loop and, when asked, waits for its thread.
    basis::Err_t close(bool waitForThreads) override;

    /// Stops the loop and joins its thread if one was started. Every back end's destructor calls
    /// it first, while the back end can still be woken.
    void stopLoop();
    /// Appends the entry to the modification list. REQUIRES: the table lock.
    void addToModifList(VEL_PollingEntry* entry) VEL_REQUIRES(_tableLock);
    /// Marks `ops` ready on the entry and puts it on the pending list unless it is there.
    /// Reactor thread.
    void addReadyOps(VEL_PollingEntry* entry, unsigned short ops);
    /// For waitForEvents: marks the `count` handles of `ready` in that order. A handle whose
    /// removal is under way is skipped. A handle no registration knows is taken out of the
    /// polling set and reported as kVELErr_HandlerNotRegistered, and the handles after it wait
    /// for the next pass; a registered handle reported with kInvalidHandleOp makes the wait fail
    /// with kVELErr_BadFd. Reactor thread.
    VELErr_t reportReady(const VELReadyHandle_t* ready, std::size_t count);
    /// Maps the thread's last system error after a failed wait: EINTR gives kVELErr_Ok (the pass
    /// repeats), EFAULT kVELErr_IllegalAddress, EINVAL kVELErr_BadValue, EBADF and ENOTSOCK
    /// kVELErr_BadFd, ENETDOWN kVELErr_NetDown, anything else kVELErr_Polling. Traced.
    static VELErr_t GetPollingError();

    ///@{
    /// The steps of a pass: dispatch the pending entries, apply the queued changes, check
    /// inactivity. Reactor thread.
    VELErr_t processPendingEvents();
    VELErr_t processModifSet();
    void checkInactivity();
    ///@}

private:
    class Dispatching;
    /// A handler that asked to be dispatched again; held weakly, and compared by owner, so that
    /// a handler removed meanwhile is neither kept alive nor mistaken for another.
    struct Redispatch {
        boost::weak_ptr<VEL_EventHandler> handler;
        unsigned int handle;
        unsigned short ops;
    };

    bool isReactorThread() const;
    void becomeReactorThread();
    VELErr_t wake();
    VELErr_t tracedWakeUp();
    bool reserveSlot();
    void releaseSlot();
    VEL_PollingEntry* takeEntry();
    void freeEntry(VEL_PollingEntry* entry);
    VELErr_t addLocked(unsigned int handle, const boost::shared_ptr<VEL_EventHandler>& handler,
                       const basis::TimeValue& inactivityTimeout, unsigned short ops,
                       boost::shared_ptr<VEL_EventHandler>* replaced) VEL_REQUIRES(_tableLock);
    bool removeDispatched(unsigned int handle, VELErr_t* code);
    VELErr_t removeLocked(unsigned int handle) VEL_REQUIRES(_tableLock);
    bool changeDispatched(unsigned int handle, unsigned short ops, VELErr_t* code);
    VELErr_t changeLocked(unsigned int handle, const boost::shared_ptr<VEL_EventHandler>& handler,
                          unsigned short ops, boost::shared_ptr<VEL_EventHandler>* replaced)
            VEL_REQUIRES(_tableLock);
    VELErr_t applyModification(VEL_PollingEntry* entry) VEL_REQUIRES(_tableLock);
    bool runPass(basis::TimeValue& nextCheck);
    /// The end of clean(): removes what is still registered and applies the queued changes.
    VELErr_t unregisterAll();
    void checkWhenDue(basis::TimeValue& nextCheck);
    /// Marks the operations that handlers asked for with redispatch ready. Reactor thread.
    void markRedispatched();

    /// Every registered handle (state Active, ToAdd, ToChange, Removed) and the handles with a
    /// queued change (ToAdd, ToRemove, ToChange).
    VEL_PollingTable _entryTable VEL_GUARDED_BY(_tableLock);
    VEL_PollingTable _modifTable VEL_GUARDED_BY(_tableLock);
    std::atomic<unsigned long> _size;        ///< written under _counterLock
    std::atomic<unsigned long> _nbElements;  ///< written under _counterLock
    std::atomic<bool> _stopped;              ///< written under _stopLock
    bool _stopRequested VEL_GUARDED_BY(_stopLock);
    /// Guards the transitions of _stopped and _stopRequested. Never held with another lock.
    basis::ThreadMutex _stopLock;
    std::atomic<bool> _doIdle;
    std::atomic<long long> _idleTimeoutUs;
    std::atomic<unsigned short> _checkFreq;
    std::atomic<long long> _inactivityTimeoutUs;
    std::atomic<unsigned short> _checkCounter;  ///< passes since the last check
    std::atomic<VELErr_t> _lastError;
    std::atomic<unsigned long> _reactorThread;  ///< pthread handle; 0 when none
    VEL_PollingEntry* _modifHead VEL_GUARDED_BY(_tableLock);
    VEL_PollingEntry* _modifTail VEL_GUARDED_BY(_tableLock);
    /// Guards the transitions of _size and _nbElements, so that the size check and the count
    /// move together. Lock order: last (after the table lock and any entry lock).
    basis::ThreadMutex _counterLock;
    VEL_PollingEntry* _pendingHead;   ///< reactor thread
    unsigned long _pendingCount;      ///< reactor thread
    VEL_PollingEntry* _releasedHead;  ///< reactor thread
    VEL_PollingEntry* _dispatching;   ///< the entry whose call-backs run; reactor thread
    bool _wakeOwed;  ///< a call-back queued a change without waking; reactor thread
    std::vector<Redispatch> _redispatched;  ///< asked for since the last wait; reactor thread
    /// Handlers dropped by processModifSet, released once the table lock is free, so that no
    /// handler's destructor runs under it; reactor thread.
    std::vector<boost::shared_ptr<VEL_EventHandler>> _droppedHandlers;
    basis::ObjectMgr<VEL_PollingEntry> _entryPool;  ///< locks internally (a leaf lock)
    /// Guards both tables and the modification list. Lock order: first (before an entry's lock,
    /// then the counter lock; the pool's lock and a handler's activity lock are leaves below it).
    /// Back-end add/remove/change run under it; no call-back, handler destructor or trace does.
    basis::ThreadMutex _tableLock;
};

#endif  // FRAME_INCLUDE_VEL_IOREACTOR_H
