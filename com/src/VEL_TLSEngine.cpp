#include "VEL_TLSEngine.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <climits>
#include <cstring>

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "Thread.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TLSContext.h"
#include "VEL_TLSTools.h"

namespace {

const VEL_StaticInit kStaticInit;

// OpenSSL reasons meaning that the peer sent bytes that are not TLS records at all, or records
// that cannot be right: a plain-text peer, or damage on the way.
bool notTLS(int reason) {
    switch (reason) {
        case SSL_R_WRONG_VERSION_NUMBER:
        case SSL_R_HTTP_REQUEST:
        case SSL_R_HTTPS_PROXY_REQUEST:
        case SSL_R_PACKET_LENGTH_TOO_LONG:
        case SSL_R_ENCRYPTED_LENGTH_TOO_LONG:
        case SSL_R_RECORD_LENGTH_MISMATCH:
        case SSL_R_RECORD_TOO_SMALL:
        case SSL_R_BAD_PACKET_LENGTH:
        case SSL_R_BAD_RECORD_TYPE:
        case SSL_R_UNKNOWN_PROTOCOL:
        case SSL_R_DECRYPTION_FAILED_OR_BAD_RECORD_MAC:
            return true;
        default:
            return false;
    }
}

// OpenSSL reasons meaning that a certificate was refused: by the peer (its alerts) or because
// the peer sent none where one is required.
bool certificateRefused(int reason) {
    switch (reason) {
        case SSL_R_SSLV3_ALERT_BAD_CERTIFICATE:
        case SSL_R_SSLV3_ALERT_UNSUPPORTED_CERTIFICATE:
        case SSL_R_SSLV3_ALERT_CERTIFICATE_REVOKED:
        case SSL_R_SSLV3_ALERT_CERTIFICATE_EXPIRED:
        case SSL_R_SSLV3_ALERT_CERTIFICATE_UNKNOWN:
        case SSL_R_TLSV1_ALERT_UNKNOWN_CA:
        case SSL_R_TLSV1_ALERT_ACCESS_DENIED:
        case SSL_R_TLSV13_ALERT_CERTIFICATE_REQUIRED:
        case SSL_R_PEER_DID_NOT_RETURN_A_CERTIFICATE:
            return true;
        default:
            return false;
    }
}

int clampToInt(std::size_t size) {
    return size > static_cast<std::size_t>(INT_MAX) ? INT_MAX : static_cast<int>(size);
}

}  // namespace

namespace velcom {

std::string takeTLSErrors() {
    std::string reasons;
    unsigned long error = 0;
    while ((error = ERR_get_error()) != 0) {
        const char* reason = ERR_reason_error_string(error);
        if (!reasons.empty()) {
            reasons += ", ";
        }
        reasons += reason != nullptr ? reason : "error " + std::to_string(ERR_GET_REASON(error));
    }
    return reasons;
}

}  // namespace velcom

VEL_TLSEngine::VEL_TLSEngine()
    : _ssl(nullptr),
      _fd(-1),
      _ioError(0),
      _ioEnd(false),
      _established(false),
      _failure(kVELErr_Ok) {}

VEL_TLSEngine::~VEL_TLSEngine() {
    reset();
}

void VEL_TLSEngine::reset() {
    SSL_free(_ssl);  // frees the BIO too; accepts null
    _ssl = nullptr;
    _fd = -1;
    _ioError = 0;
    _ioEnd = false;
    _established = false;
    _failure = kVELErr_Ok;
    _detail.clear();
}

VELErr_t VEL_TLSEngine::start(const VEL_TLSContext& context, int fd, const char* serverName) {
    reset();
    ERR_clear_error();
    VELErr_t code = makeSession(context, fd);
    if (code == kVELErr_Ok && context.getRole() == kVELTLS_Client) {
        code = setServerName(serverName);
    }
    if (code != kVELErr_Ok) {
        const std::string detail = _detail;
        reset();
        _detail = detail;
    }
    return code;
}

