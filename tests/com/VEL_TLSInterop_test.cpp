// TLS against an independent implementation: the openssl command's s_client, run as a child
// process, exchanges OXLv1 frames written out by hand with an accepted VEL_TLSSocket; s_server and
// s_client refuse or are refused where they must be.
#include <future>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "MemorySocket.h"
#include "SocketSupport.h"
#include "TLSSupport.h"
#include "TestSupport.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_TLSAcceptor.h"
#include "VEL_TLSConnector.h"
#include "VEL_TLSSocket.h"

namespace {

using veltest::ChildProcess;
using veltest::Hex;
using veltest::OpensslServer;
using veltest::TLSFiles;

// "from vel" and "from openssl" as OXLv1 frames.
const std::string kVelFrame = Hex("00000014 FFFFFFEB 0020 31 00") + "from vel";
const std::string kOpensslFrame = Hex("00000018 FFFFFFE7 0020 31 00") + "from openssl";

class TLSInteropTest : public veltest::SocketLeakTest {
protected:
    void SetUp() override {
        veltest::SocketLeakTest::SetUp();
        ASSERT_TRUE(TLSFiles::Get().made);
    }

    veltest::RecordingSink sink{kVELTrace_Error};
    veltest::ScopedSink installed{&sink};
};

// Accepts one connection on `acceptor` and exchanges a frame each way with s_client.
void exchangeWithOpensslClient(VEL_TLSAcceptor& acceptor) {
    const std::unique_ptr<ChildProcess> peer =
            veltest::OpensslClient(acceptor.getLocalAddr().getPort());
    VEL_Socket* accepted = nullptr;
    ASSERT_EQ(acceptor.accept(accepted), kVELErr_Ok) << peer->errors();
    const std::unique_ptr<VEL_TLSSocket> server(static_cast<VEL_TLSSocket*>(accepted));
    EXPECT_EQ(server->getProtocol().substr(0, 7), "TLSv1.3");
    VEL_OXLv1 transport(server.get(), 1024);
    ASSERT_TRUE(peer->write(kOpensslFrame));
    VEL_Message message;
    ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok);
    EXPECT_EQ(veltest::Body(message), "from openssl");
    ASSERT_EQ(message.setData("from vel", 8), kVELErr_Ok);
    ASSERT_EQ(transport.sendMessage(&message), kVELErr_Ok);
    EXPECT_TRUE(peer->waitForOutput(kVelFrame)) << peer->output();
}

TEST_F(TLSInteropTest, ServerExchangesOXLv1FramesWithOpensslClient) {
    VEL_TLSAcceptor acceptor(0, "127.0.0.1", veltest::ServerContext());
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    exchangeWithOpensslClient(acceptor);
}

// The name checked in the server's certificate is the one set, not the host connected to.
TEST_F(TLSInteropTest, ClientChecksTheServerNameItWasGiven) {
    const TLSFiles& files = TLSFiles::Get();
    OpensslServer server(files.serverCert, files.serverKey);
    ASSERT_NE(server.port, 0) << server.process().errors();
    VEL_TLSConnector connector(server.port, "127.0.0.1", veltest::ClientContext());
    connector.setServerName("other.example");
    VEL_Socket* connected = nullptr;
    EXPECT_EQ(connector.connect(connected), kVELErr_TLSCertificate);
    EXPECT_EQ(connected, nullptr);
    const std::string reason = "certificate verify failed: hostname mismatch";
    EXPECT_TRUE(sink.contains(reason));
    EXPECT_NE(connector.getFailureDetail().find(reason), std::string::npos);
}

TEST_F(TLSInteropTest, ClientRefusesAPlainServer) {
    // A plain OXLv1 server that answers the client's first bytes with a frame in clear.
    unsigned short port = 0;
    veltest::RawFd listener = veltest::RawListener(&port);
    std::future<void> plainServer = std::async(std::launch::async, [&] {
        veltest::RawFd peer(::accept(listener.get(), nullptr, nullptr));
        (void)veltest::ReadExactly(peer.get(), 12, std::chrono::seconds(5));
        (void)veltest::WriteAll(peer.get(), kOpensslFrame);
        (void)veltest::ReadExactly(peer.get(), 1, std::chrono::seconds(5));  // until it gives up
    });
    VEL_TLSConnector connector(port, "localhost", veltest::ClientContext());
    VEL_Socket* connected = nullptr;
    EXPECT_EQ(connector.connect(connected), kVELErr_TLSProtocol);
    EXPECT_EQ(connected, nullptr);
    EXPECT_TRUE(sink.contains("wrong version number"));
    plainServer.get();
}

TEST_F(TLSInteropTest, ServerRefusesBadClientsAndGoesOnServing) {
    const TLSFiles& files = TLSFiles::Get();
    VEL_TLSAcceptor acceptor(0, "127.0.0.1", veltest::ServerContext());
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    const unsigned short port = acceptor.getLocalAddr().getPort();
    VEL_Socket* accepted = nullptr;
    {
        SCOPED_TRACE("TLS 1.0 offered");
        const std::unique_ptr<ChildProcess> peer =
                veltest::OpensslClient(port, veltest::kOfferTLS10Only);
        EXPECT_EQ(acceptor.accept(accepted), kVELErr_TLSHandshake);
        EXPECT_TRUE(sink.contains("unsupported protocol"));
    }
    {
        SCOPED_TRACE("plain TCP");
        veltest::RawFd plain = veltest::RawConnect(port);
        ASSERT_TRUE(veltest::WriteAll(plain.get(), kOpensslFrame));
        EXPECT_EQ(acceptor.accept(accepted), kVELErr_TLSProtocol);
    }
    {
        SCOPED_TRACE("server certificate refused by the client");
        VEL_TLSAcceptor untrusted(
                0, "127.0.0.1", veltest::ServerContext(files.selfSignedCert, files.selfSignedKey));
        ASSERT_EQ(untrusted.open(), kVELErr_Ok);
        const std::unique_ptr<ChildProcess> peer =
                veltest::OpensslClient(untrusted.getLocalAddr().getPort());
        EXPECT_EQ(untrusted.accept(accepted), kVELErr_TLSCertificate);
        EXPECT_TRUE(sink.contains("unknown ca"));
    }
    EXPECT_EQ(accepted, nullptr);
    exchangeWithOpensslClient(acceptor);  // the refusals left the listener as it was
}

}  // namespace
