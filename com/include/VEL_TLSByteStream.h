/// @file
#ifndef COM_INCLUDE_VEL_TLSBYTESTREAM_H
#define COM_INCLUDE_VEL_TLSBYTESTREAM_H

#include <cstddef>
#include <memory>
#include <string>

#include "VELIoVec.h"
#include "VEL_ByteStream.h"
#include "VEL_Err.h"
#include "VEL_TLSEngine.h"

class VEL_SockAddr;
class VEL_TCPSocket;
class VEL_TLSContext;

/// VEL_TLSByteStream: a connected TCP stream carried inside TLS, moved without ever waiting: the
/// secure VEL_ByteStream under a framed connection (VEL_FramedConnection).
///
/// @verbatim
///   std::unique_ptr<VEL_TLSByteStream> stream;
///   if (VEL_TLSByteStream::Create(std::move(socket), clientContext, "server.example",
///                                 &stream) == kVELErr_Ok) {
///       auto connection =
///               VEL_FramedConnection::Create(reactor, std::move(stream), codec, handler);
///       connection->start();  // the handshake runs in the reactor
///   }
/// @endverbatim
///
/// The handshake runs inside the first reads and writes, one step each time the descriptor allows
/// one, in either role (the context's): until it has completed readAvail and writeAvail move no
/// data, isEstablished() is false and extraOps() names the readiness it waits for (a client's
/// first step writes). A VEL_FramedAcceptor given a server context makes these streams itself.
///
/// Input: a read takes whole records off the descriptor and more (OpenSSL reads ahead), so bytes
/// may be decrypted, or received and not yet decrypted, while the descriptor reports nothing to
/// read. readAvail fills its places from them until they are full or nothing more is waiting;
/// when it stops with the places full and input left inside the session, hasBufferedInput() says
/// so, and the caller must read again without waiting for the descriptor.
///
/// Output: writeAvail sends records of up to 16 KiB (small pieces gathered into one record) until
/// everything is taken or the descriptor is full. A record that could not go out whole is not
/// counted: the next writeAvail must be offered the same bytes again, and at least as many (the
/// output queue of a framed connection does this by itself).
///
/// Status codes, beyond those of VEL_TCPByteStream: kVELErr_TLSHandshake, kVELErr_TLSCertificate,
/// kVELErr_TLSProtocol, kVELErr_TLSTruncated (the peer closed without close_notify);
/// kVELErr_SockHalfClosed for the peer's close_notify (last system error 0) or a reset. After a
/// failure every later step reports it again; failureDetail() gives the reason (the certificate
/// verification result, or OpenSSL's). Failures are not traced here: the user traces them with
/// what it knows of the connection. The completed handshake is traced under the network mask:
/// "COM - TLS session <FD = n> ; Remote address : a ; TLSv1.3 <cipher>".
///
/// close() sends close_notify when the session is established and has not failed, if the
/// descriptor takes it at once, then closes the descriptor. shutdown() only shuts the descriptor
/// down (no close_notify: it may run while another thread is in the middle of a step).
///
/// Ownership: the stream owns the socket it was given (and so the descriptor) and its session,
/// which shares the context.
///
/// Thread safety: as VEL_ByteStream: one thread at a time calls the stream (reads, writes, the
/// questions about its state, close); shutdown() may be called from any thread meanwhile.
class VEL_TLSByteStream : public VEL_ByteStream {
public:
    /// The most plaintext one record carries: writeAvail gathers small pieces up to this.
    static constexpr std::size_t kRecordBytes = 16384;

