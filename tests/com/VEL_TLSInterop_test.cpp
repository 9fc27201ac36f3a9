// TLS against an independent implementation: the openssl command's s_server and s_client, run as
// child processes, exchange OXLv1 frames written out by hand with VEL_TLSSocket, and refuse or
// are refused where they must be.
#include <future>
#include <memory>
#include <string>
#include <vector>

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

std::string bodyOf(const VEL_Message& message) {
    return std::string(message.data(), message.size());
}

TEST_F(TLSInteropTest, ClientExchangesOXLv1FramesWithOpensslServer) {
    const TLSFiles& files = TLSFiles::Get();
    OpensslServer server(files.serverCert, files.serverKey);
    ASSERT_NE(server.port, 0) << server.process().errors();
    VEL_TLSConnector connector(server.port, "localhost", veltest::ClientContext());
    VEL_Socket* connected = nullptr;
    ASSERT_EQ(connector.connect(connected), kVELErr_Ok);
    const std::unique_ptr<VEL_TLSSocket> client(static_cast<VEL_TLSSocket*>(connected));
    EXPECT_EQ(client->getProtocol().substr(0, 7), "TLSv1.3");
    VEL_OXLv1 transport(client.get(), 1024);
    VEL_Message message;
    ASSERT_EQ(message.setData("from vel", 8), kVELErr_Ok);
    ASSERT_EQ(transport.sendMessage(&message), kVELErr_Ok);
    EXPECT_TRUE(server.process().waitForOutput(kVelFrame)) << server.process().output();
    ASSERT_TRUE(server.process().write(kOpensslFrame));
    ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok);
    EXPECT_EQ(bodyOf(message), "from openssl");
}

// Accepts one connection on `acceptor` and exchanges a frame each way with s_client.
void exchangeWithOpensslClient(VEL_TLSAcceptor& acceptor) {
    const std::unique_ptr<ChildProcess> peer =
            veltest::OpensslClient(acceptor.getLocalAddr().getPort());
    VEL_Socket* accepted = nullptr;
    ASSERT_EQ(acceptor.accept(accepted), kVELErr_Ok) << peer->errors();
    const std::unique_ptr<VEL_Socket> server(accepted);
    VEL_OXLv1 transport(server.get(), 1024);
    ASSERT_TRUE(peer->write(kOpensslFrame));
    VEL_Message message;
    ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok);
    EXPECT_EQ(bodyOf(message), "from openssl");
    ASSERT_EQ(message.setData("from vel", 8), kVELErr_Ok);
    ASSERT_EQ(transport.sendMessage(&message), kVELErr_Ok);
    EXPECT_TRUE(peer->waitForOutput(kVelFrame)) << peer->output();
}

TEST_F(TLSInteropTest, ServerExchangesOXLv1FramesWithOpensslClient) {
    VEL_TLSAcceptor acceptor(0, "127.0.0.1", veltest::ServerContext());
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    exchangeWithOpensslClient(acceptor);
}

// A server this client must refuse, and how.
struct ClientRefusal {
    const char* name;
    std::string cert;
    std::vector<std::string> serverOptions;
    const char* serverName;
    VELErr_t expected;
    const char* reason;  // in the error trace
};

TEST_F(TLSInteropTest, ClientRefusesBadServersWithTheirStatusAndReason) {
    const TLSFiles& files = TLSFiles::Get();
    const ClientRefusal cases[] = {
            {"untrusted",
             files.selfSignedCert,
             {},
             "localhost",
             kVELErr_TLSCertificate,
             "certificate verify failed: self-signed certificate"},
            {"wrong name",
             files.serverCert,
             {},
             "other.example",
             kVELErr_TLSCertificate,
             "certificate verify failed: hostname mismatch"},
            {"expired",
             files.expiredCert,
             {},
             "localhost",
             kVELErr_TLSCertificate,
             "certificate verify failed: certificate has expired"},
            {"TLS 1.0", files.serverCert, veltest::kOfferTLS10Only, "localhost",
             kVELErr_TLSHandshake, "protocol version"},
    };
    for (const ClientRefusal& c : cases) {
        SCOPED_TRACE(c.name);
        sink.clear();
        const std::string key =
                c.cert == files.selfSignedCert ? files.selfSignedKey : files.serverKey;
        OpensslServer server(c.cert, key, c.serverOptions);
        ASSERT_NE(server.port, 0) << server.process().errors();
        VEL_TLSConnector connector(server.port, "127.0.0.1", veltest::ClientContext());
        connector.setServerName(c.serverName);
        VEL_Socket* connected = nullptr;
        EXPECT_EQ(connector.connect(connected), c.expected);
        EXPECT_EQ(connected, nullptr);
        EXPECT_TRUE(sink.contains(c.reason)) << "no trace with " << c.reason;
        EXPECT_NE(connector.getFailureDetail().find(c.reason), std::string::npos);
    }
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
