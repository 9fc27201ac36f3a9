// TLS over loopback: 1 MiB bodies one way, 64-byte ping-pong, and handshakes, with VEL_TLSSocket
// against a plain OpenSSL loop (SSL_set_fd on a blocking socket) and against vel over plain TCP.
// Both ends run in this process; the certificate is a self-signed P-256 one for "localhost",
// made here with libcrypto and trusted by the clients.
#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <openssl/ec.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "Cases.h"
#include "Clients.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPSocket.h"
#include "VEL_TLSAcceptor.h"
#include "VEL_TLSConnector.h"
#include "VEL_TLSContext.h"
#include "VEL_TLSSocket.h"

namespace velbench {

namespace {

constexpr std::uint32_t kStreamBody = 1 << 20;
constexpr std::uint32_t kPingBody = 64;

struct SslCtxFree {
    void operator()(SSL_CTX* context) const { SSL_CTX_free(context); }
};
struct SslFree {
    void operator()(SSL* ssl) const { SSL_free(ssl); }
};
using SslCtxPtr = std::unique_ptr<SSL_CTX, SslCtxFree>;
using SslPtr = std::unique_ptr<SSL, SslFree>;

// A self-signed certificate for localhost and its key, PEM.
struct Material {
    std::string certificate;
    std::string key;
};

std::string pemOf(const std::function<int(BIO*)>& write) {
    BIO* bio = BIO_new(BIO_s_mem());
    std::string text;
    if (bio != nullptr && write(bio) == 1) {
        char* data = nullptr;
        const long size = BIO_get_mem_data(bio, &data);
        text.assign(data, static_cast<std::size_t>(size));
    }
    BIO_free(bio);
    return text;
}

Material makeMaterial() {
    // EVP_EC_gen casts its argument's const away, which -Wcast-qual refuses.
    char curve[] = "P-256";
    EVP_PKEY* key = EVP_PKEY_Q_keygen(nullptr, nullptr, "EC", curve);
    X509* certificate = X509_new();
    if (key == nullptr || certificate == nullptr) {
        throw BenchError("cannot make a key and certificate");
    }
    ASN1_INTEGER_set(X509_get_serialNumber(certificate), 1);
    X509_gmtime_adj(X509_getm_notBefore(certificate), -3600);
    X509_gmtime_adj(X509_getm_notAfter(certificate), 86400);
    X509_set_pubkey(certificate, key);
    X509_NAME* name = X509_get_subject_name(certificate);
    X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                               reinterpret_cast<const unsigned char*>("localhost"), -1, -1, 0);
    X509_set_issuer_name(certificate, name);
    X509V3_CTX context;
    X509V3_set_ctx_nodb(&context);
    X509V3_set_ctx(&context, certificate, certificate, nullptr, nullptr, 0);
    X509_EXTENSION* names = X509V3_EXT_conf_nid(nullptr, &context, NID_subject_alt_name,
                                                "DNS:localhost,IP:127.0.0.1");
    X509_add_ext(certificate, names, -1);
    X509_EXTENSION_free(names);
    X509_sign(certificate, key, EVP_sha256());
    Material material;
    material.certificate = pemOf([&](BIO* bio) { return PEM_write_bio_X509(bio, certificate); });
    material.key = pemOf([&](BIO* bio) {
        return PEM_write_bio_PrivateKey(bio, key, nullptr, nullptr, 0, nullptr, nullptr);
    });
    X509_free(certificate);
    EVP_PKEY_free(key);
    if (material.certificate.empty() || material.key.empty()) {
        throw BenchError("cannot write the key and certificate");
    }
    return material;
}

void check(VELErr_t code, const char* what) {
    if (code != kVELErr_Ok) {
        FailStatus(what, code);
    }
}

VEL_TLSContext velServerContext(const Material& material) {
    VEL_TLSContext context(kVELTLS_Server);
    check(context.useCertificateChain(material.certificate.data(), material.certificate.size()),
          "vel server certificate");
    check(context.usePrivateKey(material.key.data(), material.key.size()), "vel server key");
    return context;
}

VEL_TLSContext velClientContext(const Material& material) {
    VEL_TLSContext context(kVELTLS_Client);
    check(context.loadTrustedCAs(material.certificate.data(), material.certificate.size()),
          "vel client trust");
    return context;
}

// The plain OpenSSL contexts: the same certificate, versions and defaults as vel's.
SslCtxPtr plainContext(const Material& material, bool server) {
    SslCtxPtr context(SSL_CTX_new(server ? TLS_server_method() : TLS_client_method()));
    BIO* certificate = BIO_new_mem_buf(material.certificate.data(),
                                       static_cast<int>(material.certificate.size()));
    X509* parsed = PEM_read_bio_X509(certificate, nullptr, nullptr, nullptr);
    BIO_free(certificate);
    bool ok = context && parsed != nullptr &&
              SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) == 1;
    if (ok && server) {
        BIO* key = BIO_new_mem_buf(material.key.data(), static_cast<int>(material.key.size()));
        EVP_PKEY* pkey = PEM_read_bio_PrivateKey(key, nullptr, nullptr, nullptr);
        BIO_free(key);
        ok = SSL_CTX_use_certificate(context.get(), parsed) == 1 && pkey != nullptr &&
             SSL_CTX_use_PrivateKey(context.get(), pkey) == 1;
        EVP_PKEY_free(pkey);
    } else if (ok) {
        ok = X509_STORE_add_cert(SSL_CTX_get_cert_store(context.get()), parsed) == 1;
        SSL_CTX_set_verify(context.get(), SSL_VERIFY_PEER, nullptr);
    }
    X509_free(parsed);
    if (!ok) {
        throw BenchError("cannot make the plain OpenSSL contexts");
    }
    return context;
}

