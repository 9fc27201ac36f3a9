#include <sys/socket.h>

#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include "BufferMgr.h"
#include "MemorySocket.h"
#include "ReactorSupport.h"
#include "SocketSupport.h"
#include "TestSupport.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_SelectIOReactor.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPConnector.h"

namespace {

using veltest::Hex;
using veltest::ScriptedHandler;

constexpr unsigned long kMaxMessage = 1 << 20;

// A framing protocol as a server meets it: its transport, set up as a client would use it, and
// the header of a frame that announces a body of 4 GiB (none when the format cannot).
struct Protocol {
    const char* name;
    std::size_t headerSize;
    std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*, bool client)> make;
    std::string hugeHeader;
};

// Test names and failure messages show the protocol's name.
void PrintTo(const Protocol& protocol, std::ostream* out) {
    *out << protocol.name;
}

std::vector<Protocol> Protocols() {
    return {
            {"OXLv1", 12,
             [](VEL_Socket* s, bool) { return std::make_unique<VEL_OXLv1>(s, kMaxMessage); },
             Hex("FFFFFFFF 00000000 0020 31 00")},
            {"OXLv2", 12,
             [](VEL_Socket* s, bool client) {
                 auto t = std::make_unique<VEL_OXLv2>(s, kMaxMessage);
                 t->setCompression(client);
                 return t;
             },
             Hex("00000024 FFFFFFDB 0004 32 43 02000000 FFFFFFFF")},  // 4 GiB uncompressed
            {"OXLv5", 2, [](VEL_Socket* s, bool) { return std::make_unique<VEL_OXLv5>(s); }, ""},
            {"HOLM", 28,
             [](VEL_Socket* s, bool client) {
                 auto t = std::make_unique<VEL_HOLM>(s, kMaxMessage);
                 if (client) {
                     t->setCompression(true);
                     EXPECT_EQ(t->openSecureSession(), kVELErr_Ok);
                 }
                 return t;
             },
             veltest::WithHOLMCheck(
                     Hex("484F 0100 0000001C FFFFFFFF 0000 0000 00000000 0000000000000000"))},
    };
}

// A body that compresses (a compressing sender needs it to shrink by a tenth): `tag`, then
// digits up to 300 bytes.
std::string Text(const std::string& tag) {
    std::string text = tag;
    while (text.size() < 300) {
        text += "0123456789";
    }
    return text;
}

// The bytes a client of `protocol` sends for one message with `body`.
std::string Frame(const Protocol& protocol, const std::string& body) {
    veltest::MemorySocket socket;
    VEL_Message message(body.size());
    body.copy(message.data(), body.size());
    EXPECT_EQ(protocol.make(&socket, true)->sendMessage(&message), kVELErr_Ok);
    return socket.written();
}

// Closes `fd` with a reset (linger time 0) instead of an orderly end of stream.
void Reset(veltest::RawFd& fd) {
    const linger abort{1, 0};
    ASSERT_EQ(::setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &abort, sizeof(abort)), 0);
    fd.reset();
}

// A select reactor serving one protocol on a loopback port: each connection echoes every message
// it receives; on the first failed receive or send, its handler records the status, unregisters
// and closes the socket. After each test the reactor is stopped, and every socket, descriptor and
// message buffer must be back.
class FramedServer : public veltest::SocketLeakTest {
protected:
    explicit FramedServer(Protocol protocol) : _protocol(std::move(protocol)) {}

    void SetUp() override {
        SocketLeakTest::SetUp();
        _buffers = basis::BufferMgr::Default()->getOutstanding();
        _reactor = veltest::MakeSelectReactor(2048, basis::TimeValue(1, 0));
        ASSERT_EQ(_reactor->init(), kVELErr_Ok);
        ASSERT_EQ(_reactor->open(), basis::kErr_Ok);
        ASSERT_EQ(_acceptor.open(), kVELErr_Ok);
        _listener = ScriptedHandler::Make(_acceptor.getHandle());
        _listener->onInput = [this] { return accept(); };
        ASSERT_EQ(_reactor->addEventHandler(_listener, basis::TimeValue(), kVELOp_Read),
                  kVELErr_Ok);
    }
    void TearDown() override {
        EXPECT_EQ(_reactor->stop(), kVELErr_Ok);
        EXPECT_EQ(_reactor->wait(), basis::kErr_Ok);
        EXPECT_EQ(_reactor->clean(), kVELErr_Ok);
        _reactor.reset();
        _listener.reset();
        EXPECT_EQ(_acceptor.close(), kVELErr_Ok);
        EXPECT_EQ(basis::BufferMgr::Default()->getOutstanding(), _buffers) << "buffers leaked";
        SocketLeakTest::TearDown();
    }

