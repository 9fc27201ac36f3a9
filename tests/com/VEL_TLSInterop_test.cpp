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
using veltest::TLSFiles;

// "from vel" and "from openssl" as OXLv1 frames.
const std::string kVelFrame = Hex("00000014 FFFFFFEB 0020 31 00") + "from vel";
const std::string kOpensslFrame = Hex("00000018 FFFFFFE7 0020 31 00") + "from openssl";
// An old protocol offered by a peer: TLS 1.0 only, with the ciphers that OpenSSL's default
// security level would refuse for it allowed again.
const std::vector<std::string> kTLS10Only = {"-tls1", "-cipher", "DEFAULT@SECLEVEL=0"};

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

// openssl s_server on a port of the system's choice, serving one connection; what it receives
// goes to its output (after its session report), what it is given on input to the client.
class OpensslServer {
public:
    OpensslServer(const std::string& cert, const std::string& key,
                  const std::vector<std::string>& extra = {})
        : _process(arguments(cert, key, extra)) {
        const std::string marker = "ACCEPT 127.0.0.1:";
        if (_process.waitForOutput(marker) && _process.waitForOutput("\n")) {
            const std::string out = _process.output();
            port = static_cast<unsigned short>(
                    std::stoul(out.substr(out.find(marker) + marker.size())));
        }
    }
    ChildProcess& process() { return _process; }
    unsigned short port = 0;

private:
    static std::vector<std::string> arguments(const std::string& cert, const std::string& key,
                                              const std::vector<std::string>& extra) {
        std::vector<std::string> argv = {"openssl",  "s_server", "-accept", "127.0.0.1:0",
                                         "-naccept", "1",        "-cert",   cert,
                                         "-key",     key};
        argv.insert(argv.end(), extra.begin(), extra.end());
        return argv;
    }

    ChildProcess _process;
};

// openssl s_client connecting to 127.0.0.1:`port`, verifying the server as "localhost" against
// the test CA and refusing it when that fails; only the data it receives goes to its output.
std::unique_ptr<ChildProcess> opensslClient(unsigned short port,
                                            const std::vector<std::string>& extra = {}) {
    std::vector<std::string> argv = {"openssl",
                                     "s_client",
                                     "-connect",
                                     "127.0.0.1:" + std::to_string(port),
                                     "-CAfile",
                                     TLSFiles::Get().caCert,
                                     "-servername",
                                     "localhost",
                                     "-verify_hostname",
                                     "localhost",
                                     "-verify_return_error",
                                     "-quiet"};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return std::make_unique<ChildProcess>(argv);
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
    const std::unique_ptr<ChildProcess> peer = opensslClient(acceptor.getLocalAddr().getPort());
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
            {"TLS 1.0", files.serverCert, kTLS10Only, "localhost", kVELErr_TLSHandshake,
             "protocol version"},
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
        const std::unique_ptr<ChildProcess> peer = opensslClient(port, kTLS10Only);
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
                opensslClient(untrusted.getLocalAddr().getPort());
        EXPECT_EQ(untrusted.accept(accepted), kVELErr_TLSCertificate);
        EXPECT_TRUE(sink.contains("unknown ca"));
    }
    EXPECT_EQ(accepted, nullptr);
    exchangeWithOpensslClient(acceptor);  // the refusals left the listener as it was
}

}  // namespace