    /// Takes over the connected `socket` and begins a session of `context`'s role on it; the
    /// handshake runs in the stream's reads and writes. A client names the server in `serverName`
    /// (sent for SNI, and the name its certificate must carry when the context verifies the peer;
    /// null or empty: the remote address is checked instead); a server passes null. Sets `*stream`
    /// on success. kVELErr_SockNotConnected when `socket` is not connected, kVELErr_TLSInit when
    /// the session cannot be made (traced with the reason), kVELErr_Alloc; on failure `socket` is
    /// closed. REQUIRES: `socket` and `stream` are not null.
    static VELErr_t Create(std::unique_ptr<VEL_TCPSocket> socket, const VEL_TLSContext& context,
                           const char* serverName, std::unique_ptr<VEL_TLSByteStream>* stream);
    /// Closes (see close()).
    ~VEL_TLSByteStream() override;

    /// The TCP socket's descriptor; kVEL_NoHandle once closed.
    unsigned int getHandle() const override;
    /// The peer.
    const VEL_SockAddr& getRemoteAddr() const override;
    /// Advances the handshake while it has not completed (nothing read until then), then takes
    /// decrypted input into the places. See the class comment for the codes.
    VELErr_t readAvail(const VELIoVec* places, unsigned long count, std::size_t* moved) override;
    /// Advances the handshake while it has not completed (nothing written until then), then
    /// sends records of the pieces. See the class comment for the codes and the rule on retries.
    VELErr_t writeAvail(const VELIoVec* pieces, unsigned long count, std::size_t* moved) override;
    /// What the handshake waits for (kVELOp_Read or kVELOp_Write) while it has not completed;
    /// afterwards kVELOp_Write for a read that must write first, kVELOp_Read for a write that must
    /// read first, or 0.
    unsigned short extraOps() const override;
    /// True when the last read filled its places and input is left inside the session, or found
    /// an end or failure after the bytes it returned (the next read reports it).
    bool hasBufferedInput() const override;
    /// True once the handshake has completed.
    bool isEstablished() const override;
    /// Why the session failed (as VEL_TLSSocket::getFailureDetail); empty while it has not.
    std::string failureDetail() const override;
    /// Shuts the descriptor down in both directions (no close_notify). Any thread.
    void shutdown() override;
    /// Sends close_notify when it can (see the class comment), drops the session and closes the
    /// descriptor: the socket's status.
    VELErr_t close() override;

    /// The protocol version and cipher ("TLSv1.3 TLS_AES_256_GCM_SHA384") once established.
    std::string getProtocol() const;
    /// The one-line subject of the peer's certificate (empty when it sent none).
    std::string getPeerSubject() const;

private:
    explicit VEL_TLSByteStream(std::unique_ptr<VEL_TCPSocket> socket);

    /// The descriptor, or -1 once closed.
    int descriptor() const;
    /// One handshake step: Ok once it has completed (traced then), kVELErr_Incomplete while it
    /// waits for the descriptor, or the failure.
    VELErr_t advanceHandshake();
    /// Reads into one place until it is full or nothing more is waiting.
    VELErr_t fill(char* place, std::size_t size, std::size_t* got);
    /// The data of the next record of `pieces` (skipping `done` bytes): a large piece in place,
    /// small ones gathered into the staging buffer; null when that cannot be allocated.
    const char* nextRecord(const VELIoVec* pieces, unsigned long count, std::size_t done,
                           std::size_t* size);
    /// Records a failure of the session and its reason.
    VELErr_t failed(VELErr_t code);

    const std::unique_ptr<VEL_TCPSocket> _socket;
    VEL_TLSEngine _engine;
    std::unique_ptr<char[]> _stage;  ///< made on the first gathered write
    unsigned short _handshakeOps;  ///< what the handshake waits for (a client's first step writes)
    unsigned short _readOps;       ///< kVELOp_Write when the last read must write first
    unsigned short _writeOps;      ///< kVELOp_Read when the last write must read first
    bool _inputLeft;               ///< the last read stopped with its places full
    VELErr_t _deferred;            ///< found by a read after its bytes; the next read's status
    long _deferredErr;             ///< the last system error that went with it
    std::string _detail;           ///< the failure's reason, kept after close()
};

#endif  // COM_INCLUDE_VEL_TLSBYTESTREAM_H
