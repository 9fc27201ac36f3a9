#include "VEL_FrameCodec.h"

#include <climits>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "TestSupport.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_Transport.h"

namespace {

using veltest::Hex;
using veltest::MemorySocket;

// What a receiver made of a byte stream: the bodies of the whole messages, in order, and how the
// stream ended: kVELErr_Incomplete when it stopped in a frame or between frames, otherwise the
// status of the frame that failed; `used` counts the bytes taken up to that point.
struct Outcome {
    std::vector<std::string> bodies;
    VELErr_t end = kVELErr_Incomplete;
    std::size_t used = 0;
};

bool operator==(const Outcome& a, const Outcome& b) {
    return a.bodies == b.bodies && a.end == b.end && a.used == b.used;
}

std::ostream& operator<<(std::ostream& out, const Outcome& o) {
    out << o.bodies.size() << " messages, end " << o.end << " after " << o.used << " bytes";
    return out;
}

// One wire format: how to make its codec and its blocking transport, and streams to compare.
struct Format {
    const char* name;
    std::function<std::unique_ptr<VEL_FrameCodec>()> codec;
    std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)> transport;
    std::vector<std::string> streams;
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
        outcome.bodies.push_back(veltest::Body(message));
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
                outcome.bodies.push_back(veltest::Body(message));
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
    return {
            {"OXLv1",
             [] { return std::make_unique<VEL_OXLv1Codec>(5); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, 5); },
             {kHello + kEmpty + Hex("00000011 FFFFFFEE 0020 31 7F") + "world",
              kHello + Hex("00000011 FFFFFFEF 0020 31 00") + "hello",   // bad check
              kHello + Hex("00000011 FFFFFFEE 0021 31 00") + "hello",   // bad marker
              kHello + Hex("00000011 FFFFFFEE 0020 32 00") + "hello",   // bad version
              kEmpty + Hex("00000012 FFFFFFED 0020 31 00") + "hello!",  // over the maximum
              kHello + Hex("0000000B FFFFFFF4 0020 31 00"),             // total below the header
              kHello + kHello.substr(0, 14)}},                          // cut in the body
    };
}

// Every format's codec, fed whole, byte by byte and in random splits, gives what its blocking
// transport gives for the same bytes: the same messages, then the same failure after the same
// number of bytes (or the need for more).
TEST(FrameCodecTest, SplitsDecodeAsTheBlockingTransportReads) {
    std::mt19937 random(static_cast<unsigned>(::testing::UnitTest::GetInstance()->random_seed()));
    for (const Format& format : Formats()) {
        for (std::size_t i = 0; i < format.streams.size(); ++i) {
            SCOPED_TRACE(std::string(format.name) + " stream " + std::to_string(i));
            const std::string& stream = format.streams[i];
            const Outcome expected = ReadBlocking(format, stream);
            EXPECT_EQ(Decode(format, stream, [&] { return stream.size(); }), expected);
            EXPECT_EQ(Decode(format, stream, [] { return 1; }), expected);
            for (int round = 0; round < 20; ++round) {
                std::uniform_int_distribution<std::size_t> chunk(1, 1 + stream.size() / 3);
                EXPECT_EQ(Decode(format, stream, [&] { return chunk(random); }), expected)
                        << "round " << round << " (seed: --gtest_random_seed)";
            }
        }
    }
}

// A codec encodes exactly the frame its transport sends, and decodes it back.
TEST(FrameCodecTest, EncodeAppendsTheTransportsFrame) {
    VEL_Message message;
    ASSERT_EQ(message.setData("hello", 5), kVELErr_Ok);
    VEL_OXLv1Codec codec(ULONG_MAX);
    std::string out = "x";
    ASSERT_EQ(codec.encode(&message, out), kVELErr_Ok);
    VEL_Message empty;
    ASSERT_EQ(codec.encode(&empty, out), kVELErr_Ok);
    EXPECT_EQ(out, "x" + kHello + kEmpty);
}

}  // namespace
