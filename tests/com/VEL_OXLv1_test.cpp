#include "VEL_OXLv1.h"

#include <climits>
#include <string>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "TestSupport.h"
#include "VEL_Message.h"

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

}  // namespace
