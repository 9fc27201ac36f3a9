#include "VEL_TLSSocket.h"

#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "SocketSupport.h"
#include "TLSSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_TCPSocket.h"
#include "VEL_TLSAcceptor.h"
#include "VEL_TLSConnector.h"
#include "VEL_TN3270.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using veltest::Fd;
using veltest::RawFd;
using veltest::TLSFiles;
using veltest::TLSSocketPair;

using Clock = std::chrono::steady_clock;

class TLSSocketTest : public veltest::SocketLeakTest {
protected:
    void SetUp() override {
        veltest::SocketLeakTest::SetUp();
        ASSERT_TRUE(TLSFiles::Get().made);
    }
};

// Forwards one connection between a client and `target`, recording every byte that passes in
// either direction: what an eavesdropper on the path sees. After tamperWithNext() it flips the
// last byte of the next chunk it forwards, as an attacker on the path could.
class RecordingRelay {
public:
    explicit RecordingRelay(unsigned short target)
        : _listener(veltest::RawListener(&_port)), _thread([this, target] { run(target); }) {}
    ~RecordingRelay() {
        _stop = true;
        _thread.join();
    }
    unsigned short port() const { return _port; }
    std::string captured() {
        std::lock_guard<std::mutex> hold(_lock);
        return _captured;
    }
    void tamperWithNext() { _tamper = true; }

private:
    void run(unsigned short target) {
        pollfd waiting{_listener.get(), POLLIN, 0};
        while (!_stop && ::poll(&waiting, 1, 50) == 0) {
        }
        if (_stop) {
            return;
        }
        RawFd client(::accept(_listener.get(), nullptr, nullptr));
        RawFd server = veltest::RawConnect(target);
        pollfd ends[2] = {{client.get(), POLLIN, 0}, {server.get(), POLLIN, 0}};
        char chunk[65536];
        while (!_stop) {
            if (::poll(ends, 2, 50) <= 0) {
                continue;
            }
            for (int i = 0; i < 2; ++i) {
                if ((ends[i].revents & (POLLIN | POLLHUP | POLLERR)) == 0) {
                    continue;
                }
                const ssize_t got = ::read(ends[i].fd, chunk, sizeof(chunk));
                if (got <= 0) {
                    return;  // one side has gone: so does the relay (closing both)
                }
                std::lock_guard<std::mutex> hold(_lock);
                _captured.append(chunk, static_cast<std::size_t>(got));
                if (_tamper.exchange(false)) {
                    chunk[got - 1] ^= 0x01;
                }
                (void)veltest::WriteAll(ends[1 - i].fd, chunk, static_cast<std::size_t>(got));
            }
        }
    }

    unsigned short _port = 0;
    RawFd _listener;
    std::atomic<bool> _stop{false};
    std::atomic<bool> _tamper{false};
    std::mutex _lock;
    std::string _captured;
    std::thread _thread;
};

struct Framing {
    const char* name;
    std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)> make;
};

// Receives one message, waiting first for a framing that only takes what is there (TN3270).
VELErr_t receive(VEL_Transport& transport, VEL_Socket& socket, VEL_Message& message) {
    const basis::TimeValue limit(10, 0);
    const VELErr_t waited = socket.waitForRead(&limit);
    return waited != kVELErr_Ok ? waited : transport.recvMessage(&message);
}