    bool accept() {
        VEL_Socket* accepted = nullptr;
        if (_acceptor.accept(accepted) != kVELErr_Ok) {
            return true;
        }
        VEL_SockOptions options;  // a stalled peer ends a receive after 2 s
        options.setNonBlock(true);
        options.setTimeOut(2);
        EXPECT_EQ(accepted->setOptions(options), kVELErr_Ok);
        const std::shared_ptr<VEL_Socket> socket(accepted);
        const std::shared_ptr<VEL_Transport> transport = _protocol.make(socket.get(), false);
        const auto handler = ScriptedHandler::Make(socket->getHandle());
        const boost::weak_ptr<ScriptedHandler> self = handler;
        handler->onInput = [this, socket, transport, self] {
            VEL_Message message;
            VELErr_t code = transport->recvMessage(&message);
            if (code == kVELErr_Ok) {
                code = transport->sendMessage(&message);
            }
            if (code != kVELErr_Ok) {
                EXPECT_EQ(_reactor->removeEventHandler(self.lock()), kVELErr_Ok);
                EXPECT_EQ(socket->close(), kVELErr_Ok);
                std::lock_guard<std::mutex> hold(_lock);
                _statuses.push_back(code);
            }
            return true;
        };
        EXPECT_EQ(_reactor->addEventHandler(handler, basis::TimeValue(), kVELOp_Read), kVELErr_Ok);
        return true;
    }
    // The status with which the server ended its `n`-th connection (from 1).
    VELErr_t status(std::size_t n) {
        const bool ended = veltest::WaitFor(
                [&] {
                    std::lock_guard<std::mutex> hold(_lock);
                    return _statuses.size() >= n;
                },
                std::chrono::seconds(5));
        std::lock_guard<std::mutex> hold(_lock);
        EXPECT_TRUE(ended) << "the server did not end connection " << n;
        return ended ? _statuses[n - 1] : kVELErr_Ok;
    }
    unsigned short port() const { return _acceptor.getLocalAddr().getPort(); }

    const Protocol _protocol;
    std::unique_ptr<VEL_IOReactor> _reactor;
    VEL_TCPAcceptor _acceptor{0, "127.0.0.1"};
    boost::shared_ptr<ScriptedHandler> _listener;
    std::mutex _lock;
    std::vector<VELErr_t> _statuses;
    unsigned long _buffers = 0;
};

// A well-behaved client: one message there and back through the server.
class Client {
public:
    Client(const Protocol& protocol, unsigned short port) {
        VEL_SockOptions options;
        options.setNonBlock(true);
        options.setTimeOut(5);
        VEL_TCPConnector connector(port, "127.0.0.1", options);
        VEL_Socket* socket = nullptr;
        EXPECT_EQ(connector.connect(socket), kVELErr_Ok);
        _socket.reset(socket);
        _transport = protocol.make(socket, true);
    }
    bool roundTrip(const std::string& body) {
        VEL_Message message(body.size());
        body.copy(message.data(), body.size());
        VEL_Message answer;
        return _socket && _transport->sendMessage(&message) == kVELErr_Ok &&
               _transport->recvMessage(&answer) == kVELErr_Ok && veltest::Body(answer) == body;
    }

private:
    std::unique_ptr<VEL_Socket> _socket;
    std::unique_ptr<VEL_Transport> _transport;
};

class FramedServerTest : public FramedServer, public ::testing::WithParamInterface<Protocol> {
protected:
    FramedServerTest() : FramedServer(GetParam()) {}
};

TEST_P(FramedServerTest, PeerResetMidHeaderOrMidBodyEndsOnlyThatConnection) {
    const std::string frame = Frame(GetParam(), Text("cut"));
    const std::size_t header = GetParam().headerSize;
    Client good(GetParam(), port());
    ASSERT_TRUE(good.roundTrip(Text("before")));
    std::size_t ended = 0;
    for (const std::size_t cut : {header / 2, header + (frame.size() - header) / 2}) {
        SCOPED_TRACE(cut);
        veltest::RawFd peer = veltest::RawConnect(port());
        ASSERT_TRUE(veltest::WriteAll(peer.get(), frame.substr(0, cut)));
        Reset(peer);
        EXPECT_EQ(status(++ended), kVELErr_SockHalfClosed);
        EXPECT_TRUE(good.roundTrip(Text("after " + std::to_string(cut))));
    }
    if (!GetParam().hugeHeader.empty()) {
        veltest::RawFd peer = veltest::RawConnect(port());
        ASSERT_TRUE(veltest::WriteAll(peer.get(), GetParam().hugeHeader + "body"));
        EXPECT_EQ(status(++ended), kVELErr_MessageTooBig);
        EXPECT_TRUE(good.roundTrip(Text("after a 4 GiB announcement")));
    }
}

