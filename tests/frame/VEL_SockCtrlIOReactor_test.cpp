#include "VEL_SockCtrlIOReactor.h"

#include <sys/socket.h>

#include <gtest/gtest.h>

#include "ReactorSupport.h"
#include "SocketSupport.h"
#include "TestSupport.h"
#include "VEL_SelectIOReactor.h"
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

TEST_F(SockCtrlTest, InitRegistersTheControlSocketOnceAndCleanRemovesIt) {
    VEL_SelectIOReactor reactor(4, basis::TimeValue());
    EXPECT_EQ(reactor.getNbElement(), 0u);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(reactor.init(), kVELErr_Ok);
        EXPECT_EQ(reactor.init(), kVELErr_Ok);
        EXPECT_EQ(reactor.getNbElement(), 1u);
        reactor.start();
        veltest::RawPair pair = veltest::MakeRawPair();
        const auto handler = veltest::ScriptedHandler::Make(pair.server.get());
        handler->onInput = [&pair] { return veltest::Drain(pair.server.get()); };
        ASSERT_EQ(reactor.open(), basis::kErr_Ok);
        ASSERT_EQ(reactor.addEventHandler(handler, basis::TimeValue(), kVELOp_Read), kVELErr_Ok);
        ASSERT_TRUE(veltest::WriteAll(pair.client.get(), "x"));
        EXPECT_TRUE(handler->waitFor("in", 1));
        EXPECT_EQ(reactor.stop(), kVELErr_Ok);
        EXPECT_EQ(reactor.wait(), basis::kErr_Ok);
        EXPECT_EQ(reactor.clean(), kVELErr_Ok);
        EXPECT_EQ(handler->calls().back(), "close");
        EXPECT_EQ(reactor.getNbElement(), 0u);
    }
}

}  // namespace