TEST_F(TLSSocketTest, EveryFramingRunsOverTLSNothingTravelsInClearAndNothingChangesUnseen) {
    const std::vector<Framing> framings = {
            {"OXLv1", [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, 1 << 20); }},
            {"OXLv2",
             [](VEL_Socket* s) {
                 auto t = std::make_unique<VEL_OXLv2>(s, 1 << 20);
                 t->setCompression(true);
                 return t;
             }},
            {"OXLv5", [](VEL_Socket* s) { return std::make_unique<VEL_OXLv5>(s); }},
            {"HOLM", [](VEL_Socket* s) { return std::make_unique<VEL_HOLM>(s, 1 << 20); }},
            {"TN3270", [](VEL_Socket* s) { return std::make_unique<VEL_TN3270>(s); }},
    };
    VEL_TLSAcceptor acceptor(0, "127.0.0.1", veltest::ServerContext());
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    RecordingRelay relay(acceptor.getLocalAddr().getPort());
    std::future<VEL_Socket*> accepted = std::async(std::launch::async, [&] {
        VEL_Socket* socket = nullptr;
        return acceptor.accept(socket) == kVELErr_Ok ? socket : nullptr;
    });
    VEL_TLSConnector connector(relay.port(), "127.0.0.1", veltest::ClientContext());
    VEL_Socket* connected = nullptr;
    ASSERT_EQ(connector.connect(connected), kVELErr_Ok);
    const std::unique_ptr<VEL_Socket> client(connected);
    const std::unique_ptr<VEL_Socket> server(accepted.get());
    ASSERT_TRUE(server);
    std::string secrets;
    for (const Framing& framing : framings) {
        SCOPED_TRACE(framing.name);
        const std::unique_ptr<VEL_Transport> near = framing.make(client.get());
        const std::unique_ptr<VEL_Transport> far = framing.make(server.get());
        // Long and repetitive enough for the compressing framings to compress.
        const std::string question =
                std::string("question in ") + framing.name + " 1234567890" + std::string(300, 'q');
        const std::string answer =
                std::string("answer in ") + framing.name + " 0987654321" + std::string(300, 'a');
        secrets += question + answer;
        VEL_Message out;
        VEL_Message in;
        ASSERT_EQ(out.setData(question.data(), question.size()), kVELErr_Ok);
        ASSERT_EQ(near->sendMessage(&out), kVELErr_Ok);
        ASSERT_EQ(receive(*far, *server, in), kVELErr_Ok);
        EXPECT_EQ(veltest::Body(in), question);
        ASSERT_EQ(out.setData(answer.data(), answer.size()), kVELErr_Ok);
        ASSERT_EQ(far->sendMessage(&out), kVELErr_Ok);
        ASSERT_EQ(receive(*near, *client, in), kVELErr_Ok);
        EXPECT_EQ(veltest::Body(in), answer);
    }
    const std::string wire = relay.captured();
    ASSERT_GT(wire.size(), secrets.size());
    EXPECT_EQ(wire.substr(0, 2), veltest::Hex("1603"));  // a TLS handshake record comes first
    for (const char* word : {"question", "answer", "1234567890", "0987654321"}) {
        EXPECT_EQ(wire.find(word), std::string::npos) << word << " travelled in clear";
    }
    // A record changed on the way is refused, not delivered.
    relay.tamperWithNext();
    ASSERT_EQ(server->send("altered?", 8), kVELErr_Ok);
    char buf[8];
    EXPECT_EQ(client->recv(buf, sizeof(buf)), kVELErr_TLSProtocol);
}

TEST_F(TLSSocketTest, CloseSendsCloseNotifyWhileACutConnectionReadsAsTruncated) {
    veltest::RecordingSink sink(kVELTrace_Error);
    veltest::ScopedSink installed(&sink);
    char byte = 0;
    TLSSocketPair ordered = veltest::MakeTLSSocketPair();
    ASSERT_TRUE(ordered.client && ordered.server);
    EXPECT_EQ(ordered.server->close(), kVELErr_Ok);
    basis::Thread::SetLastSystemErr(99);
    EXPECT_EQ(ordered.client->recv(&byte, 1), kVELErr_SockHalfClosed);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 0);

    TLSSocketPair cut = veltest::MakeTLSSocketPair();
    ASSERT_TRUE(cut.client && cut.server);
    ASSERT_EQ(::shutdown(Fd(*cut.server), SHUT_RDWR), 0);  // the end, without the TLS goodbye
    EXPECT_EQ(cut.client->recv(&byte, 1), kVELErr_TLSTruncated);
    EXPECT_TRUE(sink.contains("without close_notify"));
    EXPECT_EQ(cut.client->recv(&byte, 1), kVELErr_TLSTruncated);  // the session stays failed
}

TEST_F(TLSSocketTest, HandshakeEndsWithinItsTimeOutWhenThePeerStaysSilent) {
    // A client that connects and never speaks holds accept for the handshake time-out only.
    VEL_TLSAcceptor acceptor(0, "127.0.0.1", veltest::ServerContext());
    acceptor.setHandshakeTimeOut(1);
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    RawFd silentClient = veltest::RawConnect(acceptor.getLocalAddr().getPort());
    VEL_Socket* accepted = nullptr;
    auto start = Clock::now();
    EXPECT_EQ(acceptor.accept(accepted), kVELErr_Timeout);
    EXPECT_EQ(accepted, nullptr);
    auto took = Clock::now() - start;
    EXPECT_GE(took, milliseconds(900));
    EXPECT_LT(took, seconds(3));

    // A listener whose connection is never answered: the connect time-out bounds the handshake.
    unsigned short port = 0;
    const RawFd listener = veltest::RawListener(&port);
    VEL_TLSConnector connector(port, "localhost", veltest::ClientContext());
    connector.setCnctTimeOut(1);
    VEL_Socket* connected = nullptr;
    start = Clock::now();
    EXPECT_EQ(connector.connect(connected), kVELErr_Timeout);
    EXPECT_EQ(connected, nullptr);
    took = Clock::now() - start;
    EXPECT_GE(took, milliseconds(900));
    EXPECT_LT(took, seconds(3));
}

