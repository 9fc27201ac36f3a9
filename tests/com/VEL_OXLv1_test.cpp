#include "VEL_OXLv1.h"

#include <climits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "TestSupport.h"
#include "VEL_Message.h"
#include "VEL_Tools.h"

namespace {

using veltest::Hex;
using veltest::MemorySocket;

const std::string kHelloFrame = Hex("00000011 FFFFFFEE 0020 31 00") + "hello";

class OXLv1Test : public veltest::BufferLeakTest {
protected:
    MemorySocket _socket;
    VEL_OXLv1 _transport{&_socket, 5};
};

TEST_F(OXLv1Test, ReadsHeaderThenBodyIntoAReusedMessage) {
    _socket.feed(kHelloFrame + Hex("0000000C FFFFFFF3 0020 31 00") + kHelloFrame);
    VEL_Message message(300);  // a body to be replaced, then dropped, then grown again
    for (const char* expected : {"hello", "", "hello"}) {
        ASSERT_EQ(_transport.recvMessage(&message), kVELErr_Ok);
        EXPECT_EQ(veltest::Body(message), expected);
    }
    EXPECT_EQ(_socket.readCalls(), 5u);  // an empty body reads nothing
}

TEST_F(OXLv1Test, EverySingleBitErrorInTheCheckedHeaderIsRefused) {
    for (std::size_t offset = 0; offset < 11; ++offset) {
        for (unsigned bit = 0; bit < 8; ++bit) {
            MemorySocket socket;
            socket.feed(kHelloFrame);
            socket.corrupt(offset, static_cast<unsigned char>(1u << bit));
            VEL_Message message;
            EXPECT_EQ(VEL_OXLv1(&socket, ULONG_MAX).recvMessage(&message), kVELErr_BadStreamHeader)
                    << "byte " << offset << " bit " << bit;
            EXPECT_EQ(socket.unread(), 5u);
        }
    }
}

// Without a maximum to stop it, a total below the header size must not wrap around to a huge
// body (the other limits are checked against the codec in VEL_FrameCodec_test).
TEST_F(OXLv1Test, TotalBelowTheHeaderIsRefusedWithoutAMaximum) {
    for (const char* header : {"0000000B FFFFFFF4 0020 31 00", "00000000 FFFFFFFF 0020 31 00"}) {
        MemorySocket socket;
        socket.feed(Hex(header) + "hello");
        VEL_Message message;
        EXPECT_EQ(VEL_OXLv1(&socket, ULONG_MAX).recvMessage(&message), kVELErr_MessageTooBig)
                << header;
        EXPECT_EQ(socket.unread(), 5u) << header;
    }
}

TEST_F(OXLv1Test, FailuresArePassedUpAndTracedWithAHeaderDump) {
    const struct {
        std::string input;
        std::size_t failAt;  // where the socket fails with kVELErr_SockHalfClosed
        VELErr_t code;
        std::size_t lines;
        const char* what;  // with the dump label and row, when a dump is traced
        const char* label;
        const char* row;
    } cases[] = {
            {Hex("00000011 FFFFFFEE 0020 32 00"), 100, kVELErr_BadStreamHeader, 7,
             " ; Error encountered while receiving OXLv1 header",
             " ; Received header:", "00000011 FFFFFFEE 00203200"},
            {kHelloFrame, 14, kVELErr_SockHalfClosed, 6, " ; Error receiving an OXLv1 message",
             " ; Received header :", "00000011 FFFFFFEE 00203100"},
            {kHelloFrame, 3, kVELErr_SockHalfClosed, 2, nullptr, nullptr, nullptr},
    };
    for (const auto& c : cases) {
        veltest::RecordingSink sink(kVELTrace_ComError | kVELTrace_MsgDump);
        veltest::ScopedSink installed(&sink);
        MemorySocket socket;
        socket.feed(c.input);
        socket.failReadAt(c.failAt, kVELErr_SockHalfClosed);
        VEL_Message message;
        EXPECT_EQ(VEL_OXLv1(&socket, 5).recvMessage(&message), c.code);
        const std::string status = "COM - " + VEL_Tools::GetErrStr(c.code);
        const std::vector<std::string> texts = sink.texts();
        ASSERT_EQ(texts.size(), c.lines);
        if (c.what != nullptr) {
            EXPECT_EQ(texts[0], status + c.what);
            EXPECT_EQ(texts[1], status + c.label);
            EXPECT_NE(texts[4].find(c.row), std::string::npos) << texts[4];
        }
        EXPECT_EQ(texts.back(), status);
        for (const veltest::RecordingSink::Line& line : sink.lines()) {
            EXPECT_EQ(line.file, "VEL_OXLv1.cpp");
            EXPECT_EQ(line.level, kVELLevel_Error);
        }
    }
    _socket.failWriteAt(12 + 2, kVELErr_Send);
    VEL_Message message(5);
    EXPECT_EQ(_transport.sendMessage(&message), kVELErr_Send);
}

}  // namespace
