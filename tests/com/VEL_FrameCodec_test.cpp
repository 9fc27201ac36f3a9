#include "VEL_FrameCodec.h"

#include <algorithm>
#include <array>
#include <climits>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "SocketSupport.h"
#include "TestSupport.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv5.h"
#include "VEL_TN3270.h"
#include "VEL_Transport.h"

namespace {

using veltest::Hex;
using veltest::MemorySocket;

// A message as it came out of a receiver: RSCV, SSCV and body bytes.
using Received = std::array<std::string, 3>;

Received Contents(const VEL_Message& message) {
    const std::string sscv =
            message.checkSSCV() ? std::string(message.getSSCV(), message.getSSCVSize()) : "";
    return {veltest::RSCV(message), sscv, veltest::Body(message)};
}

// What a receiver made of a byte stream: the whole messages, in order, and how the stream ended:
// kVELErr_Incomplete when it stopped in a frame or between frames, otherwise the status of the
// frame that failed; `used` counts the bytes taken up to that point.
struct Outcome {
    std::vector<Received> messages;
    VELErr_t end = kVELErr_Incomplete;
    std::size_t used = 0;
};

bool operator==(const Outcome& a, const Outcome& b) {
    return a.messages == b.messages && a.end == b.end && a.used == b.used;
}

std::ostream& operator<<(std::ostream& out, const Outcome& o) {
    out << o.messages.size() << " messages, end " << o.end << " after " << o.used << " bytes";
    return out;
}

// A format without framing hands over what has arrived, so the cut between messages depends on
// the split: such a receiver is judged on the bytes it delivered, as one message.
Outcome Joined(const Outcome& outcome) {
    Outcome joined = outcome;
    joined.messages.assign(1, Received{});
    for (const Received& message : outcome.messages) {
        EXPECT_FALSE(message[2].empty());
        EXPECT_LE(message[2].size(), kVEL_TN3270RecvSize);
        joined.messages[0][2] += message[2];
    }
    return joined;
}

// A stream to decode, and how it must end (kVELErr_Incomplete: every frame whole or the last
// one cut).
struct Stream {
    std::string bytes;
    VELErr_t end = kVELErr_Incomplete;
};

// One wire format: how to make its codec and its blocking transport, and streams to compare.
struct Format {
    const char* name;
    std::function<std::unique_ptr<VEL_FrameCodec>()> codec;
    std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)> transport;
    std::vector<Stream> streams;
};

// The blocking transport over a socket that serves `stream` and then reports its end.
Outcome ReadBlocking(const Format& format, const std::string& stream) {
    MemorySocket socket;
    socket.feed(stream);
    socket.closeInput();
    const auto transport = format.transport(&socket);
    Outcome outcome;
    VEL_Message message;
    while (socket.unread() > 0) {
        const VELErr_t code = transport->recvMessage(&message);
        if (code != kVELErr_Ok) {
            // Running out of input is what the codec reports as "more bytes needed".
            outcome.end = code == kVELErr_SockHalfClosed ? kVELErr_Incomplete : code;
            break;
        }
        outcome.messages.push_back(Contents(message));
    }
    outcome.used =
            outcome.end == kVELErr_Incomplete ? stream.size() : stream.size() - socket.unread();
    return outcome;
}