INSTANTIATE_TEST_SUITE_P(Protocols, FramedServerTest, ::testing::ValuesIn(Protocols()),
                         [](const ::testing::TestParamInfo<Protocol>& param) {
                             return std::string(param.param.name);
                         });

class ConnectionChurnTest : public FramedServer {
protected:
    ConnectionChurnTest() : FramedServer(Protocols()[0]) {}
};

// Connections come and go 1000 times; the server is left with its listener and wake-up socket.
TEST_F(ConnectionChurnTest, ThousandConnectionsOpenedAndClosedLeaveNothingBehind) {
    const unsigned long sockets = VEL_Socket::GetNbInstances();
    const int descriptors = veltest::OpenFdCount();
    const std::string frame = Frame(_protocol, "ping");
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(40);
    int opened = 0;
    for (; opened < 1000 && std::chrono::steady_clock::now() < deadline; ++opened) {
        veltest::RawFd peer = veltest::RawConnect(port());
        if (opened % 100 == 0) {  // now and then a whole exchange
            ASSERT_TRUE(veltest::WriteAll(peer.get(), frame));
            ASSERT_EQ(veltest::ReadExactly(peer.get(), frame.size()), frame);
        }
    }
    EXPECT_EQ(opened, 1000) << "the loop ran out of time";
    EXPECT_TRUE(veltest::WaitFor([&] {
        return _reactor->getNbElement() == 2 && VEL_Socket::GetNbInstances() == sockets &&
               veltest::OpenFdCount() == descriptors;
    })) << _reactor->getNbElement()
        << " handlers, " << VEL_Socket::GetNbInstances() - sockets << " sockets and "
        << veltest::OpenFdCount() - descriptors << " descriptors left";
}

// A peer announces 4 GiB to a receiver without a limit of its own: the buffer manager's largest
// buffer bounds it. Nothing is allocated, and nothing after the header is read.
TEST(HugeAnnouncementTest, RefusedWithoutAllocatingOrReadingTheBody) {
    struct Case {
        const char* name;
        std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)> make;
        std::string header;
        VELErr_t expected;
    };
    const Case cases[] = {
            {"OXLv1 body", [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, ULONG_MAX); },
             Protocols()[0].hugeHeader, kVELErr_Alloc},
            {"OXLv2 body", [](VEL_Socket* s) { return std::make_unique<VEL_OXLv2>(s, ULONG_MAX); },
             Hex("FFFFFFFF 00000000 0004 32 00"), kVELErr_Alloc},
            {"HOLM plain size",
             [](VEL_Socket* s) { return std::make_unique<VEL_HOLM>(s, ULONG_MAX); },
             Protocols()[3].hugeHeader, kVELErr_MessageTooBig},
            {"HOLM compressed body",
             [](VEL_Socket* s) { return std::make_unique<VEL_HOLM>(s, ULONG_MAX); },
             veltest::WithHOLMCheck(
                     Hex("484F 0100 FFFFFFFF 00000010 0000 0000 00004000 0000000000000000")),
             kVELErr_BadStreamHeader},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const unsigned long buffers = basis::BufferMgr::Default()->getOutstanding();
        veltest::MemorySocket socket;
        socket.feed(c.header + "rest of the frame");
        VEL_Message message;
        EXPECT_EQ(c.make(&socket)->recvMessage(&message), c.expected);
        EXPECT_EQ(message.size(), 0u);
        EXPECT_EQ(basis::BufferMgr::Default()->getOutstanding(), buffers);
        EXPECT_EQ(socket.unread(), std::string("rest of the frame").size());
    }
    // An OXLv2 record announcing 4 GiB uncompressed: the small body is read, the uncompressed
    // buffer is never had.
    veltest::MemorySocket socket;
    socket.feed(Protocols()[1].hugeHeader + std::string(16, 'z'));
    VEL_Message message;
    const unsigned long buffers = basis::BufferMgr::Default()->getOutstanding();
    EXPECT_EQ(VEL_OXLv2(&socket, ULONG_MAX).recvMessage(&message), kVELErr_Alloc);
    message.reset();
    EXPECT_EQ(basis::BufferMgr::Default()->getOutstanding(), buffers);
}

}  // namespace
