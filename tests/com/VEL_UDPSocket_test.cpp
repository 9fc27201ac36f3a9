#include "VEL_UDPSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SocketSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_Tools.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

const VEL_SockAddr kLoopback(0, "127.0.0.1");

VEL_SockOptions nativeTimeOuts(unsigned char seconds) {
    VEL_SockOptions options;
    options.setNonBlock(true);
    options.setTimeOut(seconds);
    return options;
}

class UDPSocketTest : public veltest::SocketLeakTest {};

TEST_F(UDPSocketTest, SocketConnectedToPortZeroTalksToItselfOneDatagramAtATime) {
    VEL_UDPSocket self(kLoopback, kLoopback);
    ASSERT_EQ(self.open(), kVELErr_Ok);
    EXPECT_NE(self.getLocalAddr().getPort(), 0);
    EXPECT_EQ(self.getRemoteAddr().getPort(), self.getLocalAddr().getPort());
    ASSERT_EQ(self.send("ping", 4), kVELErr_Ok);
    char buf[16] = {};
    ASSERT_EQ(self.recv(buf, 4), kVELErr_Ok);
    EXPECT_EQ(std::string(buf, 4), "ping");

    std::string out = "headbody";
    VELIoVec gather[3] = {{&out[0], 4}, {&out[4], 0}, {&out[4], 4}};
    ASSERT_EQ(self.writev(gather, 3), kVELErr_Ok);
    unsigned int len = sizeof(buf);
    ASSERT_EQ(self.recvAvail(buf, &len), kVELErr_Ok);
    EXPECT_EQ(std::string(buf, len), "headbody");  // one datagram

    ASSERT_EQ(self.send("123456", 6), kVELErr_Ok);
    std::string in(6, '.');
    VELIoVec scatter[2] = {{&in[0], 2}, {&in[2], 4}};
    VEL_SockAddr sender;
    ASSERT_EQ(self.readvFrom(scatter, 2, &sender), kVELErr_Ok);
    EXPECT_EQ(in, "123456");
    EXPECT_EQ(sender.getPort(), self.getLocalAddr().getPort());
}

TEST_F(UDPSocketTest, UnconnectedSocketsNameTheirPeers) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    VEL_UDPSocket first(0, "127.0.0.1");
    VEL_UDPSocket second(kLoopback);
    ASSERT_EQ(first.open(), kVELErr_Ok);
    ASSERT_EQ(second.open(), kVELErr_Ok);
    EXPECT_EQ(first.send("x", 1), kVELErr_SockNotConnected);
    EXPECT_TRUE(sink.contains("COM - Invalid operation on not connected sock {"));
    ASSERT_EQ(first.sendTo("hello", 5, &second.getLocalAddr()), kVELErr_Ok);
    char buf[5];
    VEL_SockAddr sender;
    ASSERT_EQ(second.recvFrom(buf, 5, &sender), kVELErr_Ok);
    EXPECT_EQ(std::string(buf, 5), "hello");
    EXPECT_EQ(sender.getPort(), first.getLocalAddr().getPort());
    EXPECT_STREQ(sender.getHostIPAddress(), "127.0.0.1");
    ASSERT_EQ(second.close(), kVELErr_Ok);
    EXPECT_EQ(second.recvFrom(buf, 5, &sender), kVELErr_InvalidSocket);
    EXPECT_EQ(second.sendTo("x", 1, &first.getLocalAddr()), kVELErr_SockNotConnected);
}

TEST_F(UDPSocketTest, LongDatagramFillsTheBufferOfRecvAvailButFailsRecv) {
    VEL_UDPSocket self(kLoopback, kLoopback);
    ASSERT_EQ(self.open(), kVELErr_Ok);
    ASSERT_EQ(self.send("0123456789", 10), kVELErr_Ok);
    char buf[4] = {};
    unsigned int len = 4;
    EXPECT_EQ(self.recvAvail(buf, &len), kVELErr_Ok);
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(std::string(buf, 4), "0123");
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), EMSGSIZE);

    ASSERT_EQ(self.send("ab", 2), kVELErr_Ok);  // the rest of the long one is gone
    ASSERT_EQ(self.send("cd", 2), kVELErr_Ok);
    ASSERT_EQ(self.recv(buf, 4), kVELErr_Ok);  // datagrams are joined
    EXPECT_EQ(std::string(buf, 4), "abcd");

    ASSERT_EQ(self.send("0123456789", 10), kVELErr_Ok);
    EXPECT_EQ(self.recv(buf, 4), kVELErr_Recv);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), EMSGSIZE);
}

