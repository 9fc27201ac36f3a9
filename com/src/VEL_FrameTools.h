// Internal to the network module (not installed, never included by a public header): what the
// framing transports share.
//
// - Network-order integers read from and written into header blocks.
// - The length pair that opens the OXL headers: a 32-bit total length and its complement.
// - prepareBody sizes a message's body for a receive; bodyElement is the body as one
//   scatter/gather element; writeParts sends a frame's parts in one gathered write.
// - traceRecvFailure writes the lines of a failed receive.
//
// Thread safety: every function is safe from any thread on distinct data.
#ifndef COM_SRC_VEL_FRAMETOOLS_H
#define COM_SRC_VEL_FRAMETOOLS_H

#include <cstdint>

#include "VELIoVec.h"
#include "VEL_Err.h"
#include "VEL_FrameCodec.h"

class VEL_Message;
class VEL_Socket;

namespace velcom {

inline void putUint16(char* at, std::uint16_t value) {
    at[0] = static_cast<char>(value >> 8);
    at[1] = static_cast<char>(value);
}

inline void putUint32(char* at, std::uint32_t value) {
    putUint16(at, static_cast<std::uint16_t>(value >> 16));
    putUint16(at + 2, static_cast<std::uint16_t>(value));
}

inline std::uint16_t getUint16(const char* at) {
    const auto* bytes = reinterpret_cast<const unsigned char*>(at);
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}

inline std::uint32_t getUint32(const char* at) {
    return static_cast<std::uint32_t>(getUint16(at)) << 16 | getUint16(at + 2);
}

// Writes `total` at `header` and its bitwise complement right after it (8 bytes).
inline void putLengthPair(char* header, std::uint32_t total) {
    putUint32(header, total);
    putUint32(header + 4, ~total);
}

// Reads the length pair into *total; false when the complement does not match.
inline bool getLengthPair(const char* header, std::uint32_t* total) {
    *total = getUint32(header);
    return ~getUint32(header + 4) == *total;
}

// Gives the message a body of `length` bytes for a receive to fill (none for 0). Whatever the
// body held is dropped rather than copied when the buffer has to grow. kVELErr_Alloc when no
// buffer of that size can be had.
VELErr_t prepareBody(VEL_Message* message, std::uint32_t length);

// The message's body as one element: {data, size}, or {null, 0} without a body.
VELIoVec bodyElement(const VEL_Message& message);

// After a header judged `code`: points `cursor` at the body of `target` and returns true when
// one follows; false when the frame ends with the header (refused, or an empty body).
bool expectBody(VELErr_t code, VEL_Message* target, VEL_PartCursor& cursor);

// The received() of a codec whose frames are a header and then a body of the length the header
// gives, with its cursor and its in-body flag: `judge` checks a whole header and prepares the
// body, `reset` readies the codec for the next frame once one ends.
template <class Judge, class Reset>
VELErr_t receiveHeaderThenBody(VEL_PartCursor& cursor, bool& inBody, VEL_Message* target,
                               unsigned long received, Judge judge, Reset reset) {
    if (!cursor.fill(received)) {
        return kVELErr_Incomplete;
    }
    const VELErr_t code = inBody ? kVELErr_Ok : judge();
    inBody = !inBody && expectBody(code, target, cursor);
    if (inBody) {
        return kVELErr_Incomplete;
    }
    reset();
    return code;
}

// Writes the `count` elements of `iov` in one writev. A failure is traced ("COM - <status>",
// as from `file`) and returned.
VELErr_t writeParts(VEL_Socket& socket, VELIoVec* iov, unsigned long count,
                    const char* file = __builtin_FILE(), unsigned long line = __builtin_LINE());

// The lines of a failed receive, each under its own trace mask, at the error level:
//   network errors: "COM - <status> ; <what>"
//   message dumps:  "COM - <status> ; <headerLabel>" and a dump of the header bytes, then, when
//                   `body` is given, "COM - <status> ; <bodyLabel>" and a dump of its body
//   network errors: "COM - <status>"
void traceRecvFailure(VELErr_t code, const char* what, const char* headerLabel, const char* header,
                      unsigned int headerSize, const char* bodyLabel = nullptr,
                      const VEL_Message* body = nullptr, const char* file = __builtin_FILE(),
                      unsigned long line = __builtin_LINE());

// "COM - <status>" at the error level when network errors are traced.
void traceFailure(VELErr_t code, const char* file = __builtin_FILE(),
                  unsigned long line = __builtin_LINE());

}  // namespace velcom

#endif  // COM_SRC_VEL_FRAMETOOLS_H
