#include <linux/sockios.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "FramedTestSupport.h"
#include "MemorySocket.h"
#include "TLSSupport.h"
#include "TestSupport.h"
#include "VEL_TCPConnector.h"
#include "VEL_TCPSocket.h"
#include "VEL_TLSByteStream.h"
#include "VEL_TLSConnector.h"
#include "VEL_TLSContext.h"
#include "VEL_TLSSocket.h"
#include "VEL_Tools.h"

namespace {

using frametest::CloseOf;
using frametest::Frame;
using frametest::LocalPort;
using frametest::Oxl1;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using veltest::Recorder;
using veltest::TLSFiles;

constexpr unsigned long kMaxBody = 4 << 20;

// A TLS echo server on a running reactor of the back end under test, and blocking TLS clients.
// After each test the reactor is stopped and cleaned, and every socket, descriptor and message
// buffer must be back.
class FramedTLSTest : public frametest::FramedReactorTest {
protected:
    void SetUp() override {
        ASSERT_TRUE(TLSFiles::Get().made);
        FramedReactorTest::SetUp();
    }

    // Starts the TLS echo server; its port.
    unsigned short listen(const VELFramedLimits_t& limits = VELFramedLimits_t()) {
        _acceptor = VEL_FramedAcceptor::Create(
                *_reactor, VEL_SockAddr(0, "127.0.0.1"),
                boost::make_shared<frametest::EchoFactory>(_log, limits));
        EXPECT_EQ(_acceptor->useTLS(veltest::ServerContext()), kVELErr_Ok);
        EXPECT_EQ(_acceptor->open(), kVELErr_Ok);
        return _acceptor->getLocalAddr().getPort();
    }

    // A blocking TLS client of `port`, verifying the server as "localhost" with `context`.
    static std::unique_ptr<VEL_TLSSocket> connect(
            unsigned short port, const VEL_TLSContext& context = veltest::ClientContext(),
            VELErr_t expected = kVELErr_Ok) {
        VEL_TLSConnector connector(port, "localhost", context);
        VEL_Socket* socket = nullptr;
        EXPECT_EQ(connector.connect(socket), expected) << connector.getFailureDetail();
        return std::unique_ptr<VEL_TLSSocket>(static_cast<VEL_TLSSocket*>(socket));
    }

