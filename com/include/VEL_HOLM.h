/// @file
#ifndef COM_INCLUDE_VEL_HOLM_H
#define COM_INCLUDE_VEL_HOLM_H

#include <cstdint>

#include <boost/shared_ptr.hpp>

#include "VELIoVec.h"
#include "VEL_FrameCodec.h"
#include "VEL_Transport.h"

class VEL_SecureSession;

/// The compression algorithm: the zlib level the sender compresses with (0 stores, 1 is the
/// fastest, 9 the smallest; values 10 to 63 travel as they are and compress as 9). The receiver
/// needs no level to uncompress.
enum VELHOLMCompAlgo_t : unsigned char {
    kVELHOLMCompAlgo_Stored = 0,
    kVELHOLMCompAlgo_Fastest = 1,
    kVELHOLMCompAlgo_Default = 2,
    kVELHOLMCompAlgo_Best = 9
};

/// The header's size in bytes (layout: see VEL_HOLM).
constexpr std::uint32_t kVEL_HOLMHeaderSize = 28;
constexpr std::uint16_t kVEL_HOLMMagic = 0x484F;  ///< "HO"
/// The version word every header carries.
constexpr std::uint16_t kVEL_HOLMVersion = 0x0100;
///@{
/// Offsets of the fields after the length words.
constexpr unsigned kVEL_HOLMCheckOffset = 12;
constexpr unsigned kVEL_HOLMSecurityOffset = 16;
constexpr unsigned kVEL_HOLMSessionOffset = 17;
constexpr unsigned kVEL_HOLMCompressionOffset = 18;
constexpr unsigned kVEL_HOLMRSCVOffset = 20;
constexpr unsigned kVEL_HOLMFieldOffset = 21;
constexpr unsigned kVEL_HOLMSSCVOffset = 22;
///@}
///@{
/// Bits of the security, session and compression bytes.
constexpr unsigned char kVEL_HOLMSecureBit = 0x40;
constexpr unsigned char kVEL_HOLMKeySentBit = 0x02;
constexpr unsigned char kVEL_HOLMResetBit = 0x01;
constexpr unsigned kVEL_HOLMLevelShift = 2;
constexpr unsigned char kVEL_HOLMInitiatorBit = 0x80;
constexpr unsigned char kVEL_HOLMCompressedBit = 0x40;
///@}
constexpr unsigned char kVEL_HOLMSixBits = 0x3F;  ///< cipher, session level, algorithm
///@{
/// Lengths of the session field.
constexpr std::uint32_t kVEL_HOLMKeyField = 16;
constexpr std::uint32_t kVEL_HOLMIDField = 4;
///@}

/// The HOLM format as a VEL_FrameCodec (frame layout and secure sessions: see VEL_HOLM): the
/// format's rules and the protocol state of one connection (settings, session roles, key,
/// session, reset bit). VEL_HOLM reads and writes its frames on a blocking socket.
class VEL_HOLMCodec : public VEL_FrameCodec {
public:
    /// No compression, no session. `maxMessageSize`: the largest plain size a decoded frame may
    /// announce.
    explicit VEL_HOLMCodec(unsigned long maxMessageSize);
    /// Closes this side's encryptor session and frees the key.
    ~VEL_HOLMCodec() override;

