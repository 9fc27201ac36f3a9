// VEL_OXLv5: the lightest framing of the OXL family, a 2-byte length in front of each body.
//
// Frame:
//   offset 0  2 bytes       length  body length, unsigned, network byte order (0 to 65535)
//   offset 2  length bytes  body    the message's data, unchanged
//
// There is no check field, no version and no receive limit beyond the 16-bit length. A length of
// 0 is an empty message (no data buffer). RSCV and SSCV do not travel.
//
// Ownership: the socket is not owned (see VEL_Transport).
//
// Thread safety: the object keeps no per-frame state, but like every transport it serves one
// socket and one thread at a time.
#ifndef COM_INCLUDE_VEL_OXLV5_H
#define COM_INCLUDE_VEL_OXLV5_H

#include <cstdint>

#include "VEL_Transport.h"

constexpr std::uint32_t kVEL_OXLv5HeaderSize = 2;
constexpr unsigned long kVEL_OXLv5MaxBody = 65535;

class VEL_OXLv5 : public VEL_Transport {
public:
    explicit VEL_OXLv5(VEL_Socket* socket) : VEL_Transport(socket) {}

    // Writes the length and the body in one gathered writev. kVELErr_MessageTooBig for a body
    // above 65535 bytes (nothing sent); otherwise kVELErr_Ok or the socket's error. Failures are
    // traced.
    VELErr_t sendMessage(VEL_Message* message) override;
    // Reads the length, then the body. kVELErr_Ok, kVELErr_Alloc, or the socket's error; traced,
    // with a dump of the length field under trace bit 16 when the body read fails.
    VELErr_t recvMessage(VEL_Message* message) override;
};

#endif  // COM_INCLUDE_VEL_OXLV5_H
