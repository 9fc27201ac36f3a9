/// @file
#ifndef FRAME_INCLUDE_VEL_TCPPIPE_H
#define FRAME_INCLUDE_VEL_TCPPIPE_H

#include <atomic>
#include <memory>
#include <string>

#include "ThreadAnnotations.h"
#include "ThreadMutex.h"
#include "VEL_Err.h"
#include "VEL_Pipe.h"
#include "VEL_SelectIOReactor.h"

class VEL_TLSContext;

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
/// With a TLS context (setTLSContext) every connection made afterwards is a VEL_TLSSocket made by
/// a VEL_TLSConnector, which checks the server's certificate against the endpoint's host as the
/// context asks; the handshake is part of the connect, within the connect time-out. The pipe's
/// send and receive deadlines, its probes and its purge work the same over TLS, and input that a
/// session has already decrypted is read without waiting for the descriptor.
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
    /// Makes the connections made from now on TLS connections of `context` (a client context),
    /// each checking its endpoint's host. kVELErr_TLSInit when the context is invalid or not a
    /// client's, kVELErr_Alloc. Any thread.
    VELErr_t setTLSContext(const VEL_TLSContext& context);
    /// The status of the last connection attempt that failed (kVELErr_Ok before any) and, over
    /// TLS, its reason ("certificate verify failed: ...") in `detail`. Any thread.
    VELErr_t getLastConnectFailure(std::string* detail) const;

protected:
    /// Connects to the endpoint's port and host with `options`. The connector's status:
    /// kVELErr_Connect (refused, or the host did not resolve), kVELErr_Timeout, ...; over TLS also
    /// the handshake's (kVELErr_TLSCertificate, kVELErr_TLSHandshake, ...).
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
    /// A TLS socket's peekRecv: true unless it says nothing is waiting. False for a TCP socket
    /// (its descriptor shows all its input).
    bool doHasBufferedInput(VEL_Socket* socket) override;

    // Every socket here comes from doConnect; any other kind gives kVELErr_InvalidSocket.

private:
    std::atomic<unsigned char> _cnctTimeOut;
    /// Guards the fields below it. A leaf: taken alone, under the pipe lock or not.
    mutable basis::ThreadMutex _connectLock;
    std::shared_ptr<const VEL_TLSContext> _tls VEL_GUARDED_BY(_connectLock);  ///< null: TCP
    VELErr_t _lastFailure VEL_GUARDED_BY(_connectLock) = kVELErr_Ok;
    std::string _lastFailureDetail VEL_GUARDED_BY(_connectLock);
};

#endif  // FRAME_INCLUDE_VEL_TCPPIPE_H
