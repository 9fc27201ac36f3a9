#include "VEL_SockCtrlIOReactor.h"

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "SocketSupport.h"
#include "TestSupport.h"
#include "VEL_Tools.h"
#include "VEL_UDPSocket.h"

namespace {

class SockCtrlTest : public veltest::SocketLeakTest {};

TEST_F(SockCtrlTest, OneWakeUpDatagramInFlightAndReadingRearms) {
    veltest::RecordingSink sink(kVELTrace_FrameError);
    veltest::ScopedSink installed(&sink);
    const VEL_SockAddr loopback(0, "127.0.0.1");
    VEL_UDPSocket socket(loopback, loopback);
    ASSERT_EQ(socket.open(), kVELErr_Ok);
    const int fd = veltest::Fd(socket);
    const boost::shared_ptr<VEL_SockCtrlEH> handler = VEL_SockCtrlEH::Create(&socket);
    EXPECT_EQ(handler->getHandle(), socket.getHandle());
    char byte = 0;
    EXPECT_EQ(handler->notify(), kVELErr_Ok);
    EXPECT_EQ(handler->notify(), kVELErr_Ok);
    ASSERT_EQ(::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT), 1);
    EXPECT_EQ(byte, ' ');
    EXPECT_TRUE(handler->handleInput());
    EXPECT_EQ(::recv(fd, &byte, 1, MSG_DONTWAIT), -1);  // the second call sent nothing
    EXPECT_EQ(handler->notify(), kVELErr_Ok);           // re-armed by the read
    EXPECT_EQ(::recv(fd, &byte, 1, MSG_PEEK | MSG_DONTWAIT), 1);
    EXPECT_TRUE(sink.texts().empty());
    ASSERT_EQ(socket.close(), kVELErr_Ok);
    EXPECT_FALSE(handler->handleInput());
    EXPECT_TRUE(sink.contains("FRAME - Invalid socket {"));
    EXPECT_TRUE(sink.contains("} ; recv failed"));
}

}  // namespace
