#include "VEL_FrameCodec.h"

#include <algorithm>
#include <climits>
#include <cstring>
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
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_TN3270.h"
#include "VEL_Transport.h"

namespace {

using veltest::Be32;
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

// A stream to decode, how many messages it holds before it ends, how it ends
// (kVELErr_Incomplete: with every frame whole or with the last one cut), and how many of its
// bytes a failure leaves unread (a refused header: the rest of its frame).
struct Stream {
    std::string bytes;
    std::size_t messages;
    VELErr_t end;
    std::size_t unread = 0;
};

// One wire format: how to make its codec and its blocking transport, and streams to compare.
struct Format {
    const char* name;
    std::function<std::unique_ptr<VEL_FrameCodec>()> codec;
    veltest::TransportMaker transport;
    std::vector<Stream> streams;
};

// What `transport` writes for a message with these bytes.
std::string Sent(VEL_Transport& transport, const std::string& body, const std::string& rscv = "",
                 const std::string& sscv = "") {
    MemorySocket* socket = static_cast<MemorySocket*>(transport.getSocket());
    socket->clearOutput();
    VEL_Message message;
    EXPECT_EQ(message.setData(body.data(), body.size()), kVELErr_Ok);
    EXPECT_EQ(message.setRSCV(rscv.data(), static_cast<unsigned char>(rscv.size())), kVELErr_Ok);
    EXPECT_EQ(message.setSSCV(const_cast<char*>(sscv.data()),
                              static_cast<unsigned char>(sscv.size())),
              kVELErr_Ok);
    EXPECT_EQ(transport.sendMessage(&message), kVELErr_Ok) << body.size();
    return socket->written();
}

const std::string kHello = Hex("00000011 FFFFFFEE 0020 31 00") + "hello";
const std::string kEmpty = Hex("0000000C FFFFFFF3 0020 31 00");

std::vector<Stream> OXLv1Streams() {  // maximum 5
    return {
            {kHello + kEmpty + Hex("00000011 FFFFFFEE 0020 31 7F") + "world", 3,
             kVELErr_Incomplete},
            {kHello + Hex("00000011 FFFFFFEF 0020 31 00") + "hello", 1,  // bad check
             kVELErr_BadStreamHeader, 5},
            {kHello + Hex("00000011 FFFFFFEE 0021 31 00") + "hello", 1,  // bad marker
             kVELErr_BadStreamHeader, 5},
            {kHello + Hex("00000011 FFFFFFEE 0020 32 00") + "hello", 1,  // bad version
             kVELErr_BadStreamHeader, 5},
            {kEmpty + Hex("00000012 FFFFFFED 0020 31 00") + "hello!", 1,  // over the maximum
             kVELErr_MessageTooBig, 6},
            {kHello + Hex("0000000B FFFFFFF4 0020 31 00"), 1,  // total below the header
             kVELErr_MessageTooBig},
            {kHello + kHello.substr(0, 14), 1, kVELErr_Incomplete},  // cut in the body
    };
}

std::vector<Stream> OXLv2Streams() {  // maximum 1000
    MemorySocket socket;
    VEL_OXLv2 sender(&socket, 0);
    const std::string plain = Sent(sender, "hello", "ab") + Sent(sender, "") +
                              Sent(sender, "", std::string(255, 'R')) + Sent(sender, "world");
    sender.setCompression(true);
    const std::string compressed = Sent(sender, std::string(600, 'z') + "tail", "r") +
                                   Sent(sender, std::string(1000, 'y'));
    const std::string hello = veltest::Deflated("hello");
    const std::string good = Hex("00000011 FFFFFFEE 0004 32 00") + "hello";
    return {
            {plain + compressed + plain, 10, kVELErr_Incomplete},
            {good + Hex("00000011 FFFFFFEF 0004 32 00") + "hello", 1,  // bad check
             kVELErr_BadStreamHeader, 5},
            {good + Hex("00000011 FFFFFFEE 0003 32 00") + "hello", 1,  // H 3
             kVELErr_BadStreamHeader, 5},
            {good + Hex("00000200 FFFFFDFF 0104 32 00") + "hello", 1,  // H 260
             kVELErr_BadStreamHeader, 5},
            {good + Hex("00000011 FFFFFFEE 0004 31 00") + "hello", 1,  // version
             kVELErr_BadStreamHeader, 5},
            {good + Hex("0000000B FFFFFFF4 0004 32 00") + "hello", 1,  // total below H + 8
             kVELErr_BadStreamHeader, 5},
            {good + Hex("00000013 FFFFFFEC 0004 32 43") + "hello", 1,  // no room for the record
             kVELErr_MessageTooBig, 5},
            {good + Hex("000003F5 FFFFFC0A 0004 32 00") + "hello", 1,  // body 1001
             kVELErr_MessageTooBig, 5},
            {compressed + veltest::CompressedOXLv2("r", 1001, hello), 2,  // uncompressed 1001
             kVELErr_MessageTooBig, hello.size()},
            {good + veltest::CompressedOXLv2("", 4, hello), 1, kVELErr_Uncompression},  // too long
            {good + veltest::CompressedOXLv2("", 6, hello), 1, kVELErr_Uncompression},  // too short
            {good + veltest::CompressedOXLv2("rs", 5, "hello"), 1,
             kVELErr_Uncompression},                                                   // not zlib
            {good + veltest::CompressedOXLv2("rs", 0, ""), 1, kVELErr_Uncompression},  // no body
            {good + veltest::CompressedOXLv2("rscv", 5, hello).substr(0, 14), 1,  // cut in the RSCV
             kVELErr_Incomplete},
            {good + veltest::CompressedOXLv2("rscv", 5, hello).substr(0, 19),
             1,  // cut in the record
             kVELErr_Incomplete},
            {compressed.substr(0, compressed.size() - 1), 1, kVELErr_Incomplete},  // in the body
    };
}

// `frame` with the bytes at `offset` replaced by `bytes`, and the HOLM check word made right
// again unless `recheck` is false.
std::string Patched(std::string frame, std::size_t offset, const std::string& bytes,
                    bool recheck = true) {
    frame.replace(offset, bytes.size(), bytes);
    return recheck ? veltest::WithHOLMCheck(frame) : frame;
}

std::vector<Stream> HOLMStreams() {  // maximum 1000
    MemorySocket socket;
    VEL_HOLM sender(&socket, 0);
    const std::string hello = Sent(sender, "hello");
    const std::string atMaximum = Sent(sender, std::string(1000, 'm'));
    const std::string plain = hello + Sent(sender, "", "r", "s") +
                              Sent(sender, "body", std::string(255, 'R'), std::string(255, 'S'));
    sender.setCompression(true, kVELHOLMCompAlgo_Best);
    const std::string compressed = Sent(sender, std::string(900, 'z'), "", "s");
    sender.setCompression(false);
    const std::string big = Sent(sender, std::string(2000, 'b'));
    // A conversation from the initiator: the key, session IDs, an empty body, a compressed and
    // encrypted one, a close (reset bit), a new key, then a close and a new key in one frame.
    EXPECT_EQ(sender.openSecureSession(), kVELErr_Ok);
    const std::string key = Sent(sender, "secret", "r");
    std::string secure = key + Sent(sender, "odd") + Sent(sender, "");
    sender.setCompression(true);
    secure += Sent(sender, std::string(500, 'c'));
    sender.setCompression(false);
    EXPECT_EQ(sender.closeSecureSession(), kVELErr_Ok);
    secure += Sent(sender, "reset");
    EXPECT_EQ(sender.openSecureSession(), kVELErr_Ok);
    secure += Sent(sender, "new key");
    EXPECT_EQ(sender.closeSecureSession(), kVELErr_Ok);
    EXPECT_EQ(sender.openSecureSession(), kVELErr_Ok);
    secure += Sent(sender, "reset and key") + Sent(sender, "id");
    const std::string idFrame = Sent(sender, "id again");
    MemorySocket otherSocket;
    VEL_HOLM other(&otherSocket, 0);
    EXPECT_EQ(other.openSecureSession(), kVELErr_Ok);
    const std::string otherKey = Sent(other, "another key");
    return {
            {plain + compressed + plain, 7, kVELErr_Incomplete},
            {secure + plain, 11, kVELErr_Incomplete},
            {hello + Patched(hello, 13, "\x01", false), 1, kVELErr_BadStreamHeader, 5},  // check
            {hello + Patched(hello, 2, Hex("0101")), 1, kVELErr_BadStreamHeader, 5},     // version
            {hello + Patched(hello, 0, "HP"), 1, kVELErr_BadStreamHeader, 5},            // magic
            {hello + Patched(hello, 8, Be32(1001)), 1, kVELErr_MessageTooBig, 5},
            {atMaximum, 1, kVELErr_Incomplete},
            {hello + Patched(hello, 8, Be32(4)), 1, kVELErr_BadStreamHeader, 5},   // plain size
            {hello + Patched(hello, 4, Be32(27)), 1, kVELErr_BadStreamHeader, 5},  // total
            {hello + Patched(hello, 16, "\x40"), 1, kVELErr_BadStreamHeader, 5},   // secure, no key
            {hello + idFrame, 1, kVELErr_BadStreamHeader, idFrame.size() - 28},    // ID, no key
            {key + otherKey, 1, kVELErr_BadStreamHeader, otherKey.size() - 28},    // a second key
            {Patched(Patched(hello, 4, Be32(40)), 21, "\x07") + "1234567", 0,      // field of 7
             kVELErr_BadStreamHeader, 12},
            // Carrying a key: an encrypted body of 12 bytes, then one of 16 for 5 plain bytes.
            {Patched(Patched(hello, 4, Be32(56) + Be32(30)), 16, Hex("400040 000010")) +
                     std::string(23, 'k'),
             0, kVELErr_BadStreamHeader, 28},
            {Patched(Patched(hello, 4, Be32(60)), 16, Hex("400000 000010")) + std::string(27, 'k'),
             0, kVELErr_BadStreamHeader, 32},
            {hello + Patched(Patched(big, 8, Be32(10)), 18, "\x40"), 1,  // past the bound
             kVELErr_BadStreamHeader, big.size() - 28},
            // A body that inflated short of its plain size used to be delivered short.
            {compressed + Patched(compressed, 8, Be32(901)), 1, kVELErr_Uncompression},
            {secure.substr(0, key.size() + 20), 1, kVELErr_Incomplete},  // cut in a header
            {key.substr(0, 40), 0, kVELErr_Incomplete},                  // cut in the key
            {plain + compressed.substr(0, compressed.size() - 1), 3, kVELErr_Incomplete},
    };
}

std::vector<Stream> OXLv5Streams() {
    const std::string body65535 = veltest::Pattern(65535, 5);
    return {
            {Hex("0005") + "hello" + Hex("0000") + Hex("FFFF") + body65535 + Hex("0001") + "!", 4,
             kVELErr_Incomplete},
            {Hex("0005") + "hello" + Hex("0003") + "ab", 1, kVELErr_Incomplete},  // cut in a body
            {Hex("0000 00"), 1, kVELErr_Incomplete},  // cut in the length
    };
}

std::vector<Format> Formats() {
    return {
            {"OXLv1", [] { return std::make_unique<VEL_OXLv1Codec>(5); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, 5); }, OXLv1Streams()},
            {"OXLv2", [] { return std::make_unique<VEL_OXLv2Codec>(1000); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv2>(s, 1000); }, OXLv2Streams()},
            {"OXLv5", [] { return std::make_unique<VEL_OXLv5Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv5>(s); }, OXLv5Streams()},
            {"HOLM", [] { return std::make_unique<VEL_HOLMCodec>(1000); },
             [](VEL_Socket* s) { return std::make_unique<VEL_HOLM>(s, 1000); }, HOLMStreams()},
            // Judged on the bytes delivered: the count of messages is that of the reads.
            {"TN3270",
             [] { return std::make_unique<VEL_TN3270Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_TN3270>(s); },
             {{"x", 1, kVELErr_Incomplete}, {veltest::Pattern(25003, 3), 3, kVELErr_Incomplete}}},
    };
}

