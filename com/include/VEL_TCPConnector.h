/// @file
#ifndef COM_INCLUDE_VEL_TCPCONNECTOR_H
#define COM_INCLUDE_VEL_TCPCONNECTOR_H

#include "VEL_Connector.h"
#include "VEL_SockAddr.h"
#include "VEL_SockOptions.h"

class VEL_TCPSocket;

/// VEL_TCPConnector: connects a VEL_TCPSocket to a remote IPv4 endpoint, either with a bounded
/// blocking wait (connect) or in two steps for reactor-driven callers (asyncConnect, then
/// finishAsyncConnect once the descriptor is writable).
///
/// @verbatim
///   VEL_TCPConnector connector(port, "127.0.0.1");
///   VEL_Socket* socket = nullptr;                  // null: the connector creates the socket
///   if (connector.connect(socket) == kVELErr_Ok) { ...; delete socket; }
/// @endverbatim
///
/// Before connecting, the connect options are applied to the socket and its descriptor is made
/// non-blocking; a finished connection is blocking again, with native time-outs switched back on
/// when its options ask for them, and reports the peer through getRemoteAddr().
///
/// Ownership: a socket that a call creates belongs to the caller once the call returns Ok (or
/// kVELErr_InProgress); on failure it is closed and deleted. A socket given by the caller stays
/// the caller's: on failure it is closed, not deleted.
///
/// Thread safety: one thread at a time; connect blocks its thread for at most the connect
/// time-out after the system call.
class VEL_TCPConnector : public VEL_Connector {
public:
    ///@{
    /// The remote endpoint (`port` and `host` as VEL_SockAddr takes them) and the connect options
    /// (without them, every option is unspecified).
    VEL_TCPConnector(unsigned short port, const char* host);
    explicit VEL_TCPConnector(const VEL_SockAddr& remote);
    VEL_TCPConnector(unsigned short port, const char* host, const VEL_SockOptions& options);
    VEL_TCPConnector(const VEL_SockAddr& remote, const VEL_SockOptions& options);
    ///@}
    ///@{
    /// Copies the endpoint, the options and the connect time-out.
    VEL_TCPConnector(const VEL_TCPConnector&) = default;
    VEL_TCPConnector& operator=(const VEL_TCPConnector&) = default;
    ///@}
    ~VEL_TCPConnector() override;

    ///@{
    /// Nothing to do. Always kVELErr_Ok.
    VELErr_t open() override;
    VELErr_t close() override;
    ///@}
    /// Connects, waiting at most the connect time-out. `socket` null: a socket is created and
    /// opened; otherwise it must be a VEL_TCPSocket with a descriptor. kVELErr_Connect (remote
    /// address not set, refused or failed; the system error is stored), kVELErr_Timeout,
    /// kVELErr_Polling (the wait failed), kVELErr_InvalidSocket, or the code of a failed open or
    /// option.
    VELErr_t connect(VEL_Socket*& socket) override;
    /// Starts connecting: Ok when the connection completed at once (blocking again, as after
    /// connect), kVELErr_InProgress when the caller must wait until the descriptor is writable
    /// and then call finishAsyncConnect; the descriptor stays non-blocking meanwhile and the
    /// socket already reports the remote address. Failures as for connect.
    virtual VELErr_t asyncConnect(VEL_TCPSocket*& socket);
    /// Completes what asyncConnect started: blocking again, native time-outs as the options ask,
    /// marked connected. Writability means the attempt has finished, not that it succeeded: the
    /// caller checks the outcome (a receive or send fails on a refused connection).
    /// kVELErr_InvalidSocket without a descriptor; an option failure closes the socket.
    virtual VELErr_t finishAsyncConnect(VEL_TCPSocket*& socket);

    ///@{
    /// The endpoint to connect to.
    const VEL_SockAddr& getRemoteAddr() const { return _remoteAddr; }
    void setRemoteAddr(const VEL_SockAddr& remote) { _remoteAddr = remote; }
    ///@}
    ///@{
    /// The options applied to the socket before connecting.
    const VEL_SockOptions& getConnectOptions() const { return _connectOptions; }
    void setConnectOptions(const VEL_SockOptions& options) { _connectOptions = options; }
    ///@}

protected:
    /// A new socket bound to any interface, port 0. kVELErr_Alloc.
    virtual VELErr_t createSocket(VEL_TCPSocket*& socket);

private:
    VELErr_t beginConnect(VEL_TCPSocket*& socket, bool& created);
    VELErr_t connectNow(VEL_TCPSocket* socket);
    VELErr_t waitConnected(VEL_TCPSocket* socket);
    VELErr_t completeConnect(VEL_TCPSocket* socket);
    VELErr_t abandon(VEL_TCPSocket*& socket, bool created, VELErr_t code) const;

    VEL_SockAddr _remoteAddr;
    VEL_SockOptions _connectOptions;
};

#endif  // COM_INCLUDE_VEL_TCPCONNECTOR_H
