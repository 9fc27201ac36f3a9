/// @file
#ifndef COM_INCLUDE_VEL_OXLV5_H
#define COM_INCLUDE_VEL_OXLV5_H

#include <cstdint>

#include "VELIoVec.h"
#include "VEL_FrameCodec.h"
#include "VEL_Transport.h"

constexpr std::uint32_t kVEL_OXLv5HeaderSize = 2;   ///< bytes: the length prefix
constexpr unsigned long kVEL_OXLv5MaxBody = 65535;  ///< the largest body the prefix can announce

/// The OXLv5 format as a VEL_FrameCodec (frame layout: see VEL_OXLv5). VEL_OXLv5 reads and
/// writes its frames on a blocking socket.
class VEL_OXLv5Codec : public VEL_FrameCodec {
public:
    VEL_OXLv5Codec();
    ~VEL_OXLv5Codec() override;

    /// The length and, when there is one, the body. kVELErr_MessageTooBig (traced) for a body
    /// above 65535 bytes.
    VELErr_t encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) override;
    /// The length field, then the body. kVELErr_Alloc (traced with a dump of the length field
    /// under trace bit 16) when no body buffer can be had; no other failure.
    unsigned long nextParts(VEL_Message* target, VELIoVec* parts, unsigned long* count) override;
    VELErr_t received(VEL_Message* target, unsigned long received) override;
    void reset() override;
    bool inFrame() const override { return _inBody || _cursor.started(); }

    /// The length field of the frame being decoded, or of the last one.
    const char* receivedHeader() const { return _inHeader; }

private:
    VELErr_t judgeHeader(VEL_Message* target);

    char _outHeader[kVEL_OXLv5HeaderSize];
    char _inHeader[kVEL_OXLv5HeaderSize];
    VEL_PartCursor _cursor;  ///< the length field, then the body
    bool _inBody;
};

/// VEL_OXLv5: the lightest framing of the OXL family, a 2-byte length in front of each body.
///
/// Frame:
/// @verbatim
///   offset 0  2 bytes       length  body length, unsigned, network byte order (0 to 65535)
///   offset 2  length bytes  body    the message's data, unchanged
/// @endverbatim
///
/// There is no check field, no version and no receive limit beyond the 16-bit length. A length of
/// 0 is an empty message (no data buffer). RSCV and SSCV do not travel.
///
/// VEL_OXLv5Codec holds the format's rules; VEL_OXLv5 reads and writes its frames on a blocking
/// socket.
///
/// Ownership: the socket is not owned (see VEL_Transport).
///
/// Thread safety: the format keeps no protocol state, but like every transport and codec an
/// object serves one socket and one thread at a time.
class VEL_OXLv5 : public VEL_Transport {
public:
    /// A transport over `socket`, which it does not own.
    explicit VEL_OXLv5(VEL_Socket* socket);
    ///@{
    /// Copies share the socket; each has a codec of its own (the format has no state to share).
    VEL_OXLv5(const VEL_OXLv5& other);
    VEL_OXLv5& operator=(const VEL_OXLv5& other);
    ///@}
    ~VEL_OXLv5() override;

    /// Writes the length and the body in one gathered writev. kVELErr_MessageTooBig for a body
    /// above 65535 bytes (nothing sent); otherwise kVELErr_Ok or the socket's error. Failures are
    /// traced.
    VELErr_t sendMessage(VEL_Message* message) override;
    /// Reads the length, then the body, each with one whole recv. kVELErr_Ok, kVELErr_Alloc, or
    /// the socket's error; traced, with a dump of the length field under trace bit 16 when the
    /// body cannot be had or read.
    VELErr_t recvMessage(VEL_Message* message) override;

private:
    VEL_OXLv5Codec _codec;
};

#endif  // COM_INCLUDE_VEL_OXLV5_H
