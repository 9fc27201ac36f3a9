// Helpers of the framed-connection, TLS and pipe tests: OXLv1 frames, an echoing connection
// factory for acceptors, the close events of its connections, and a fixture with a running
// reactor of the back end under test.
#ifndef TESTS_FRAME_FRAMEDTESTSUPPORT_H
#define TESTS_FRAME_FRAMEDTESTSUPPORT_H

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <atomic>
#include <memory>
#include <string>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "BufferMgr.h"
#include "FramedSupport.h"
#include "ReactorSupport.h"
#include "SocketSupport.h"
#include "VEL_ByteStream.h"
#include "VEL_FramedAcceptor.h"
#include "VEL_FramedConnection.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_TimerManager.h"

namespace frametest {

inline std::unique_ptr<VEL_FrameCodec> Oxl1(unsigned long maxBody = 32 << 20) {
    return std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv1Codec(maxBody));
}

// The frame of `body` as `codec` encodes it.
inline std::string Encode(VEL_FrameCodec& codec, const std::string& body) {
    VEL_Message message;
    EXPECT_EQ(message.setData(body.data(), body.size()), kVELErr_Ok);
    std::string frame;
    EXPECT_EQ(codec.encode(&message, frame), kVELErr_Ok);
    return frame;
}

// The OXLv1 frame of `body`.
inline std::string Frame(const std::string& body) {
    return Encode(*Oxl1(), body);
}

// The local port of a descriptor: the port its server sees as the peer's.
inline unsigned short LocalPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    EXPECT_EQ(::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length), 0);
    return ntohs(address.sin_port);
}

// The event of the server's connection to the client at `port` closing for `reason`.
inline std::string PeerClose(unsigned short port, VELErr_t reason) {
    return "peer " + std::to_string(port) + " close " + std::to_string(reason);
}

// The same for the client on `fd`.
inline std::string CloseOf(int fd, VELErr_t reason) {
    return PeerClose(LocalPort(fd), reason);
}

// Makes the connections of a VEL_FramedAcceptor: each echoes, with a Recorder tagged by the
// peer's port ("peer <port>"); refusals and pauses are logged as "refused <reason>", "paused".
class EchoFactory : public VEL_ConnectionFactory {
public:
    explicit EchoFactory(veltest::EventLog& log, const VELFramedLimits_t& limits = {})
        : _log(log), _limits(limits) {}

    boost::shared_ptr<VEL_FramedConnection> makeConnection(
            VEL_IOReactor& reactor, std::unique_ptr<VEL_ByteStream> stream) override {
        const std::string tag = "peer " + std::to_string(stream->getRemoteAddr().getPort());
        ++made;
        return VEL_FramedConnection::Create(reactor, std::move(stream), Oxl1(),
                                            boost::make_shared<veltest::Recorder>(_log, tag),
                                            _limits);
    }
    void connectionRefused(const VEL_SockAddr& /*peer*/, VELErr_t reason) override {
        _log.add("refused " + std::to_string(reason));
    }
    void acceptPaused(int /*err*/) override { _log.add("paused"); }

    std::atomic<unsigned long> made{0};

private:
    veltest::EventLog& _log;
    const VELFramedLimits_t _limits;
};

// A running reactor of the back end under test and the process's timer manager. After each
// test the reactor is stopped and cleaned (closing what is still open), and every socket,
// descriptor and message buffer must be back.
class FramedReactorTest : public veltest::SocketLeakTest,
                          public ::testing::WithParamInterface<veltest::ReactorFactory> {
protected:
    void SetUp() override {
        (void)VEL_TimerManager::GetInstance();  // its thread outlives the test
        SocketLeakTest::SetUp();
        _buffers = basis::BufferMgr::Default()->getOutstanding();
        _reactor = GetParam()(256, basis::TimeValue(1, 0));
        ASSERT_EQ(_reactor->init(), kVELErr_Ok);
        ASSERT_EQ(_reactor->open(), basis::kErr_Ok);
    }
    void TearDown() override {
        veltest::StopAndClean(*_reactor);
        _acceptor.reset();
        _reactor.reset();
        EXPECT_EQ(basis::BufferMgr::Default()->getOutstanding(), _buffers) << "buffers leaked";
        SocketLeakTest::TearDown();
    }

    std::unique_ptr<VEL_IOReactor> _reactor;
    boost::shared_ptr<VEL_FramedAcceptor> _acceptor;
    veltest::EventLog _log;
    unsigned long _buffers = 0;
};

}  // namespace frametest

#endif  // TESTS_FRAME_FRAMEDTESTSUPPORT_H
