/// @file
#ifndef COM_INCLUDE_VEL_OXLV2_H
#define COM_INCLUDE_VEL_OXLV2_H

#include <cstdint>

#include "VELIoVec.h"
#include "VEL_FrameCodec.h"
#include "VEL_Transport.h"

/// The fixed part of the header, in bytes (layout: see VEL_OXLv2).
constexpr std::uint32_t kVEL_OXLv2HeaderSize = 12;
constexpr std::uint32_t kVEL_OXLv2MinExtension = 4;    ///< H without RSCV
constexpr std::uint32_t kVEL_OXLv2MaxExtension = 259;  ///< H with 255 RSCV bytes
constexpr char kVEL_OXLv2Version = '2';                ///< the version byte
constexpr char kVEL_OXLv2Compressed = 'C';         ///< the compression flag of a compressed body
constexpr std::uint32_t kVEL_OXLv2RecordSize = 8;  ///< the compression record, in bytes
constexpr unsigned long kVEL_OXLv2Algorithm = 2;   ///< the zlib level of every compressed body

/// The OXLv2 format as a VEL_FrameCodec (frame layout: see VEL_OXLv2): the format's rules and
/// the compression setting. VEL_OXLv2 reads and writes its frames on a blocking socket.
class VEL_OXLv2Codec : public VEL_FrameCodec {
public:
    /// Compression off. `maxMessageSize`: the largest body, compressed or not, a decoded frame
    /// may announce.
    explicit VEL_OXLv2Codec(unsigned long maxMessageSize);
    ~VEL_OXLv2Codec() override;

    /// Compresses the body when the setting is on (the message keeps the compressed body), then
    /// lists header, RSCV, record and body. kVELErr_Ok; kVELErr_Compression (traced; the body
    /// unchanged); kVELErr_Alloc.
    VELErr_t encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) override;
    /// The header block; then, for a compressed frame, the RSCV buffer and the record block, then
    /// the body; for a plain one the RSCV buffer and the body together. Each received header sets
    /// the compression setting. A refused header (kVELErr_BadStreamHeader, kVELErr_MessageTooBig,
    /// kVELErr_Alloc; the uncompressed length is judged with the record) is traced with a dump
    /// of the header under trace bit 16; so is a body that does not uncompress
    /// (kVELErr_Uncompression, kVELErr_Alloc), with a dump of the body too.
    unsigned long nextParts(VEL_Message* target, VELIoVec* parts, unsigned long* count) override;
    VELErr_t received(VEL_Message* target, unsigned long received) override;
    void reset() override;
    bool inFrame() const override { return _stage != kHeader || _cursor.started(); }

    ///@{
    /// The compression setting (see VEL_OXLv2).
    void setCompression(bool on) { _compression = on; }
    bool getCompression() const { return _compression; }
    ///@}

    /// Fills the send blocks for `message`, whose body is already compressed when the setting is
    /// on, and appends the header, the RSCV bytes (when the message has them) and, with the
    /// setting on, the record carrying `uncompressedSize`, to `iov` at `count`.
    /// REQUIRES: room for three elements.
    void appendHeader(VELIoVec* iov, unsigned long& count, const VEL_Message& message,
                      unsigned long uncompressedSize);
    ///@{
    /// Replace the message's body by its compressed form, or by the uncompressed form the record
    /// of the frame being decoded announces (kVELErr_Compression, kVELErr_Uncompression,
    /// kVELErr_Alloc; untraced).
    VELErr_t compress(VEL_Message* message);
    VELErr_t uncompress(VEL_Message* message);
    ///@}

    /// The header block of the frame being decoded, or of the last one.
    const char* receivedHeader() const { return _inHeader; }
    /// True while the RSCV and record of a compressed frame are awaited: they belong to the
    /// header, whose uncompressed length is judged once they are in.
    bool inRecord() const { return _stage == kRecord; }
    /// True when the last failure of received() refused the header (the record included).
    bool refusedHeader() const { return _refusedHeader; }

private:
    enum Stage { kHeader, kRecord, kBody };

    VELErr_t judgeHeader(VEL_Message* target);
    VELErr_t judgeRecord(VEL_Message* target);
    /// Sizes the body and adds it to the places (after the RSCV buffer of a plain frame).
    VELErr_t startBody(VEL_Message* target);
    VELErr_t finishBody(VEL_Message* target);
    VELErr_t refuseHeader(VELErr_t code);

    char _outHeader[kVEL_OXLv2HeaderSize];
    char _outRecord[kVEL_OXLv2RecordSize];
    char _inHeader[kVEL_OXLv2HeaderSize];
    char _inRecord[kVEL_OXLv2RecordSize];
    bool _compression;  ///< compress what is sent; set by every received header
    unsigned long _maxMessageSize;
    Stage _stage;
    VEL_PartCursor _cursor;
    std::uint32_t _bodyLength;  ///< of the frame being decoded, known from its header
    bool _refusedHeader;
};

