// velcat's TLS client against the openssl command's s_server, as a user would run them.
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "MemorySocket.h"
#include "TLSSupport.h"
#include "VelcatProcess.h"

namespace {

using veltest::ChildProcess;
using veltest::Hex;
using veltest::TLSFiles;
using veltest::VelcatProcess;
using Strings = std::vector<std::string>;

// s_server on a port of the system's choice for one connection: what it receives goes to its
// output after its session report, what it is given on input goes to the client.
struct OpensslServer {
    OpensslServer(const std::string& cert, const std::string& key)
        : process({"openssl", "s_server", "-accept", "127.0.0.1:0", "-naccept", "1", "-cert", cert,
                   "-key", key}) {
        const std::string marker = "ACCEPT 127.0.0.1:";
        if (process.waitForOutput(marker) && process.waitForOutput("\n")) {
            const std::string out = process.output();
            port = std::to_string(std::stoul(out.substr(out.find(marker) + marker.size())));
        }
    }
    ChildProcess process;
    std::string port;
};

TEST(VelcatTLSTest, ClientExchangesLinesWithOpensslServer) {
    const TLSFiles& files = TLSFiles::Get();
    ASSERT_TRUE(files.made);
    OpensslServer server(files.serverCert, files.serverKey);
    ASSERT_FALSE(server.port.empty()) << server.process.errors();
    VelcatProcess velcat({"--tls", "--ca", files.caCert, "-c", "1", "localhost", server.port});
    ASSERT_TRUE(velcat.write("hello over tls\n"));
    const std::string frame = Hex("0000001A FFFFFFE5 0020 31 00") + "hello over tls";
    EXPECT_TRUE(server.process.waitForOutput(frame)) << server.process.output();
    ASSERT_TRUE(server.process.write(Hex("00000011 FFFFFFEE 0020 31 00") + "reply"));
    EXPECT_EQ(velcat.readOutput(6), "reply\n");
    velcat.closeInput();
    EXPECT_EQ(velcat.wait(), 0) << velcat.errors();
}

// A run that must fail, and what velcat says.
struct Refusal {
    const char* name;
    std::string cert;
    std::string key;
    Strings options;
    int status;
    Strings said;  // parts of standard error
};

TEST(VelcatTLSTest, RefusalsAndMistakesAreSaidClearly) {
    const TLSFiles& files = TLSFiles::Get();
    ASSERT_TRUE(files.made);
    const Refusal cases[] = {
            {"expired",
             files.expiredCert,
             files.serverKey,
             {"--ca", files.caCert},
             1,
             {"cannot connect to localhost port", "TLS certificate refused",
              "(certificate verify failed: certificate has expired)"}},
            {"untrusted",
             files.selfSignedCert,
             files.selfSignedKey,
             {"--ca", files.caCert},
             1,
             {"TLS certificate refused", "self-signed certificate"}},
            {"unreadable CA file",
             files.serverCert,
             files.serverKey,
             {"--ca", files.dir + "/absent.pem"},
             1,
             {"cannot use " + files.dir + "/absent.pem: Cannot open file"}},
            {"key without certificate",
             files.serverCert,
             files.serverKey,
             {"--key", files.clientKey},
             2,
             {"--cert and --key go together"}},
            {"TLS listener", files.serverCert, files.serverKey, {"-l"}, 2, {"--tls is for client"}},
    };
    for (const Refusal& c : cases) {
        SCOPED_TRACE(c.name);
        OpensslServer server(c.cert, c.key);
        ASSERT_FALSE(server.port.empty()) << server.process.errors();
        Strings args = {"--tls"};
        args.insert(args.end(), c.options.begin(), c.options.end());
        if (c.options.front() != "-l") {
            args.push_back("localhost");
        }
        args.push_back(server.port);
        VelcatProcess velcat(args);
        velcat.closeInput();
        EXPECT_EQ(velcat.wait(), c.status);
        for (const std::string& part : c.said) {
            EXPECT_NE(velcat.errors().find(part), std::string::npos) << velcat.errors();
        }
    }
}

TEST(VelcatTLSTest, InsecureClientWarnsAndTalksToAnyServer) {
    const TLSFiles& files = TLSFiles::Get();
    ASSERT_TRUE(files.made);
    OpensslServer server(files.selfSignedCert, files.selfSignedKey);
    ASSERT_FALSE(server.port.empty()) << server.process.errors();
    VelcatProcess velcat({"--tls", "--insecure", "127.0.0.1", server.port});
    ASSERT_TRUE(velcat.write("x\n"));
    EXPECT_TRUE(server.process.waitForOutput(Hex("0000000D FFFFFFF2 0020 31 00") + "x"));
    EXPECT_TRUE(velcat.waitForError("warning: --insecure"));
    velcat.closeInput();
    EXPECT_EQ(velcat.wait(), 0) << velcat.errors();
}

}  // namespace
