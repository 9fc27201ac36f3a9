/// @file
#ifndef COM_INCLUDE_VEL_OXLV1_H
#define COM_INCLUDE_VEL_OXLV1_H

#include <cstdint>

#include "VELIoVec.h"
#include "VEL_FrameCodec.h"
#include "VEL_Transport.h"

constexpr std::uint32_t kVEL_OXLv1HeaderSize = 12;  ///< bytes (layout: see VEL_OXLv1)
constexpr std::uint16_t kVEL_OXLv1Marker = 32;      ///< the header marker
constexpr char kVEL_OXLv1Version = '1';             ///< the version byte

/// The OXLv1 format as a VEL_FrameCodec (frame layout: see VEL_OXLv1). VEL_OXLv1 reads and
/// writes its frames on a blocking socket.
class VEL_OXLv1Codec : public VEL_FrameCodec {
public:
    /// `maxMessageSize`: the largest body a decoded frame may announce.
    explicit VEL_OXLv1Codec(unsigned long maxMessageSize);
    ~VEL_OXLv1Codec() override;

    /// The header and, when there is one, the body. Always kVELErr_Ok.
    VELErr_t encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) override;
    /// The header block, then the body. A bad header gives kVELErr_BadStreamHeader or
    /// kVELErr_MessageTooBig, a body that cannot be had kVELErr_Alloc, each traced with a dump of
    /// the header under trace bit 16.
    unsigned long nextParts(VEL_Message* target, VELIoVec* parts, unsigned long* count) override;
    VELErr_t received(VEL_Message* target, unsigned long received) override;
    void reset() override;
    bool inFrame() const override { return _inBody || _cursor.started(); }

    /// Writes the header of `message` into the send block and returns it (12 bytes).
    const char* fillHeader(const VEL_Message& message);
    /// The header block of the frame being decoded, or of the last one.
    const char* receivedHeader() const { return _inHeader; }

private:
    VELErr_t judgeHeader(VEL_Message* target);

    char _outHeader[kVEL_OXLv1HeaderSize];
    char _inHeader[kVEL_OXLv1HeaderSize];
    unsigned long _maxMessageSize;
    VEL_PartCursor _cursor;  ///< the header block, then the body
    bool _inBody;
};

/// VEL_OXLv1: the simplest framing protocol, a fixed 12-byte header in front of each message body.
///
/// Frame (integers in network byte order):
/// @verbatim
///   offset 0   4 bytes  total length     body length + 12 (the header included)
///   offset 4   4 bytes  length check     bitwise complement of the total length
///   offset 8   2 bytes  header marker    32 (0x0020)
///   offset 10  1 byte   version          '1' (0x31)
///   offset 11  1 byte   reserved         0 on send, not checked on receive
///   offset 12  total length - 12 bytes   body: the message's data, unchanged
/// @endverbatim
///
/// A header is accepted when the check matches, the marker is 32 and the version is '1'
/// (otherwise kVELErr_BadStreamHeader), and when its body length, total length - 12 computed in
/// 32 bits, is at most the maximum message size (otherwise kVELErr_MessageTooBig; a total length
/// below 12 is always refused so). RSCV and SSCV do not travel.
///
/// Ownership: the socket is not owned (see VEL_Transport).
///
/// Thread safety: one object serves one socket and one thread at a time: sends and receives
/// share the header block, so an object must not send and receive at once.
class VEL_OXLv1 : public VEL_Transport {
public:
    /// `maxMessageSize`: the largest body recvMessage accepts.
    VEL_OXLv1(VEL_Socket* socket, unsigned long maxMessageSize);
    ~VEL_OXLv1() override;

    /// Writes the header and the body in one gathered writev. kVELErr_Ok or the socket's error
    /// (traced).
    VELErr_t sendMessage(VEL_Message* message) override;
    /// Reads the header, then the body into the message's data buffer (none for an empty body).
    /// kVELErr_Ok; kVELErr_BadStreamHeader, kVELErr_MessageTooBig (the body is left unread);
    /// kVELErr_Alloc when no body buffer can be had; or the socket's error. Failures are traced,
    /// with a dump of the header under trace bit 16.
    VELErr_t recvMessage(VEL_Message* message) override;

protected:
    /// Fills the header block for `message` and appends it to `iov` at `count`, which it
    /// increments. Always kVELErr_Ok.
    VELErr_t buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message);
    /// Reads and checks one header and sizes the message's body for it. Nothing is appended to
    /// the list. The codes of recvMessage except the body read's.
    VELErr_t recvHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message);

private:
    VEL_OXLv1Codec _codec;
};

#endif  // COM_INCLUDE_VEL_OXLV1_H
