// TLS test material: certificates and keys made with the openssl command in a scratch folder
// (once per test process, removed at its end), contexts built from them, and a loopback pair of
// connected TLS sockets.
#ifndef TESTS_SUPPORT_TLSSUPPORT_H
#define TESTS_SUPPORT_TLSSUPPORT_H

#include <memory>
#include <string>

#include "VEL_TLSAcceptor.h"
#include "VEL_TLSContext.h"
#include "VEL_TLSSocket.h"

namespace veltest {

// The files, by path. Every certificate but the self-signed one is issued by the test CA; the
// server's name localhost and address 127.0.0.1, for 30 days (expiredCert: the same key and
// names, expired yesterday).
struct TLSFiles {
    bool made = false;  // false when the openssl command failed (reported to the test)
    std::string dir;
    std::string caCert, caKey;
    std::string serverCert, serverKey;
    std::string encryptedServerKey;  // serverKey under the password kKeyPassword
    std::string expiredCert;
    std::string selfSignedCert, selfSignedKey;  // CN localhost, not issued by the CA
    std::string clientCert, clientKey;          // CN "vel test client"

    static constexpr const char* kKeyPassword = "correct horse";

    static const TLSFiles& Get();
};

// The contents of a file ("" when it cannot be read).
std::string ReadTextFile(const std::string& path);

// A server context with `cert` and `key` (defaults: the server's), a client context trusting the
// test CA. Failures are reported to the calling test.
VEL_TLSContext ServerContext(const std::string& cert = std::string(),
                             const std::string& key = std::string());
VEL_TLSContext ClientContext();

// A TLS connection over loopback made by VEL_TLSConnector and VEL_TLSAcceptor with these
// contexts (the client names "localhost"); the handshake has completed on both sides.
struct TLSSocketPair {
    std::unique_ptr<VEL_TLSSocket> client;
    std::unique_ptr<VEL_TLSSocket> server;
};
// Fails the calling test (and returns empty pointers) when the pair cannot be made.
TLSSocketPair MakeTLSSocketPair(const VEL_TLSContext& server, const VEL_TLSContext& client);
TLSSocketPair MakeTLSSocketPair();

}  // namespace veltest

#endif  // TESTS_SUPPORT_TLSSUPPORT_H