    // Sends `body` in a frame over `socket` and returns the body of the answer.
    static std::string roundTrip(VEL_Socket& socket, const std::string& body) {
        VEL_OXLv1 transport(&socket, kMaxBody);
        VEL_Message message;
        EXPECT_EQ(message.setData(body.data(), body.size()), kVELErr_Ok);
        EXPECT_EQ(transport.sendMessage(&message), kVELErr_Ok);
        if (transport.recvMessage(&message) != kVELErr_Ok) {
            return "(no answer)";
        }
        return message.data() == nullptr ? "" : std::string(message.data(), message.size());
    }
};

// Holds the reactor thread in a call-back until released, so that a peer's bytes pile up on the
// descriptor meanwhile.
class ReactorHold {
public:
    explicit ReactorHold(VEL_IOReactor& reactor)
        : _reactor(reactor),
          _pair(veltest::MakeRawPair()),
          _handler(veltest::ScriptedHandler::Make(static_cast<unsigned int>(_pair.server.get()))) {
        _handler->onInput = [this] {
            _gate.pass();
            (void)veltest::Drain(_pair.server.get());
            return true;
        };
        EXPECT_EQ(_reactor.addEventHandler(_handler, VEL_IOReactor::kNoInactivityTimeout, 1),
                  kVELErr_Ok);
        EXPECT_TRUE(veltest::WriteAll(_pair.client.get(), "!"));
        EXPECT_TRUE(_gate.waitEntered(milliseconds(10000)));
    }
    ~ReactorHold() {
        release();
        veltest::RemoveAndWait(_reactor, _handler);
    }
    void release() { _gate.open(); }

private:
    VEL_IOReactor& _reactor;
    veltest::RawPair _pair;
    const boost::shared_ptr<veltest::ScriptedHandler> _handler;
    veltest::Gate _gate;
};

// Bytes sent on `fd` that the peer's system has not acknowledged yet.
int Unacknowledged(int fd) {
    int queued = 0;
    EXPECT_EQ(::ioctl(fd, SIOCOUTQ, &queued), 0);
    return queued;
}

// The server's handshakes run in its reactor, and so do those of client connections made over a
// VEL_TLSByteStream: messages sent before the handshake wait for it. Frames decrypted inside the
// session while the descriptor has nothing more to report are not left there: five whole records
// that arrive while the reactor is busy are read in one read (64 KiB and a header) that leaves
// most of the last record decrypted, and the echo comes back whole. A burst of frames of every
// size comes back whole and in order. A client that checks the wrong name refuses the server.
TEST_P(FramedTLSTest, ConnectionsOfBothRolesHandshakeInTheReactorAndEchoEveryFrame) {
    VELFramedLimits_t limits;
    limits.readBudget = 1;     // one read per dispatch
    limits.frameDeadline = 5;  // a frame left behind fails the test in 5 s, not 30
    const unsigned short port = listen(limits);
    const std::unique_ptr<VEL_TLSSocket> blocking = connect(port);
    ASSERT_TRUE(blocking);
    std::vector<std::string> records;  // 730 frames of 112 bytes and one of 160: 5 x 16 KiB
    for (unsigned int i = 0; i < 731; ++i) {
        records.push_back(veltest::Pattern(i < 730 ? 100 : 148, i));
    }
    std::vector<std::string> sizes;
    for (std::size_t size : {0, 1, 100, 16383, 16384, 16385, 70000, 1 << 20}) {
        sizes.push_back(veltest::Pattern(size, static_cast<unsigned int>(sizes.size())));
    }
    for (unsigned int i = 0; i < 600; ++i) {
        sizes.push_back(veltest::Pattern(1 + i * 7 % 1500, i));
    }
    for (const std::vector<std::string>* bodies : {&records, &sizes}) {
        std::string burst;
        for (const std::string& body : *bodies) {
            burst += Frame(body);
        }
        std::unique_ptr<ReactorHold> hold;
        if (bodies == &records) {
            ASSERT_EQ(burst.size(), 5u * VEL_TLSByteStream::kRecordBytes);
            hold.reset(new ReactorHold(*_reactor));
        }
        ASSERT_EQ(blocking->send(burst.data(), static_cast<unsigned int>(burst.size())),
                  kVELErr_Ok);
        if (hold) {
            ASSERT_TRUE(
                    veltest::WaitFor([&] { return Unacknowledged(veltest::Fd(*blocking)) == 0; }));
            hold.reset();
        }
        VEL_OXLv1 transport(blocking.get(), kMaxBody);
        for (std::size_t i = 0; i < bodies->size(); ++i) {
            VEL_Message message;
            ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok) << "message " << i;
            ASSERT_TRUE(std::string(message.data(), message.size()) == (*bodies)[i])
                    << "message " << i;
        }
    }

    for (const char* name : {"localhost", "other.example"}) {
        SCOPED_TRACE(name);
        const bool refused = std::string(name) != "localhost";
        VEL_TCPConnector tcp(port, "127.0.0.1");
        VEL_Socket* connected = nullptr;
        ASSERT_EQ(tcp.connect(connected), kVELErr_Ok);
        std::unique_ptr<VEL_TLSByteStream> stream;
        ASSERT_EQ(VEL_TLSByteStream::Create(
                          std::unique_ptr<VEL_TCPSocket>(static_cast<VEL_TCPSocket*>(connected)),
                          veltest::ClientContext(), name, &stream),
                  kVELErr_Ok);
        const auto handler = boost::make_shared<Recorder>(_log, name);
        handler->onMessageHook = [this, name](VEL_FramedConnection&, VEL_Message& message) {
            _log.add(std::string(name) + " got " + std::string(message.data(), message.size()));
        };
        const auto client =
                VEL_FramedConnection::Create(*_reactor, std::move(stream), Oxl1(), handler);
        ASSERT_EQ(client->start(), kVELErr_Ok);
        for (const char* body : {"one", "two", "three"}) {
            VEL_Message message;
            ASSERT_EQ(message.setData(body, std::strlen(body)), kVELErr_Ok);
            // Queued behind the handshake; a refused one may have failed already.
            const VELErr_t sent = client->send(&message);
            EXPECT_TRUE(sent == kVELErr_Ok || (refused && sent == kVELErr_SockNotConnected))
                    << sent;
        }
        if (!refused) {
            ASSERT_TRUE(_log.waitCount("localhost got three", 1));
            std::vector<std::string> got;
            for (const std::string& event : _log.events()) {
                if (event.compare(0, 13, "localhost got") == 0) {
                    got.push_back(event);
                }
            }
            EXPECT_EQ(got, (std::vector<std::string>{"localhost got one", "localhost got two",
                                                     "localhost got three"}));
            client->close();
        } else {
            EXPECT_TRUE(_log.waitCount(handler->closeEvent(kVELErr_TLSCertificate), 1));
            EXPECT_NE(client->getFailureDetail().find("hostname mismatch"), std::string::npos)
                    << client->getFailureDetail();
            EXPECT_EQ(_log.count("other.example got one"), 0u);
        }
    }
}

