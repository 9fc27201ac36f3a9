#include "VEL_Transport.h"

#include <functional>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_TN3270.h"

namespace {

using veltest::Hex;

using Factory = std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)>;
const Factory kOXLv1 = [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, 100); };
const Factory kOXLv2 = [](VEL_Socket* s) { return std::make_unique<VEL_OXLv2>(s, 100); };
const Factory kOXLv5 = [](VEL_Socket* s) { return std::make_unique<VEL_OXLv5>(s); };
const Factory kTN3270 = [](VEL_Socket* s) { return std::make_unique<VEL_TN3270>(s); };

// Frames built by hand, and the message each carries.
struct Frame {
    const char* what;
    Factory make;
    std::string rscv;
    std::string body;
    std::string wire;
};

const std::string kRSCV255(255, 'r');
const std::string kBody65535(65535, 'x');
const Frame kFrames[] = {
        {"OXLv1 empty", kOXLv1, "", "", Hex("0000000C FFFFFFF3 0020 31 00")},
        {"OXLv1", kOXLv1, "r", "ping", Hex("00000010 FFFFFFEF 0020 31 00") + "ping"},
        {"OXLv2", kOXLv2, "", "ping", Hex("00000010 FFFFFFEF 0004 32 00") + "ping"},
        {"OXLv2 RSCV", kOXLv2, "ab", "", Hex("0000000E FFFFFFF1 0006 32 00") + "ab"},
        {"OXLv2 RSCV 255", kOXLv2, kRSCV255, "ping",
         Hex("0000010F FFFFFEF0 0103 32 00") + kRSCV255 + "ping"},
        {"OXLv5 empty", kOXLv5, "", "", Hex("0000")},
        {"OXLv5", kOXLv5, "", "ping", Hex("0004") + "ping"},
        {"OXLv5 65535", kOXLv5, "", kBody65535, Hex("FFFF") + kBody65535},
        {"TN3270", kTN3270, "", "ping", "ping"},
};

// RSCV travels with OXLv2 only.
std::string carriedRSCV(const Frame& frame) {
    return frame.wire.size() > 10 && frame.wire[10] == '2' ? frame.rscv : "";
}

void fill(VEL_Message& message, const Frame& frame) {
    ASSERT_EQ(message.setData(frame.body.data(), frame.body.size()), kVELErr_Ok);
    ASSERT_EQ(message.setRSCV(frame.rscv.data(), static_cast<unsigned char>(frame.rscv.size())),
              kVELErr_Ok);
}

class TransportTest : public veltest::BufferLeakTest {};

TEST_F(TransportTest, FramesMatchTheWireBothWaysInMemory) {
    for (const Frame& frame : kFrames) {
        veltest::MemorySocket socket;
        std::unique_ptr<VEL_Transport> transport = frame.make(&socket);
        VEL_Message message;
        fill(message, frame);
        ASSERT_EQ(transport->sendMessage(&message), kVELErr_Ok) << frame.what;
        EXPECT_EQ(socket.written(), frame.wire) << frame.what;
        EXPECT_EQ(socket.writeCalls(), 1u) << frame.what;  // one gathered write

        socket.feed(frame.wire);
        VEL_Message received(3);  // replaced; an empty frame leaves no data buffer
        ASSERT_EQ(transport->recvMessage(&received), kVELErr_Ok) << frame.what;
        EXPECT_EQ(veltest::Body(received), frame.body) << frame.what;
        EXPECT_EQ(received.data() == nullptr, frame.body.empty()) << frame.what;
        EXPECT_EQ(veltest::RSCV(received), carriedRSCV(frame)) << frame.what;
        EXPECT_EQ(socket.unread(), 0u) << frame.what;

        EXPECT_EQ(transport->sendMessage(nullptr), kVELErr_InvalidPointer) << frame.what;
        EXPECT_EQ(frame.make(nullptr)->recvMessage(&received), kVELErr_InvalidSocket);
    }
}

}  // namespace
