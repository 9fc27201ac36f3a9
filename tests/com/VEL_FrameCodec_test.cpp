#include "VEL_FrameCodec.h"

#include <algorithm>
#include <climits>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "CodecSupport.h"
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

using veltest::DecodeOutcome;

// The messages of a format without framing: none empty, none above the largest receive.
void ExpectPieces(const DecodeOutcome& outcome) {
    for (const veltest::Received& message : outcome.messages) {
        EXPECT_FALSE(message[2].empty());
        EXPECT_LE(message[2].size(), kVEL_TN3270RecvSize);
    }
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
    veltest::TransportMaker transport;
    std::vector<Stream> streams;
};

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
        // Each run with a new codec, as a new connection.
        const auto decode = [&](const std::string& stream, std::function<std::size_t()> chunk) {
            const DecodeOutcome outcome =
                    veltest::DecodeInPieces(*format.codec(), stream, std::move(chunk));
            if (partial) {
                ExpectPieces(outcome);
            }
            return partial ? veltest::Joined(outcome) : outcome;
        };
        for (std::size_t i = 0; i < format.streams.size(); ++i) {
            SCOPED_TRACE(std::string(format.name) + " stream " + std::to_string(i));
            const std::string& stream = format.streams[i].bytes;
            DecodeOutcome expected = veltest::ReadBlocking(format.transport, stream);
            EXPECT_EQ(expected.end, format.streams[i].end);
            if (partial) {
                ExpectPieces(expected);
                expected = veltest::Joined(expected);
            }
            EXPECT_EQ(decode(stream, [&] { return stream.size(); }), expected);
            EXPECT_EQ(decode(stream, [] { return 1; }), expected);
            for (int round = 0; round < 20; ++round) {
                std::uniform_int_distribution<std::size_t> chunk(1, 1 + stream.size() / 3);
                EXPECT_EQ(decode(stream, [&] { return chunk(random); }), expected)
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
        veltest::TransportMaker transport;
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
