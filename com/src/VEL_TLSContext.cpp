#include "VEL_TLSContext.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>

#include "Thread.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TLSTools.h"

namespace {

const VEL_StaticInit kStaticInit;

// Certificate, key and trust files are small; a larger one is refused rather than read whole.
constexpr long kLargestFile = 16L * 1024 * 1024;

struct BioFree {
    void operator()(BIO* bio) const { BIO_free(bio); }
};
struct X509Free {
    void operator()(X509* certificate) const { X509_free(certificate); }
};
struct KeyFree {
    void operator()(EVP_PKEY* key) const { EVP_PKEY_free(key); }
};
using BioPtr = std::unique_ptr<BIO, BioFree>;
using X509Ptr = std::unique_ptr<X509, X509Free>;
using KeyPtr = std::unique_ptr<EVP_PKEY, KeyFree>;

// Reads the whole file into `content`; 0, or the errno of the failure (EFBIG when too large).
int readFile(const char* path, std::string& content) {
    std::FILE* file = std::fopen(path, "rb");
    if (file == nullptr) {
        return errno;
    }
    content.clear();
    char chunk[4096];
    int err = 0;
    std::size_t got = 0;
    while ((got = std::fread(chunk, 1, sizeof(chunk), file)) > 0) {
        if (content.size() + got > static_cast<std::size_t>(kLargestFile)) {
            err = EFBIG;
            break;
        }
        content.append(chunk, got);
    }
    if (err == 0 && std::ferror(file) != 0) {
        err = errno != 0 ? errno : EIO;
    }
    std::fclose(file);
    return err;
}

// The memory BIO over `pem`, read-only.
BioPtr memoryBio(const char* pem, std::size_t size) {
    if (size > static_cast<std::size_t>(kLargestFile)) {
        return BioPtr();
    }
    return BioPtr(BIO_new_mem_buf(pem, static_cast<int>(size)));
}

// True when the error queue ends with "no PEM start line": reading further PEM blocks found none.
bool noMorePem() {
    const unsigned long last = ERR_peek_last_error();
    return ERR_GET_LIB(last) == ERR_LIB_PEM && ERR_GET_REASON(last) == PEM_R_NO_START_LINE;
}

// The password callback: hands over the password given to the call, and refuses when none was
// given (OpenSSL would otherwise ask on the terminal).
int givePassword(char* buf, int size, int, void* userdata) {
    const char* password = static_cast<const char*>(userdata);
    if (password == nullptr) {
        return 0;
    }
    const std::size_t length = std::strlen(password);
    if (length > static_cast<std::size_t>(size)) {
        return 0;
    }
    std::memcpy(buf, password, length);
    return static_cast<int>(length);
}

VELErr_t failed(VELErr_t code, const char* source, const std::string& reason) {
    velcom::traceComError(code, [&] {
        return std::string(source) + (reason.empty() ? std::string() : " ; " + reason);
    });
    return code;
}

// A failure reported by OpenSSL: the reason is taken from (and cleared off) the error queue.
VELErr_t failedInLibrary(VELErr_t code, const char* source) {
    return failed(code, source, velcom::takeTLSErrors());
}

// Reads `path` into `content`, or reports kVELErr_OpenFile with the system error stored.
VELErr_t readInput(const char* path, std::string& content) {
    const int err = readFile(path != nullptr ? path : "", content);
    if (err != 0) {
        basis::Thread::SetLastSystemErr(err);
        return failed(kVELErr_OpenFile, path != nullptr ? path : "(no file)", std::strerror(err));
    }
    return kVELErr_Ok;
}

}  // namespace

VEL_TLSContext::VEL_TLSContext(VELTLSRole_t role) : _role(role), _context(nullptr) {
    ERR_clear_error();
    _context = SSL_CTX_new(role == kVELTLS_Client ? TLS_client_method() : TLS_server_method());
    if (_context == nullptr) {
        (void)failedInLibrary(kVELErr_TLSInit, "Creating a TLS context");
        return;
    }
    // TLS 1.0 and 1.1 are deprecated (RFC 8996) and refused in both directions.
    if (SSL_CTX_set_min_proto_version(_context, TLS1_2_VERSION) != 1) {
        (void)failedInLibrary(kVELErr_TLSInit, "Setting the lowest TLS version");
        SSL_CTX_free(_context);
        _context = nullptr;
        return;
    }
    // Renegotiation is a TLS 1.2 feature with a history of attacks; nothing here needs it.
    SSL_CTX_set_options(_context, SSL_OP_NO_RENEGOTIATION);
    SSL_CTX_set_verify(_context, role == kVELTLS_Client ? SSL_VERIFY_PEER : SSL_VERIFY_NONE,
                       nullptr);
}

