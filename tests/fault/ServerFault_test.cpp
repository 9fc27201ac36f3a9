#include <chrono>
#include <climits>
#include <functional>
#include <memory>
#include <string>

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
#include "VEL_SelectIOReactor.h"
#include "VEL_TCPAcceptor.h"

namespace {

using veltest::Hex;
using veltest::ScriptedHandler;

// Frame headers that announce a body of 4 GiB.
const std::string kHugeOXLv1 = Hex("FFFFFFFF 00000000 0020 31 00");
const std::string kHugeHOLM = veltest::WithHOLMCheck(
        Hex("484F 0100 0000001C FFFFFFFF 0000 0000 00000000 0000000000000000"));

// The bytes an OXLv1 client sends for one message with `body`.
std::string Frame(const std::string& body) {
    veltest::MemorySocket socket;
    VEL_Message message(body.size());
    body.copy(message.data(), body.size());
    EXPECT_EQ(VEL_OXLv1(&socket, 1 << 20).sendMessage(&message), kVELErr_Ok);
    return socket.written();
}

// A select reactor serving OXLv1 on a loopback port: each connection echoes every message it
// receives; on the first failed receive or send, its handler unregisters and closes the socket.
// After each test the reactor is stopped, and every socket, descriptor and message buffer must be
// back.
class ConnectionChurnTest : public veltest::SocketLeakTest {
protected:
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
        const auto transport = std::make_shared<VEL_OXLv1>(socket.get(), 1 << 20);
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
            }
            return true;
        };
        EXPECT_EQ(_reactor->addEventHandler(handler, basis::TimeValue(), kVELOp_Read), kVELErr_Ok);
        return true;
    }
    unsigned short port() const { return _acceptor.getLocalAddr().getPort(); }

    std::unique_ptr<VEL_IOReactor> _reactor;
    VEL_TCPAcceptor _acceptor{0, "127.0.0.1"};
    boost::shared_ptr<ScriptedHandler> _listener;
    unsigned long _buffers = 0;
};

// Connections come and go 1000 times; the server is left with its listener and wake-up socket.
TEST_F(ConnectionChurnTest, ThousandConnectionsOpenedAndClosedLeaveNothingBehind) {
    const unsigned long sockets = VEL_Socket::GetNbInstances();
    const int descriptors = veltest::OpenFdCount();
    const std::string frame = Frame("ping");
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
// buffer bounds it. A total below the header size must not wrap around to a huge body either.
// Nothing is allocated, and nothing after the header is read.
TEST(HugeAnnouncementTest, RefusedWithoutAllocatingOrReadingTheBody) {
    struct Case {
        const char* name;
        std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)> make;
        std::string header;
        VELErr_t expected;
    };
    const Case cases[] = {
            {"OXLv1 body", [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, ULONG_MAX); },
             kHugeOXLv1, kVELErr_Alloc},
            {"OXLv1 total 11",
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, ULONG_MAX); },
             Hex("0000000B FFFFFFF4 0020 31 00"), kVELErr_MessageTooBig},
            {"OXLv1 total 0",
             [](VEL_Socket* s) { return std::make_unique<VEL_OXLv1>(s, ULONG_MAX); },
             Hex("00000000 FFFFFFFF 0020 31 00"), kVELErr_MessageTooBig},
            {"OXLv2 body", [](VEL_Socket* s) { return std::make_unique<VEL_OXLv2>(s, ULONG_MAX); },
             Hex("FFFFFFFF 00000000 0004 32 00"), kVELErr_Alloc},
            {"HOLM plain size",
             [](VEL_Socket* s) { return std::make_unique<VEL_HOLM>(s, ULONG_MAX); }, kHugeHOLM,
             kVELErr_MessageTooBig},
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
    socket.feed(Hex("00000024 FFFFFFDB 0004 32 43 02000000 FFFFFFFF") + std::string(16, 'z'));
    VEL_Message message;
    const unsigned long buffers = basis::BufferMgr::Default()->getOutstanding();
    EXPECT_EQ(VEL_OXLv2(&socket, ULONG_MAX).recvMessage(&message), kVELErr_Alloc);
    message.reset();
    EXPECT_EQ(basis::BufferMgr::Default()->getOutstanding(), buffers);
}

}  // namespace