    /// Compresses the body when compression is on, then encrypts it while secure (the message
    /// keeps the transformed body), then lists header, RSCV, session field, SSCV and body.
    /// kVELErr_Ok; kVELErr_Compression (an empty body, or a stream that does not fit in
    /// floor(size x 1.1) truncated to 16 bits); kVELErr_SecureSession (secure without an open
    /// session, or the session expired); kVELErr_Alloc. Failures are traced.
    VELErr_t encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) override;
    /// The header block, then the RSCV buffer, the session field, the SSCV buffer and the body
    /// together. A refused header (the receive checks above; kVELErr_Alloc) is traced with a dump
    /// of the header under trace bit 16; so is a body that does not decrypt or uncompress
    /// (kVELErr_SecureSession, kVELErr_Uncompression, kVELErr_Alloc), with a dump of the body.
    unsigned long nextParts(VEL_Message* target, VELIoVec* parts, unsigned long* count) override;
    VELErr_t received(VEL_Message* target, unsigned long received) override;
    void reset() override;
    bool inFrame() const override { return _inRest || _cursor.started(); }

    ///@{
    /// The settings and the session, as VEL_HOLM's of the same names.
    void setCompression(bool on, VELHOLMCompAlgo_t algorithm);
    bool getCompression() const { return _compression; }
    VELErr_t openSecureSession();
    VELErr_t closeSecureSession();
    bool isSecureSession() const { return _key != nullptr; }
    ///@}

    /// Fills the send blocks for `message` (whose body is already transformed) and appends the
    /// header, RSCV, session field and SSCV elements to `iov` at `count`. The first secure frame
    /// takes the key, and the reset bit goes out once. REQUIRES: room for four elements.
    void appendHeader(VELIoVec* iov, unsigned long& count, const VEL_Message& message,
                      unsigned long plainSize);
    ///@{
    /// Replace the message's body by its compressed or uncompressed (`plainSize` bytes) form.
    VELErr_t compress(VEL_Message* message);
    VELErr_t uncompress(VEL_Message* message, unsigned long plainSize);
    ///@}
    ///@{
    /// Encrypt the body in place (its length rounded up to 8), or decrypt its first `length`
    /// bytes in place and cut it to `length`; decrypt first opens the responder's session from a
    /// received key.
    VELErr_t encrypt(VEL_Message* message);
    VELErr_t decrypt(VEL_Message* message, unsigned long length);
    ///@}

    ///@{
    /// The header block of the frame being decoded, or of the last one, and its plain size.
    const char* receivedHeader() const { return _inHeader; }
    unsigned long receivedPlainSize() const;
    ///@}
    /// True when the last failure of received() refused the header.
    bool refusedHeader() const { return _refusedHeader; }

private:
    /// Checks the lengths of the received header against the session state (`keyHeld` once its
    /// reset bit is acted on) and the limits; sets *bodyLength.
    VELErr_t checkLengths(bool keyHeld, std::uint32_t* bodyLength) const;
    VELErr_t judgeHeader(VEL_Message* target);
    /// Sizes the side buffers and the body for the header, and sets up the places after it.
    VELErr_t prepareRest(VEL_Message* target, std::uint32_t bodyLength);
    /// Takes over what the header changes, then decrypts and uncompresses the body.
    VELErr_t finishFrame(VEL_Message* target);
    VELErr_t applyHeader();
    /// Closes the encryptor session and forgets the key, initiator, key-sent, cipher and level.
    void dropSession();
    VELErr_t refuseHeader(VELErr_t code);

    // Protocol state, shared by both directions.
    VELHOLMCompAlgo_t _compressionAlgorithm;
    unsigned long _cipher;
    unsigned long _sessionLevel;
    bool _compression;
    bool _secure;
    bool _keySent;
    bool _initiator;
    char* _key;  ///< 17 bytes (16 key bytes and a 0) from calloc, or null without a session
    /// This side's encryptor session, held itself: once it has expired its ID may name another
    /// holder's session, which this codec must never use or close.
    boost::shared_ptr<VEL_SecureSession> _session;
    unsigned long _sessionID;      ///< the ID of _session, 0 when none is open
    unsigned long _peerSessionID;  ///< the 4-byte session field last received
    bool _reset;                   ///< announce a close in the next header
    unsigned long _maxMessageSize;
    // Encoding.
    char _outHeader[kVEL_HOLMHeaderSize];
    char _outSessionField[kVEL_HOLMIDField];
    // Decoding: the frame's own blocks until it is whole.
    char _inHeader[kVEL_HOLMHeaderSize];
    char _inKey[kVEL_HOLMKeyField];
    char _inSessionField[kVEL_HOLMIDField];
    VEL_PartCursor _cursor;  ///< the header, then RSCV, session field, SSCV and body
    bool _inRest;            ///< past the header
    bool _refusedHeader;
};

