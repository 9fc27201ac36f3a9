#include "VEL_OXLv5.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "TestSupport.h"
#include "VEL_Message.h"
#include "VEL_Tools.h"

namespace {

class OXLv5Test : public veltest::BufferLeakTest {
protected:
    veltest::MemorySocket _socket;
    VEL_OXLv5 _transport{&_socket};
};

TEST_F(OXLv5Test, CutBodyIsTracedWithTheLengthField) {
    veltest::RecordingSink sink(kVELTrace_ComError | kVELTrace_MsgDump);
    veltest::ScopedSink installed(&sink);
    _socket.feed(veltest::Hex("0005") + "hello");
    _socket.cut(5);
    _socket.closeInput();
    VEL_Message message;
    EXPECT_EQ(_transport.recvMessage(&message), kVELErr_SockHalfClosed);
    const std::string status = "COM - " + VEL_Tools::GetErrStr(kVELErr_SockHalfClosed);
    const std::vector<std::string> texts = sink.texts();
    ASSERT_EQ(texts.size(), 6u);
    EXPECT_EQ(texts[0], status + " ; Error encountered while receiving OXLv5 message");
    EXPECT_EQ(texts[1], status + " ; Received header:");
    EXPECT_EQ(texts[2], "MSGDUMP - Dumping buffer number 0, containing 2 bytes");
    EXPECT_NE(texts[4].find("0005 "), std::string::npos) << texts[4];
    EXPECT_EQ(texts[5], status);
}

}  // namespace
