#include "VEL_TCPConnector.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cerrno>
#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "SocketSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPSocket.h"
#include "VEL_Tools.h"
#include "VEL_UDPSocket.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

std::string printed(unsigned short port) {
    return "<host = 127.0.0.1, port = " + std::to_string(port) + ">";
}

// Accepts the connection `client` made and checks that bytes move both ways.
void expectTalks(VEL_TCPAcceptor& acceptor, VEL_Socket& client) {
    VEL_Socket* out = nullptr;
    ASSERT_EQ(acceptor.accept(out), kVELErr_Ok);
    std::unique_ptr<VEL_Socket> server(out);
    char buf[3];
    ASSERT_EQ(client.send("abc", 3), kVELErr_Ok);
    ASSERT_EQ(server->recv(buf, 3), kVELErr_Ok);
    EXPECT_EQ(std::string(buf, 3), "abc");
    ASSERT_EQ(server->send("xyz", 3), kVELErr_Ok);
    ASSERT_EQ(client.recv(buf, 3), kVELErr_Ok);
    EXPECT_EQ(std::string(buf, 3), "xyz");
}

class TCPConnectorTest : public veltest::SocketLeakTest {};

TEST_F(TCPConnectorTest, ConnectGivesABlockingConnectedSocketWithItsOptions) {
    veltest::RecordingSink sink(kVELTrace_Com);
    veltest::ScopedSink installed(&sink);
    VEL_TCPAcceptor acceptor(0, "127.0.0.1");
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    const unsigned short port = acceptor.getLocalAddr().getPort();
    VEL_SockOptions options;
    options.setNoDelay(true);
    options.setNonBlock(true);
    options.setRecvTimeOut(1);
    VEL_TCPConnector connector(port, "127.0.0.1", options);
    VEL_Socket* socket = nullptr;
    ASSERT_EQ(connector.connect(socket), kVELErr_Ok);
    std::unique_ptr<VEL_Socket> client(socket);
    EXPECT_TRUE(client->isConnected());
    EXPECT_FALSE(veltest::IsNonBlocking(veltest::Fd(*client)));
    EXPECT_EQ(client->getRemoteAddr().getPort(), port);
    EXPECT_EQ(veltest::IntOption(veltest::Fd(*client), IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(veltest::TimeoutMicros(veltest::Fd(*client), SO_RCVTIMEO), 1000000);
    EXPECT_TRUE(sink.contains(
            "COM - Connecting a TCP socket <FD = " + std::to_string(client->getHandle()) +
            "> to remote address : " + printed(port)));
    expectTalks(acceptor, *client);
}

TEST_F(TCPConnectorTest, UnresolvedRemoteFailsWithoutCreatingASocket) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    const std::string host = std::string(70, 'c') + ".invalid";
    VEL_TCPConnector connector(80, host.c_str());
    VEL_Socket* socket = nullptr;
    EXPECT_EQ(connector.connect(socket), kVELErr_Connect);
    EXPECT_EQ(socket, nullptr);
    EXPECT_TRUE(sink.contains("} ; Invalid remote address : <host = 255.255.255.255, port = 80>"));
    VEL_TCPSocket* tcp = nullptr;
    EXPECT_EQ(connector.asyncConnect(tcp), kVELErr_Connect);
    EXPECT_EQ(tcp, nullptr);
}

TEST_F(TCPConnectorTest, RefusedConnectionLeavesNoSocketAndStoresTheError) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    const unsigned short port = veltest::ClosedPort(SOCK_STREAM);
    VEL_TCPConnector connector(port, "127.0.0.1");
    VEL_Socket* socket = nullptr;
    EXPECT_EQ(connector.connect(socket), kVELErr_Connect);
    EXPECT_EQ(socket, nullptr);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), ECONNREFUSED);
    EXPECT_TRUE(sink.contains("COM - Cannot set the socket active {" +
                              std::to_string(ECONNREFUSED) +
                              "} ; Connecting to : " + printed(port)));

    // A socket given by the caller is closed, not deleted.
    VEL_TCPSocket given(0, "127.0.0.1");
    ASSERT_EQ(given.open(), kVELErr_Ok);
    VEL_Socket* mine = &given;
    EXPECT_EQ(connector.connect(mine), kVELErr_Connect);
    EXPECT_EQ(mine, &given);
    EXPECT_FALSE(given.isValid());
}