VEL_TLSContext::VEL_TLSContext(const VEL_TLSContext& other)
    : _role(other._role), _context(other._context) {
    if (_context != nullptr) {
        SSL_CTX_up_ref(_context);
    }
}

VEL_TLSContext& VEL_TLSContext::operator=(const VEL_TLSContext& other) {
    if (this != &other) {
        if (other._context != nullptr) {
            SSL_CTX_up_ref(other._context);
        }
        SSL_CTX_free(_context);
        _role = other._role;
        _context = other._context;
    }
    return *this;
}

VEL_TLSContext::~VEL_TLSContext() {
    SSL_CTX_free(_context);  // accepts null
}

VELErr_t VEL_TLSContext::useCertificateChainFile(const char* path) {
    std::string content;
    const VELErr_t code = readInput(path, content);
    return code != kVELErr_Ok ? code : loadCertificateChain(content.data(), content.size(), path);
}

VELErr_t VEL_TLSContext::useCertificateChain(const char* pem, std::size_t size) {
    return loadCertificateChain(pem, size, "Certificate chain in memory");
}

VELErr_t VEL_TLSContext::usePrivateKeyFile(const char* path, const char* password) {
    std::string content;
    const VELErr_t code = readInput(path, content);
    return code != kVELErr_Ok ? code
                              : loadPrivateKey(content.data(), content.size(), password, path);
}

VELErr_t VEL_TLSContext::usePrivateKey(const char* pem, std::size_t size, const char* password) {
    return loadPrivateKey(pem, size, password, "Private key in memory");
}

bool VEL_TLSContext::hasCertificateAndKey() const {
    if (_context == nullptr) {
        return false;
    }
    X509* certificate = SSL_CTX_get0_certificate(_context);
    EVP_PKEY* key = SSL_CTX_get0_privatekey(_context);
    return certificate != nullptr && key != nullptr &&
           X509_check_private_key(certificate, key) == 1;
}

VELErr_t VEL_TLSContext::loadTrustedCAFile(const char* path) {
    std::string content;
    const VELErr_t code = readInput(path, content);
    return code != kVELErr_Ok ? code : loadTrusted(content.data(), content.size(), path);
}

VELErr_t VEL_TLSContext::loadTrustedCAs(const char* pem, std::size_t size) {
    return loadTrusted(pem, size, "Trusted certificates in memory");
}