// The socket's time-outs bound its transfers; sendUntil and recvUntil are bounded by the caller's
// deadline instead, whatever the socket's own (a receive would otherwise wait without limit).
TEST_F(TLSSocketTest, TransfersKeepTheSocketTimeOutsOrTheCallersDeadline) {
    for (const bool deadline : {false, true}) {
        SCOPED_TRACE(deadline ? "the caller's deadline" : "the socket's time-outs");
        TLSSocketPair pair = veltest::MakeTLSSocketPair();
        ASSERT_TRUE(pair.client && pair.server);
        VEL_SockOptions options;
        options.setNonBlock(!deadline);  // native time-outs: each wait of a receive is bounded
        options.setRecvTimeOut(deadline ? 10 : 1);
        options.setSendTimeOut(deadline ? 10 : 1);
        ASSERT_EQ(pair.client->setOptions(options), kVELErr_Ok);
        const auto inOneSecond = [] {
            return basis::TimeValue::GetHRTime() + basis::TimeValue(1, 0);
        };
        char buf[8];
        auto start = Clock::now();
        EXPECT_EQ(deadline ? pair.client->recvUntil(buf, sizeof(buf), inOneSecond())
                           : pair.client->recv(buf, sizeof(buf)),
                  kVELErr_Timeout);
        EXPECT_GE(Clock::now() - start, milliseconds(900));
        EXPECT_LT(Clock::now() - start, seconds(3));

        // The peer never reads: a send that fills both buffers ends at its limit.
        const std::string big(32 << 20, 'x');
        const auto size = static_cast<unsigned int>(big.size());
        start = Clock::now();
        EXPECT_EQ(deadline ? pair.client->sendUntil(big.data(), size, inOneSecond())
                           : pair.client->send(big.data(), size),
                  kVELErr_Timeout);
        EXPECT_GE(Clock::now() - start, milliseconds(900));
        EXPECT_LT(Clock::now() - start, seconds(3));
    }
}

TEST_F(TLSSocketTest, CloseFromAnotherThreadReleasesABlockedRecv) {
    TLSSocketPair pair = veltest::MakeTLSSocketPair();
    ASSERT_TRUE(pair.client && pair.server);
    std::atomic<pid_t> receiverTid{0};
    std::atomic<bool> done{false};
    VELErr_t result = kVELErr_Ok;
    std::thread receiver([&] {
        receiverTid = veltest::CurrentTid();
        char buf[16];
        result = pair.client->recv(buf, sizeof(buf));
        done = true;
    });
    ASSERT_TRUE(veltest::WaitFor([&] { return receiverTid.load() != 0; }));
    ASSERT_TRUE(veltest::WaitUntilSleeping(receiverTid.load()));
    EXPECT_EQ(pair.client->close(), kVELErr_Ok);
    const bool ended = veltest::WaitFor([&] { return done.load(); }, milliseconds(5000));
    if (!ended) {
        (void)pair.server->send("0123456789abcdef", 16);  // so that the thread can be joined
    }
    receiver.join();
    ASSERT_TRUE(ended) << "recv was not released by close()";
    EXPECT_EQ(result, kVELErr_SockHalfClosed);
}

TEST_F(TLSSocketTest, OneThreadReceivesWhileAnotherSends) {
    // A reader blocked in recv must not hold the session against the sender (as a client with a
    // reader thread does): the peer echoes what the sender sends, which ends the receive.
    TLSSocketPair pair = veltest::MakeTLSSocketPair();
    ASSERT_TRUE(pair.client && pair.server);
    std::atomic<pid_t> readerTid{0};
    std::future<std::string> reader = std::async(std::launch::async, [&] {
        readerTid = veltest::CurrentTid();
        char buf[4] = {};
        const VELErr_t code = pair.client->recv(buf, sizeof(buf));
        return code == kVELErr_Ok ? std::string(buf, sizeof(buf)) : std::to_string(code);
    });
    ASSERT_TRUE(veltest::WaitFor([&] { return readerTid.load() != 0; }));
    ASSERT_TRUE(veltest::WaitUntilSleeping(readerTid.load()));
    std::future<VELErr_t> sent =
            std::async(std::launch::async, [&] { return pair.client->send("echo", 4); });
    const bool sentInTime = sent.wait_for(seconds(5)) == std::future_status::ready;
    char echo[4];
    if (!sentInTime) {
        (void)pair.server->send("none", 4);  // frees the reader, and so the sender
    } else {
        ASSERT_EQ(pair.server->recv(echo, 4), kVELErr_Ok);
        ASSERT_EQ(pair.server->send(echo, 4), kVELErr_Ok);
    }
    EXPECT_TRUE(sentInTime) << "the send waited for the blocked receive";
    EXPECT_EQ(sent.get(), kVELErr_Ok);
    EXPECT_EQ(reader.get(), sentInTime ? "echo" : "none");
}

