#include "VEL_TCPAcceptor.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "SocketSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_TCPSocket.h"
#include "VEL_Tools.h"

namespace {

const std::string kBadHost = std::string(70, 'h') + ".invalid";

class TCPAcceptorTest : public veltest::SocketLeakTest {};

TEST_F(TCPAcceptorTest, UnresolvedListeningAddressFailsBeforeBinding) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    VEL_TCPAcceptor acceptor(0, kBadHost.c_str());
    basis::Thread::SetLastSystemErr(99);  // no failed system call may replace it
    EXPECT_EQ(acceptor.open(), kVELErr_Bind);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 99);
    EXPECT_FALSE(acceptor.isValid());
    EXPECT_TRUE(
            sink.contains("COM - Cannot bind the socket {99} ; Invalid listening address : <host = "
                          "255.255.255.255, port = 0>"));
}

TEST_F(TCPAcceptorTest, AcceptedSocketReportsBothEndsAndIsTheCallers) {
    veltest::RecordingSink sink(kVELTrace_Com);
    veltest::ScopedSink installed(&sink);
    VEL_TCPAcceptor acceptor(0, "127.0.0.1");
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    const unsigned short port = acceptor.getLocalAddr().getPort();
    const unsigned int handle = acceptor.getHandle();
    EXPECT_EQ(acceptor.open(), kVELErr_Ok);  // already open: the same descriptor
    EXPECT_EQ(acceptor.getHandle(), handle);
    EXPECT_EQ(acceptor.send("x", 1), kVELErr_InvalidAction);
    veltest::RawFd client = veltest::RawConnect(port);
    sockaddr_in clientAddress{};
    socklen_t length = sizeof(clientAddress);
    ASSERT_EQ(getsockname(client.get(), reinterpret_cast<sockaddr*>(&clientAddress), &length), 0);
    const unsigned long before = VEL_Socket::GetNbInstances();
    VEL_Socket* out = nullptr;
    basis::Thread::SetLastSystemErr(EBADF);
    ASSERT_EQ(acceptor.accept(out), kVELErr_Ok);
    std::unique_ptr<VEL_Socket> accepted(out);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 0);  // nothing failed
    ASSERT_NE(dynamic_cast<VEL_TCPSocket*>(out), nullptr);
    EXPECT_EQ(VEL_Socket::GetNbInstances(), before + 1);
    EXPECT_TRUE(accepted->isConnected());
    EXPECT_EQ(accepted->getLocalAddr().getPort(), port);
    EXPECT_STREQ(accepted->getLocalAddr().getHostIPAddress(), "127.0.0.1");
    EXPECT_EQ(accepted->getRemoteAddr().getPort(), ntohs(clientAddress.sin_port));
    EXPECT_STREQ(accepted->getRemoteAddr().getHostIPAddress(), "127.0.0.1");
    const std::string listening = "<host = 127.0.0.1, port = " + std::to_string(port) + ">";
    EXPECT_TRUE(sink.contains("COM - Accepting a connection for the TCP acceptor <FD = " +
                              std::to_string(acceptor.getHandle()) +
                              "> ; Listening address : " + listening));
    EXPECT_TRUE(sink.contains(
            "COM - New connected socket <FD = " + std::to_string(accepted->getHandle()) +
            "> ; Remote address : <host = 127.0.0.1, port = " +
            std::to_string(ntohs(clientAddress.sin_port)) + ">"));
    ASSERT_TRUE(veltest::WriteAll(client.get(), "hi"));
    char buf[2];
    ASSERT_EQ(accepted->recv(buf, 2), kVELErr_Ok);
    EXPECT_EQ(std::string(buf, 2), "hi");
    EXPECT_EQ(acceptor.close(), kVELErr_Ok);  // accepted sockets live on
    EXPECT_EQ(accepted->send("ok", 2), kVELErr_Ok);
    EXPECT_EQ(veltest::ReadExactly(client.get(), 2), "ok");
}