/// VEL_HOLM: framing with a checked 28-byte header, the message's RSCV and SSCV bytes, optional
/// zlib compression and optional CAST-128 encryption of the body under a secure session that is
/// opened in band.
///
/// Header (28 bytes; integers in network byte order):
/// @verbatim
///   offset 0   2 bytes  magic              "HO" (0x484F)
///   offset 2   2 bytes  version            256 (0x0100)
///   offset 4   4 bytes  total length       28 + RSCV + session field + SSCV + body lengths
///   offset 8   4 bytes  plain size         body length before compression and encryption
///   offset 12  2 bytes  check word         XOR of the six 16-bit words at offsets 0 to 10, so
///                                          that the seven words at offsets 0 to 12 XOR to 0
///   offset 14  2 bytes  reserved           0
///   offset 16  1 byte   security           bit 7: 0; bit 6: secure; bits 0-5: cipher
///   offset 17  1 byte   session            bits 2-7: session level; bit 1: key sent; bit 0: reset
///   offset 18  1 byte   compression        bit 7: initiator; bit 6: compressed;
///                                          bits 0-5: compression algorithm (the zlib level)
///   offset 19  1 byte   reserved           0
///   offset 20  1 byte   RSCV length        0 to 255
///   offset 21  1 byte   session field      0; 16 (the session key); 4 (a session ID)
///   offset 22  1 byte   SSCV length        0 to 255
///   offset 23  5 bytes  reserved           0
/// @endverbatim
/// Then, in this order: RSCV bytes, session field, SSCV bytes, body. The body is the message's
/// data, zlib-compressed when the compressed bit is set, then CAST-128 CBC encrypted when the
/// secure bit is set (its length rounded up to a multiple of 8, zero-padded). The session field's
/// 4-byte form holds the low 32 bits of a session ID, least significant byte first.
///
/// Secure sessions. openSecureSession draws a random 16-byte key and opens an encryptor session
/// with it; this side is the initiator. Its first secure frame carries the key (session field
/// 16); the peer, holding no key, takes it and opens a matching session when it decrypts that
/// frame (it becomes the responder). Every later secure frame carries a 4-byte session ID: the
/// initiator sends the ID last received from the peer, the responder its own. Each received
/// frame sets whether this side compresses and encrypts what it sends. closeSecureSession
/// closes the session and sets the reset bit of the next header (once); a peer that receives the
/// reset bit closes its own session, so that either side may open a new one. A frame may carry
/// the reset bit together with a new key. What a received header changes (settings, reset, key)
/// takes effect when its frame is whole, so that a frame sent while another is arriving follows
/// the frames already delivered.
///
/// Receive checks (peer input never overruns a buffer or drives an unbounded allocation):
/// @verbatim
///   kVELErr_BadStreamHeader  the check word, the version or the magic is wrong; the session
///                            field is not 16 while no key is held or not 4 while one is; a
///                            secure frame arrives without a key; the total length is below the
///                            header and fields; a plain frame's body is not the plain size; a
///                            secure body is not a multiple of 8, or, uncompressed, not the plain
///                            size rounded up to 8; a compressed body is above the zlib bound of
///                            the maximum size (rounded up to 8)
///   kVELErr_MessageTooBig    the plain size is above the maximum message size or the largest
///                            buffer; refused before any byte after the header is read
/// @endverbatim
/// After a failed receive the rest of the frame stays unread: close the connection.
///
/// VEL_HOLMCodec holds the format's rules and the protocol state of one connection (settings,
/// session roles, key, session, reset bit); VEL_HOLM reads and writes its frames on a blocking
/// socket.
///
/// Ownership: the socket is not owned (see VEL_Transport). The codec owns its key block and its
/// encryptor session, which its destructor closes. It holds the session itself, not only its
/// ID: once the session has expired (sends and receives then fail with kVELErr_SecureSession),
/// the encryptor may give the ID to another session, which the codec never uses or closes.
///
/// Thread safety: one object serves one socket and one thread at a time: sends and receives
/// share the session state. The encryptor behind the sessions is shared and thread-safe. No
/// operation throws.
class VEL_HOLM : public VEL_Transport {
public:
    /// No compression, no session. `maxMessageSize`: the largest plain size recvMessage accepts.
    VEL_HOLM(VEL_Socket* socket, unsigned long maxMessageSize);
    /// Closes this side's encryptor session and frees the key.
    ~VEL_HOLM() override;
    VEL_HOLM(const VEL_HOLM&) = delete;
    VEL_HOLM& operator=(const VEL_HOLM&) = delete;

