// Runs of a frame codec and of its blocking transport over the same bytes, and what each made of
// them, for the codec tests and the codec fuzz target to compare.
#ifndef TESTS_SUPPORT_CODECSUPPORT_H
#define TESTS_SUPPORT_CODECSUPPORT_H

#include <array>
#include <cstddef>
#include <functional>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "VEL_Err.h"

class VEL_FrameCodec;
class VEL_Message;
class VEL_Socket;
class VEL_Transport;

namespace veltest {

// A message as it came out of a receiver: RSCV, SSCV and body bytes ("" when absent).
using Received = std::array<std::string, 3>;
Received Contents(const VEL_Message& message);

// What a receiver made of a byte stream: the whole messages, in order, and how the stream ended:
// kVELErr_Incomplete when it stopped in a frame or between frames, otherwise the status of the
// frame that failed; `used` counts the bytes taken up to that point.
struct DecodeOutcome {
    std::vector<Received> messages;
    VELErr_t end = kVELErr_Incomplete;
    std::size_t used = 0;
};
bool operator==(const DecodeOutcome& a, const DecodeOutcome& b);
std::ostream& operator<<(std::ostream& out, const DecodeOutcome& outcome);

using TransportMaker = std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)>;

// The blocking transport `make` gives, receiving over a memory socket that serves `stream` and
// then reports the peer's close (which counts as "more bytes needed").
DecodeOutcome ReadBlocking(const TransportMaker& make, const std::string& stream);

// `codec` fed with `stream` through decode(), in pieces of the sizes `nextChunk` gives (at least
// 1 byte each).
DecodeOutcome DecodeInPieces(VEL_FrameCodec& codec, const std::string& stream,
                             const std::function<std::size_t()>& nextChunk);

// A format without framing hands over what has arrived, so where one message ends and the next
// begins depends on the split: such a receiver is judged on the body bytes it delivered, joined
// into one message.
DecodeOutcome Joined(const DecodeOutcome& outcome);

}  // namespace veltest

#endif  // TESTS_SUPPORT_CODECSUPPORT_H
