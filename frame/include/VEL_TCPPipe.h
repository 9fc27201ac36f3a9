/// @file
#ifndef FRAME_INCLUDE_VEL_TCPPIPE_H
#define FRAME_INCLUDE_VEL_TCPPIPE_H

#include <atomic>

#include "VEL_Err.h"
#include "VEL_Pipe.h"
#include "VEL_SelectIOReactor.h"

/// VEL_TCPPipe: a VEL_Pipe over TCP stream sockets.
///
/// @verbatim
///   VEL_TCPPipe pipe(true);                       // failover mode
///   pipe.addConnection(7001, "primary.example");
///   pipe.addConnection(7001, "backup.example");
///   pipe.setConnectTimeout(2);
///   VEL_OXLv1 transport(&pipe, 65536);            // frames over the pipe as over a socket
/// @endverbatim
///
/// Connections are made with a VEL_TCPConnector (blocking, at most the connect time-out, default
/// 5 s) and the pipe's socket options; everything else (endpoints, modes, reconnects, time-outs)
/// is the pipe's. Each transport operation returns the status of the socket call it makes; any
/// status other than kVELErr_Ok (kVELErr_Timeout of a probe included) is also traced under the
/// reactor error mask as "FRAME - <status text>".
///
/// Ownership and thread safety: as VEL_Pipe.
class VEL_TCPPipe : public VEL_Pipe {
public:
    ///@{
    /// Bytes taken per read by doPurge, and the most one call drains.
    static constexpr unsigned int kPurgeChunk = 1024;
    static constexpr unsigned long kPurgeLimit = 1024 * 1024;
    ///@}

    /// `failover` chooses the mode; `reactorFactory` the back end of the private reactor
    /// (&MakeReactor<VEL_EpollIOReactor> for epoll).
    explicit VEL_TCPPipe(bool failover, VELPipeReactorFactory_t reactorFactory =
                                                &MakeReactor<VEL_SelectIOReactor>);
    ~VEL_TCPPipe() override;

    ///@{
    /// Seconds one connection attempt may wait for the peer. Any thread.
    void setConnectTimeout(unsigned char seconds) { _cnctTimeOut.store(seconds); }
    unsigned char getConnectTimeout() const { return _cnctTimeOut.load(); }
    ///@}

protected:
    /// Connects to the endpoint's port and host with `options`. The connector's status:
    /// kVELErr_Connect (refused, or the host did not resolve), kVELErr_Timeout, ...
    VELErr_t doConnect(const VELPipeEndpoint_t& endpoint, VEL_Socket*& socket,
                       const VEL_SockOptions& options) override;
    /// The socket's sendUntil and recvUntil, bounded by the pipe's transfer deadline.
    VELErr_t doSend(VEL_Socket* socket, const char* data, unsigned int length) override;
    VELErr_t doRecv(VEL_Socket* socket, char* buffer, unsigned int length) override;
    /// The socket's hasRecv; when that says input is waiting, a peek tells a peer that closed
    /// (kVELErr_SockHalfClosed) from input (Ok). kVELErr_Timeout when nothing waits.
    VELErr_t doHasRecv(VEL_Socket* socket) override;
    /// The socket's checkPeer: kVELErr_SockHalfClosed once the peer has shut down its sending
    /// side, even with input still unread, or the connection has failed.
    VELErr_t doCheckPeer(VEL_Socket* socket) override;
    /// Reads and drops what is waiting, kPurgeChunk bytes at a time, while hasRecv says input is
    /// waiting; returns (and traces) the hasRecv status that ended it, kVELErr_Timeout when
    /// nothing more waits. A failed read gives its status; kVELErr_Incomplete when kPurgeLimit
    /// bytes were drained and more is waiting.
    VELErr_t doPurge(VEL_Socket* socket) override;

    // Every socket here comes from doConnect; any other kind gives kVELErr_InvalidSocket.

private:
    std::atomic<unsigned char> _cnctTimeOut;
};

#endif  // FRAME_INCLUDE_VEL_TCPPIPE_H