VELErr_t VEL_TLSEngine::makeSession(const VEL_TLSContext& context, int fd) {
    if (!context.isValid() || fd < 0) {
        _detail = !context.isValid() ? "invalid TLS context" : "no descriptor";
        return kVELErr_TLSInit;
    }
    _ssl = SSL_new(context.native());
    BIO* bio = _ssl != nullptr ? BIO_new(DescriptorMethod()) : nullptr;
    if (bio == nullptr) {
        _detail = velcom::takeTLSErrors();
        return kVELErr_TLSInit;
    }
    BIO_set_data(bio, this);
    BIO_set_init(bio, 1);
    SSL_set_bio(_ssl, bio, bio);  // the session owns the BIO from here
    _fd = fd;
    // Partial writes: each write reports the record it sent, so that a caller with an output
    // queue knows what went; moving buffer: the queue may hand the same bytes from elsewhere.
    SSL_set_mode(_ssl, SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    // Read ahead: one receive takes what has arrived, not one record header at a time.
    SSL_set_read_ahead(_ssl, 1);
    if (context.getRole() == kVELTLS_Client) {
        SSL_set_connect_state(_ssl);
    } else {
        SSL_set_accept_state(_ssl);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSEngine::setServerName(const char* serverName) {
    if (serverName == nullptr || *serverName == '\0') {
        return kVELErr_Ok;
    }
    in_addr address{};
    const bool isAddress = ::inet_pton(AF_INET, serverName, &address) == 1;
    // SNI carries host names only, never addresses (RFC 6066).
    if (!isAddress && SSL_set_tlsext_host_name(_ssl, serverName) != 1) {
        _detail = velcom::takeTLSErrors();
        return kVELErr_TLSInit;
    }
    if ((SSL_get_verify_mode(_ssl) & SSL_VERIFY_PEER) == 0) {
        return kVELErr_Ok;
    }
    X509_VERIFY_PARAM* param = SSL_get0_param(_ssl);
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    const int set = isAddress ? X509_VERIFY_PARAM_set1_ip_asc(param, serverName)
                              : SSL_set1_host(_ssl, serverName);
    if (set != 1) {
        _detail = velcom::takeTLSErrors();
        return kVELErr_TLSInit;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSEngine::handshake(VELTLSWant_t* want) {
    if (_failure != kVELErr_Ok || _ssl == nullptr) {
        return _ssl == nullptr ? kVELErr_SockNotConnected : _failure;
    }
    if (_established) {
        return kVELErr_Ok;
    }
    ERR_clear_error();
    _ioError = 0;
    const int result = SSL_do_handshake(_ssl);
    if (result == 1) {
        _established = true;
        return kVELErr_Ok;
    }
    return outcome(result, kHandshake, want);
}

VELErr_t VEL_TLSEngine::read(char* buf, std::size_t size, std::size_t* got, VELTLSWant_t* want) {
    *got = 0;
    if (_failure != kVELErr_Ok || _ssl == nullptr) {
        return _ssl == nullptr ? kVELErr_SockNotConnected : _failure;
    }
    ERR_clear_error();
    _ioError = 0;
    const int result = SSL_read(_ssl, buf, clampToInt(size));
    if (result > 0) {
        _established = true;  // a read finishes a handshake that was not driven to its end
        *got = static_cast<std::size_t>(result);
        return kVELErr_Ok;
    }
    return outcome(result, _established ? kRead : kHandshake, want);
}

VELErr_t VEL_TLSEngine::peek(VELTLSWant_t* want) {
    if (_failure != kVELErr_Ok || _ssl == nullptr) {
        return _ssl == nullptr ? kVELErr_SockNotConnected : _failure;
    }
    if (SSL_pending(_ssl) > 0) {
        return kVELErr_Ok;
    }
    ERR_clear_error();
    _ioError = 0;
    char byte = 0;
    const int result = SSL_peek(_ssl, &byte, 1);
    if (result > 0) {
        _established = true;
        return kVELErr_Ok;
    }
    return outcome(result, _established ? kRead : kHandshake, want);
}

VELErr_t VEL_TLSEngine::write(const char* buf, std::size_t size, std::size_t* put,
                              VELTLSWant_t* want) {
    *put = 0;
    if (_failure != kVELErr_Ok || _ssl == nullptr) {
        return _ssl == nullptr ? kVELErr_SockNotConnected : _failure;
    }
    ERR_clear_error();
    _ioError = 0;
    const int result = SSL_write(_ssl, buf, clampToInt(size));
    if (result > 0) {
        _established = true;
        *put = static_cast<std::size_t>(result);
        return kVELErr_Ok;
    }
    return outcome(result, _established ? kWrite : kHandshake, want);
}

VELErr_t VEL_TLSEngine::shutdown(VELTLSWant_t* want) {
    // After a fatal error nothing may be sent; before the handshake there is nothing to end.
    if (_ssl == nullptr || _failure != kVELErr_Ok || !_established) {
        return kVELErr_Ok;
    }
    ERR_clear_error();
    _ioError = 0;
    // 0: our close_notify went out (the peer's is not awaited); 1: both have.
    const int result = SSL_shutdown(_ssl);
    if (result >= 0) {
        return kVELErr_Ok;
    }
    return outcome(result, kShutdown, want);
}

std::size_t VEL_TLSEngine::decrypted() const {
    return _ssl != nullptr ? static_cast<std::size_t>(SSL_pending(_ssl)) : 0;
}

bool VEL_TLSEngine::hasBufferedInput() const {
    return _ssl != nullptr && (SSL_pending(_ssl) > 0 || SSL_has_pending(_ssl) == 1);
}

std::string VEL_TLSEngine::describe() const {
    if (_ssl == nullptr || !_established) {
        return std::string();
    }
    const char* cipher = SSL_get_cipher_name(_ssl);
    return std::string(SSL_get_version(_ssl)) + " " + (cipher != nullptr ? cipher : "");
}

std::string VEL_TLSEngine::peerSubject() const {
    if (_ssl == nullptr) {
        return std::string();
    }
    X509* peer = SSL_get0_peer_certificate(_ssl);
    if (peer == nullptr) {
        return std::string();
    }
    char line[256];
    X509_NAME_oneline(X509_get_subject_name(peer), line, sizeof(line));
    return line;
}

VELErr_t VEL_TLSEngine::outcome(int result, Step step, VELTLSWant_t* want) {
    switch (SSL_get_error(_ssl, result)) {
        case SSL_ERROR_WANT_READ:
            *want = kVELTLSWant_Read;
            return kVELErr_Incomplete;
        case SSL_ERROR_WANT_WRITE:
            *want = kVELTLSWant_Write;
            return kVELErr_Incomplete;
        case SSL_ERROR_ZERO_RETURN:
            // The peer's close_notify: an orderly end, unless the handshake was still going.
            if (step == kHandshake) {
                return fail(kVELErr_TLSHandshake,
                            "the peer ended the session during the handshake");
            }
            return velcom::endOfStream();
        case SSL_ERROR_SYSCALL:
            if (_ioError != 0) {
                return systemFailure(step);
            }
            // The end of the stream without close_notify, where OpenSSL reports no reason.
            ERR_clear_error();
            basis::Thread::SetLastSystemErr(0);
            return fail(step == kHandshake ? kVELErr_TLSHandshake : kVELErr_TLSTruncated,
                        "the peer closed the connection without close_notify");
        case SSL_ERROR_SSL:
            return libraryFailure(step);
        default:
            return fail(kVELErr_TLSProtocol, velcom::takeTLSErrors());
    }
}

VELErr_t VEL_TLSEngine::libraryFailure(Step step) {
    basis::Thread::SetLastSystemErr(0);  // no system call failed: do not show a stale error
    const unsigned long first = ERR_peek_error();
    const int reason = ERR_GET_LIB(first) == ERR_LIB_SSL ? ERR_GET_REASON(first) : 0;
    if (reason == SSL_R_CERTIFICATE_VERIFY_FAILED) {
        const long result = SSL_get_verify_result(_ssl);
        ERR_clear_error();
        return fail(kVELErr_TLSCertificate, std::string("certificate verify failed: ") +
                                                    X509_verify_cert_error_string(result));
    }
    const std::string detail = velcom::takeTLSErrors();
    if (reason == SSL_R_UNEXPECTED_EOF_WHILE_READING) {
        return fail(step == kHandshake ? kVELErr_TLSHandshake : kVELErr_TLSTruncated,
                    "the peer closed the connection without close_notify");
    }
    if (certificateRefused(reason)) {
        return fail(kVELErr_TLSCertificate, detail);
    }
    if (notTLS(reason) || step != kHandshake) {
        return fail(kVELErr_TLSProtocol, detail);
    }
    return fail(kVELErr_TLSHandshake, detail);
}

VELErr_t VEL_TLSEngine::systemFailure(Step step) {
    const int err = _ioError;
    ERR_clear_error();
    basis::Thread::SetLastSystemErr(err);
    VELErr_t code = kVELErr_TLSHandshake;
    if (step == kRead) {
        code = velcom::mapRecvError(err, velcom::RecvOp::kRecv);
    } else if (step == kWrite || step == kShutdown) {
        code = velcom::mapSendError(err, velcom::SendOp::kSend);
    }
    return fail(code, std::strerror(err));
}

VELErr_t VEL_TLSEngine::fail(VELErr_t code, const std::string& detail) {
    _failure = code;
    _detail = detail;
    return code;
}

BIO_METHOD* VEL_TLSEngine::DescriptorMethod() {
    // Made once and kept for the life of the process (sessions may exist until its end).
    static BIO_METHOD* const method = [] {
        BIO_METHOD* made = BIO_meth_new(BIO_get_new_index() | BIO_TYPE_SOURCE_SINK, "vel socket");
        if (made != nullptr) {
            BIO_meth_set_write(made, &VEL_TLSEngine::BioWrite);
            BIO_meth_set_read(made, &VEL_TLSEngine::BioRead);
            BIO_meth_set_ctrl(made, &VEL_TLSEngine::BioCtrl);
        }
        return made;
    }();
    return method;
}

int VEL_TLSEngine::BioWrite(BIO* bio, const char* data, int size) {
    VEL_TLSEngine* engine = static_cast<VEL_TLSEngine*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    ssize_t sent = 0;
    do {
        // MSG_NOSIGNAL: a peer that has gone gives EPIPE, never SIGPIPE.
        sent = ::send(engine->_fd, data, static_cast<std::size_t>(size),
                      MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (sent < 0 && errno == EINTR);
    if (sent >= 0) {
        return static_cast<int>(sent);
    }
    const int err = errno;  // before anything else runs
    if (err == EAGAIN || err == EWOULDBLOCK) {
        BIO_set_retry_write(bio);
    } else {
        engine->_ioError = err;
    }
    return -1;
}

int VEL_TLSEngine::BioRead(BIO* bio, char* data, int size) {
    VEL_TLSEngine* engine = static_cast<VEL_TLSEngine*>(BIO_get_data(bio));
    BIO_clear_retry_flags(bio);
    ssize_t received = 0;
    do {
        received = ::recv(engine->_fd, data, static_cast<std::size_t>(size), MSG_DONTWAIT);
    } while (received < 0 && errno == EINTR);
    if (received > 0) {
        return static_cast<int>(received);
    }
    if (received == 0) {
        engine->_ioEnd = true;  // BIO_eof() then tells OpenSSL the stream has ended
        return 0;
    }
    const int err = errno;  // before anything else runs
    if (err == EAGAIN || err == EWOULDBLOCK) {
        BIO_set_retry_read(bio);
    } else {
        engine->_ioError = err;
    }
    return -1;
}

long VEL_TLSEngine::BioCtrl(BIO* bio, int command, long, void*) {
    const VEL_TLSEngine* engine = static_cast<const VEL_TLSEngine*>(BIO_get_data(bio));
    switch (command) {
        case BIO_CTRL_FLUSH:  // every write goes straight to the descriptor
            return 1;
        case BIO_CTRL_EOF:
            return engine != nullptr && engine->_ioEnd ? 1 : 0;
        default:
            return 0;
    }
}