/// VEL_OXLv2: the OXLv1 frame extended with the message's RSCV bytes and optional zlib
/// compression of the body.
///
/// Frame (integers in network byte order):
/// @verbatim
///   offset 0      4 bytes  total length      the whole frame, header included
///   offset 4      4 bytes  length check      bitwise complement of the total length
///   offset 8      2 bytes  extension length  H = RSCV length + 4 (4 without RSCV)
///   offset 10     1 byte   version           '2' (0x32)
///   offset 11     1 byte   compression flag  'C' (0x43) when the body is compressed, else 0
///   offset 12     H - 4 bytes                RSCV: the message's RSCV bytes (0 to 255)
///   offset 8 + H  8 bytes  compression record, only with the flag 'C':
///                          4 bytes 02 00 00 00, then 4 bytes the uncompressed body length
///   then          the rest                   body: zlib stream (level 2) or plain data
/// @endverbatim
/// Total length = 12 + RSCV length + body length, + 8 when compressed.
///
/// A header is accepted when the check matches, 4 <= H <= 259, the version is '2' and the total
/// length is at least H + 8 (otherwise kVELErr_BadStreamHeader); its body, and for a compressed
/// frame the uncompressed length too, must be at most the maximum message size (otherwise
/// kVELErr_MessageTooBig, before the body is allocated or read). The first word of the record is
/// not checked.
///
/// The compression setting is shared by both directions: every received header sets it to the
/// frame's flag, so a peer that starts compressing makes this side compress its replies, and
/// stops it again. While it is on, every message sent is compressed, and keeps its compressed
/// body after the send. The destination of a compression holds floor(body size x 1.1) bytes
/// truncated to 16 bits: an empty body, or one whose stream does not fit, cannot be sent
/// compressed (kVELErr_Compression).
///
/// VEL_OXLv2Codec holds the format's rules and the compression setting; VEL_OXLv2 reads and
/// writes its frames on a blocking socket.
///
/// Ownership: the socket is not owned (see VEL_Transport).
///
/// Thread safety: one object serves one socket and one thread at a time: sends and receives
/// share the compression setting.
class VEL_OXLv2 : public VEL_Transport {
public:
    /// Compression off. `maxMessageSize`: the largest body, compressed or not, that recvMessage
    /// accepts.
    VEL_OXLv2(VEL_Socket* socket, unsigned long maxMessageSize);
    ~VEL_OXLv2() override;

    /// Compresses the body when the setting is on, then writes header, RSCV, record and body in
    /// one gathered writev. kVELErr_Ok; kVELErr_Compression (nothing sent, body unchanged);
    /// kVELErr_Alloc; or the socket's error. Failures are traced.
    VELErr_t sendMessage(VEL_Message* message) override;
    /// Reads one frame into the message: RSCV buffer (released when the frame has none) and body,
    /// uncompressed when the frame says so. The header comes with one whole recv; a compressed
    /// frame's RSCV and record with one readv, its body with another; a plain frame's RSCV and
    /// body with one readv. kVELErr_Ok; kVELErr_BadStreamHeader, kVELErr_MessageTooBig (the rest
    /// of the frame is left unread); kVELErr_Uncompression (the message keeps the compressed
    /// body, or has none when the stream inflates to fewer bytes than the record announces);
    /// kVELErr_Alloc; or the socket's error. Failures are traced, with dumps under trace bit 16.
    VELErr_t recvMessage(VEL_Message* message) override;

    ///@{
    /// The compression setting, shared by both directions (see above).
    void setCompression(bool on) { _codec.setCompression(on); }
    bool getCompression() const { return _codec.getCompression(); }
    ///@}

protected:
    /// Appends the header, the RSCV bytes (when the message has them) and, with compression on,
    /// the record carrying `uncompressedSize`, to `iov` at `count`. Always kVELErr_Ok.
    /// REQUIRES: room for three elements.
    VELErr_t buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message,
                         unsigned long uncompressedSize);
    /// Reads and checks one header, sets the compression setting from it, and, for a compressed
    /// frame, reads its RSCV and record, to check the uncompressed length before the body is
    /// allocated. The message's RSCV and body are sized; what is left of the frame is read from
    /// the places the codec names (nothing is appended to `iov`).
    VELErr_t recvHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message);
    ///@{
    /// Replace the message's body by its compressed or uncompressed form (kVELErr_Compression,
    /// kVELErr_Uncompression, kVELErr_Alloc).
    VELErr_t compress(VEL_Message* message);
    VELErr_t uncompress(VEL_Message* message);
    ///@}

private:
    /// What a failed read of a frame is traced as.
    enum class Failure {
        kTraced,       ///< traced in full already (a body that does not uncompress)
        kHeader,       ///< a failed or refused header, traced as one: trace the status again
        kAfterHeader,  ///< a failed read after a good header, not traced yet
    };
    /// Reads what the codec judges before the body: the header, and a compressed frame's RSCV and
    /// record. kVELErr_Incomplete when the body follows; kVELErr_Ok when the frame is whole.
    VELErr_t readHeader(VEL_Message* message, Failure* failure);

    VEL_OXLv2Codec _codec;
};

#endif  // COM_INCLUDE_VEL_OXLV2_H