// A connection of plain OpenSSL sessions over blocking loopback sockets.
struct PlainTLSPair {
    Fd clientFd;
    Fd serverFd;
    SslPtr client;
    SslPtr server;
};

// One handshake over a new connection to `listener`; the server side runs on a thread.
PlainTLSPair plainPair(SSL_CTX* serverContext, SSL_CTX* clientContext, int listener,
                       unsigned short port) {
    PlainTLSPair pair;
    pair.clientFd = Connect(port);
    pair.serverFd = Accept(listener);
    pair.client.reset(SSL_new(clientContext));
    pair.server.reset(SSL_new(serverContext));
    SSL_set_fd(pair.client.get(), pair.clientFd.get());
    SSL_set_fd(pair.server.get(), pair.serverFd.get());
    SSL_set1_host(pair.client.get(), "localhost");
    std::future<int> accepted =
            std::async(std::launch::async, [&pair] { return SSL_accept(pair.server.get()); });
    const int connected = SSL_connect(pair.client.get());
    if (accepted.get() != 1 || connected != 1) {
        throw BenchError("plain OpenSSL handshake failed");
    }
    return pair;
}

// A connected pair of VEL_TLSSockets; the server side accepts on a thread.
std::pair<std::unique_ptr<VEL_Socket>, std::unique_ptr<VEL_Socket>> velPair(
        VEL_TLSAcceptor& acceptor, VEL_TLSConnector& connector) {
    std::future<VEL_Socket*> accepted = std::async(std::launch::async, [&acceptor] {
        VEL_Socket* socket = nullptr;
        return acceptor.accept(socket) == kVELErr_Ok ? socket : nullptr;
    });
    VEL_Socket* connected = nullptr;
    const VELErr_t code = connector.connect(connected);
    std::unique_ptr<VEL_Socket> server(accepted.get());
    check(code, "vel TLS connect");
    if (!server) {
        throw BenchError("vel TLS accept failed");
    }
    check(server->setOptions(VelOptions(false)), "vel server options");  // no-delay, as the client
    return {std::unique_ptr<VEL_Socket>(connected), std::move(server)};
}

bool sslReadFull(SSL* ssl, char* buf, std::size_t len) {
    while (len > 0) {
        const int got = SSL_read(ssl, buf, static_cast<int>(len));
        if (got <= 0) {
            return false;
        }
        buf += got;
        len -= static_cast<std::size_t>(got);
    }
    return true;
}

bool sslWriteFull(SSL* ssl, const char* buf, std::size_t len) {
    while (len > 0) {
        const int put = SSL_write(ssl, buf, static_cast<int>(len));
        if (put <= 0) {
            return false;
        }
        buf += put;
        len -= static_cast<std::size_t>(put);
    }
    return true;
}

// Runs `send` on a thread and `receive` here; returns the seconds from start to the end of both.
double timedPair(const std::function<void()>& send, const std::function<void()>& receive,
                 const std::function<void()>& unblock) {
    std::string senderError;
    const double start = Now();
    std::thread sender([&] {
        try {
            send();
        } catch (const std::exception& e) {
            senderError = e.what();
            unblock();
        }
    });
    std::string receiverError;
    try {
        receive();
    } catch (const std::exception& e) {
        receiverError = e.what();
        unblock();
    }
    const double seconds = Now() - start;
    sender.join();
    if (!senderError.empty() || !receiverError.empty()) {
        throw BenchError(senderError.empty() ? receiverError : senderError);
    }
    return seconds;
}

