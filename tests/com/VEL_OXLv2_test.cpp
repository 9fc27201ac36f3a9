#include "VEL_OXLv2.h"

#include <cstdint>
#include <random>
#include <string>

#include <gtest/gtest.h>
#include <zlib.h>

#include "MemorySocket.h"
#include "TestSupport.h"
#include "VEL_Message.h"

namespace {

using veltest::Be32;
using veltest::Body;
using veltest::Hex;
using veltest::MemorySocket;

std::string inflated(const std::string& stream, std::size_t size) {
    std::string plain(size, '\0');
    uLongf length = size;
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(&plain[0]), &length,
                         reinterpret_cast<const Bytef*>(stream.data()), stream.size()),
              Z_OK);
    return plain.substr(0, length);
}

class OXLv2Test : public veltest::BufferLeakTest {
protected:
    MemorySocket _socket;
    VEL_OXLv2 _transport{&_socket, 1000};
};

TEST_F(OXLv2Test, CompressedFramesCarryTheRecordAndAStandardZlibStream) {
    const std::string plain = std::string(600, 'a') + "tail";
    VEL_Message message;
    ASSERT_EQ(message.setData(plain.data(), plain.size()), kVELErr_Ok);
    ASSERT_EQ(message.setRSCV("r", 1), kVELErr_Ok);
    _transport.setCompression(true);
    ASSERT_EQ(_transport.sendMessage(&message), kVELErr_Ok);
    const std::string stream = Body(message);  // the message keeps the compressed body
    EXPECT_EQ(inflated(stream, plain.size()), plain);
    EXPECT_EQ(_socket.written(), veltest::CompressedOXLv2("r", 0x25C, stream));

    _socket.feed(_socket.written());
    VEL_Message received;
    ASSERT_EQ(_transport.recvMessage(&received), kVELErr_Ok);
    EXPECT_EQ(Body(received), plain);
    EXPECT_EQ(veltest::RSCV(received), "r");
}

TEST_F(OXLv2Test, CompressionFailsWithoutRoomInTheSixteenBitCapacity) {
    std::mt19937 random(7);
    std::string noise(60000, '\0');
    for (char& byte : noise) {
        byte = static_cast<char>(random());
    }
    const struct {
        std::string body;
        VELErr_t code;
    } cases[] = {
            {"", kVELErr_Compression},              // no room at all
            {noise, kVELErr_Compression},           // 66000 cut to 464 bytes
            {std::string(60000, 'z'), kVELErr_Ok},  // fits in 464 bytes
            {std::string(70000, 'z'), kVELErr_Ok},  // 77000 cut to 11464 bytes
    };
    _transport.setCompression(true);
    for (const auto& c : cases) {
        VEL_Message message;
        ASSERT_EQ(message.setData(c.body.data(), c.body.size()), kVELErr_Ok);
        _socket.clearOutput();
        EXPECT_EQ(_transport.sendMessage(&message), c.code) << c.body.size();
        EXPECT_EQ(_socket.writeCalls(), c.code == kVELErr_Ok ? 1u : 0u);
        const std::string sent = Body(message);
        EXPECT_EQ(c.code == kVELErr_Ok ? inflated(sent, c.body.size()) : sent, c.body);
    }
}

TEST_F(OXLv2Test, EachReceivedFrameSetsCompressionForBothDirections) {
    const std::string compressible(200, 'h');
    // The first word of a received record is not checked, and not sent back.
    _socket.feed(veltest::CompressedOXLv2("", 200, veltest::Deflated(compressible), "7F7F7F7F") +
                 Hex("00000011 FFFFFFEE 0004 32 00") + "world");
    VEL_Message message;
    ASSERT_EQ(message.setRSCV("old", 3), kVELErr_Ok);  // dropped: the frames carry none
    for (const std::string& expected : {compressible, std::string("world")}) {
        ASSERT_EQ(_transport.recvMessage(&message), kVELErr_Ok);
        EXPECT_EQ(Body(message), expected);
        EXPECT_FALSE(message.checkRSCV());
        const bool compressed = expected == compressible;
        EXPECT_EQ(_transport.getCompression(), compressed);
        _socket.clearOutput();
        ASSERT_EQ(_transport.sendMessage(&message), kVELErr_Ok);
        EXPECT_EQ(_socket.written().substr(11, 5),
                  compressed ? Hex("43 02000000") : std::string("\0worl", 5));
    }
}

}  // namespace