TEST_F(TCPConnectorTest, SilentPeerTimesOutAfterTheConnectTimeOutOrIsInProgress) {
    veltest::StalledListener silent;
    ASSERT_NE(silent.port(), 0);
    VEL_TCPConnector connector(silent.port(), "127.0.0.1");
    connector.setCnctTimeOut(1);
    VEL_Socket* socket = nullptr;
    const auto start = steady_clock::now();
    EXPECT_EQ(connector.connect(socket), kVELErr_Timeout);
    const auto elapsed = steady_clock::now() - start;
    EXPECT_GE(elapsed, milliseconds(990));
    EXPECT_LT(elapsed, milliseconds(2500));
    EXPECT_EQ(socket, nullptr);

    VEL_TCPSocket* pending = nullptr;
    ASSERT_EQ(connector.asyncConnect(pending), kVELErr_InProgress);
    std::unique_ptr<VEL_TCPSocket> owned(pending);
    ASSERT_NE(pending, nullptr);
    EXPECT_EQ(pending->getRemoteAddr().getPort(), silent.port());
    EXPECT_TRUE(veltest::IsNonBlocking(veltest::Fd(*pending)));
    EXPECT_FALSE(pending->isConnected());
    EXPECT_EQ(pending->waitForWrite(&basis::TimeValue::kZero), kVELErr_Timeout);
}

TEST_F(TCPConnectorTest, AsyncConnectThenFinishGivesAWorkingBlockingSocket) {
    VEL_TCPAcceptor acceptor(0, "127.0.0.1");
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    VEL_SockOptions options;
    options.setNonBlock(true);
    options.setRecvTimeOut(1);
    VEL_TCPConnector connector(acceptor.getLocalAddr(), options);
    VEL_TCPSocket* socket = nullptr;
    const VELErr_t started = connector.asyncConnect(socket);
    std::unique_ptr<VEL_TCPSocket> client(socket);
    ASSERT_TRUE(started == kVELErr_Ok || started == kVELErr_InProgress) << started;
    EXPECT_EQ(socket->getRemoteAddr().getPort(), acceptor.getLocalAddr().getPort());
    if (started == kVELErr_InProgress) {
        const basis::TimeValue limit(2, 0);
        ASSERT_EQ(socket->waitForWrite(&limit), kVELErr_Ok);
        ASSERT_EQ(connector.finishAsyncConnect(socket), kVELErr_Ok);
    }
    EXPECT_TRUE(socket->isConnected());
    EXPECT_FALSE(veltest::IsNonBlocking(veltest::Fd(*socket)));
    EXPECT_EQ(veltest::TimeoutMicros(veltest::Fd(*socket), SO_RCVTIMEO), 1000000);
    expectTalks(acceptor, *socket);
}

TEST_F(TCPConnectorTest, GivenSocketMustBeAnOpenTCPSocket) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    VEL_TCPAcceptor acceptor(0, "127.0.0.1");
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    VEL_TCPConnector connector(acceptor.getLocalAddr());
    VEL_TCPSocket unopened(0, "127.0.0.1");
    VEL_Socket* socket = &unopened;
    EXPECT_EQ(connector.connect(socket), kVELErr_InvalidSocket);
    EXPECT_TRUE(sink.contains("} ; Connecting to : " + printed(acceptor.getLocalAddr().getPort())));
    VEL_UDPSocket datagram(0, "127.0.0.1");
    ASSERT_EQ(datagram.open(), kVELErr_Ok);
    socket = &datagram;
    EXPECT_EQ(connector.connect(socket), kVELErr_InvalidSocket);
    EXPECT_TRUE(datagram.isValid());
    VEL_TCPSocket* none = nullptr;
    EXPECT_EQ(connector.finishAsyncConnect(none), kVELErr_InvalidSocket);

    // An open socket given by the caller is used, and stays the caller's.
    VEL_TCPSocket given(0, "127.0.0.1");
    ASSERT_EQ(given.open(), kVELErr_Ok);
    socket = &given;
    ASSERT_EQ(connector.connect(socket), kVELErr_Ok);
    EXPECT_EQ(socket, &given);
    expectTalks(acceptor, given);
}

}  // namespace