// The codec fed with `stream` in pieces of the sizes `nextChunk` gives.
Outcome Decode(const Format& format, const std::string& stream,
               const std::function<std::size_t()>& nextChunk) {
    const auto codec = format.codec();
    Outcome outcome;
    VEL_Message message;
    std::size_t pos = 0;
    while (pos < stream.size()) {
        const std::size_t end =
                std::min(stream.size(), pos + std::max<std::size_t>(1, nextChunk()));
        while (pos < end) {
            std::size_t used = 0;
            const VELErr_t code = codec->decode(stream.data() + pos, end - pos, &used, &message);
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

const std::string kHello = Hex("00000011 FFFFFFEE 0020 31 00") + "hello";
const std::string kEmpty = Hex("0000000C FFFFFFF3 0020 31 00");

std::vector<Format> Formats() {
    const std::string body65535 = veltest::Pattern(65535, 5);
    return {
            {"OXLv1",
             [] { return std::make_unique<VEL_OXLv1Codec>(5); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, 5); },
             {{kHello + kEmpty + Hex("00000011 FFFFFFEE 0020 31 7F") + "world"},
              {kHello + Hex("00000011 FFFFFFEF 0020 31 00") + "hello",  // bad check
               kVELErr_BadStreamHeader},
              {kHello + Hex("00000011 FFFFFFEE 0021 31 00") + "hello",  // bad marker
               kVELErr_BadStreamHeader},
              {kHello + Hex("00000011 FFFFFFEE 0020 32 00") + "hello",  // bad version
               kVELErr_BadStreamHeader},
              {kEmpty + Hex("00000012 FFFFFFED 0020 31 00") + "hello!",  // over the maximum
               kVELErr_MessageTooBig},
              {kHello + Hex("0000000B FFFFFFF4 0020 31 00"),  // total below the header
               kVELErr_MessageTooBig},
              {kHello + kHello.substr(0, 14)}}},  // cut in the body
            {"OXLv5",
             [] { return std::make_unique<VEL_OXLv5Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv5>(s); },
             {{Hex("0005") + "hello" + Hex("0000") + Hex("FFFF") + body65535 + Hex("0001") + "!"},
              {Hex("0005") + "hello" + Hex("0003") + "ab"},  // cut in the body
              {Hex("0000 00")}}},                            // cut in the length
            {"TN3270",
             [] { return std::make_unique<VEL_TN3270Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_TN3270>(s); },
             {{"x"}, {veltest::Pattern(25003, 3)}}},
    };
}

// Every format's codec, fed whole, byte by byte and in random splits, gives what its blocking
// transport gives for the same bytes: the same messages, then the same failure after the same
// number of bytes (or the need for more).
TEST(FrameCodecTest, SplitsDecodeAsTheBlockingTransportReads) {
    std::mt19937 random(static_cast<unsigned>(::testing::UnitTest::GetInstance()->random_seed()));
    for (const Format& format : Formats()) {
        const bool partial = format.codec()->takesPartial();
        const auto judged = [partial](const Outcome& o) { return partial ? Joined(o) : o; };
        for (std::size_t i = 0; i < format.streams.size(); ++i) {
            SCOPED_TRACE(std::string(format.name) + " stream " + std::to_string(i));
            const std::string& stream = format.streams[i].bytes;
            const Outcome expected = judged(ReadBlocking(format, stream));
            EXPECT_EQ(expected.end, format.streams[i].end);
            EXPECT_EQ(judged(Decode(format, stream, [&] { return stream.size(); })), expected);
            EXPECT_EQ(judged(Decode(format, stream, [] { return 1; })), expected);
            for (int round = 0; round < 20; ++round) {
                std::uniform_int_distribution<std::size_t> chunk(1, 1 + stream.size() / 3);
                EXPECT_EQ(judged(Decode(format, stream, [&] { return chunk(random); })), expected)
                        << "round " << round << " (seed: --gtest_random_seed)";
            }
        }
    }
}

// encode() appends what the transport writes for the same message, or nothing when the format
// refuses it, with the transport's status.
TEST(FrameCodecTest, EncodeAppendsTheTransportsFrame) {
    const std::string big(65536, 'b');
    const struct {
        const char* what;
        std::function<std::unique_ptr<VEL_FrameCodec>()> codec;
        std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)> transport;
        std::string body;
        VELErr_t code;
    } cases[] = {
            {"OXLv1", [] { return std::make_unique<VEL_OXLv1Codec>(ULONG_MAX); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, ULONG_MAX); }, "hello",
             kVELErr_Ok},
            {"OXLv1 empty", [] { return std::make_unique<VEL_OXLv1Codec>(ULONG_MAX); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, ULONG_MAX); }, "",
             kVELErr_Ok},
            {"OXLv5", [] { return std::make_unique<VEL_OXLv5Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv5>(s); }, "hello", kVELErr_Ok},
            {"OXLv5 65536", [] { return std::make_unique<VEL_OXLv5Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv5>(s); }, big,
             kVELErr_MessageTooBig},
            {"TN3270", [] { return std::make_unique<VEL_TN3270Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_TN3270>(s); }, "hello", kVELErr_Ok},
            {"TN3270 empty", [] { return std::make_unique<VEL_TN3270Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_TN3270>(s); }, "", kVELErr_Ok},
    };
    for (const auto& c : cases) {
        VEL_Message message;
        ASSERT_EQ(message.setData(c.body.data(), c.body.size()), kVELErr_Ok);
        std::string out = "x";
        EXPECT_EQ(c.codec()->encode(&message, out), c.code) << c.what;
        MemorySocket socket;
        EXPECT_EQ(c.transport(&socket)->sendMessage(&message), c.code) << c.what;
        EXPECT_EQ(out, "x" + socket.written()) << c.what;
    }
    VEL_Message message;
    ASSERT_EQ(message.setData("hello", 5), kVELErr_Ok);
    std::string out;
    ASSERT_EQ(VEL_OXLv1Codec(5).encode(&message, out), kVELErr_Ok);
    EXPECT_EQ(out, kHello);  // the transport's own frame, checked by hand once
}

}  // namespace
