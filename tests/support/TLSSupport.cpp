#include "TLSSupport.h"

#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <fstream>
#include <future>
#include <iterator>
#include <vector>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "VEL_TLSConnector.h"

namespace veltest {

namespace {

// Runs one openssl command; false (and a test failure with its output) when it fails.
bool openssl(const std::vector<std::string>& args) {
    std::vector<std::string> argv{"openssl"};
    argv.insert(argv.end(), args.begin(), args.end());
    std::string output;
    if (RunCommand(argv, &output) == 0) {
        return true;
    }
    ADD_FAILURE() << "openssl " << args[0] << " failed: " << output;
    return false;
}

bool newKey(const std::string& key) {
    return openssl(
            {"genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out", key});
}

// A certificate for `key` named `subject`, issued by the CA for `days` (negative: expired).
bool issue(const TLSFiles& files, const std::string& key, const std::string& subject,
           const std::string& extensions, const std::string& days, const std::string& out) {
    const std::string request = out + ".csr";
    const std::string extensionFile = out + ".ext";
    std::ofstream(extensionFile) << extensions << "\n";
    return openssl({"req", "-new", "-key", key, "-subj", subject, "-out", request}) &&
           openssl({"x509", "-req", "-in", request, "-CA", files.caCert, "-CAkey", files.caKey,
                    "-CAcreateserial", "-days", days, "-extfile", extensionFile, "-out", out});
}

bool makeFiles(TLSFiles& files) {
    const std::string serverNames = "subjectAltName=DNS:localhost,IP:127.0.0.1";
    return newKey(files.caKey) &&
           openssl({"req", "-x509", "-new", "-key", files.caKey, "-subj", "/CN=vel test CA",
                    "-days", "30", "-out", files.caCert}) &&
           newKey(files.serverKey) &&
           issue(files, files.serverKey, "/CN=localhost", serverNames, "30", files.serverCert) &&
           issue(files, files.serverKey, "/CN=localhost", serverNames, "-1", files.expiredCert) &&
           issue(files, files.serverKey, "/CN=other.example", "subjectAltName=DNS:other.example",
                 "30", files.otherNameCert) &&
           openssl({"pkey", "-in", files.serverKey, "-aes256", "-passout",
                    std::string("pass:") + TLSFiles::kKeyPassword, "-out",
                    files.encryptedServerKey}) &&
           newKey(files.selfSignedKey) &&
           openssl({"req", "-x509", "-new", "-key", files.selfSignedKey, "-subj", "/CN=localhost",
                    "-addext", serverNames, "-days", "30", "-out", files.selfSignedCert}) &&
           newKey(files.clientKey) &&
           issue(files, files.clientKey, "/CN=vel test client", "extendedKeyUsage=clientAuth", "30",
                 files.clientCert) &&
           issue(files, files.clientKey, "/CN=vel test client", "extendedKeyUsage=clientAuth", "-1",
                 files.expiredClientCert);
}

// Owns the scratch folder and removes it when the test process ends.
struct ScratchFiles {
    TLSFiles files;
    ScratchFiles() {
        char pattern[] = "/tmp/vel-tls-XXXXXX";
        if (::mkdtemp(pattern) == nullptr) {
            ADD_FAILURE() << "mkdtemp failed";
            return;
        }
        files.dir = pattern;
        const std::string d = files.dir + "/";
        files.caCert = d + "ca.pem";
        files.caKey = d + "ca.key";
        files.serverCert = d + "server.pem";
        files.serverKey = d + "server.key";
        files.encryptedServerKey = d + "server-encrypted.key";
        files.expiredCert = d + "expired.pem";
        files.otherNameCert = d + "other-name.pem";
        files.selfSignedCert = d + "self-signed.pem";
        files.selfSignedKey = d + "self-signed.key";
        files.clientCert = d + "client.pem";
        files.clientKey = d + "client.key";
        files.expiredClientCert = d + "expired-client.pem";
        files.made = makeFiles(files);
    }
    ~ScratchFiles() {
        if (!files.dir.empty()) {
            (void)RunCommand({"rm", "-rf", files.dir});
        }
    }
};

}  // namespace

const TLSFiles& TLSFiles::Get() {
    static const ScratchFiles scratch;
    return scratch.files;
}

std::string ReadTextFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

VEL_TLSContext ServerContext(const std::string& cert, const std::string& key) {
    const TLSFiles& files = TLSFiles::Get();
    VEL_TLSContext context(kVELTLS_Server);
    EXPECT_EQ(context.useCertificateChainFile((cert.empty() ? files.serverCert : cert).c_str()),
              kVELErr_Ok);
    EXPECT_EQ(context.usePrivateKeyFile((key.empty() ? files.serverKey : key).c_str()), kVELErr_Ok);
    return context;
}

VEL_TLSContext ClientContext() {
    VEL_TLSContext context(kVELTLS_Client);
    EXPECT_EQ(context.loadTrustedCAFile(TLSFiles::Get().caCert.c_str()), kVELErr_Ok);
    return context;
}

TLSSocketPair MakeTLSSocketPair(const VEL_TLSContext& server, const VEL_TLSContext& client) {
    TLSSocketPair pair;
    VEL_TLSAcceptor acceptor(0, "127.0.0.1", server);
    if (acceptor.open() != kVELErr_Ok) {
        ADD_FAILURE() << "TLS acceptor did not open";
        return pair;
    }
    // The handshake needs both sides at once: the server accepts in a thread of its own.
    std::future<VEL_Socket*> accepted = std::async(std::launch::async, [&acceptor] {
        VEL_Socket* socket = nullptr;
        return acceptor.accept(socket) == kVELErr_Ok ? socket : nullptr;
    });
    VEL_TLSConnector connector(acceptor.getLocalAddr().getPort(), "localhost", client);
    VEL_Socket* connected = nullptr;
    const VELErr_t code = connector.connect(connected);
    if (accepted.wait_for(std::chrono::seconds(10)) != std::future_status::ready) {
        (void)acceptor.close();  // no connection came: ends the accept
    }
    pair.server.reset(static_cast<VEL_TLSSocket*>(accepted.get()));
    pair.client.reset(static_cast<VEL_TLSSocket*>(connected));
    if (code != kVELErr_Ok || !pair.server) {
        ADD_FAILURE() << "TLS pair: connect gave " << code << ", accept "
                      << (pair.server ? "succeeded" : "failed");
        pair.client.reset();
        pair.server.reset();
    }
    return pair;
}

TLSSocketPair MakeTLSSocketPair() {
    return MakeTLSSocketPair(ServerContext(), ClientContext());
}

const std::vector<std::string> kOfferTLS10Only = {"-tls1", "-cipher", "DEFAULT@SECLEVEL=0"};

namespace {

std::vector<std::string> serverArguments(const std::string& cert, const std::string& key,
                                         const std::vector<std::string>& extra) {
    std::vector<std::string> argv = {"openssl", "s_server", "-accept", "127.0.0.1:0", "-naccept",
                                     "1",       "-cert",    cert,      "-key",        key};
    argv.insert(argv.end(), extra.begin(), extra.end());
    return argv;
}

}  // namespace

OpensslServer::OpensslServer(const std::string& cert, const std::string& key,
                             const std::vector<std::string>& extra)
    : _process(serverArguments(cert, key, extra)) {
    const std::string marker = "ACCEPT 127.0.0.1:";
    if (_process.waitForOutput(marker) && _process.waitForOutput("\n")) {
        const std::string out = _process.output();
        port = static_cast<unsigned short>(
                std::stoul(out.substr(out.find(marker) + marker.size())));
    }
}

std::unique_ptr<ChildProcess> OpensslClient(unsigned short port,
                                            const std::vector<std::string>& extra) {
    std::vector<std::string> argv = {"openssl", "s_client", "-connect",
                                     "127.0.0.1:" + std::to_string(port)};
    argv.insert(argv.end(), {"-CAfile", TLSFiles::Get().caCert, "-servername", "localhost",
                             "-verify_hostname", "localhost", "-verify_return_error", "-quiet"});
    argv.insert(argv.end(), extra.begin(), extra.end());
    return std::make_unique<ChildProcess>(argv);
}

}  // namespace veltest
