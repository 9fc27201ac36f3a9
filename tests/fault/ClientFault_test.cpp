#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
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

// The native time-out limits each system call, and a call that moved some bytes before it
// stalled returns them and the next call starts a new time-out: once the socket buffers are full
// the send ends after a few time-outs at most (measured: 2 to 3 of them on loopback).
constexpr double kSendBound = 1.0 + 4.0;
constexpr unsigned long kBig = 48ul << 20;  // more than both socket buffers hold

// A peer that reads 1 KiB every 1.5 s, slower than the sender's 1 s time-out: the send ends with
// kVELErr_Timeout instead of waiting for the reader.
TEST_F(ClientFaultTest, SlowReaderMakesTheSendTimeOutOfATransportFire) {
    VEL_SockOptions options;
    options.setNonBlock(true);
    options.setTimeOut(1);
    veltest::SocketWithPeer pair = veltest::MakeSocketWithRawPeer(options);
    ASSERT_TRUE(pair.socket);
    std::atomic<bool> done{false};
    std::thread reader([&] {
        while (!done) {
            char buffer[1024];
            pollfd entry{pair.peer.get(), POLLIN, 0};
            if (::poll(&entry, 1, 1500) == 0 || done) {
                continue;
            }
            (void)::read(pair.peer.get(), buffer, sizeof(buffer));  // any outcome: keep pacing
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
        }
    });
    VEL_Message message(kBig);
    ASSERT_EQ(message.size(), kBig);
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(VEL_OXLv1(pair.socket.get(), kBig).sendMessage(&message), kVELErr_Timeout);
    const double took = SecondsSince(start);
    done = true;
    reader.join();
    EXPECT_GE(took, 0.9);
    EXPECT_LE(took, kSendBound);
    EXPECT_EQ(pair.socket->close(), kVELErr_Ok);
}

// A pipe whose only server stops reading: the send fails with kVELErr_Timeout once its one
// connection's send has timed out (which passes the pipe's deadline of the same length).
TEST_F(ClientFaultTest, StalledServerMakesThePipeSendTimeOutFire) {
    VEL_TCPAcceptor stalled(0, "127.0.0.1");  // accepts nothing, reads nothing
    ASSERT_EQ(stalled.open(), kVELErr_Ok);
    VEL_TCPPipe pipe(false);
    ASSERT_EQ(pipe.addConnection(stalled.getLocalAddr().getPort(), "127.0.0.1"), kVELErr_Ok);
    pipe.setSendTimeout(1);
    ASSERT_EQ(pipe.open(), kVELErr_Ok);
    const std::string data(kBig, 'd');
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(pipe.send(data.data(), static_cast<unsigned int>(data.size())), kVELErr_Timeout);
    EXPECT_GE(SecondsSince(start), 0.9);
    EXPECT_LE(SecondsSince(start), kSendBound);
    EXPECT_EQ(pipe.close(), kVELErr_Ok);
    EXPECT_EQ(stalled.close(), kVELErr_Ok);
}

}  // namespace
