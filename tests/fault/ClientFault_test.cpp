#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SocketSupport.h"
#include "TestSupport.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPConnector.h"
#include "VEL_TCPPipe.h"

namespace {

using Clock = std::chrono::steady_clock;

double SecondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// A loopback server on a thread of its own that reads and counts whatever arrives. kill() ends
// it at once and closes its listener and every connection, as the end of its process would.
class CountingServer {
public:
    CountingServer() {
        EXPECT_EQ(_acceptor.open(), kVELErr_Ok);
        _port = _acceptor.getLocalAddr().getPort();
        _thread = std::thread([this] { run(); });
    }
    ~CountingServer() { kill(); }
    unsigned short port() const { return _port; }
    std::size_t received() const { return _received.load(); }
    void kill() {
        _stop = true;
        if (_thread.joinable()) {
            _thread.join();
        }
    }

private:
    void run() {
        std::vector<veltest::RawFd> peers;
        while (!_stop) {
            std::vector<pollfd> polled{{static_cast<int>(_acceptor.getHandle()), POLLIN, 0}};
            for (const veltest::RawFd& peer : peers) {
                polled.push_back({peer.get(), POLLIN, 0});
            }
            if (::poll(polled.data(), polled.size(), 20) <= 0) {
                continue;
            }
            for (std::size_t i = 1; i < polled.size(); ++i) {
                char buffer[65536];
                const ssize_t got =
                        polled[i].revents != 0 ? ::read(polled[i].fd, buffer, sizeof(buffer)) : -1;
                if (got > 0) {
                    _received += static_cast<std::size_t>(got);
                } else if (got == 0) {
                    peers[i - 1].reset();  // the client left; its slot is polled no more
                }
            }
            if ((polled[0].revents & POLLIN) != 0) {
                peers.emplace_back(
                        ::accept(static_cast<int>(_acceptor.getHandle()), nullptr, nullptr));
            }
        }
        EXPECT_EQ(_acceptor.close(), kVELErr_Ok);
    }