// What every case needs: the material, vel's contexts and acceptor, OpenSSL's contexts and a
// plain listener.
class TLSCase : public Case {
protected:
    void setUpTLS() {
        _material = makeMaterial();
        _velServer.reset(new VEL_TLSContext(velServerContext(_material)));
        _velClient.reset(new VEL_TLSContext(velClientContext(_material)));
        _acceptor.reset(new VEL_TLSAcceptor(0, "127.0.0.1", *_velServer));
        check(_acceptor->open(), "vel TLS acceptor open");
        // Made once: its host is resolved when it is made.
        _connector.reset(new VEL_TLSConnector(_acceptor->getLocalAddr().getPort(), "localhost",
                                              *_velClient, VelOptions(false)));
        _plainServer = plainContext(_material, true);
        _plainClient = plainContext(_material, false);
        _listener = Listen(&_listenerPort);
    }
    void tearDownTLS() {
        _connector.reset();
        _acceptor.reset();
        _listener.reset();
    }

    Material _material;
    std::unique_ptr<VEL_TLSContext> _velServer;
    std::unique_ptr<VEL_TLSContext> _velClient;
    std::unique_ptr<VEL_TLSAcceptor> _acceptor;
    std::unique_ptr<VEL_TLSConnector> _connector;
    SslCtxPtr _plainServer;
    SslCtxPtr _plainClient;
    Fd _listener;
    unsigned short _listenerPort = 0;
};

class TLSStreamCase : public TLSCase {
public:
    std::string id() const override { return "tls-stream"; }
    std::string title() const override { return "TLS streaming 1 MiB bodies one way"; }
    std::string unit() const override { return "MiB/s"; }
    std::vector<Reference> references() const override {
        return {{"plain OpenSSL SSL_write/SSL_read", 0.8}, {"vel over plain TCP", 0.0}};
    }
    unsigned long workCount(bool quick) const override { return quick ? 8 : 400; }

    void setUp(bool /*quick*/) override {
        setUpTLS();
        _vel = velPair(*_acceptor, *_connector);
        _plain = plainPair(_plainServer.get(), _plainClient.get(), _listener.get(), _listenerPort);
        VEL_TCPAcceptor acceptor(0, "127.0.0.1");
        check(acceptor.open(), "vel acceptor open");
        _tcpSender = ConnectVel(acceptor.getLocalAddr().getPort());
        VEL_Socket* accepted = nullptr;
        check(acceptor.accept(accepted), "vel accept");
        _tcpReceiver.reset(accepted);
        if (_outgoing.allocate(kStreamBody) != kVELErr_Ok) {
            throw BenchError("no buffer for the outgoing body");
        }
        std::memset(_outgoing.data(), 's', kStreamBody);
        _plainBody.assign(kStreamBody, 's');
        _plainIncoming.resize(kStreamBody);
    }

    double run(std::size_t index, unsigned long count) override {
        switch (index) {
            case 0:
                return runVel(_vel.first.get(), _vel.second.get(), count);
            case 1:
                return runPlain(count);
            default:
                return runVel(_tcpSender.get(), _tcpReceiver.get(), count);
        }
    }

    void tearDown() override {
        _vel.first.reset();
        _vel.second.reset();
        _plain = PlainTLSPair();
        _tcpSender.reset();
        _tcpReceiver.reset();
        _outgoing.reset();
        _incoming.reset();
        tearDownTLS();
    }

private:
    double runVel(VEL_Socket* sender, VEL_Socket* receiver, unsigned long count) {
        VEL_OXLv1 out(sender, kStreamBody);
        VEL_OXLv1 in(receiver, kStreamBody);
        return timedPair(
                [&] {
                    for (unsigned long i = 0; i < count; ++i) {
                        check(out.sendMessage(&_outgoing), "vel sendMessage");
                    }
                },
                [&] {
                    for (unsigned long i = 0; i < count; ++i) {
                        check(in.recvMessage(&_incoming), "vel recvMessage");
                        if (_incoming.size() != kStreamBody) {
                            throw BenchError("vel frame of the wrong size");
                        }
                    }
                },
                [receiver] {
                    (void)::shutdown(static_cast<int>(receiver->getHandle()), SHUT_RDWR);
                });
    }

    // The loop a user of OpenSSL writes: the header, then the body, each with SSL_write; the
    // header, then the body, each read whole with SSL_read.
    double runPlain(unsigned long count) {
        SSL* sender = _plain.client.get();
        SSL* receiver = _plain.server.get();
        return timedPair(
                [&] {
                    char header[kHeaderSize];
                    PutHeader(header, kStreamBody);
                    for (unsigned long i = 0; i < count; ++i) {
                        if (!sslWriteFull(sender, header, kHeaderSize) ||
                            !sslWriteFull(sender, _plainBody.data(), kStreamBody)) {
                            throw BenchError("plain SSL_write failed");
                        }
                    }
                },
                [&] {
                    char header[kHeaderSize];
                    for (unsigned long i = 0; i < count; ++i) {
                        if (!sslReadFull(receiver, header, kHeaderSize) ||
                            CheckHeader(header, kStreamBody) != kStreamBody ||
                            !sslReadFull(receiver, _plainIncoming.data(), kStreamBody)) {
                            throw BenchError("plain SSL_read failed");
                        }
                    }
                },
                [this] { (void)::shutdown(_plain.serverFd.get(), SHUT_RDWR); });
    }

