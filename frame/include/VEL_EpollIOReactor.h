// VEL_EpollIOReactor: the reactor's polling back end over Linux epoll, with the wake-up of
// VEL_SockCtrlIOReactor. For servers that hold many connections, most of them quiet: a pass
// costs what is ready, not what is registered, and the reactor holds as many handlers as its size
// says (no limit of 2048).
//
//   VEL_EpollIOReactor reactor(20000, basis::TimeValue(2, 0));
//   reactor.init();    // the epoll descriptor and the wake-up socket
//   reactor.open();
//
// The polling set is the kernel's: each registered handle is in it, level-triggered, for the
// operations it asked for, so a handler that reads only part of what waits is called again at the
// next pass. A handle registered for no operation stays in the set, disarmed, so that a hang-up
// on it cannot wake the wait for ever. An error or hang-up is reported as readiness for each
// operation asked for, as select reports it, so that the handler meets the end of stream or the
// error in its read or write. One wait reports at most min(size, kMaxEventsPerPass) handles; the
// others stay ready for the next pass. Ready handles are reported in the kernel's order.
//
// A handle that the kernel refuses when it is added or changed (closed while registered: EBADF;
// a file that cannot be polled: EPERM; no memory) makes the pass fail with kVELErr_Epoll, traced
// "FRAME - Error during an epoll call {errno} ; <FD = n>", after which handleError() unregisters
// its handler. The kernel itself drops a closed socket from its set without a word, so a handle
// closed while registered is noticed only at its next change of operations (or at its removal,
// which then simply succeeds). A change for a number that the kernel no longer holds (ENOENT:
// closed, then given to another socket) polls the socket that has the number now, as select
// does: that is how a handler registered again before its removal was applied keeps working.
// Remove, then close: a socket still open under another descriptor (dup, fork) stays in the
// kernel's set under the closed number, and its events keep coming for that number.
//
// Ownership: the reactor owns the epoll descriptor (closed by the destructor) as well as what
// VEL_SockCtrlIOReactor owns.
//
// Thread safety: as VEL_IOReactor; the event array and the kernel's set are touched by the
// reactor thread only.
#ifndef FRAME_INCLUDE_VEL_EPOLLIOREACTOR_H
#define FRAME_INCLUDE_VEL_EPOLLIOREACTOR_H

#include <vector>

#include "TimeValue.h"
#include "VEL_Err.h"
#include "VEL_IOReactor.h"
#include "VEL_SockCtrlIOReactor.h"

struct epoll_event;

class VEL_EpollIOReactor : public VEL_SockCtrlIOReactor {
public:
    // Most handles reported by one wait.
    static constexpr unsigned long kMaxEventsPerPass = 4096;

    // At most `size` handlers. Throws std::bad_alloc when the event array cannot be allocated.
    VEL_EpollIOReactor(unsigned long size, const basis::TimeValue& idleTimeout);
    // Stops and joins the loop if it runs, then closes the epoll descriptor.
    ~VEL_EpollIOReactor() override;

    // Creates the epoll descriptor (once, close-on-exec), then as VEL_SockCtrlIOReactor::init().
    // kVELErr_Epoll (traced) when the descriptor cannot be created.
    VELErr_t init() override;
    // After a pass that failed with kVELErr_Epoll, unregisters the handler whose handle the kernel
    // refused; then as VEL_IOReactor::handleError. Reactor thread.
    bool handleError(VELErr_t status) override;

protected:
    // kVELErr_Epoll when epoll_wait fails (traced), otherwise as VEL_IOReactor. Before init(), or
    // with nothing registered and no time-out, waits one second at most, so that a stop is seen.
    VELErr_t waitForEvents(const basis::TimeValue* timeout) override;
    // kVELErr_Ok, or kVELErr_Epoll when the kernel refuses the handle.
    VELErr_t addHandle(unsigned int handle, unsigned short ops) override;
    // kVELErr_Ok, also for a handle the kernel no longer holds (closed); kVELErr_Epoll otherwise.
    VELErr_t removeHandle(unsigned int handle) override;
    // kVELErr_Ok, or kVELErr_Epoll when the kernel refuses the handle.
    VELErr_t changeHandleOps(unsigned int handle, unsigned short ops) override;
    // Grows the event array to the new size (kVELErr_Alloc when it cannot).
    VELErr_t doSetSize() override;

private:
    VELErr_t control(int operation, unsigned int handle, unsigned short ops);
    VELErr_t sleepEmpty(const basis::TimeValue* timeout);

    int _epollFd;  // -1 until init()
    // Filled by epoll_wait, then turned into _ready; both sized for one pass.
    std::vector<epoll_event> _events;
    std::vector<VELReadyHandle_t> _ready;
    // The handle the last add or change could not put in the kernel's set (kVEL_NoHandle when
    // the last call succeeded), for handleError right after the failed pass; cleared by each
    // wait. Reactor thread.
    unsigned int _refused;
};

#endif  // FRAME_INCLUDE_VEL_EPOLLIOREACTOR_H