    VEL_TCPAcceptor _acceptor{0, "127.0.0.1"};
    unsigned short _port = 0;
    std::atomic<bool> _stop{false};
    std::atomic<std::size_t> _received{0};
    std::thread _thread;
};

class ClientFaultTest : public veltest::SocketLeakTest {};

// A failover pipe keeps sending while the server it uses dies: every send succeeds, none takes
// longer than the send time-out, and the other endpoint takes over.
TEST_F(ClientFaultTest, PipeMovesToAnotherEndpointWhenItsServerIsKilledMidStream) {
    CountingServer servers[2];
    VEL_TCPPipe pipe(true);
    for (const CountingServer& server : servers) {
        ASSERT_EQ(pipe.addConnection(server.port(), "127.0.0.1"), kVELErr_Ok);
    }
    pipe.setSendTimeout(2);
    pipe.setRetryTime(60);
    ASSERT_EQ(pipe.open(), kVELErr_Ok);
    const std::string message(1000, 'm');
    ASSERT_EQ(pipe.send(message.data(), static_cast<unsigned int>(message.size())), kVELErr_Ok);
    ASSERT_TRUE(
            veltest::WaitFor([&] { return servers[0].received() + servers[1].received() > 0; }));
    CountingServer& victim = servers[0].received() > 0 ? servers[0] : servers[1];
    CountingServer& survivor = &victim == &servers[0] ? servers[1] : servers[0];

    std::atomic<bool> killed{false};
    std::atomic<int> failures{0};
    std::atomic<double> longest{0};
    std::thread sender([&] {
        const Clock::time_point start = Clock::now();
        while (SecondsSince(start) < 10 && (!killed || survivor.received() < 20 * message.size())) {
            const Clock::time_point sent = Clock::now();
            failures += pipe.send(message.data(), static_cast<unsigned int>(message.size())) ==
                                        kVELErr_Ok
                                ? 0
                                : 1;
            longest = std::max(longest.load(), SecondsSince(sent));
        }
    });
    EXPECT_TRUE(veltest::WaitFor([&] { return victim.received() >= 50 * message.size(); }));
    const Clock::time_point death = Clock::now();
    victim.kill();
    killed = true;
    const bool moved = veltest::WaitFor([&] { return survivor.received() > 0; });
    const double takeover = SecondsSince(death);
    sender.join();
    EXPECT_TRUE(moved);
    EXPECT_LE(takeover, 2.0 + 1.0);
    EXPECT_EQ(failures.load(), 0);
    EXPECT_LE(longest.load(), 2.0 + 1.0);
    EXPECT_GE(survivor.received(), 20 * message.size());
    EXPECT_EQ(pipe.close(), kVELErr_Ok);
}

// A peer that reads at most `chunk` bytes from `fd` every `period`. After 10 s it closes `fd`, so
// that a send that would never end fails instead.
std::unique_ptr<veltest::Paced> SlowReader(veltest::RawFd& fd, std::size_t chunk,
                                           std::chrono::milliseconds period) {
    const Clock::time_point start = Clock::now();
    return std::unique_ptr<veltest::Paced>(
            new veltest::Paced(period, std::chrono::seconds(20), [&fd, chunk, start] {
                if (SecondsSince(start) > 10) {
                    fd.reset();
                    return false;
                }
                std::vector<char> buffer(chunk);
                (void)::recv(fd.get(), buffer.data(), chunk, MSG_DONTWAIT);  // nothing may wait
                return true;
            }));
}

// The native time-out limits each system call, and a call that moved some bytes before it
// stalled returns them and the next call starts a new time-out: once the socket buffers are full
// the send ends after a few time-outs at most (measured: 2 to 3 of them on loopback). Without
// native time-outs, and over a pipe, the send time-out bounds the whole send.
constexpr double kNativeSendBound = 1.0 + 4.0;
constexpr double kSendBound = 1.0 + 1.5;
constexpr unsigned long kBig = 48ul << 20;  // more than both socket buffers hold

// A peer that reads slower than the sender's 1 s time-out allows: the send ends with
// kVELErr_Timeout instead of waiting for the reader. With native time-outs, a reader of 1 KiB
// every 1.5 s; without them even one that reads 64 KiB every 100 ms, which each blocking call
// would see as progress.
TEST_F(ClientFaultTest, SlowReaderMakesTheSendTimeOutOfATransportFire) {
    const struct {
        bool native;
        std::size_t chunk;
        std::chrono::milliseconds period;
        double bound;
    } cases[] = {{true, 1024, std::chrono::milliseconds(1500), kNativeSendBound},
                 {false, 65536, std::chrono::milliseconds(100), kSendBound}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.native ? "native time-outs" : "library time-out");
        VEL_SockOptions options;
        options.setNonBlock(each.native);
        options.setTimeOut(1);
        veltest::SocketWithPeer pair = veltest::MakeSocketWithRawPeer(options);
        ASSERT_TRUE(pair.socket);
        VEL_Message message(kBig);
        ASSERT_EQ(message.size(), kBig);
        veltest::RecordingSink sink(kVELTrace_ComError);
        veltest::ScopedSink installed(&sink);
        const Clock::time_point start = Clock::now();
        {
            const auto reader = SlowReader(pair.peer, each.chunk, each.period);
            EXPECT_EQ(VEL_OXLv1(pair.socket.get(), kBig).sendMessage(&message), kVELErr_Timeout);
        }
        const double took = SecondsSince(start);
        EXPECT_GE(took, 0.9);
        EXPECT_LE(took, each.bound);
        EXPECT_TRUE(sink.contains("COM - Timeout error {" + std::to_string(EAGAIN) +
                                  "} ; Remote address : <host = 127.0.0.1, port = " +
                                  std::to_string(pair.socket->getRemoteAddr().getPort()) + ">"));
        EXPECT_EQ(pair.socket->close(), kVELErr_Ok);
    }
}

// A pipe whose only server reads slowly (256 KiB every 20 ms, a rate at which every blocking
// call makes progress): its send time-out bounds the whole send, however many partial writes
// the server takes.
TEST_F(ClientFaultTest, SlowServerMakesThePipeSendTimeOutFire) {
    VEL_TCPAcceptor server(0, "127.0.0.1");
    ASSERT_EQ(server.open(), kVELErr_Ok);
    VEL_TCPPipe pipe(false);
    ASSERT_EQ(pipe.addConnection(server.getLocalAddr().getPort(), "127.0.0.1"), kVELErr_Ok);
    pipe.setSendTimeout(2);  // a blocking call per second would take three times as long
    pipe.setRetryTime(60);
    ASSERT_EQ(pipe.open(), kVELErr_Ok);
    VEL_Socket* accepted = nullptr;
    ASSERT_EQ(server.accept(accepted), kVELErr_Ok);
    veltest::RawFd peer(::dup(veltest::Fd(*accepted)));
    delete accepted;
    const std::string data(kBig, 'd');
    const Clock::time_point start = Clock::now();
    {
        const auto reader = SlowReader(peer, 262144, std::chrono::milliseconds(20));
        EXPECT_EQ(pipe.send(data.data(), static_cast<unsigned int>(data.size())), kVELErr_Timeout);
    }
    EXPECT_GE(SecondsSince(start), 1.9);
    EXPECT_LE(SecondsSince(start), 2.0 + 1.5);
    EXPECT_EQ(pipe.close(), kVELErr_Ok);
    EXPECT_EQ(server.close(), kVELErr_Ok);
}

}  // namespace
