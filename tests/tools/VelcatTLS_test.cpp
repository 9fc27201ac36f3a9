// velcat over TLS against the openssl command's s_server and s_client, as a user would run them:
// frames both ways, and the peers it must refuse, each said clearly, with the others served.
#include <chrono>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "MemorySocket.h"
#include "SocketSupport.h"
#include "TLSSupport.h"
#include "VelcatProcess.h"

namespace {

using veltest::ChildProcess;
using veltest::Hex;
using veltest::OpensslServer;
using veltest::TLSFiles;
using veltest::VelcatProcess;
using Strings = std::vector<std::string>;

// OXLv1 frames built by hand: total length, its complement, flag word 32, version '1', 0.
const std::string kHello = Hex("0000001A FFFFFFE5 0020 31 00") + "hello over tls";
const std::string kReply = Hex("00000011 FFFFFFEE 0020 31 00") + "reply";
const std::string kSecond = Hex("00000012 FFFFFFED 0020 31 00") + "second";

Strings operator+(Strings left, const Strings& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

// The client and the pipe client (in both modes) against s_server, and an insecure client against
// an untrusted one (with a warning): a line goes out as a frame, and two frames that s_server
// writes at once (one record: the second is decrypted with the first, and its descriptor has
// nothing more to report) are both printed at once.
TEST(VelcatTLSTest, ClientsExchangeFramesWithOpensslServer) {
    const TLSFiles& files = TLSFiles::Get();
    ASSERT_TRUE(files.made);
    const Strings trusting = {"--ca", files.caCert};
    const struct {
        Strings options;
        std::string cert, key;
    } modes[] = {{trusting, files.serverCert, files.serverKey},
                 {trusting + Strings{"--pipe"}, files.serverCert, files.serverKey},
                 {trusting + Strings{"--failover", "--pipe"}, files.serverCert, files.serverKey},
                 {{"--insecure"}, files.selfSignedCert, files.selfSignedKey}};
    for (const auto& mode : modes) {
        SCOPED_TRACE(mode.options.back());
        OpensslServer server(mode.cert, mode.key);
        ASSERT_NE(server.port, 0) << server.process().errors();
        const std::string port = std::to_string(server.port);
        const Strings target = mode.options.back() == "--pipe" ? Strings{"localhost:" + port}
                                                               : Strings{"localhost", port};
        VelcatProcess velcat(Strings{"--tls", "-c", "2"} + mode.options + target);
        ASSERT_TRUE(velcat.write("hello over tls\n"));
        EXPECT_TRUE(server.process().waitForOutput(kHello)) << server.process().output();
        ASSERT_TRUE(server.process().write(kReply + kSecond));
        EXPECT_EQ(velcat.readOutput(13), "reply\nsecond\n");
        EXPECT_EQ(velcat.wait(), 0) << velcat.errors();  // -c 2: done, input still open
        EXPECT_EQ(velcat.errors().find("warning: --insecure") != std::string::npos,
                  mode.options.back() == "--insecure");
    }
}

// A listener that requires client certificates (--ca), and the peers it must refuse: each one's
// handshake fails with its status and reason, said on stderr, and good clients (s_client and
// velcat) are served after them all by the same listener.
TEST(VelcatTLSTest, ListenerRefusesBadPeersClearlyAndServesTheOthers) {
    const TLSFiles& files = TLSFiles::Get();
    ASSERT_TRUE(files.made);
    VelcatProcess listener({"--tls", "--cert", files.serverCert, "--key", files.serverKey, "--ca",
                            files.caCert, "-l", "-e", "-s", "127.0.0.1", "0"});
    const unsigned short port = listener.listeningPort();
    ASSERT_NE(port, 0) << listener.errors();
    EXPECT_NE(listener.errors().find("(oxl1 over TLS, epoll)"), std::string::npos);
    const Strings certified = {"-cert", files.clientCert, "-key", files.clientKey};
    using Kept = std::shared_ptr<void>;
    const auto openssl = [port](const Strings& options) {
        return [port, options]() -> Kept {
            std::shared_ptr<ChildProcess> peer = veltest::OpensslClient(port, options);
            (void)peer->write(kHello);
            return peer;
        };
    };
    const struct {
        const char* name;
        std::function<Kept()> peer;  // starts it; what it returns keeps it going
        std::string said;
    } peers[] = {
            {"TLS 1.0 offered", openssl(certified + veltest::kOfferTLS10Only),
             "TLS handshake failed {0} [401] (unsupported protocol)"},
            {"plain TCP",
             [port]() -> Kept {
                 auto plain = std::make_shared<veltest::RawFd>(veltest::RawConnect(port));
                 EXPECT_TRUE(veltest::WriteAll(plain->get(), kHello));
                 return plain;
             },
             "TLS protocol error {0} [403] (wrong version number)"},
            {"untrusted certificate",
             openssl({"-cert", files.selfSignedCert, "-key", files.selfSignedKey}),
             "TLS certificate refused {0} [402] (certificate verify failed: self-signed "
             "certificate)"},
            {"expired certificate",
             openssl({"-cert", files.expiredClientCert, "-key", files.clientKey}),
             "TLS certificate refused {0} [402] (certificate verify failed: certificate has "
             "expired)"},
            {"wrong host name", openssl(certified + Strings{"-verify_hostname", "other.example"}),
             "TLS certificate refused {0} [402] (sslv3 alert bad certificate)"},
            {"no client certificate", openssl({}),
             "TLS certificate refused {0} [402] (peer did not return a certificate)"},
    };
    for (const auto& bad : peers) {
        SCOPED_TRACE(bad.name);
        const Kept kept = bad.peer();
        EXPECT_TRUE(listener.waitForError("velcat: TLS connection of <host = 127.0.0.1, port = "))
                << listener.errors();
        EXPECT_TRUE(listener.waitForError("> closed: " + bad.said)) << listener.errors();
    }
    const std::unique_ptr<ChildProcess> peer = veltest::OpensslClient(port, certified);
    ASSERT_TRUE(peer->write(kHello));
    EXPECT_TRUE(peer->waitForOutput(kHello)) << peer->errors();
    VelcatProcess good({"--tls", "--ca", files.caCert, "--cert", files.clientCert, "--key",
                        files.clientKey, "-c", "1", "127.0.0.1", std::to_string(port)});
    ASSERT_TRUE(good.write("still served\n"));
    EXPECT_EQ(good.readOutput(13), "still served\n");
    EXPECT_EQ(good.wait(), 0) << good.errors();
    listener.terminate();
    EXPECT_EQ(listener.wait(), 0);
    EXPECT_NE(listener.errors().find("stopped: 8 connections, 2 messages, 6 closed on errors"),
              std::string::npos)
            << listener.errors();
}

// velcat with `args` after --tls, its input closed: it exits with `status` and says each of `said`.
void expectExit(const Strings& args, int status, const Strings& said) {
    VelcatProcess velcat(Strings{"--tls"} + args);
    velcat.closeInput();
    EXPECT_EQ(velcat.wait(), status);
    for (const std::string& part : said) {
        EXPECT_NE(velcat.errors().find(part), std::string::npos) << velcat.errors();
    }
}

// The servers the client must refuse (it exits 1 and says why), then the mistakes on its command
// line.
TEST(VelcatTLSTest, ClientRefusalsAndMistakesAreSaidClearly) {
    const TLSFiles& files = TLSFiles::Get();
    ASSERT_TRUE(files.made);
    const auto serving = [](const std::string& cert, const std::string& key,
                            const Strings& extra = {}) {
        return [cert, key, extra] { return std::make_unique<OpensslServer>(cert, key, extra); };
    };
    const struct {
        const char* name;
        std::function<std::unique_ptr<OpensslServer>()> server;
        bool pipe;
        Strings said;  // parts of standard error
    } refusals[] = {
            {"expired",
             serving(files.expiredCert, files.serverKey),
             false,
             {"cannot connect to localhost port ",
              ": TLS certificate refused {0} [402] (certificate verify failed: certificate has "
              "expired)"}},
            {"untrusted",
             serving(files.selfSignedCert, files.selfSignedKey),
             false,
             {"TLS certificate refused {0} [402] (certificate verify failed: self-signed "
              "certificate)"}},
            {"wrong host name",
             serving(files.otherNameCert, files.serverKey),
             false,
             {"TLS certificate refused {0} [402] (certificate verify failed: hostname mismatch)"}},
            {"TLS 1.0 offered",
             serving(files.serverCert, files.serverKey, veltest::kOfferTLS10Only),
             false,
             {"TLS handshake failed {0} [401] (", "protocol version)"}},
            {"pipe to an untrusted server",
             serving(files.selfSignedCert, files.selfSignedKey),
             true,
             {"no endpoint of the pipe answers: No connection available within the pipe",
              "; the last attempt: TLS certificate refused {0} [402] (certificate verify "
              "failed: self-signed certificate)"}},
    };
    for (const auto& c : refusals) {
        SCOPED_TRACE(c.name);
        const std::unique_ptr<OpensslServer> server = c.server();
        ASSERT_NE(server->port, 0) << server->process().errors();
        const std::string port = std::to_string(server->port);
        expectExit(Strings{"--ca", files.caCert} + (c.pipe ? Strings{"--pipe", "localhost:" + port}
                                                           : Strings{"localhost", port}),
                   1, c.said);
    }
    expectExit({"--ca", files.dir + "/absent.pem", "localhost", "1"}, 1,
               {"cannot use " + files.dir + "/absent.pem: Cannot open file"});
    expectExit({"--key", files.clientKey, "localhost", "1"}, 2, {"--cert and --key go together"});
    expectExit({"-l", "0"}, 2, {"a TLS listener needs --cert and --key"});
    expectExit({"-l", "--insecure", "--cert", files.serverCert, "--key", files.serverKey, "0"}, 2,
               {"--insecure is for clients"});
}

}  // namespace
