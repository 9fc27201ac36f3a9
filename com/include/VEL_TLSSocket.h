/// @file
#ifndef COM_INCLUDE_VEL_TLSSOCKET_H
#define COM_INCLUDE_VEL_TLSSOCKET_H

#include <cstddef>
#include <memory>
#include <string>

#include "ThreadMutex.h"
#include "VEL_Socket.h"
#include "VEL_TLSContext.h"
#include "VEL_TLSEngine.h"

class VEL_TCPSocket;

/// VEL_TLSSocket: a connected TCP stream carried inside TLS. It is a VEL_Socket, so every framing
/// transport (VEL_OXLv1, VEL_OXLv2, VEL_OXLv5, VEL_HOLM, VEL_TN3270) runs over it unchanged: their
/// bytes are encrypted and authenticated on the wire, and what arrives is checked and decrypted.
///
/// A VEL_TLSConnector (client) or VEL_TLSAcceptor (server) makes them; attach() layers TLS over a
/// connection made otherwise. The handshake runs in handshake(), which the connector and the
/// acceptor call; a transfer on a socket whose handshake has not run yet runs it first.
///
/// Time-outs, from the socket's options (a new socket has 2 s each, native time-outs off):
/// - the handshake must be over within the handshake time-out (default 5 s) as a whole;
/// - without native time-outs (isNonBlock() false) the send time-out bounds a whole send or
///   writev, and recv and readv wait for data without limit (as on a TCP socket); with native
///   time-outs each wait of a transfer for the descriptor is bounded, by the send time-out for
///   send and writev and by the receive time-out for recv and readv. kVELErr_Timeout.
/// A receive that needs to write (a TLS message the peer asked for) waits under its own limit.
///
/// Input that TLS has already taken off the descriptor counts as waiting: waitForRead, hasRecv,
/// peekRecv and recvAvail see bytes that are decrypted (or received and not yet decrypted) inside
/// the session, when the descriptor itself reports nothing to read. A reactor, which watches the
/// descriptor only, does not: an event handler over a TLS socket receives until hasRecv() says
/// kVELErr_Timeout before it returns to the reactor.
///
/// close() sends close_notify first (without waiting for the peer's), so that the peer can tell
/// the end of the data from a cut connection; it is skipped when the handshake has not completed,
/// the session has failed, the send buffer is full, or another thread is in the middle of a step
/// of the session.
///
/// Status codes, beyond those of VEL_TCPSocket's transfers: kVELErr_TLSHandshake,
/// kVELErr_TLSCertificate (the verification reason is traced), kVELErr_TLSProtocol,
/// kVELErr_TLSTruncated (the peer closed without close_notify); kVELErr_SockHalfClosed for the
/// peer's close_notify (last system error 0) or a reset. After any failure other than a time-out
/// the session is over: close the socket. After a time-out in send the rest of a record may still
/// be due, and the caller should close the connection too (as after a partial TCP send). Failures
/// are traced (network error mask) with the remote address and the reason; resets and the peer's
/// orderly end are only returned. Nothing raises SIGPIPE.
///
/// Ownership: the socket owns the descriptor it took over, and its session. The sockets that
/// connectors and acceptors hand out belong to the caller.
///
/// Thread safety: as VEL_Socket: one thread at a time sends, and one at a time receives or waits
/// for input; the two may be different threads (the session is shared under a lock that is held
/// for each step and never while waiting for the descriptor). Another thread may close() the
/// socket to end a blocked transfer, which then reports kVELErr_SockHalfClosed. The accessors
/// are safe from any thread.
class VEL_TLSSocket : public VEL_Socket {
public:
    static constexpr unsigned char kDefaultHandshakeTimeOut = 5;  ///< seconds

    /// A socket without a connection, whose sessions `context` makes (its role decides client or
    /// server).
    explicit VEL_TLSSocket(const VEL_TLSContext& context);
    /// Closes (see close()).
    ~VEL_TLSSocket() override;

    /// Takes over the connection of `tcp` (descriptor, endpoints, options; `tcp` is left closed
    /// without a descriptor) and prepares a session; the handshake is not run yet. A client names
    /// the server in `serverName` (SNI, and the name its certificate must carry when the context
    /// verifies the peer); null or empty: the remote address is checked instead. A server passes
    /// null. kVELErr_SockConnected when this socket has a descriptor, kVELErr_SockNotConnected
    /// when `tcp` is not connected, kVELErr_TLSInit (the socket is then closed).
    /// REQUIRES: no other thread uses `tcp`.
    VELErr_t attach(VEL_TCPSocket& tcp, const char* serverName);

    /// Runs the handshake to its end, within the handshake time-out. Ok at once when it has
    /// completed before. kVELErr_Timeout, kVELErr_TLSHandshake, kVELErr_TLSCertificate,
    /// kVELErr_TLSProtocol, kVELErr_Select, kVELErr_SockNotConnected, kVELErr_SockHalfClosed.
    /// Traces "COM - TLS session <FD = n> ; Remote address : a ; TLSv1.3 <cipher>" (bit 2).
    VELErr_t handshake();

    /// A TLS socket gets its connection from attach() (or a connector or acceptor): Ok when it
    /// has one, otherwise kVELErr_InvalidAction.
    VELErr_t open() override;
    /// Sends close_notify when it can (see above), drops the session, and closes the descriptor.
    VELErr_t close() override;

