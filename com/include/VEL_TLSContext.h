/// @file
#ifndef COM_INCLUDE_VEL_TLSCONTEXT_H
#define COM_INCLUDE_VEL_TLSCONTEXT_H

#include <cstddef>

#include "VEL_Err.h"

struct ssl_ctx_st;

/// The side a context serves.
enum VELTLSRole_t { kVELTLS_Client = 0, kVELTLS_Server = 1 };

/// How a side checks its peer's certificate.
enum VELTLSVerify_t {
    /// No check: a client accepts any server (exposed to anybody on the path); a server asks
    /// for no client certificate. The server default.
    kVELTLSVerify_None = 0,
    /// Server: asks for a client certificate and verifies it when one is sent. A client treats
    /// this as kVELTLSVerify_Required.
    kVELTLSVerify_IfPresent = 1,
    /// Client: the server's chain must verify and its certificate must name the server (the
    /// default). Server: the client must send a certificate that verifies.
    kVELTLSVerify_Required = 2
};

/// VEL_TLSContext: the settings that TLS connections of one role (client or server) share: this
/// side's certificate chain and private key, the certificates it trusts, and how it verifies its
/// peer. TLS connectors, acceptors and sockets take a context and make each connection's session
/// from it.
///
/// @verbatim
///   VEL_TLSContext client(kVELTLS_Client);          // verifies the server and its name
///   client.loadTrustedCAFile("ca.pem");
///   VEL_TLSConnector connector(7001, "server.example", client);
///
///   VEL_TLSContext server(kVELTLS_Server);
///   server.useCertificateChainFile("server-chain.pem");
///   server.usePrivateKeyFile("server-key.pem");
///   VEL_TLSAcceptor acceptor(7001, nullptr, server);
/// @endverbatim
///
/// Every context allows TLS 1.2 and TLS 1.3 only, with OpenSSL's default cipher choice. A client
/// context verifies the server's certificate chain against the trusted certificates and checks
/// that the certificate names the server (kVELTLSVerify_Required, the default); it trusts nothing
/// until certificates are loaded (a file, a hashed directory, or the system's store). A server
/// context asks for no client certificate by default; kVELTLSVerify_IfPresent asks for one and
/// verifies it when the client sends it, kVELTLSVerify_Required refuses a client without one.
///
/// PEM input: a chain is the leaf certificate followed by its intermediates; a key may be
/// encrypted, with its password given (no password is ever asked for on a terminal). Load the
/// certificate before the key: the key is then checked against it.
///
/// Ownership: copies share one underlying context (reference counted), as do the connections made
/// from it, which keep it alive as long as they need it.
///
/// Thread safety: configure a context before connections are made from it; from then on any
/// number of threads may make connections from it (or from copies) at once. Changing it while
/// connections are being made is not supported.
class VEL_TLSContext {
public:
    /// A context with the defaults of `role`. isValid() tells whether it could be made.
    explicit VEL_TLSContext(VELTLSRole_t role);
    ///@{
    /// Shares the context of `other`.
    VEL_TLSContext(const VEL_TLSContext& other);
    VEL_TLSContext& operator=(const VEL_TLSContext& other);
    ///@}
    ~VEL_TLSContext();

    /// False when the TLS library could not make the context (every operation then reports
    /// kVELErr_TLSInit).
    bool isValid() const { return _context != nullptr; }
    /// The role given at construction.
    VELTLSRole_t getRole() const { return _role; }

    ///@{
    /// This side's certificate chain, PEM (a file, or `size` bytes in memory): the leaf first, then
    /// its intermediates. Replaces a chain loaded before. kVELErr_OpenFile (the file cannot be
    /// read; the system error is stored), kVELErr_TLSBadCertificate (no PEM certificate, or a
    /// damaged one), kVELErr_TLSKeyMismatch (a key is already loaded and does not belong to the
    /// leaf), kVELErr_TLSInit. Failures are traced with the file name and the reason.
    VELErr_t useCertificateChainFile(const char* path);
    VELErr_t useCertificateChain(const char* pem, std::size_t size);
    ///@}
    ///@{
    /// This side's private key, PEM (a file, or `size` bytes in memory); `password` for an
    /// encrypted key (null: none). kVELErr_OpenFile, kVELErr_TLSBadKey (not a PEM key, damaged, or
    /// wrong or missing password), kVELErr_TLSKeyMismatch (the key does not belong to the loaded
    /// certificate; the key is not kept), kVELErr_TLSInit.
    VELErr_t usePrivateKeyFile(const char* path, const char* password = nullptr);
    VELErr_t usePrivateKey(const char* pem, std::size_t size, const char* password = nullptr);
    ///@}
    /// True once a certificate and a private key that belongs to it are loaded.
    bool hasCertificateAndKey() const;

    /// Adds the certificates of a PEM file (one or more) to those trusted. kVELErr_OpenFile,
    /// kVELErr_TLSTrustStore (no PEM certificate in it, or a damaged one), kVELErr_TLSInit.
    VELErr_t loadTrustedCAFile(const char* path);
    /// Adds the certificates of PEM text in memory to those trusted. kVELErr_TLSTrustStore,
    /// kVELErr_TLSInit.
    VELErr_t loadTrustedCAs(const char* pem, std::size_t size);
    /// Trusts the certificates of a directory laid out by hash ("openssl rehash"), looked up
    /// when needed. kVELErr_OpenFile when it is not a readable directory, kVELErr_TLSTrustStore.
    VELErr_t loadTrustedCADirectory(const char* path);
    /// Trusts the system's certificate store (OpenSSL's default locations).
    /// kVELErr_TLSTrustStore, kVELErr_TLSInit.
    VELErr_t useSystemTrustStore();

    /// How the peer is checked (see VELTLSVerify_t). kVELErr_TLSInit for an invalid context.
    VELErr_t setPeerVerification(VELTLSVerify_t mode);
    /// How the peer is checked.
    VELTLSVerify_t getPeerVerification() const;

    /// The OpenSSL context (SSL_CTX), for the library's sessions.
    ssl_ctx_st* native() const { return _context; }

private:
    VELErr_t loadCertificateChain(const char* pem, std::size_t size, const char* source);
    VELErr_t loadPrivateKey(const char* pem, std::size_t size, const char* password,
                            const char* source);
    VELErr_t loadTrusted(const char* pem, std::size_t size, const char* source);

    VELTLSRole_t _role;
    ssl_ctx_st* _context;  ///< one reference, null when the context could not be made
};

#endif  // COM_INCLUDE_VEL_TLSCONTEXT_H
