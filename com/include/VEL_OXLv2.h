// VEL_OXLv2: the OXLv1 frame extended with the message's RSCV bytes and optional zlib
// compression of the body.
//
// Frame (integers in network byte order):
//   offset 0      4 bytes  total length      the whole frame, header included
//   offset 4      4 bytes  length check      bitwise complement of the total length
//   offset 8      2 bytes  extension length  H = RSCV length + 4 (4 without RSCV)
//   offset 10     1 byte   version           '2' (0x32)
//   offset 11     1 byte   compression flag  'C' (0x43) when the body is compressed, else 0
//   offset 12     H - 4 bytes                RSCV: the message's RSCV bytes (0 to 255)
//   offset 8 + H  8 bytes  compression record, only with the flag 'C':
//                          4 bytes 02 00 00 00, then 4 bytes the uncompressed body length
//   then          the rest                   body: zlib stream (level 2) or plain data
// Total length = 12 + RSCV length + body length, + 8 when compressed.
//
// A header is accepted when the check matches, 4 <= H <= 259, the version is '2' and the total
// length is at least H + 8 (otherwise kVELErr_BadStreamHeader); its body, and for a compressed
// frame the uncompressed length too, must be at most the maximum message size (otherwise
// kVELErr_MessageTooBig, before the body is allocated or read). The first word of the record is
// not checked.
//
// The compression setting is shared by both directions: every received header sets it to the
// frame's flag, so a peer that starts compressing makes this side compress its replies, and
// stops it again. While it is on, every message sent is compressed, and keeps its compressed
// body after the send. The destination of a compression holds floor(body size x 1.1) bytes
// truncated to 16 bits: an empty body, or one whose stream does not fit, cannot be sent
// compressed (kVELErr_Compression).
//
// Ownership: the socket is not owned (see VEL_Transport).
//
// Thread safety: one object serves one socket and one thread at a time: sends and receives
// share the header and record blocks and the compression setting.
#ifndef COM_INCLUDE_VEL_OXLV2_H
#define COM_INCLUDE_VEL_OXLV2_H

#include <cstdint>

#include "VELIoVec.h"
#include "VEL_Transport.h"

constexpr std::uint32_t kVEL_OXLv2HeaderSize = 12;
constexpr std::uint32_t kVEL_OXLv2MinExtension = 4;    // H without RSCV
constexpr std::uint32_t kVEL_OXLv2MaxExtension = 259;  // H with 255 RSCV bytes
constexpr char kVEL_OXLv2Version = '2';
constexpr char kVEL_OXLv2Compressed = 'C';
constexpr std::uint32_t kVEL_OXLv2RecordSize = 8;
constexpr unsigned long kVEL_OXLv2Algorithm = 2;  // the zlib level of every compressed body

class VEL_OXLv2 : public VEL_Transport {
public:
    // Compression off. `maxMessageSize`: the largest body, compressed or not, that recvMessage
    // accepts.
    VEL_OXLv2(VEL_Socket* socket, unsigned long maxMessageSize);
    ~VEL_OXLv2() override;

    // Compresses the body when the setting is on, then writes header, RSCV, record and body in
    // one gathered writev. kVELErr_Ok; kVELErr_Compression (nothing sent, body unchanged);
    // kVELErr_Alloc; or the socket's error. Failures are traced.
    VELErr_t sendMessage(VEL_Message* message) override;
    // Reads one frame into the message: RSCV buffer (released when the frame has none) and body,
    // uncompressed when the frame says so. kVELErr_Ok; kVELErr_BadStreamHeader,
    // kVELErr_MessageTooBig (the rest of the frame is left unread); kVELErr_Uncompression (the
    // message keeps the compressed body, or has none when the stream inflates to fewer bytes
    // than the record announces); kVELErr_Alloc; or the socket's error. Failures are
    // traced, with dumps under trace bit 16.
    VELErr_t recvMessage(VEL_Message* message) override;

    void setCompression(bool on) { _compression = on; }
    bool getCompression() const { return _compression; }

protected:
    // Appends the header, the RSCV bytes (when the message has them) and, with compression on,
    // the record carrying `uncompressedSize`, to `iov` at `count`. Always kVELErr_Ok.
    // REQUIRES: room for three elements.
    VELErr_t buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message,
                         unsigned long uncompressedSize);
    // Reads and checks one header, sets the compression setting from it, and sizes the
    // message's RSCV and body. The RSCV element is appended for the caller to read with the
    // body; for a compressed frame, RSCV and record are read here, to check the uncompressed
    // length before the body is allocated. REQUIRES: room for two elements.
    VELErr_t recvHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message);
    // Replace the message's body by its compressed or uncompressed form (kVELErr_Compression,
    // kVELErr_Uncompression, kVELErr_Alloc).
    VELErr_t compress(VEL_Message* message);
    VELErr_t uncompress(VEL_Message* message);

private:
    // recvHeader without the trace of a failed read of the RSCV and record: *inRecord tells
    // that failure apart, for the caller to trace.
    VELErr_t readHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message, bool* inRecord);
    VELErr_t headerFailed(VELErr_t code);

    char _header[kVEL_OXLv2HeaderSize];
    char _record[kVEL_OXLv2RecordSize];
    bool _compression;
    unsigned long _maxMessageSize;
};

#endif  // COM_INCLUDE_VEL_OXLV2_H
