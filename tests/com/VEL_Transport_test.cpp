#include "VEL_Transport.h"

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "TestSupport.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_TN3270.h"
#include "VEL_Tools.h"

namespace {

using veltest::Hex;

using Factory = std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)>;
const Factory kOXLv1 = [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, 100); };
const Factory kOXLv2 = [](VEL_Socket* s) { return std::make_unique<VEL_OXLv2>(s, 100); };
const Factory kOXLv5 = [](VEL_Socket* s) { return std::make_unique<VEL_OXLv5>(s); };
const Factory kHOLM = [](VEL_Socket* s) { return std::make_unique<VEL_HOLM>(s, 100); };
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

// A failed receive is traced as errors: a line naming the failure, the labelled dump of the
// header, the labelled dump of the body when one was read, then the status alone. (An OXLv2 frame
// cut in its RSCV or its record used to be traced as a failed header read, twice, undumped.)
TEST_F(TransportTest, FailedReceivesAreTracedWithTheirHeaderDump) {
    const std::string hello = Hex("00000011 FFFFFFEE 0020 31 00") + "hello";
    const std::string compressed = veltest::CompressedOXLv2("rscv", 5, veltest::Deflated("hello"));
    const struct {
        const char* what;
        Factory make;
        std::string input;  // all there is, then the end of the input
        VELErr_t code;
        std::size_t lines;
        const char* first;  // after the status, in the first line (null: only the count checked)
        const char* label;  // after the status, in the second line
        const char* row;    // in the dump of the header
        std::size_t headerBytes, bodyBytes;  // dumped (0: no body dump)
    } cases[] = {
            {"OXLv1 header", kOXLv1, Hex("00000011 FFFFFFEE 0020 32 00"), kVELErr_BadStreamHeader,
             7, " ; Error encountered while receiving OXLv1 header",
             " ; Received header:", "00000011 FFFFFFEE 00203200", 12, 0},
            {"OXLv1 cut in the body", kOXLv1, hello.substr(0, 14), kVELErr_SockHalfClosed, 6,
             " ; Error receiving an OXLv1 message",
             " ; Received header :", "00000011 FFFFFFEE 00203100", 12, 0},
            {"OXLv1 cut in the header", kOXLv1, hello.substr(0, 3), kVELErr_SockHalfClosed, 2,
             nullptr, nullptr, nullptr, 0, 0},
            {"OXLv2 cut in the RSCV", kOXLv2, compressed.substr(0, 14), kVELErr_SockHalfClosed, 6,
             " ; Error receiving an OXLv2 message",
             " ; Received header :", "00000025 FFFFFFDA 00083243", 12, 0},
            {"OXLv2 cut in the record", kOXLv2, compressed.substr(0, 19), kVELErr_SockHalfClosed, 6,
             " ; Error receiving an OXLv2 message",
             " ; Received header :", "00000025 FFFFFFDA 00083243", 12, 0},
            {"OXLv2 cut in the body", kOXLv2, compressed.substr(0, compressed.size() - 1),
             kVELErr_SockHalfClosed, 6, " ; Error receiving an OXLv2 message",
             " ; Received header :", "00000025 FFFFFFDA 00083243", 12, 0},
            {"OXLv2 not a zlib stream", kOXLv2, veltest::CompressedOXLv2("", 5, "hello"),
             kVELErr_Uncompression, 10, " ; Error receiving an OXLv2 message",
             " ; Received header :", "00000019 FFFFFFE6 00043243", 12, 5},
            {"HOLM version", kHOLM,
             veltest::WithHOLMCheck(
                     Hex("484F 0101 0000001C 00000000 0000 0000 00000000 000000 0000000000")),
             kVELErr_BadStreamHeader, 8, " ; Error encountered while receiving H-OLM header",
             " ; Received header:", "484F0101 0000001C 00000000 49520000", 28, 0},
            {"OXLv5 cut in the body", kOXLv5, Hex("0005") + "hel", kVELErr_SockHalfClosed, 6,
             " ; Error encountered while receiving OXLv5 message", " ; Received header:", "0005 ",
             2, 0},
    };
    const auto dumped = [](std::size_t bytes) {
        return "MSGDUMP - Dumping buffer number 0, containing " + std::to_string(bytes) + " bytes";
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        const std::string format(c.what, std::strchr(c.what, ' '));
        veltest::RecordingSink sink(kVELTrace_ComError | kVELTrace_MsgDump);
        veltest::ScopedSink installed(&sink);
        veltest::MemorySocket socket;
        socket.feed(c.input);
        socket.closeInput();
        VEL_Message message;
        EXPECT_EQ(c.make(&socket)->recvMessage(&message), c.code);
        const std::string status = "COM - " + VEL_Tools::GetErrStr(c.code);
        const std::vector<std::string> texts = sink.texts();
        ASSERT_EQ(texts.size(), c.lines);
        EXPECT_EQ(texts.back(), status);
        for (const veltest::RecordingSink::Line& line : sink.lines()) {
            EXPECT_EQ(line.level, kVELLevel_Error);
            EXPECT_EQ(line.file, "VEL_" + format + ".cpp");
        }
        if (c.first == nullptr) {
            continue;
        }
        EXPECT_EQ(texts[0], status + c.first);
        EXPECT_EQ(texts[1], status + c.label);
        EXPECT_EQ(texts[2], dumped(c.headerBytes));
        EXPECT_NE(texts[4].find(c.row), std::string::npos) << texts[4];
        if (c.bodyBytes > 0) {
            EXPECT_EQ(texts[5], status + " ; Received message :");
            EXPECT_EQ(texts[6], dumped(c.bodyBytes));
        }
    }
}

}  // namespace
