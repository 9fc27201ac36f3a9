/// @file
#ifndef COM_INCLUDE_VEL_UDPSOCKET_H
#define COM_INCLUDE_VEL_UDPSOCKET_H

#include <sys/types.h>

#include <cstddef>

#include "VEL_Socket.h"

/// VEL_UDPSocket: an IPv4 datagram socket, unconnected (every send names a destination, every
/// receive reports the sender) or connected to one remote address fixed at construction.
///
/// A connected socket whose remote port is 0 is connected to its own bound address by open(): it
/// receives what it sends (the reactor's wake-up socket works that way).
///
/// Datagram boundaries: sends never split a datagram; recvFrom and readvFrom join datagrams until
/// the buffer is full, recvAvailFrom takes one. A datagram longer than the room left is cut by the
/// system: recvAvailFrom returns Ok with the buffer full (the rest is lost), recvFrom and
/// readvFrom return kVELErr_Recv with EMSGSIZE stored. An empty datagram reads as
/// kVELErr_SockHalfClosed.
///
/// Status of a failed system call (sends and receives alike): EINTR is retried; EINVAL,
/// ENETRESET, ECONNABORTED, ECONNRESET and ECONNREFUSED (an ICMP error caused by an earlier send
/// on a connected socket; the socket stays usable) give kVELErr_SockHalfClosed, as do EPIPE and
/// ESHUTDOWN on receives; EAGAIN and ETIMEDOUT give kVELErr_Timeout; ENOTSOCK and EBADF
/// kVELErr_InvalidSocket; others kVELErr_Send / kVELErr_Recv. Failures store errno as the thread's
/// last system error and are traced (network error mask). No send raises SIGPIPE.
///
/// Ownership: the socket owns its descriptor. Reopening a socket after close() gives an
/// unconnected socket.
///
/// Thread safety: as VEL_Socket.
class VEL_UDPSocket : public VEL_Socket {
public:
    ///@{
    /// Unconnected; `local` is where open() binds.
    VEL_UDPSocket(unsigned short port, const char* host);
    explicit VEL_UDPSocket(const VEL_SockAddr& local);
    ///@}
    /// Connected to `remote` (kept with its resolve flag); marked connected at once.
    VEL_UDPSocket(const VEL_SockAddr& local, const VEL_SockAddr& remote);

    /// Creates the descriptor, binds it to the local address (read back into getLocalAddr()),
    /// and connects a connected socket. Ok at once when already open. kVELErr_SocketCreate,
    /// kVELErr_Bind (also for a local address that is not set), kVELErr_GetSockName,
    /// kVELErr_Connect (also for a remote address that is not set); the descriptor is closed on
    /// failure.
    VELErr_t open() override;

    /// Sends `len` bytes to `to` (a connected socket sends to its remote address and ignores `to`).
    /// kVELErr_SockNotConnected without a descriptor, or without destination on an unconnected
    /// socket; kVELErr_SockHalfClosed once closed. Without native time-outs, first waits at most
    /// the send time-out for the descriptor to become writable.
    VELErr_t sendTo(const char* buf, unsigned int len, const VEL_SockAddr* to);
    /// Vector form of sendTo, advancing `v` in place as VEL_TCPSocket::writev does. n below 2
    /// sends v[0]. REQUIRES: `v` holds at least one element.
    VELErr_t writevTo(VELIoVec* v, unsigned long n, const VEL_SockAddr* to);
    /// Receives until `len` bytes arrived, writing each datagram's sender into `from` (may be
    /// null). kVELErr_InvalidSocket without a descriptor, kVELErr_SockHalfClosed once closed.
    VELErr_t recvFrom(char* buf, unsigned int len, VEL_SockAddr* from);
    /// Receives one datagram of up to *len bytes; *len becomes its length.
    VELErr_t recvAvailFrom(char* buf, unsigned int* len, VEL_SockAddr* from);
    /// Vector form of recvFrom, advancing `v` in place as VEL_TCPSocket::readv does (the element
    /// being filled is restored on a time-out). n below 2 receives into v[0].
    VELErr_t readvFrom(VELIoVec* v, unsigned long n, VEL_SockAddr* from);

    ///@{
    /// The forms above without destination or sender.
    VELErr_t send(const char* buf, unsigned int len) override;
    VELErr_t recv(char* buf, unsigned int len) override;
    VELErr_t recvAvail(char* buf, unsigned int* len) override;
    VELErr_t writev(VELIoVec* v, unsigned long n) override;
    VELErr_t readv(VELIoVec* v, unsigned long n) override;
    ///@}

private:
    VELErr_t checkSend(const VEL_SockAddr* to) const;
    VELErr_t checkRecv() const;
    ssize_t receiveOne(int fd, char* buf, std::size_t len, VEL_SockAddr* from, int* err) const;
    VELErr_t failed(int err, VELErr_t code, const VEL_SockAddr* peer) const;
};

#endif  // COM_INCLUDE_VEL_UDPSOCKET_H
