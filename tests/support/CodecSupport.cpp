#include "CodecSupport.h"

#include <algorithm>

#include "MemorySocket.h"
#include "VEL_FrameCodec.h"
#include "VEL_Message.h"
#include "VEL_Transport.h"

namespace veltest {

Received Contents(const VEL_Message& message) {
    const std::string sscv =
            message.checkSSCV() ? std::string(message.getSSCV(), message.getSSCVSize()) : "";
    return {RSCV(message), sscv, Body(message)};
}

bool operator==(const DecodeOutcome& a, const DecodeOutcome& b) {
    return a.messages == b.messages && a.end == b.end && a.used == b.used;
}

std::ostream& operator<<(std::ostream& out, const DecodeOutcome& outcome) {
    return out << outcome.messages.size() << " messages, end " << outcome.end << " after "
               << outcome.used << " bytes";
}

DecodeOutcome ReadBlocking(const TransportMaker& make, const std::string& stream) {
    MemorySocket socket;
    socket.feed(stream);
    socket.closeInput();
    const std::unique_ptr<VEL_Transport> transport = make(&socket);
    DecodeOutcome outcome;
    VEL_Message message;
    while (socket.unread() > 0) {
        const VELErr_t code = transport->recvMessage(&message);
        if (code != kVELErr_Ok) {
            outcome.end = code == kVELErr_SockHalfClosed ? kVELErr_Incomplete : code;
            break;
        }
        outcome.messages.push_back(Contents(message));
    }
    outcome.used =
            outcome.end == kVELErr_Incomplete ? stream.size() : stream.size() - socket.unread();
    return outcome;
}

DecodeOutcome DecodeInPieces(VEL_FrameCodec& codec, const std::string& stream,
                             const std::function<std::size_t()>& nextChunk) {
    DecodeOutcome outcome;
    VEL_Message message;
    std::size_t pos = 0;
    while (pos < stream.size()) {
        const std::size_t end =
                std::min(stream.size(), pos + std::max<std::size_t>(1, nextChunk()));
        while (pos < end) {
            std::size_t used = 0;
            const VELErr_t code = codec.decode(stream.data() + pos, end - pos, &used, &message);
            pos += used;
            if (code == kVELErr_Ok) {
                outcome.messages.push_back(Contents(message));
            } else if (code != kVELErr_Incomplete) {
                outcome.end = code;
                outcome.used = pos;
                return outcome;
            }
        }
    }
    outcome.used = pos;
    return outcome;
}

DecodeOutcome Joined(const DecodeOutcome& outcome) {
    DecodeOutcome joined = outcome;
    joined.messages.assign(1, Received{});
    for (const Received& message : outcome.messages) {
        joined.messages[0][2] += message[2];
    }
    return joined;
}

}  // namespace veltest