// Child body, with the default SIGPIPE disposition: sends until the closed peer's reset comes
// back. Exits 0 when the failure came back as a status code.
[[noreturn]] void writeToClosedPeer() {
    signal(SIGPIPE, SIG_DFL);
    TLSSocketPair pair = veltest::MakeTLSSocketPair();
    if (!pair.client) {
        std::_Exit(3);
    }
    pair.server.reset();
    const std::string chunk(65536, 'p');
    VELErr_t code = kVELErr_Ok;
    for (int i = 0; i < 1000 && code == kVELErr_Ok; ++i) {
        code = pair.client->send(chunk.data(), static_cast<unsigned int>(chunk.size()));
    }
    std::_Exit(code == kVELErr_Send || code == kVELErr_SockHalfClosed ? 0 : 2);
}

TEST_F(TLSSocketTest, WritingToAClosedPeerDoesNotRaiseSigPipe) {
    EXPECT_EXIT(writeToClosedPeer(), ::testing::ExitedWithCode(0), "");
}

// A client with or without a certificate against a server that verifies clients.
struct ClientCertificateCase {
    VELTLSVerify_t serverMode;
    bool clientHasCertificate;
    VELErr_t accepted;
};

TEST_F(TLSSocketTest, ServersVerifyClientCertificatesWhenAsked) {
    const TLSFiles& files = TLSFiles::Get();
    const ClientCertificateCase cases[] = {
            {kVELTLSVerify_Required, true, kVELErr_Ok},
            {kVELTLSVerify_Required, false, kVELErr_TLSCertificate},
            {kVELTLSVerify_IfPresent, false, kVELErr_Ok},
    };
    for (const ClientCertificateCase& c : cases) {
        SCOPED_TRACE(std::to_string(c.serverMode) +
                     (c.clientHasCertificate ? " with" : " without"));
        VEL_TLSContext serverContext = veltest::ServerContext();
        ASSERT_EQ(serverContext.loadTrustedCAFile(files.caCert.c_str()), kVELErr_Ok);
        ASSERT_EQ(serverContext.setPeerVerification(c.serverMode), kVELErr_Ok);
        VEL_TLSContext clientContext = veltest::ClientContext();
        if (c.clientHasCertificate) {
            ASSERT_EQ(clientContext.useCertificateChainFile(files.clientCert.c_str()), kVELErr_Ok);
            ASSERT_EQ(clientContext.usePrivateKeyFile(files.clientKey.c_str()), kVELErr_Ok);
        }
        VEL_TLSAcceptor acceptor(0, "127.0.0.1", serverContext);
        ASSERT_EQ(acceptor.open(), kVELErr_Ok);
        std::future<VEL_Socket*> connected = std::async(std::launch::async, [&] {
            VEL_TLSConnector connector(acceptor.getLocalAddr().getPort(), "localhost",
                                       clientContext);
            VEL_Socket* socket = nullptr;
            return connector.connect(socket) == kVELErr_Ok ? socket : nullptr;
        });
        VEL_Socket* accepted = nullptr;
        EXPECT_EQ(acceptor.accept(accepted), c.accepted);
        const std::unique_ptr<VEL_TLSSocket> server(static_cast<VEL_TLSSocket*>(accepted));
        const std::unique_ptr<VEL_Socket> client(connected.get());
        if (server) {
            EXPECT_EQ(server->getPeerSubject().find("CN=vel test client") != std::string::npos,
                      c.clientHasCertificate);
        }
    }
}

TEST_F(TLSSocketTest, DeferredHandshakeRunsInTheFirstTransferOfTheAcceptedSocket) {
    VEL_TLSAcceptor acceptor(0, "127.0.0.1", veltest::ServerContext());
    acceptor.setDeferHandshake(true);
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    std::future<VELErr_t> client = std::async(std::launch::async, [&] {
        VEL_TLSConnector connector(acceptor.getLocalAddr().getPort(), "localhost",
                                   veltest::ClientContext());
        VEL_Socket* socket = nullptr;
        VELErr_t code = connector.connect(socket);
        const std::unique_ptr<VEL_Socket> owned(socket);
        if (code == kVELErr_Ok) {
            code = socket->send("ping", 4);
        }
        return code;
    });
    VEL_Socket* accepted = nullptr;
    ASSERT_EQ(acceptor.accept(accepted), kVELErr_Ok);
    const std::unique_ptr<VEL_TLSSocket> server(static_cast<VEL_TLSSocket*>(accepted));
    EXPECT_FALSE(server->isEstablished());  // the client is still waiting for the handshake
    char buf[4];
    ASSERT_EQ(server->recv(buf, 4), kVELErr_Ok);
    EXPECT_EQ(std::string(buf, 4), "ping");
    EXPECT_TRUE(server->isEstablished());
    EXPECT_EQ(client.get(), kVELErr_Ok);
}

}  // namespace