VELErr_t VEL_TLSContext::loadTrustedCADirectory(const char* path) {
    if (_context == nullptr) {
        return failed(kVELErr_TLSInit, "No TLS context", std::string());
    }
    struct stat status {};
    int err = 0;
    if (path == nullptr) {
        err = EINVAL;
    } else if (::stat(path, &status) != 0) {
        err = errno;
    } else if (!S_ISDIR(status.st_mode)) {
        err = ENOTDIR;
    } else if (::access(path, R_OK | X_OK) != 0) {
        err = errno;
    }
    if (err != 0) {
        basis::Thread::SetLastSystemErr(err);
        return failed(kVELErr_OpenFile, path != nullptr ? path : "(no directory)",
                      std::strerror(err));
    }
    ERR_clear_error();
    if (SSL_CTX_load_verify_locations(_context, nullptr, path) != 1) {
        return failedInLibrary(kVELErr_TLSTrustStore, path);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSContext::useSystemTrustStore() {
    if (_context == nullptr) {
        return failed(kVELErr_TLSInit, "No TLS context", std::string());
    }
    ERR_clear_error();
    if (SSL_CTX_set_default_verify_paths(_context) != 1) {
        return failedInLibrary(kVELErr_TLSTrustStore, "System certificate store");
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSContext::setPeerVerification(VELTLSVerify_t mode) {
    if (_context == nullptr) {
        return failed(kVELErr_TLSInit, "No TLS context", std::string());
    }
    int flags = SSL_VERIFY_NONE;
    if (mode != kVELTLSVerify_None) {
        flags = SSL_VERIFY_PEER;
        if (_role == kVELTLS_Server && mode == kVELTLSVerify_Required) {
            flags |= SSL_VERIFY_FAIL_IF_NO_PEER_CERT;
        }
    }
    SSL_CTX_set_verify(_context, flags, nullptr);
    return kVELErr_Ok;
}

VELTLSVerify_t VEL_TLSContext::getPeerVerification() const {
    const int flags = _context != nullptr ? SSL_CTX_get_verify_mode(_context) : SSL_VERIFY_NONE;
    if ((flags & SSL_VERIFY_PEER) == 0) {
        return kVELTLSVerify_None;
    }
    if (_role == kVELTLS_Server && (flags & SSL_VERIFY_FAIL_IF_NO_PEER_CERT) == 0) {
        return kVELTLSVerify_IfPresent;
    }
    return kVELTLSVerify_Required;
}

VELErr_t VEL_TLSContext::loadCertificateChain(const char* pem, std::size_t size,
                                              const char* source) {
    if (_context == nullptr) {
        return failed(kVELErr_TLSInit, source, "no TLS context");
    }
    ERR_clear_error();
    BioPtr input = memoryBio(pem, size);
    if (!input) {
        return failedInLibrary(kVELErr_TLSBadCertificate, source);
    }
    X509Ptr leaf(PEM_read_bio_X509_AUX(input.get(), nullptr, nullptr, nullptr));
    if (!leaf) {
        return failedInLibrary(kVELErr_TLSBadCertificate, source);
    }
    // OpenSSL silently drops a loaded key that does not belong to a new certificate.
    EVP_PKEY* key = SSL_CTX_get0_privatekey(_context);
    if (key != nullptr && X509_check_private_key(leaf.get(), key) != 1) {
        return failedInLibrary(kVELErr_TLSKeyMismatch, source);
    }
    STACK_OF(X509)* chain = sk_X509_new_null();
    if (chain == nullptr) {
        return failedInLibrary(kVELErr_TLSInit, source);
    }
    for (;;) {
        X509* next = PEM_read_bio_X509(input.get(), nullptr, nullptr, nullptr);
        if (next == nullptr) {
            break;
        }
        if (sk_X509_push(chain, next) == 0) {
            X509_free(next);
            sk_X509_pop_free(chain, X509_free);
            return failedInLibrary(kVELErr_TLSInit, source);
        }
    }
    if (!noMorePem()) {  // a damaged block after the leaf
        sk_X509_pop_free(chain, X509_free);
        return failedInLibrary(kVELErr_TLSBadCertificate, source);
    }
    ERR_clear_error();
    if (SSL_CTX_use_certificate(_context, leaf.get()) != 1) {
        sk_X509_pop_free(chain, X509_free);
        return failedInLibrary(kVELErr_TLSBadCertificate, source);
    }
    if (SSL_CTX_set0_chain(_context, chain) != 1) {  // takes the stack on success
        sk_X509_pop_free(chain, X509_free);
        return failedInLibrary(kVELErr_TLSBadCertificate, source);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSContext::loadPrivateKey(const char* pem, std::size_t size, const char* password,
                                        const char* source) {
    if (_context == nullptr) {
        return failed(kVELErr_TLSInit, source, "no TLS context");
    }
    ERR_clear_error();
    BioPtr input = memoryBio(pem, size);
    if (!input) {
        return failedInLibrary(kVELErr_TLSBadKey, source);
    }
    KeyPtr key(PEM_read_bio_PrivateKey(input.get(), nullptr, &givePassword,
                                       const_cast<char*>(password)));
    if (!key) {
        return failedInLibrary(kVELErr_TLSBadKey, source);
    }
    X509* certificate = SSL_CTX_get0_certificate(_context);
    if (certificate != nullptr && X509_check_private_key(certificate, key.get()) != 1) {
        return failedInLibrary(kVELErr_TLSKeyMismatch, source);
    }
    if (SSL_CTX_use_PrivateKey(_context, key.get()) != 1) {
        return failedInLibrary(kVELErr_TLSBadKey, source);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSContext::loadTrusted(const char* pem, std::size_t size, const char* source) {
    if (_context == nullptr) {
        return failed(kVELErr_TLSInit, source, "no TLS context");
    }
    ERR_clear_error();
    BioPtr input = memoryBio(pem, size);
    X509_STORE* store = SSL_CTX_get_cert_store(_context);
    if (!input || store == nullptr) {
        return failedInLibrary(kVELErr_TLSTrustStore, source);
    }
    int added = 0;
    for (;;) {
        X509Ptr certificate(PEM_read_bio_X509_AUX(input.get(), nullptr, nullptr, nullptr));
        if (!certificate) {
            break;
        }
        // The same certificate twice is not an error: X509_STORE_add_cert accepts it.
        if (X509_STORE_add_cert(store, certificate.get()) != 1) {
            return failedInLibrary(kVELErr_TLSTrustStore, source);
        }
        ++added;
    }
    if (added == 0 || !noMorePem()) {
        return failedInLibrary(kVELErr_TLSTrustStore, source);
    }
    ERR_clear_error();
    return kVELErr_Ok;
}
