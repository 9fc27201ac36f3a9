/// @file
#ifndef COM_INCLUDE_VEL_BYTESTREAM_H
#define COM_INCLUDE_VEL_BYTESTREAM_H

#include <cstddef>
#include <memory>
#include <string>

#include "VELIoVec.h"
#include "VEL_Err.h"

class VEL_Socket;
class VEL_SockAddr;
class VEL_TCPSocket;

/// VEL_ByteStream: the bytes under a framed connection, moved without ever waiting. A framed
/// connection (VEL_FramedConnection) reads and writes through this one interface, so that another
/// kind of stream (a secure one, whose reads deliver bytes it has already decrypted) can carry the
/// same frames without the connection knowing.
///
/// readAvail and writeAvail move what can be moved now and report would-block as a count of 0;
/// they never block, whatever the descriptor's own mode. The end of the stream and a reset are
/// reported as kVELErr_SockHalfClosed (with the thread's last system error 0 for an orderly end).
///
/// A stream may do work of its own before it carries data (a TLS handshake: isEstablished() is
/// false until then), may need the descriptor polled for more than its user asks for
/// (extraOps()), and may hold input that its descriptor no longer shows (hasBufferedInput()): a
/// user that waits for readiness asks these, or it would wait for what has already come. The
/// secure stream is VEL_TLSByteStream.
///
/// VEL_TCPByteStream is the stream of a connected VEL_TCPSocket: one recvmsg or sendmsg with
/// MSG_DONTWAIT per call (no SIGPIPE), the descriptor itself left in the mode it has.
///
/// Ownership: a VEL_TCPByteStream owns its socket (and so the descriptor).
///
/// Thread safety: distinct streams are independent. One thread at a time reads, writes, asks
/// about the state (extraOps, hasBufferedInput, isEstablished, failureDetail) or closes a stream;
/// shutdown() may be called from any thread, also while another thread reads or writes, but not
/// while one closes.
class VEL_ByteStream {
public:
    VEL_ByteStream() = default;
    virtual ~VEL_ByteStream();
    VEL_ByteStream(const VEL_ByteStream&) = delete;
    VEL_ByteStream& operator=(const VEL_ByteStream&) = delete;

    /// The descriptor a reactor polls for this stream; kVEL_NoHandle once closed.
    virtual unsigned int getHandle() const = 0;
    /// The peer.
    virtual const VEL_SockAddr& getRemoteAddr() const = 0;

    /// Reads what is waiting into the `count` places, in order, without waiting. kVELErr_Ok with
    /// *moved the bytes read: 0 when nothing is waiting now. kVELErr_SockHalfClosed at the end of
    /// the stream (last system error 0) or on a reset; kVELErr_SockNotConnected once closed;
    /// kVELErr_Timeout when the system gave the connection up (ETIMEDOUT), kVELErr_Recv,
    /// kVELErr_InvalidSocket for other failures (errno stored, not traced).
    /// REQUIRES: `count` >= 1.
    virtual VELErr_t readAvail(const VELIoVec* places, unsigned long count, std::size_t* moved) = 0;
    /// Writes what the stream takes now of the `count` pieces, in order, in one gathered write,
    /// without waiting. kVELErr_Ok with *moved the bytes taken: 0 when none fit now.
    /// kVELErr_SockHalfClosed when the peer has reset the connection; kVELErr_SockNotConnected
    /// once closed; kVELErr_Timeout (ETIMEDOUT), kVELErr_Send (a peer gone after a shutdown
    /// among them), kVELErr_InvalidSocket for other failures (errno stored, not traced).
    /// REQUIRES: `count` >= 1.
    virtual VELErr_t writeAvail(const VELIoVec* pieces, unsigned long count,
                                std::size_t* moved) = 0;
    /// Operations (kVELOp_Read 1, kVELOp_Write 2) the stream needs polled to make progress, beyond
    /// those its user asks for: a secure stream in the middle of a handshake may need to write
    /// before it can read. Here: 0.
    virtual unsigned short extraOps() const;
    /// True when a read would take input at once although the descriptor may not report any:
    /// input the stream has already taken off it (decrypted), or an end or failure found after
    /// the bytes the last read returned. Here: false.
    virtual bool hasBufferedInput() const;
    /// True once the stream carries data: a secure stream after its handshake. Here: true.
    virtual bool isEstablished() const;
    /// Why the stream failed, beyond its status (a secure stream's reason, such as "certificate
    /// verify failed: certificate has expired"); empty when it did not, or has nothing to add.
    /// Kept after close(). Here: empty.
    virtual std::string failureDetail() const;
    /// Ends both directions at once without giving the descriptor back: a reactor polling it sees
    /// it ready, and the reads and writes that follow fail. Any thread.
    virtual void shutdown() = 0;
    /// Gives the descriptor back. Ok when there was none.
    virtual VELErr_t close() = 0;
};

/// The stream of a connected VEL_TCPSocket, which it owns (see VEL_ByteStream).
class VEL_TCPByteStream : public VEL_ByteStream {
public:
    /// REQUIRES: `socket` is connected.
    explicit VEL_TCPByteStream(std::unique_ptr<VEL_TCPSocket> socket);
    ~VEL_TCPByteStream() override;

    unsigned int getHandle() const override;
    const VEL_SockAddr& getRemoteAddr() const override;
    VELErr_t readAvail(const VELIoVec* places, unsigned long count, std::size_t* moved) override;
    VELErr_t writeAvail(const VELIoVec* pieces, unsigned long count, std::size_t* moved) override;
    void shutdown() override;
    VELErr_t close() override;

    /// The socket under the stream.
    VEL_TCPSocket& socket() { return *_socket; }

    /// Polls `socket`'s descriptor without waiting and without tracing: true when input, a
    /// connection to accept or the end of the stream is waiting. For a listening socket that
    /// accepts every pending connection and must not trace a failed accept for the last one.
    static bool InputWaiting(const VEL_Socket& socket);

private:
    std::unique_ptr<VEL_TCPSocket> _socket;
};

#endif  // COM_INCLUDE_VEL_BYTESTREAM_H
