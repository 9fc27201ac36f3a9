/// @file
#ifndef FRAME_INCLUDE_VEL_SOCKCTRLIOREACTOR_H
#define FRAME_INCLUDE_VEL_SOCKCTRLIOREACTOR_H

#include <memory>

#include <boost/shared_ptr.hpp>

#include "ThreadAnnotations.h"
#include "ThreadMutex.h"
#include "TimeValue.h"
#include "VEL_Err.h"
#include "VEL_EventHandler.h"
#include "VEL_IOReactor.h"

class VEL_UDPSocket;

/// The handler of a reactor's control socket (see VEL_SockCtrlIOReactor).
class VEL_SockCtrlEH : public VEL_EventHandler {
public:
    /// A handler for the open control socket `socket`, which it does not own.
    static boost::shared_ptr<VEL_SockCtrlEH> Create(VEL_UDPSocket* socket);

    /// Sends the wake-up datagram unless one is in flight. kVELErr_Ok, or the send's failure
    /// (traced). Any thread.
    VELErr_t notify();
    /// Re-arms notify(), then reads one datagram. False (traced "... ; recv failed") when the read
    /// fails; a refused datagram is ignored. Reactor thread.
    bool handleInput() override;

private:
    explicit VEL_SockCtrlEH(VEL_UDPSocket* socket);

    /// Guards _mayNotify and the use of the socket. A leaf lock: taken with no other held.
    basis::ThreadMutex _lock;
    bool _mayNotify VEL_GUARDED_BY(_lock);
    VEL_UDPSocket* const _ctrlSocket;
};

/// VEL_SockCtrlIOReactor: the reactor's wake-up through a control socket, and VEL_SockCtrlEH, the
/// handler of that socket.
///
/// The control socket is a UDP socket bound to 127.0.0.1 (port chosen by the system) and
/// connected to its own address; it is registered for reading like any handle. wakeUp() sends it
/// one datagram of one byte, a blank (0x20), which ends the reactor thread's wait; the handler
/// reads it away. At most one datagram is in flight: however many threads ask for a wake-up before
/// the reactor thread has read it, only the first sends, and reading re-arms the next send before
/// it reads. The control socket uses native time-outs of 1 ms, so neither end can ever block.
///
/// The control handler stays registered whatever its socket reports (a refused datagram is
/// ignored) until clean() lets it go with every other handler; init() registers it again. The
/// polling set itself comes from the class below (VEL_SelectIOReactor).
///
/// Ownership: the reactor owns the control socket and its handler; the handler only uses the
/// socket.
///
/// Thread safety: wakeUp() and VEL_SockCtrlEH::notify() from any thread; handleInput on the
/// reactor thread. init() and clean() as for VEL_IOReactor. Before init() nothing wakes a wait.
class VEL_SockCtrlIOReactor : public VEL_IOReactor {
public:
    /// As VEL_IOReactor; the control socket is made by init().
    VEL_SockCtrlIOReactor(unsigned long size, const basis::TimeValue& idleTimeout);
    /// Stops and joins the loop if it runs, then closes the control socket.
    ~VEL_SockCtrlIOReactor() override;

    /// Opens the control socket (once) and registers its handler. The socket's failure
    /// (kVELErr_SocketCreate, kVELErr_Bind, kVELErr_Connect, ...) or the registration's failure
    /// (traced "... (reactor control socket)").
    VELErr_t init() override;
    /// As VEL_IOReactor::clean(), which lets the control handler go as well; init() registers it
    /// again.
    VELErr_t clean() override;

protected:
    /// The control handler's notify(); kVELErr_Ok before init(). Failures are traced.
    VELErr_t wakeUp() override;

private:
    std::unique_ptr<VEL_UDPSocket> _ctrlSocket;
    boost::shared_ptr<VEL_SockCtrlEH> _ctrlHandler;
    bool _ctrlRegistered;  ///< owner's thread (init, clean)
};

#endif  // FRAME_INCLUDE_VEL_SOCKCTRLIOREACTOR_H