TEST_F(TCPAcceptorTest, FailedAcceptLeavesNoSocketBehind) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    VEL_TCPAcceptor acceptor(0, "127.0.0.1");  // never opened
    VEL_Socket* out = nullptr;
    EXPECT_EQ(acceptor.accept(out), kVELErr_Accept);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), EBADF);
    EXPECT_TRUE(sink.contains("COM - Cannot accept new connection {" + std::to_string(EBADF) +
                              "} ; Listening address : <host = 127.0.0.1, port = 0>; remote "
                              "address: unknown"));
}

TEST_F(TCPAcceptorTest, CloseFromAnotherThreadEndsABlockedAccept) {
    bool released = false;
    for (int round = 0; round < 5 && !released; ++round) {
        VEL_TCPAcceptor acceptor(0, "127.0.0.1");
        ASSERT_EQ(acceptor.open(), kVELErr_Ok);
        const unsigned short port = acceptor.getLocalAddr().getPort();
        std::atomic<pid_t> waiterTid{0};
        std::atomic<bool> done{false};
        VELErr_t result = kVELErr_Ok;
        long err = 0;
        VEL_Socket* out = nullptr;
        std::thread waiter([&] {
            waiterTid = veltest::CurrentTid();
            result = acceptor.accept(out);
            err = basis::Thread::GetLastSystemErr();
            done = true;
        });
        ASSERT_TRUE(veltest::WaitFor([&] { return waiterTid.load() != 0; }));
        ASSERT_TRUE(veltest::WaitUntilSleeping(waiterTid.load()));
        EXPECT_EQ(acceptor.close(), kVELErr_Ok);
        const bool ended =
                veltest::WaitFor([&] { return done.load(); }, std::chrono::milliseconds(5000));
        veltest::RawFd rescue;
        if (!ended) {
            rescue = veltest::RawConnect(port);  // lets the thread out so that it can be joined
        }
        waiter.join();
        delete out;
        ASSERT_TRUE(ended) << "accept was not ended by close()";
        EXPECT_EQ(result, kVELErr_Accept);
        EXPECT_EQ(out, nullptr);
        released = err != EBADF;  // EBADF: closed before accept was called
    }
    EXPECT_TRUE(released);
}

TEST_F(TCPAcceptorTest, ListeningOptionsDoNotReachAcceptedSockets) {
    VEL_SockOptions options;
    options.setNoDelay(true);
    options.setKeepAlive(true);
    options.setNonBlock(true);
    options.setTimeOut(3);
    options.setSndBufSize(32768);
    VEL_TCPAcceptor acceptor(0, "127.0.0.1", options);
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    EXPECT_EQ(veltest::IntOption(veltest::Fd(acceptor), IPPROTO_TCP, TCP_NODELAY), 1);
    veltest::RawFd client = veltest::RawConnect(acceptor.getLocalAddr().getPort());
    VEL_Socket* out = nullptr;
    basis::Thread::SetLastSystemErr(EBADF);
    ASSERT_EQ(acceptor.accept(out), kVELErr_Ok);
    std::unique_ptr<VEL_Socket> accepted(out);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 0);  // nothing failed
    const int fd = veltest::Fd(*accepted);
    EXPECT_FALSE(accepted->isNoDelay());
    EXPECT_EQ(veltest::IntOption(fd, IPPROTO_TCP, TCP_NODELAY), 0);
    EXPECT_FALSE(accepted->isKeepAlive());
    EXPECT_EQ(veltest::IntOption(fd, SOL_SOCKET, SO_KEEPALIVE), 0);
    EXPECT_FALSE(accepted->isNonBlock());
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_SNDTIMEO), 0);
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_RCVTIMEO), 0);
    EXPECT_EQ(accepted->getSendTimeOut(), 2);
    // The system keeps the listener's buffer size; the socket records it.
    EXPECT_EQ(accepted->getSndBufSize(), 32768u);
    EXPECT_GE(veltest::IntOption(fd, SOL_SOCKET, SO_SNDBUF), 32768);
}

}  // namespace
