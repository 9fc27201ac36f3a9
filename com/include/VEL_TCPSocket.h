/// @file
#ifndef COM_INCLUDE_VEL_TCPSOCKET_H
#define COM_INCLUDE_VEL_TCPSOCKET_H

#include <cstddef>

#include "VEL_Socket.h"

/// VEL_TCPSocket: a connected IPv4 stream socket.
///
/// Two kinds of transfer:
/// - whole transfers (send, recv, writev, readv) return once every byte has moved, or fail;
/// - partial "Avail" transfers (sendAvail, recvAvail, writevAvail, readvAvail) move what the
///   descriptor takes or holds now and report the rest, for callers driven by a reactor.
/// Framing transports use the virtual ones only (send, recv, recvAvail, writev, readv).
///
/// How long a transfer may block depends on the socket's options: without native time-outs
/// (isNonBlock() false, the default) the send time-out bounds a whole send or writev, however many
/// bytes the peer takes meanwhile (a socket with room in its buffer costs no wait), and recv and
/// readv block until data or the end of the stream arrives; with native time-outs the system ends
/// each blocked call after the send or receive time-out (kVELErr_Timeout), so that a peer that
/// keeps taking or giving a few bytes keeps a transfer going. sendUntil and recvUntil are bounded
/// by the caller's deadline whatever the options. The Avail operations make one system call each:
/// sendAvail and writevAvail block as the descriptor does, recvAvail and readvAvail first poll for
/// input and never block when none is waiting.
///
/// Vector transfers take the caller's VELIoVec array and advance it in place: elements that moved
/// entirely are skipped, the first unfinished one gets base += done and length -= done. Up to 64
/// elements are staged on the stack; larger vectors allocate once per call.
///
/// Every transfer first checks, in this order: no descriptor or not connected ->
/// kVELErr_SockNotConnected; closed -> kVELErr_SockHalfClosed. A length of 0 returns Ok at once.
/// Failures store errno as the thread's last system error and are traced (network error mask) with
/// the remote address, except resets (kVELErr_SockHalfClosed), which are only returned. The end of
/// the stream gives kVELErr_SockHalfClosed with the last system error set to 0. No send raises
/// SIGPIPE.
///
/// Status of a failed system call, by operation (others: kVELErr_Send / kVELErr_Recv):
/// @verbatim
///   errno                   send      writev, sendAvail  writevAvail   recv, readv  *Avail recv
///   EINTR                   retry     retry              Incomplete    retry (1)    retry (2)
///   EINVAL, ECONNRESET,     HalfClsd  Send               HalfClosed    HalfClosed   HalfClosed
///     ECONNABORTED, ENETRESET
///   EPIPE, ESHUTDOWN        Send      Send               Send          HalfClosed   HalfClosed
///   EAGAIN, ETIMEDOUT       Timeout   Timeout / Ok (3)   Incomplete(4) Timeout      Incomplete
///   ENOTSOCK, EBADF         InvalidSocket everywhere
/// @endverbatim
/// (1) recv ends with kVELErr_SockHalfClosed when the socket is being closed. (2) readvAvail
/// reports kVELErr_Recv. (3) sendAvail: Ok with *len = kNothingSent. (4) see writevAvail.
///
/// Ownership: the socket owns its descriptor. Acceptors and connectors hand out sockets that the
/// caller deletes.
///
/// Thread safety: as VEL_Socket: one thread transfers at a time; another may close() the socket
/// to end a blocked transfer.
class VEL_TCPSocket : public VEL_Socket {
public:
    /// *len from sendAvail when nothing could be taken.
    static constexpr unsigned int kNothingSent = 0xFFFFFFFF;

    ///@{
    /// `host` null: any interface. The local address is where open() binds (port 0: the system
    /// chooses; read back into getLocalAddr()).
    VEL_TCPSocket(unsigned short port, const char* host);
    explicit VEL_TCPSocket(const VEL_SockAddr& local);
    ///@}

    /// Creates the descriptor, binds it when the local address is set, and sets SO_REUSEADDR.
    /// Ok at once when the socket has a descriptor. kVELErr_SocketCreate, kVELErr_Bind,
    /// kVELErr_GetSockName, kVELErr_ReuseAddr; the descriptor is closed on failure.
    VELErr_t open() override;