// Every message buffer taken by a codec or a transport, failing or not, is given back.
class FrameCodecTest : public veltest::BufferLeakTest {};

// Every format's codec, fed whole, byte by byte and in random splits, gives what its blocking
// transport gives for the same bytes: the same messages, then the same failure after the same
// number of bytes (or the need for more).
TEST_F(FrameCodecTest, SplitsDecodeAsTheBlockingTransportReads) {
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
            EXPECT_EQ(expected.messages.size(), format.streams[i].messages);
            EXPECT_EQ(expected.end, format.streams[i].end);
            EXPECT_EQ(expected.used, stream.size() - format.streams[i].unread);
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

// A frame encoded while another is arriving follows the frames already delivered: a responder
// holding all but the last byte of the initiator's key frame still answers in plain (it used to
// take the header's settings at once and refuse to send, secure without a session), and joins
// the session once the frame is whole.
TEST_F(FrameCodecTest, HOLMEncodesByTheFramesDeliveredWhileOneArrives) {
    MemorySocket socket;
    VEL_HOLM initiator(&socket, 1000);
    ASSERT_EQ(initiator.openSecureSession(), kVELErr_Ok);
    const std::string key = Sent(initiator, "secret");
    VEL_HOLMCodec responder(1000);
    VEL_Message received;
    std::size_t used = 0;
    ASSERT_EQ(responder.decode(key.data(), key.size() - 1, &used, &received), kVELErr_Incomplete);
    const struct {
        const char* body;
        const char* flags;  // header bytes 16 to 21
    } replies[] = {{"plain", "00 00 00 00 00 00"}, {"joined", "41 06 00 00 00 04"}};
    std::string wire;
    for (const auto& reply : replies) {
        VEL_Message message;
        ASSERT_EQ(message.setData(reply.body, std::strlen(reply.body)), kVELErr_Ok);
        const std::size_t start = wire.size();
        ASSERT_EQ(responder.encode(&message, wire), kVELErr_Ok) << reply.body;
        EXPECT_EQ(wire.substr(start + 16, 6), Hex(reply.flags)) << reply.body;
        if (start == 0) {
            EXPECT_FALSE(responder.isSecureSession());
            ASSERT_EQ(responder.decode(&key.back(), 1, &used, &received), kVELErr_Ok);
            EXPECT_EQ(veltest::Body(received), "secret");
        }
    }
    socket.feed(wire);
    for (const auto& reply : replies) {
        ASSERT_EQ(initiator.recvMessage(&received), kVELErr_Ok) << reply.body;
        EXPECT_EQ(veltest::Body(received), reply.body);
    }
}

// encode() appends what the transport writes for the same message, or nothing when the format
// refuses it, with the transport's status: frames of no part, one part and several parts (a
// compressed body with its record, a HOLM frame with RSCV), and a refusal.
TEST_F(FrameCodecTest, EncodeAppendsTheTransportsFrame) {
    const struct {
        const char* what;
        std::function<std::unique_ptr<VEL_FrameCodec>()> codec;
        veltest::TransportMaker transport;
        std::string body;
        std::string rscv;
        VELErr_t code;
    } cases[] = {
            {"OXLv1 empty", [] { return std::make_unique<VEL_OXLv1Codec>(ULONG_MAX); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, ULONG_MAX); }, "", "",
             kVELErr_Ok},
            {"OXLv2 compressed",
             [] {
                 auto codec = std::make_unique<VEL_OXLv2Codec>(ULONG_MAX);
                 codec->setCompression(true);
                 return codec;
             },
             [](VEL_Socket* s) {
                 auto transport = std::make_unique<VEL_OXLv2>(s, ULONG_MAX);
                 transport->setCompression(true);
                 return transport;
             },
             std::string(600, 'z'), "r", kVELErr_Ok},
            {"HOLM RSCV", [] { return std::make_unique<VEL_HOLMCodec>(ULONG_MAX); },
             [](VEL_Socket* s) { return std::make_unique<VEL_HOLM>(s, ULONG_MAX); }, "hello", "ab",
             kVELErr_Ok},
            {"OXLv5 65536", [] { return std::make_unique<VEL_OXLv5Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv5>(s); }, std::string(65536, 'b'),
             "", kVELErr_MessageTooBig},
            {"TN3270 empty", [] { return std::make_unique<VEL_TN3270Codec>(); },
             [](VEL_Socket* s) { return std::make_unique<VEL_TN3270>(s); }, "", "", kVELErr_Ok},
    };
    for (const auto& c : cases) {
        // Each side its own message: a format may transform the body in place.
        VEL_Message encoded;
        VEL_Message sent;
        for (VEL_Message* message : {&encoded, &sent}) {
            ASSERT_EQ(message->setData(c.body.data(), c.body.size()), kVELErr_Ok);
            ASSERT_EQ(message->setRSCV(c.rscv.data(), static_cast<unsigned char>(c.rscv.size())),
                      kVELErr_Ok);
        }
        std::string out = "x";
        EXPECT_EQ(c.codec()->encode(&encoded, out), c.code) << c.what;
        MemorySocket socket;
        EXPECT_EQ(c.transport(&socket)->sendMessage(&sent), c.code) << c.what;
        EXPECT_EQ(out, "x" + socket.written()) << c.what;
        EXPECT_EQ(veltest::Body(encoded), veltest::Body(sent)) << c.what;
    }
}

}  // namespace