    std::pair<std::unique_ptr<VEL_Socket>, std::unique_ptr<VEL_Socket>> _vel;
    PlainTLSPair _plain;
    std::unique_ptr<VEL_TCPSocket> _tcpSender;
    std::unique_ptr<VEL_Socket> _tcpReceiver;
    VEL_Message _outgoing;
    VEL_Message _incoming;
    std::vector<char> _plainBody;
    std::vector<char> _plainIncoming;
};

// An echo thread on `socket`: OXLv1 frames sent back until the connection ends.
std::thread echoThread(VEL_Socket* socket) {
    return std::thread([socket] {
        VEL_OXLv1 transport(socket, kPingBody);
        VEL_Message message;
        while (transport.recvMessage(&message) == kVELErr_Ok &&
               transport.sendMessage(&message) == kVELErr_Ok) {
        }
    });
}

class TLSPingPongCase : public TLSCase {
public:
    std::string id() const override { return "tls-pingpong"; }
    std::string title() const override { return "TLS ping-pong 1 conn, 64 B"; }
    std::string unit() const override { return "round trips/s"; }
    std::vector<Reference> references() const override { return {{"vel over plain TCP", 0.0}}; }
    unsigned long workCount(bool quick) const override { return quick ? 200 : 20000; }

    void setUp(bool /*quick*/) override {
        setUpTLS();
        _vel = velPair(*_acceptor, *_connector);
        VEL_TCPAcceptor acceptor(0, "127.0.0.1");
        check(acceptor.open(), "vel acceptor open");
        _tcpClient = ConnectVel(acceptor.getLocalAddr().getPort());
        VEL_Socket* accepted = nullptr;
        check(acceptor.accept(accepted), "vel accept");
        _tcpServer.reset(accepted);
        check(_tcpServer->setOptions(VelOptions(false)), "vel server options");
        _echoes.push_back(echoThread(_vel.second.get()));
        _echoes.push_back(echoThread(_tcpServer.get()));
        if (_request.allocate(kPingBody) != kVELErr_Ok) {
            throw BenchError("no buffer for the request");
        }
        std::memset(_request.data(), 'p', kPingBody);
    }

    double run(std::size_t index, unsigned long count) override {
        VEL_OXLv1 transport(index == 0 ? _vel.first.get() : _tcpClient.get(), kPingBody);
        const double start = Now();
        for (unsigned long i = 0; i < count; ++i) {
            check(transport.sendMessage(&_request), "vel sendMessage");
            check(transport.recvMessage(&_reply), "vel recvMessage");
        }
        return Now() - start;
    }

    void tearDown() override {
        // Closing the clients ends the echo threads' receives.
        _vel.first.reset();
        _tcpClient.reset();
        for (std::thread& echo : _echoes) {
            echo.join();
        }
        _echoes.clear();
        _vel.second.reset();
        _tcpServer.reset();
        tearDownTLS();
    }

private:
    std::pair<std::unique_ptr<VEL_Socket>, std::unique_ptr<VEL_Socket>> _vel;
    std::unique_ptr<VEL_TCPSocket> _tcpClient;
    std::unique_ptr<VEL_Socket> _tcpServer;
    std::vector<std::thread> _echoes;
    VEL_Message _request;
    VEL_Message _reply;
};

class TLSHandshakeCase : public TLSCase {
public:
    std::string id() const override { return "tls-handshake"; }
    std::string title() const override { return "TLS connect, handshake and close"; }
    std::string unit() const override { return "handshakes/s"; }
    std::vector<Reference> references() const override {
        return {{"plain OpenSSL SSL_connect/SSL_accept", 0.0}};
    }
    unsigned long workCount(bool quick) const override { return quick ? 10 : 1000; }

    void setUp(bool /*quick*/) override { setUpTLS(); }

    double run(std::size_t index, unsigned long count) override {
        const double start = Now();
        for (unsigned long i = 0; i < count; ++i) {
            if (index == 0) {
                (void)velPair(*_acceptor, *_connector);
            } else {
                (void)plainPair(_plainServer.get(), _plainClient.get(), _listener.get(),
                                _listenerPort);
            }
        }
        return Now() - start;
    }

    void tearDown() override { tearDownTLS(); }
};

}  // namespace

std::unique_ptr<Case> MakeTLSStreamCase() {
    return std::make_unique<TLSStreamCase>();
}

std::unique_ptr<Case> MakeTLSPingPongCase() {
    return std::make_unique<TLSPingPongCase>();
}

std::unique_ptr<Case> MakeTLSHandshakeCase() {
    return std::make_unique<TLSHandshakeCase>();
}

}  // namespace velbench
