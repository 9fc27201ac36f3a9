/// @file
#ifndef COM_INCLUDE_VEL_TCPACCEPTOR_H
#define COM_INCLUDE_VEL_TCPACCEPTOR_H

#include "VEL_Acceptor.h"

/// VEL_TCPAcceptor: listens on an IPv4 address and port and hands out connected VEL_TCPSockets.
///
/// @verbatim
///   VEL_TCPAcceptor acceptor(0, "127.0.0.1");     // port 0: the system chooses
///   acceptor.open();                              // getLocalAddr() now has the port
///   VEL_Socket* peer = nullptr;
///   if (acceptor.accept(peer) == kVELErr_Ok) { ...; delete peer; }
/// @endverbatim
///
/// An accepted socket records the values of a new socket (no-delay, keep-alive, linger and native
/// time-outs off) and the descriptor is brought back to them where the listening options had
/// changed them (Linux copies them from the listening socket); it records the listener's buffer
/// sizes, which the system keeps. Its local address is the acceptor's, its remote address the
/// peer's. Options for accepted sockets are applied by the caller.
///
/// Ownership and thread safety: see VEL_Acceptor.
class VEL_TCPAcceptor : public VEL_Acceptor {
public:
    ///@{
    /// The endpoint to listen on (`host` null: all interfaces) and the options open() applies
    /// to the listening socket (without them, every option is unspecified).
    VEL_TCPAcceptor(unsigned short port, const char* host);
    explicit VEL_TCPAcceptor(const VEL_SockAddr& listen);
    VEL_TCPAcceptor(unsigned short port, const char* host, const VEL_SockOptions& options);
    VEL_TCPAcceptor(const VEL_SockAddr& listen, const VEL_SockOptions& options);
    ///@}

    /// Creates the descriptor, sets SO_REUSEADDR and the listening options, binds (port 0: the
    /// chosen port is read back into getLocalAddr()) and listens with the system's largest
    /// backlog. Ok at once when already open. kVELErr_SocketCreate, the option codes, kVELErr_Bind
    /// (also for a listening address that did not resolve, without calling bind),
    /// kVELErr_GetSockName, kVELErr_Listen; the descriptor is closed on failure.
    VELErr_t open() override;
    /// Blocks until a connection arrives. kVELErr_Alloc, kVELErr_Accept (also when the acceptor
    /// is not open or is closed meanwhile); no socket is left behind on failure.
    VELErr_t accept(VEL_Socket*& out) override;
};

#endif  // COM_INCLUDE_VEL_TCPACCEPTOR_H