// The worst peers of a TLS listener: some connect and say nothing, some stop in the middle of
// their first handshake message, one completes its handshake and stops in the middle of a frame.
// A client that comes after them all is served (handshake and round trips) before any of them
// reaches its deadline; then each is closed for it, no sooner than its deadline.
TEST_P(FramedTLSTest, StalledTLSPeersHoldNobodyElse) {
    VELFramedLimits_t limits;
    limits.handshakeDeadline = 2;
    limits.frameDeadline = 2;
    const unsigned short port = listen(limits);
    const auto started = steady_clock::now();
    std::vector<veltest::RawFd> silent, halfHello;
    for (int i = 0; i < 3; ++i) {
        silent.push_back(veltest::RawConnect(port));
        halfHello.push_back(veltest::RawConnect(port));
        // A handshake record announcing 512 bytes, of which 10 come.
        ASSERT_TRUE(veltest::WriteAll(halfHello.back().get(),
                                      veltest::Hex("16 0301 0200 01 0001FC 0303") + "0123"));
    }
    const std::unique_ptr<VEL_TLSSocket> halfFrame = connect(port);
    ASSERT_TRUE(halfFrame);
    const std::string frame = Frame(veltest::Pattern(100, 1));
    ASSERT_EQ(halfFrame->send(frame.data(), 13), kVELErr_Ok);

    const std::unique_ptr<VEL_TLSSocket> good = connect(port);
    ASSERT_TRUE(good);
    for (int i = 0; i < 20; ++i) {
        const std::string body = "round trip " + std::to_string(i);
        ASSERT_EQ(roundTrip(*good, body), body);
    }
    _log.add("good client served");

    std::vector<std::string> closes;
    for (const auto* group : {&silent, &halfHello}) {
        for (const veltest::RawFd& peer : *group) {
            closes.push_back(CloseOf(peer.get(), kVELErr_Timeout));
        }
    }
    closes.push_back(CloseOf(veltest::Fd(*halfFrame), kVELErr_Timeout));
    (void)veltest::WaitFor(
            [&] {
                return std::all_of(closes.begin(), closes.end(),
                                   [&](const std::string& close) { return _log.count(close); });
            },
            seconds(8));
    const auto took = steady_clock::now() - started;
    for (const std::string& close : closes) {
        EXPECT_EQ(_log.count(close), 1u) << "missing: " << close;
    }
    EXPECT_GE(took, milliseconds(1750)) << "closed before the deadline";
    const std::vector<std::string> events = _log.events();
    const auto served = std::find(events.begin(), events.end(), "good client served");
    for (auto event = events.begin(); event != served; ++event) {
        ADD_FAILURE() << "before the good client was served: " << *event;
    }
}

// Peers that fail their handshake, or end their session well or badly: each connection closes
// with its status (the TLS reason in the close trace), and a client beside them is still served.
struct Ending {
    const char* name;
    // Plays the peer on `port`, keeping its socket or descriptor; returns its local port.
    std::function<unsigned short(unsigned short port, std::unique_ptr<VEL_TLSSocket>* keep,
                                 veltest::RawFd* raw)>
            peer;
    VELErr_t reason;
    const char* detail;  // in the close trace, when not null
};