    /// As on VEL_TCPSocket, with the time-outs above. send and writev gather small pieces into
    /// records of up to 16 KiB, so that a frame header and its body travel in one record.
    VELErr_t send(const char* buf, unsigned int len) override;
    VELErr_t recv(char* buf, unsigned int len) override;
    /// As send, every wait bounded by `deadline` (basis::TimeValue::GetHRTime) instead of the
    /// socket's time-outs: kVELErr_Timeout once it has passed. For a caller with a deadline of its
    /// own (a pipe).
    VELErr_t sendUntil(const char* buf, unsigned int len, const basis::TimeValue& deadline);
    /// As recv, every wait bounded by `deadline` in the same way: kVELErr_Timeout once it has
    /// passed (traced with the bytes expected and received).
    VELErr_t recvUntil(char* buf, unsigned int len, const basis::TimeValue& deadline);
    /// Takes what is waiting (decrypted, or decryptable from what has arrived) without waiting
    /// for the descriptor: Ok when *len bytes came, kVELErr_Incomplete with *len set to the bytes
    /// taken (0 when none was waiting). Runs the handshake first when it has not run.
    VELErr_t recvAvail(char* buf, unsigned int* len) override;
    /// REQUIRES: `v` holds at least one element (n below 2 moves v[0]).
    VELErr_t writev(VELIoVec* v, unsigned long n) override;
    VELErr_t readv(VELIoVec* v, unsigned long n) override;
    /// Ok when decrypted input is waiting, or the end of the session or a failure is (a receive
    /// then reports it), at once when the session already holds such input; otherwise waits for
    /// the descriptor until `limit` (null: no limit). kVELErr_Timeout, kVELErr_Select.
    VELErr_t waitForRead(const basis::TimeValue* limit) override;

    /// Polls without waiting: Ok when input or the end of the session is waiting,
    /// kVELErr_Timeout when nothing is. Not traced.
    VELErr_t hasRecv();
    /// As hasRecv, but tells an end from input: Ok for input, kVELErr_Timeout for nothing,
    /// kVELErr_SockHalfClosed for the peer's close_notify or a reset, or the TLS failure. Not
    /// traced.
    VELErr_t peekRecv();
    /// Looks at the peer's side without waiting: Ok while the peer may still send,
    /// kVELErr_SockHalfClosed once its close_notify has been read, the session has failed, or
    /// the connection has been shut down by the peer (input it sent before may still be waiting)
    /// or has failed (a pending error is taken and stored as the last system error; otherwise it
    /// is 0). Not traced.
    VELErr_t checkPeer();

    /// True once the handshake has completed.
    bool isEstablished() const;
    /// The protocol version and cipher ("TLSv1.3 TLS_AES_256_GCM_SHA384") once established.
    std::string getProtocol() const;
    /// The one-line subject of the peer's certificate (empty when it sent none).
    std::string getPeerSubject() const;
    /// Why the session failed ("certificate verify failed: hostname mismatch", ...), as traced;
    /// empty while it has not.
    std::string getFailureDetail() const;

    ///@{
    /// The handshake time-out, whole seconds (default kDefaultHandshakeTimeOut).
    unsigned char getHandshakeTimeOut() const { return _handshakeTimeOut; }
    void setHandshakeTimeOut(unsigned char seconds) { _handshakeTimeOut = seconds; }
    ///@}
    /// The context the session is made from.
    const VEL_TLSContext& getContext() const { return _context; }

private:
    class WaitLimit;

    /// Runs the handshake when it has not completed; the caller holds the session.
    VELErr_t ensureHandshake(int fd);
    VELErr_t runHandshake(int fd);
    /// Sends every byte of `v` (advanced in place) within `limit`.
    VELErr_t sendAll(int fd, VELIoVec* v, unsigned long n, WaitLimit& limit);
    /// The limit of a send or writev: the send time-out, as a whole or per wait.
    WaitLimit sendLimit() const;
    /// Receives `len` bytes into `buf` within `limit`.
    VELErr_t recvAll(int fd, char* buf, unsigned int len, WaitLimit& limit);
    /// Writes the next record of `v` (gathered when its first pieces are small); *put is what
    /// went out.
    VELErr_t writeRecord(int fd, VELIoVec* v, unsigned long n, WaitLimit& limit, std::size_t* put);
    /// Fills `buf` with `size` bytes within the receive limits; *got counts what arrived.
    VELErr_t recvInto(int fd, char* buf, std::size_t size, WaitLimit& limit, std::size_t* got);
    /// Waits until the descriptor allows what the session wants, the session lock released
    /// meanwhile. kVELErr_Timeout, kVELErr_Select. REQUIRES: the caller holds _sessionLock.
    VELErr_t waitFor(int fd, VELTLSWant_t want, WaitLimit& limit) const;
    /// The status for a failed step on `fd`: a close by another thread reads as
    /// kVELErr_SockHalfClosed; TLS failures are traced with their reason.
    VELErr_t stepFailed(int fd, VELErr_t code) const;
    VELErr_t recvTimedOut(std::size_t expected, std::size_t received) const;
    /// The data to send for the next record of `v`: a whole large piece in place, or small
    /// pieces copied into the staging buffer.
    const char* recordOf(const VELIoVec* v, unsigned long n, std::size_t* size);

    VEL_TLSContext _context;
    unsigned char _handshakeTimeOut;
    /// Held by a thread while it drives the session, released while it waits for the
    /// descriptor. close() only tries it for the close_notify, so as never to wait on another
    /// thread's step; it takes it to drop the session once the descriptor's users are gone.
    /// Lock order: a leaf (nothing is taken under it).
    mutable basis::ThreadMutex _sessionLock;
    VEL_TLSEngine _engine VEL_GUARDED_BY(_sessionLock);
    std::unique_ptr<char[]> _stage VEL_GUARDED_BY(_sessionLock);  ///< made on first use
};

#endif  // COM_INCLUDE_VEL_TLSSOCKET_H
