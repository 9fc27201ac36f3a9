/// @file
#ifndef FRAME_INCLUDE_VEL_EPOLLIOREACTOR_H
#define FRAME_INCLUDE_VEL_EPOLLIOREACTOR_H

#include <cstddef>
#include <unordered_map>
#include <vector>

#include "TimeValue.h"
#include "VEL_Err.h"
#include "VEL_IOReactor.h"
#include "VEL_SockCtrlIOReactor.h"

struct epoll_event;

/// VEL_EpollIOReactor: the reactor's polling back end over Linux epoll, with the wake-up of
/// VEL_SockCtrlIOReactor. For servers that hold many connections, most of them quiet: a pass
/// costs what is ready, not what is registered, and the reactor holds as many handlers as its size
/// says (no limit of 2048).
///
/// @verbatim
///   VEL_EpollIOReactor reactor(20000, basis::TimeValue(2, 0));
///   reactor.init();    // the epoll descriptor and the wake-up socket
///   reactor.open();
/// @endverbatim
///
/// The polling set is the kernel's: each registered handle is in it, level-triggered, for the
/// operations it asked for, so a handler that reads only part of what waits is called again at the
/// next pass. A handle registered for no operation stays in the set, disarmed, so that a hang-up
/// on it cannot wake the wait for ever. An error or hang-up is reported as readiness for each
/// operation asked for, as select reports it, so that the handler meets the end of stream or the
/// error in its read or write. One wait reports at most min(size, kMaxEventsPerPass) handles; the
/// others stay ready for the next pass. Ready handles are reported in the kernel's order, so the
/// handlers of handles ready in the same pass are called in no particular order (the select back
/// end calls them in descending handle order).
///
/// A handle that the kernel refuses when it is added or changed (closed while registered: EBADF;
/// a file that cannot be polled: EPERM; no memory) makes the pass fail with kVELErr_Epoll, traced
/// "FRAME - Error during an epoll call {errno} ; <FD = n>", after which handleError() unregisters
/// its handler. A change for a number that the kernel no longer holds (ENOENT: closed, then given
/// to another socket) polls the socket that has the number now, as select does: that is how a
/// handler registered again before its removal was applied keeps working.
///
/// Closed while registered. The kernel drops a closed socket from its set without a word, so once
/// a second (kSweepPeriod) the wait looks at every registration (one epoll_ctl each; a wait
/// without limit wakes for it): a handle whose number no longer names the registered socket
/// (closed, perhaps given to another one since) makes the wait fail with kVELErr_BadFd, and
/// handleError() unregisters its handler, as with select. Its number can be registered again
/// once the removal is applied.
/// A socket still open under another descriptor (dup, fork) keeps its registration in the
/// kernel's set after its number is closed, out of reach of epoll_ctl, and its events go on
/// coming under that number: when one comes for a number that no registration knows (after
/// "remove, then close" from another thread, or after a close while registered), the pass is
/// traced as kVELErr_HandlerNotRegistered once and the set is rebuilt from the registrations
/// before the next wait, so that the reactor stays quiet.
///
/// Ownership: the reactor owns the epoll descriptor (closed by the destructor, replaced by a
/// rebuild) as well as what VEL_SockCtrlIOReactor owns.
///
/// Thread safety: as VEL_IOReactor; the event array and the kernel's set are touched by the
/// reactor thread only.
class VEL_EpollIOReactor : public VEL_SockCtrlIOReactor {
public:
    /// Most handles reported by one wait.
    static constexpr unsigned long kMaxEventsPerPass = 4096;
    /// Seconds between two looks at every registration.
    static constexpr long kSweepPeriod = 1;

    /// At most `size` handlers. Throws std::bad_alloc when the event array cannot be allocated.
    VEL_EpollIOReactor(unsigned long size, const basis::TimeValue& idleTimeout);
    /// Stops and joins the loop if it runs, then closes the epoll descriptor.
    ~VEL_EpollIOReactor() override;

    /// Creates the epoll descriptor (once, close-on-exec), then as VEL_SockCtrlIOReactor::init().
    /// kVELErr_Epoll (traced) when the descriptor cannot be created.
    VELErr_t init() override;
    /// After a pass that failed with kVELErr_Epoll, unregisters the handler whose handle the kernel
    /// refused; then as VEL_IOReactor::handleError. Reactor thread.
    bool handleError(VELErr_t status) override;

protected:
    /// kVELErr_Epoll when epoll_wait fails (traced), kVELErr_BadFd when a registered handle was
    /// closed, otherwise as VEL_IOReactor. Before init(), or with nothing registered and no
    /// time-out, waits one second at most, so that a stop is seen.
    VELErr_t waitForEvents(const basis::TimeValue* timeout) override;
    /// kVELErr_Ok, or kVELErr_Epoll when the kernel refuses the handle.
    VELErr_t addHandle(unsigned int handle, unsigned short ops) override;
    /// kVELErr_Ok, also for a handle the kernel no longer holds (closed); kVELErr_Epoll otherwise.
    VELErr_t removeHandle(unsigned int handle) override;
    /// kVELErr_Ok, or kVELErr_Epoll when the kernel refuses the handle.
    VELErr_t changeHandleOps(unsigned int handle, unsigned short ops) override;
    /// Grows the event array to the new size (kVELErr_Alloc when it cannot).
    VELErr_t doSetSize() override;
    /// Asks the kernel whether the registration of `handle` is still the socket that was added.
    bool isClosedHandle(unsigned int handle) override;

private:
    VELErr_t control(int operation, unsigned int handle, unsigned short ops);
    VELErr_t sleepEmpty(const basis::TimeValue* timeout);
    /// False when the number of a registration no longer names the socket that was added.
    bool probe(unsigned int handle, unsigned short ops);
    /// Probes every registration; reports those that are gone (true, with the status).
    bool sweep(VELErr_t* status);
    /// Replaces the epoll descriptor by a new one holding what _polled holds.
    VELErr_t rebuild();
    /// Turns the first `count` events into _ready; returns how many are worth reporting.
    std::size_t readyHandles(int count);
    /// reportReady over the first `count` elements of _ready.
    VELErr_t report(std::size_t count);

    int _epollFd;  ///< -1 until init()
    /// Filled by epoll_wait, then turned into _ready; both sized for one pass.
    std::vector<epoll_event> _events;
    std::vector<VELReadyHandle_t> _ready;
    /// The handle the last add or change could not put in the kernel's set (kVEL_NoHandle when
    /// the last call succeeded), for handleError right after the failed pass; cleared by each
    /// wait. Reactor thread.
    unsigned int _refused;
    /// The registrations this reactor put in the kernel's set, with their operations. Reactor
    /// thread, as every change of the set.
    std::unordered_map<unsigned int, unsigned short> _polled;
    basis::TimeValue _nextSweep;  ///< when the wait next looks at every registration
    bool _reporting;              ///< inside reportReady: a removal there answers a report
    bool _rebuildDue;             ///< a registration out of epoll_ctl's reach reported events
};

#endif  // FRAME_INCLUDE_VEL_EPOLLIOREACTOR_H