TEST_P(FramedTLSTest, FailedHandshakesAndEndsCloseWithTheirStatus) {
    const auto plain = [](unsigned short port, std::unique_ptr<VEL_TLSSocket>*,
                          veltest::RawFd* raw) {
        *raw = veltest::RawConnect(port);
        EXPECT_TRUE(veltest::WriteAll(raw->get(), Frame("plain")));
        return LocalPort(raw->get());
    };
    const auto cut = [](unsigned short port, std::unique_ptr<VEL_TLSSocket>*, veltest::RawFd* raw) {
        *raw = veltest::RawConnect(port);
        EXPECT_TRUE(veltest::WriteAll(raw->get(), veltest::Hex("16 0301 0200 01")));
        EXPECT_EQ(::shutdown(raw->get(), SHUT_WR), 0);
        return LocalPort(raw->get());
    };
    const auto untrusting = [](unsigned short port, std::unique_ptr<VEL_TLSSocket>* keep,
                               veltest::RawFd*) {
        VEL_TCPConnector tcp(port, "127.0.0.1");
        VEL_Socket* connected = nullptr;
        EXPECT_EQ(tcp.connect(connected), kVELErr_Ok);
        const std::unique_ptr<VEL_TCPSocket> socket(static_cast<VEL_TCPSocket*>(connected));
        keep->reset(new VEL_TLSSocket(VEL_TLSContext(kVELTLS_Client)));  // trusts nobody
        EXPECT_EQ((*keep)->attach(*socket, "localhost"), kVELErr_Ok);
        EXPECT_EQ((*keep)->handshake(), kVELErr_TLSCertificate);
        return LocalPort(veltest::Fd(**keep));
    };
    const auto ending = [](bool notify) {
        return [notify](unsigned short port, std::unique_ptr<VEL_TLSSocket>* keep,
                        veltest::RawFd*) {
            *keep = connect(port);
            EXPECT_EQ(roundTrip(**keep, "last words"), "last words");
            const int fd = veltest::Fd(**keep);
            const unsigned short local = LocalPort(fd);
            if (!notify) {
                EXPECT_EQ(::shutdown(fd, SHUT_RDWR), 0);  // the session's close_notify is lost
            }
            EXPECT_EQ((*keep)->close(), kVELErr_Ok);
            return local;
        };
    };
    const Ending endings[] = {
            {"plain TCP", plain, kVELErr_TLSProtocol, "wrong version number"},
            {"cut in the handshake", cut, kVELErr_TLSHandshake, "without close_notify"},
            {"server certificate refused", untrusting, kVELErr_TLSCertificate, "unknown ca"},
            {"cut after a frame", ending(false), kVELErr_TLSTruncated, "without close_notify"},
            {"close_notify", ending(true), kVELErr_SockHalfClosed, nullptr},
    };
    const unsigned short port = listen();
    const std::unique_ptr<VEL_TLSSocket> bystander = connect(port);
    ASSERT_TRUE(bystander);
    for (const Ending& tested : endings) {
        SCOPED_TRACE(tested.name);
        veltest::RecordingSink sink(kVELTrace_FrameError | kVELTrace_Frame);
        veltest::ScopedSink installed(&sink);
        std::unique_ptr<VEL_TLSSocket> kept;
        veltest::RawFd raw;
        const std::string close =
                frametest::PeerClose(tested.peer(port, &kept, &raw), tested.reason);
        EXPECT_TRUE(_log.waitCount(close, 1)) << close;
        const std::string text = VEL_Tools::GetErrStr(tested.reason);
        EXPECT_TRUE(sink.contains("FRAME - " + text.substr(0, text.rfind(" {"))));
        if (tested.detail != nullptr) {
            EXPECT_TRUE(sink.contains(tested.detail)) << "no close trace with " << tested.detail;
        }
        EXPECT_EQ(roundTrip(*bystander, tested.name), tested.name);
    }
}

INSTANTIATE_TEST_SUITE_P(BackEnds, FramedTLSTest,
                         ::testing::Values(&veltest::MakeSelectReactor, &veltest::MakeEpollReactor),
                         veltest::BackEndName);

}  // namespace