TEST_F(UDPSocketTest, ReceiveTimeOutAndTheRestoredElement) {
    VEL_UDPSocket self(kLoopback, kLoopback);
    ASSERT_EQ(self.open(), kVELErr_Ok);
    ASSERT_EQ(self.setOptions(nativeTimeOuts(1)), kVELErr_Ok);
    char buf[4];
    const auto start = steady_clock::now();
    EXPECT_EQ(self.recv(buf, 4), kVELErr_Timeout);
    const auto elapsed = steady_clock::now() - start;
    EXPECT_GE(elapsed, milliseconds(950));
    EXPECT_LT(elapsed, milliseconds(2500));
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), EAGAIN);

    ASSERT_EQ(self.send("abc", 3), kVELErr_Ok);
    std::string in(6, '.');
    VELIoVec scatter[2] = {{&in[0], 2}, {&in[2], 4}};
    EXPECT_EQ(self.readv(scatter, 2), kVELErr_Timeout);
    EXPECT_EQ(scatter[1].iov_base, &in[2]);  // filled by one byte, then given back
    EXPECT_EQ(scatter[1].iov_len, 4u);
    EXPECT_EQ(in.substr(0, 3), "abc");
}

// A local address that is no IPv4 address (once bound as 255.255.255.255) fails the bind, an
// unresolved remote one the connect; neither leaves a descriptor or a count behind.
TEST_F(UDPSocketTest, InvalidAddressFailsOpenAndLeavesNoDescriptor) {
    const std::string unresolved = std::string(70, 'u') + ".invalid";
    const struct {
        VEL_SockAddr local;
        VEL_SockAddr remote;  // port 0: not connected
        VELErr_t code;
        const char* traced;
    } cases[] = {{VEL_SockAddr(0, "999.1.1.1"), VEL_SockAddr(), kVELErr_Bind,
                  "} ; Local address : <host = 255.255.255.255, port = 0>"},
                 {kLoopback, VEL_SockAddr(9, unresolved.c_str()), kVELErr_Connect,
                  "} ; Invalid remote address : <host = 255.255.255.255, port = 9>"}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.traced);
        veltest::RecordingSink sink(kVELTrace_ComError);
        veltest::ScopedSink installed(&sink);
        const unsigned long before = VEL_Socket::GetNbInstances();
        std::unique_ptr<VEL_UDPSocket> socket(each.remote.getPort() != 0
                                                      ? new VEL_UDPSocket(each.local, each.remote)
                                                      : new VEL_UDPSocket(each.local));
        EXPECT_EQ(socket->open(), each.code);
        EXPECT_FALSE(socket->isValid());
        EXPECT_EQ(VEL_Socket::GetNbInstances(), before);
        EXPECT_TRUE(sink.contains(each.traced));
    }
}

TEST_F(UDPSocketTest, RefusedDatagramIsReportedOnceAndTheSocketStaysUsable) {
    const unsigned short closed = veltest::ClosedPort(SOCK_DGRAM);
    VEL_UDPSocket socket(kLoopback, VEL_SockAddr(closed, "127.0.0.1"));
    ASSERT_EQ(socket.open(), kVELErr_Ok);
    bool refused = false;
    for (int i = 0; i < 20 && !refused; ++i) {
        const VELErr_t code = socket.send("x", 1);
        if (code == kVELErr_SockHalfClosed) {
            refused = true;
            EXPECT_EQ(basis::Thread::GetLastSystemErr(), ECONNREFUSED);
        } else {
            ASSERT_EQ(code, kVELErr_Ok);
        }
    }
    EXPECT_TRUE(refused);
    EXPECT_EQ(socket.send("x", 1), kVELErr_Ok);  // the error was reported once
}

TEST_F(UDPSocketTest, EmptyDatagramReadsAsHalfClosed) {
    VEL_UDPSocket socket(kLoopback);
    ASSERT_EQ(socket.open(), kVELErr_Ok);
    veltest::RawFd raw(::socket(AF_INET, SOCK_DGRAM, 0));
    const sockaddr_in* to = socket.getLocalAddr();
    ASSERT_EQ(sendto(raw.get(), "", 0, 0, reinterpret_cast<const sockaddr*>(to), sizeof(*to)), 0);
    char buf[4];
    basis::Thread::SetLastSystemErr(99);
    EXPECT_EQ(socket.recv(buf, 4), kVELErr_SockHalfClosed);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 0);
}

}  // namespace