    /// Compresses the body when compression is on, then encrypts it while secure, then writes
    /// header, RSCV, session field, SSCV and body in one gathered writev. The message keeps the
    /// transformed body. kVELErr_Ok; kVELErr_Compression (an empty body, or a stream that does not
    /// fit in floor(size x 1.1) truncated to 16 bits); kVELErr_SecureSession (secure without an
    /// open session, or the session expired); kVELErr_Alloc; or the socket's error. Nothing is
    /// sent on a failure, which is traced.
    VELErr_t sendMessage(VEL_Message* message) override;
    /// Reads one frame into the message (RSCV and SSCV buffers released when the frame has none),
    /// decrypting and uncompressing its body as the header says: the header with one whole recv,
    /// the rest with one readv. kVELErr_Ok; the receive checks above; kVELErr_SecureSession (the
    /// session expired); kVELErr_Uncompression (a body that does not inflate, or inflates to
    /// fewer bytes than the plain size: the message then has no body); kVELErr_Alloc; or the
    /// socket's error. Failures are traced, with dumps under trace bit 16.
    VELErr_t recvMessage(VEL_Message* message) override;

    /// Compression of outgoing bodies, with the zlib level `algorithm`. A received header
    /// overrides both.
    void setCompression(bool on, VELHOLMCompAlgo_t algorithm = kVELHOLMCompAlgo_Default);
    /// True while outgoing bodies are compressed.
    bool getCompression() const { return _codec.getCompression(); }

    /// Opens a session with a fresh random key: this side becomes the initiator, and what it
    /// sends is encrypted. kVELErr_Ok; kVELErr_SecureSession when a key is already held;
    /// kVELErr_Alloc when the key or the session cannot be made.
    VELErr_t openSecureSession();
    /// Closes the session; the next header carries the reset bit. kVELErr_Ok, or
    /// kVELErr_SecureSession without a key.
    VELErr_t closeSecureSession();
    /// True while a key is held (opened here, or received from the peer).
    bool isSecureSession() const { return _codec.isSecureSession(); }

protected:
    /// Fills the header for `message` (whose body is already transformed) and appends the header,
    /// RSCV, session field and SSCV elements to `iov` at `count`. Always kVELErr_Ok.
    /// REQUIRES: room for four elements.
    VELErr_t buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message,
                         unsigned long plainSize);
    /// Reads and checks one header, sizes the message's RSCV, SSCV and body for it and gives its
    /// plain size. What the header changes takes effect when the rest of the frame, read from the
    /// places the codec names, is in (nothing is appended to `iov`).
    VELErr_t recvHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message,
                        unsigned long& plainSize);
    ///@{
    /// Replace the message's body by its compressed or uncompressed (`plainSize` bytes) form.
    VELErr_t compress(VEL_Message* message);
    VELErr_t uncompress(VEL_Message* message, unsigned long plainSize);
    ///@}
    ///@{
    /// Encrypt the body in place (its length rounded up to 8), or decrypt its first `length`
    /// bytes in place and cut it to `length`; decrypt first opens the responder's session from a
    /// received key.
    VELErr_t encrypt(VEL_Message* message);
    VELErr_t decrypt(VEL_Message* message, unsigned long length);
    ///@}

private:
    /// Reads and judges the header. kVELErr_Incomplete when the rest of the frame follows.
    /// *refused tells a failed or refused header (traced as one) from a frame that ended with
    /// its header and failed (traced in full).
    VELErr_t readHeader(VEL_Message* message, bool* refused);

    VEL_HOLMCodec _codec;
};

#endif  // COM_INCLUDE_VEL_HOLM_H
