#include "VEL_TLSContext.h"

#include <cerrno>
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "TLSSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_TLSAcceptor.h"

namespace {

using veltest::ReadTextFile;
using veltest::TLSFiles;

class TLSContextTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_TRUE(TLSFiles::Get().made); }

    const TLSFiles& files = TLSFiles::Get();
    veltest::RecordingSink sink{kVELTrace_Error};
    veltest::ScopedSink installed{&sink};
};

VELErr_t loadFromMemory(VEL_TLSContext& context, const std::string& cert, const std::string& key) {
    const VELErr_t code = context.useCertificateChain(cert.data(), cert.size());
    return code != kVELErr_Ok ? code : context.usePrivateKey(key.data(), key.size());
}

struct LoadCase {
    const char* name;
    std::function<VELErr_t(VEL_TLSContext&, const TLSFiles&)> load;
    VELErr_t expected;
    const char* traced;  // part of the error line ("" for a success)
};

TEST_F(TLSContextTest, LoadingReportsUnreadableDamagedAndMismatchedInput) {
    const std::string garbage = "-----BEGIN CERTIFICATE-----\nnot base64 at all\n";
    const LoadCase cases[] = {
            {"files",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 const VELErr_t code = c.useCertificateChainFile(f.serverCert.c_str());
                 return code != kVELErr_Ok ? code : c.usePrivateKeyFile(f.serverKey.c_str());
             },
             kVELErr_Ok, ""},
            {"memory",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 return loadFromMemory(c, ReadTextFile(f.serverCert), ReadTextFile(f.serverKey));
             },
             kVELErr_Ok, ""},
            {"missing file",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 return c.useCertificateChainFile((f.dir + "/absent.pem").c_str());
             },
             kVELErr_OpenFile, "absent.pem ; No such file or directory"},
            {"damaged certificate",
             [&](VEL_TLSContext& c, const TLSFiles&) {
                 return c.useCertificateChain(garbage.data(), garbage.size());
             },
             kVELErr_TLSBadCertificate, "Certificate chain in memory"},
            {"a key that is no key",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 return c.usePrivateKeyFile(f.serverCert.c_str());
             },
             kVELErr_TLSBadKey, "server.pem"},
            {"key of another certificate",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 const VELErr_t code = c.useCertificateChainFile(f.serverCert.c_str());
                 return code != kVELErr_Ok ? code : c.usePrivateKeyFile(f.selfSignedKey.c_str());
             },
             kVELErr_TLSKeyMismatch, "self-signed.key"},
            {"certificate of another key",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 const VELErr_t code = c.usePrivateKeyFile(f.serverKey.c_str());
                 return code != kVELErr_Ok ? code
                                           : c.useCertificateChainFile(f.selfSignedCert.c_str());
             },
             kVELErr_TLSKeyMismatch, "self-signed.pem"},
            {"encrypted key, right password",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 const VELErr_t code = c.useCertificateChainFile(f.serverCert.c_str());
                 return code != kVELErr_Ok ? code
                                           : c.usePrivateKeyFile(f.encryptedServerKey.c_str(),
                                                                 TLSFiles::kKeyPassword);
             },
             kVELErr_Ok, ""},
            {"encrypted key, wrong password",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 return c.usePrivateKeyFile(f.encryptedServerKey.c_str(), "wrong");
             },
             kVELErr_TLSBadKey, "server-encrypted.key"},
            // Without a password nothing may be asked on a terminal: the load just fails.
            {"encrypted key, no password",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 return c.usePrivateKeyFile(f.encryptedServerKey.c_str());
             },
             kVELErr_TLSBadKey, "server-encrypted.key"},
            {"trusted file without certificate",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 return c.loadTrustedCAFile(f.serverKey.c_str());
             },
             kVELErr_TLSTrustStore, "server.key"},
            {"trusted certificates in memory that are none",
             [&](VEL_TLSContext& c, const TLSFiles&) {
                 return c.loadTrustedCAs(garbage.data(), garbage.size());
             },
             kVELErr_TLSTrustStore, "Trusted certificates in memory"},
            {"trusted directory that is a file",
             [](VEL_TLSContext& c, const TLSFiles& f) {
                 return c.loadTrustedCADirectory(f.caCert.c_str());
             },
             kVELErr_OpenFile, "ca.pem ; Not a directory"},
    };
    for (const LoadCase& c : cases) {
        SCOPED_TRACE(c.name);
        sink.clear();
        VEL_TLSContext context(kVELTLS_Server);
        ASSERT_TRUE(context.isValid());
        EXPECT_EQ(c.load(context, files), c.expected);
        EXPECT_EQ(context.hasCertificateAndKey(), c.expected == kVELErr_Ok);
        if (c.expected != kVELErr_Ok) {
            EXPECT_TRUE(sink.contains(c.traced)) << "no trace naming " << c.traced;
        }
    }
}

TEST_F(TLSContextTest, AcceptorRefusesToOpenWithoutAServerCertificateAndKey) {
    VEL_TLSContext withoutKey(kVELTLS_Server);
    ASSERT_EQ(withoutKey.useCertificateChainFile(files.serverCert.c_str()), kVELErr_Ok);
    VEL_TLSContext client(kVELTLS_Client);
    for (const VEL_TLSContext* context : {&withoutKey, &client}) {
        VEL_TLSAcceptor acceptor(0, "127.0.0.1", *context);
        EXPECT_EQ(acceptor.open(), kVELErr_TLSNoCertificate);
        EXPECT_FALSE(acceptor.isValid());
    }
    VEL_TLSAcceptor ready(0, "127.0.0.1", veltest::ServerContext());
    EXPECT_EQ(ready.open(), kVELErr_Ok);
}

}  // namespace