    /// Sends all `len` bytes. kVELErr_Timeout (traced) when they are not all sent within the send
    /// time-out (without native time-outs) or a native time-out expires; part of them may have
    /// been sent.
    VELErr_t send(const char* buf, unsigned int len) override;
    /// Receives exactly `len` bytes. On a time-out the bytes already received stay in `buf` but
    /// are not reported (traced, and dumped with trace bit 16).
    VELErr_t recv(char* buf, unsigned int len) override;
    /// Receives what is waiting, up to *len bytes: Ok when *len bytes arrived, kVELErr_Incomplete
    /// with *len set to the bytes received (0 when none was waiting).
    VELErr_t recvAvail(char* buf, unsigned int* len) override;
    /// Sends every element. REQUIRES: `v` holds at least one element (n below 2 sends v[0]).
    VELErr_t writev(VELIoVec* v, unsigned long n) override;
    /// Fills every element. On a time-out the element being filled gets back its length and
    /// base. REQUIRES: `v` holds at least one element (n below 2 receives into v[0]).
    VELErr_t readv(VELIoVec* v, unsigned long n) override;

    ///@{
    /// send() and recv() bounded by `deadline` (a basis::TimeValue::GetHRTime date) instead of the
    /// socket's time-outs: kVELErr_Timeout (traced as by send and recv) once it has passed with
    /// bytes still to move; a deadline already passed still moves what can move at once.
    VELErr_t sendUntil(const char* buf, unsigned int len, const basis::TimeValue& deadline);
    VELErr_t recvUntil(char* buf, unsigned int len, const basis::TimeValue& deadline);
    ///@}

    /// One send: Ok with *len = bytes taken, or *len = kNothingSent when the descriptor took
    /// nothing in time (would-block or native time-out).
    VELErr_t sendAvail(const char* buf, unsigned int* len);
    /// One send of the n elements; `v` and `n` move past what was sent (n = 0: all sent, Ok).
    /// kVELErr_Incomplete when some is left, when interrupted, or when the descriptor would block.
    /// A native time-out (EAGAIN with native time-outs on, or ETIMEDOUT) drops what is left:
    /// the first remaining element's length and `n` become 0, kVELErr_Incomplete.
    VELErr_t writevAvail(VELIoVec*& v, unsigned long& n);
    /// Polls for input, then one receive into the n elements; `v` and `n` move past what was
    /// filled. Ok when all are filled, kVELErr_Incomplete otherwise (array untouched when nothing
    /// was waiting).
    VELErr_t readvAvail(VELIoVec*& v, unsigned long& n);
    /// Polls without waiting: Ok when input or the end of the stream is waiting, kVELErr_Timeout
    /// when nothing is, kVELErr_Select when the poll fails (traced under the reactor error mask).
    VELErr_t hasRecv();
    /// Looks at the first waiting byte without taking it and without waiting: Ok when input is
    /// waiting, kVELErr_Timeout when nothing is, kVELErr_SockHalfClosed when the stream has ended
    /// (last system error 0) or the connection has failed (errno stored). Not traced. Tells a
    /// peer that closed from one that sent something, which hasRecv() cannot.
    VELErr_t peekRecv();
    /// Looks at the peer's side without waiting: Ok while the peer may still send,
    /// kVELErr_SockHalfClosed once it has shut down its sending side (input it sent before may
    /// still be waiting) or the connection has failed or hung up (a pending error is taken and
    /// stored as the last system error; otherwise it is 0). Not traced.
    VELErr_t checkPeer();

private:
    friend class VEL_TCPAcceptor;
    friend class VEL_TCPConnector;

    VELErr_t pollReadable(int fd);
    VELErr_t transferFailed(int err, VELErr_t code) const;
    /// Sends every byte of `v` (advanced in place) on `fd` within the socket's send time-out; a
    /// failure is mapped as one of writev (when `vectored`) or send, and traced.
    VELErr_t sendStream(int fd, VELIoVec* v, unsigned long n, bool vectored);
    VELErr_t sendBefore(int fd, VELIoVec* v, unsigned long n, bool vectored,
                        const basis::TimeValue& deadline);
    VELErr_t waitUntil(int fd, short events, const basis::TimeValue& deadline) const;
    VELErr_t recvTimedOut(std::size_t expected, std::size_t received, const char* data,
                          const VELIoVec* filled, unsigned long filledCount) const;
};

#endif  // COM_INCLUDE_VEL_TCPSOCKET_H
