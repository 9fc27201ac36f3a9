#include "VEL_TCPSocket.h"

#include <fcntl.h>
#include <linux/net_tstamp.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "SocketSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_Tools.h"

namespace {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

void setDescriptorNonBlocking(int fd, bool on) {
    const int flags = fcntl(fd, F_GETFL);
    ASSERT_GE(flags, 0);
    ASSERT_EQ(fcntl(fd, F_SETFL, on ? (flags | O_NONBLOCK) : (flags & ~O_NONBLOCK)), 0);
}

// Writes raw bytes until the connection takes no more; returns how many it took.
std::size_t fillConnection(int fd) {
    setDescriptorNonBlocking(fd, true);
    static const std::string chunk(65536, 'f');
    std::size_t total = 0;
    for (int i = 0; i < 100000; ++i) {
        const ssize_t written = send(fd, chunk.data(), chunk.size(), MSG_NOSIGNAL);
        if (written <= 0) {
            break;
        }
        total += static_cast<std::size_t>(written);
    }
    setDescriptorNonBlocking(fd, false);
    return total;
}

// Elements covering `buffer` in pieces of the given lengths.
std::vector<VELIoVec> cut(std::string& buffer, const std::vector<std::uint32_t>& lengths) {
    std::vector<VELIoVec> elements;
    std::size_t at = 0;
    for (std::uint32_t length : lengths) {
        elements.push_back(VELIoVec{&buffer[at], length});
        at += length;
    }
    return elements;
}

class TCPSocketTest : public veltest::SocketLeakTest {};

TEST_F(TCPSocketTest, OpenReportsTheChosenPortKeepsItWhenRepeatedAndFailsOnABusyPort) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    VEL_TCPSocket socket(0, "127.0.0.1");
    ASSERT_EQ(socket.open(), kVELErr_Ok);
    const unsigned int handle = socket.getHandle();
    sockaddr_in bound{};
    socklen_t length = sizeof(bound);
    ASSERT_EQ(getsockname(veltest::Fd(socket), reinterpret_cast<sockaddr*>(&bound), &length), 0);
    const unsigned short port = socket.getLocalAddr().getPort();
    EXPECT_NE(port, 0);
    EXPECT_EQ(port, ntohs(bound.sin_port));
    EXPECT_EQ(socket.open(), kVELErr_Ok);
    EXPECT_EQ(socket.getHandle(), handle);

    VEL_TCPAcceptor listener(0, "127.0.0.1");  // a listening port, even with address reuse
    ASSERT_EQ(listener.open(), kVELErr_Ok);
    const unsigned short busy = listener.getLocalAddr().getPort();
    VEL_TCPSocket second(busy, "127.0.0.1");
    EXPECT_EQ(second.open(), kVELErr_Bind);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), EADDRINUSE);
    EXPECT_FALSE(second.isValid());
    EXPECT_TRUE(sink.contains(
            "COM - Cannot bind the socket {" + std::to_string(EADDRINUSE) +
            "} ; Local address : <host = 127.0.0.1, port = " + std::to_string(busy) + ">"));
}

TEST_F(TCPSocketTest, TransfersNeedAnOpenConnectedSocket) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    char buf[8] = {};
    unsigned int len = 8;
    VELIoVec elements[2] = {{buf, 4}, {buf + 4, 4}};
    VELIoVec* v = elements;
    unsigned long n = 2;
    VEL_TCPSocket unopened(0, "127.0.0.1");
    EXPECT_EQ(unopened.send(buf, 8), kVELErr_SockNotConnected);
    EXPECT_TRUE(sink.contains("COM - Invalid operation on not connected sock {" +
                              std::to_string(basis::Thread::GetLastSystemErr()) +
                              "} ; Remote address : <host = 0.0.0.0, port = 0>"));
    ASSERT_EQ(unopened.open(), kVELErr_Ok);  // open but not connected
    EXPECT_EQ(unopened.recv(buf, 8), kVELErr_SockNotConnected);

    veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair();
    ASSERT_TRUE(pair.client && pair.server);
    EXPECT_EQ(pair.client->send(buf, 0), kVELErr_Ok);
    EXPECT_EQ(pair.client->recv(buf, 0), kVELErr_Ok);  // would block for ever if it read
    ASSERT_EQ(pair.client->close(), kVELErr_Ok);
    // Once closed the descriptor is gone, so every transfer finds it not connected.
    VEL_TCPSocket& closed = *pair.client;
    EXPECT_EQ(closed.send(buf, 8), kVELErr_SockNotConnected);
    EXPECT_EQ(closed.recv(buf, 8), kVELErr_SockNotConnected);
    EXPECT_EQ(closed.recvAvail(buf, &len), kVELErr_SockNotConnected);
    EXPECT_EQ(closed.sendAvail(buf, &len), kVELErr_SockNotConnected);
    EXPECT_EQ(closed.writev(elements, 2), kVELErr_SockNotConnected);
    EXPECT_EQ(closed.readv(elements, 2), kVELErr_SockNotConnected);
    EXPECT_EQ(closed.writevAvail(v, n), kVELErr_SockNotConnected);
    EXPECT_EQ(closed.readvAvail(v, n), kVELErr_SockNotConnected);
    EXPECT_EQ(closed.hasRecv(), kVELErr_SockNotConnected);
    EXPECT_EQ(v, elements);
    EXPECT_EQ(n, 2u);
}

TEST_F(TCPSocketTest, WholeTransfersMoveEveryByte) {
    veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair();
    ASSERT_TRUE(pair.client && pair.server);
    const std::string sent = veltest::Pattern(4 << 20, 1);  // more than the buffers hold
    VELErr_t sendResult = kVELErr_Alloc;
    std::thread sender([&] {
        sendResult = pair.client->send(sent.data(), static_cast<unsigned int>(sent.size()));
    });
    std::string received(sent.size(), '\0');
    EXPECT_EQ(pair.server->recv(&received[0], static_cast<unsigned int>(received.size())),
              kVELErr_Ok);
    sender.join();
    EXPECT_EQ(sendResult, kVELErr_Ok);
    EXPECT_TRUE(received == sent);
}

TEST_F(TCPSocketTest, VectorTransfersGatherAndScatterTheWireBytes) {
    veltest::SocketWithPeer link = veltest::MakeSocketWithRawPeer();
    ASSERT_TRUE(link.socket);
    std::string out = "abcdefgh";
    std::vector<VELIoVec> gather = cut(out, {3, 0, 5});
    ASSERT_EQ(link.socket->writev(gather.data(), gather.size()), kVELErr_Ok);
    EXPECT_EQ(veltest::ReadExactly(link.peer.get(), 8), "abcdefgh");

    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), "0123456789"));
    std::string in(10, '.');
    std::vector<VELIoVec> scatter = cut(in, {4, 0, 6});
    ASSERT_EQ(link.socket->readv(scatter.data(), scatter.size()), kVELErr_Ok);
    EXPECT_EQ(in, "0123456789");

    // Past the elements staged on the stack: one allocation, same bytes.
    std::string big = veltest::Pattern(300 * 997, 2);
    std::vector<std::uint32_t> lengths(300, 997);
    std::vector<VELIoVec> many = cut(big, lengths);
    ASSERT_EQ(link.socket->writev(many.data(), many.size()), kVELErr_Ok);
    EXPECT_TRUE(veltest::ReadExactly(link.peer.get(), big.size()) == big);
    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), big));
    std::string back(big.size(), '\0');
    std::vector<VELIoVec> manyIn = cut(back, lengths);
    ASSERT_EQ(link.socket->readv(manyIn.data(), manyIn.size()), kVELErr_Ok);
    EXPECT_TRUE(back == big);
}

TEST_F(TCPSocketTest, RecvAfterThePeerClosedReportsHalfClosedWithoutSystemError) {
    veltest::SocketWithPeer link = veltest::MakeSocketWithRawPeer();
    ASSERT_TRUE(link.socket);
    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), "ab"));
    link.peer.reset();
    char buf[4];
    basis::Thread::SetLastSystemErr(99);
    EXPECT_EQ(link.socket->recv(buf, 4), kVELErr_SockHalfClosed);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 0);
    EXPECT_EQ(link.socket->hasRecv(), kVELErr_Ok);  // the end of the stream is waiting
    unsigned int len = 4;
    basis::Thread::SetLastSystemErr(99);
    EXPECT_EQ(link.socket->recvAvail(buf, &len), kVELErr_SockHalfClosed);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 0);
    VELIoVec elements[2] = {{buf, 2}, {buf + 2, 2}};
    EXPECT_EQ(link.socket->readv(elements, 2), kVELErr_SockHalfClosed);
}

TEST_F(TCPSocketTest, CloseWithLingerResetsTheConnection) {
    VEL_SockOptions options;
    options.setLinger(true);
    veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair(options);
    ASSERT_TRUE(pair.client && pair.server);
    ASSERT_EQ(pair.client->close(), kVELErr_Ok);
    char buf[4];
    EXPECT_EQ(pair.server->recv(buf, 4), kVELErr_SockHalfClosed);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), ECONNRESET);
}

TEST_F(TCPSocketTest, ReceiveTimeOutTracesTheCountsAndGivesBackTheElementBeingFilled) {
    veltest::RecordingSink sink(kVELTrace_ComError | kVELTrace_MsgDump);
    veltest::ScopedSink installed(&sink);
    VEL_SockOptions options;
    options.setNonBlock(true);
    options.setRecvTimeOut(1);
    veltest::SocketWithPeer link = veltest::MakeSocketWithRawPeer(options);
    ASSERT_TRUE(link.socket);
    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), "abcd"));
    char buf[10] = {};
    const auto start = steady_clock::now();
    EXPECT_EQ(link.socket->recv(buf, 10), kVELErr_Timeout);
    const auto elapsed = steady_clock::now() - start;
    EXPECT_GE(elapsed, milliseconds(950));
    EXPECT_LT(elapsed, milliseconds(2500));
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), EAGAIN);
    EXPECT_EQ(std::string(buf, 4), "abcd");
    const std::string err = std::to_string(EAGAIN);
    EXPECT_TRUE(sink.contains("COM - Timeout error {" + err +
                              "} ; Remote address : <host = 127.0.0.1, port = " +
                              std::to_string(link.socket->getRemoteAddr().getPort()) +
                              ">; 10 bytes expected, 4 received."));
    EXPECT_TRUE(sink.contains("COM - Timeout error {" + err + "} ; Received data : "));
    EXPECT_TRUE(sink.contains("MSGDUMP - Dumping buffer number 0, containing 4 bytes"));

    std::string in(15, '.');
    std::vector<VELIoVec> elements = cut(in, {4, 6, 5});
    const std::vector<VELIoVec> original = elements;
    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), "012345"));
    EXPECT_EQ(link.socket->readv(elements.data(), elements.size()), kVELErr_Timeout);
    for (std::size_t i = 0; i < elements.size(); ++i) {
        EXPECT_EQ(elements[i].iov_base, original[i].iov_base) << i;
        EXPECT_EQ(elements[i].iov_len, original[i].iov_len) << i;
    }
    EXPECT_EQ(in.substr(0, 6), "012345");
    EXPECT_TRUE(sink.contains("; 15 bytes expected, 6 received."));
}

TEST_F(TCPSocketTest, AvailReceivesReportWhatWasWaiting) {
    veltest::SocketWithPeer link = veltest::MakeSocketWithRawPeer();
    ASSERT_TRUE(link.socket);
    char buf[10] = {};
    unsigned int len = 10;
    EXPECT_EQ(link.socket->hasRecv(), kVELErr_Timeout);
    EXPECT_EQ(link.socket->recvAvail(buf, &len), kVELErr_Incomplete);
    EXPECT_EQ(len, 0u);
    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), "wxyz"));
    ASSERT_TRUE(veltest::WaitForPending(veltest::Fd(*link.socket), 4));
    len = 10;
    EXPECT_EQ(link.socket->recvAvail(buf, &len), kVELErr_Incomplete);
    EXPECT_EQ(len, 4u);
    EXPECT_EQ(std::string(buf, 4), "wxyz");
    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), "0123456789AB"));
    ASSERT_TRUE(veltest::WaitForPending(veltest::Fd(*link.socket), 12));
    len = 10;
    EXPECT_EQ(link.socket->recvAvail(buf, &len), kVELErr_Ok);
    EXPECT_EQ(len, 10u);
    EXPECT_EQ(std::string(buf, 10), "0123456789");
    len = 0;
    EXPECT_EQ(link.socket->recvAvail(buf, &len), kVELErr_Ok);
    EXPECT_EQ(link.socket->hasRecv(), kVELErr_Ok);     // "AB" is still waiting
    ASSERT_EQ(link.socket->recv(buf, 2), kVELErr_Ok);  // takes "AB"

    std::string in(9, '.');
    std::vector<VELIoVec> elements = cut(in, {3, 4, 2});
    VELIoVec* v = elements.data();
    unsigned long n = 3;
    EXPECT_EQ(link.socket->readvAvail(v, n), kVELErr_Incomplete);  // nothing waiting
    EXPECT_EQ(v, elements.data());
    EXPECT_EQ(n, 3u);
    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), "abcde"));
    ASSERT_TRUE(veltest::WaitForPending(veltest::Fd(*link.socket), 5));
    EXPECT_EQ(link.socket->readvAvail(v, n), kVELErr_Incomplete);
    EXPECT_EQ(v, &elements[1]);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(elements[1].iov_base, &in[5]);
    EXPECT_EQ(elements[1].iov_len, 2u);
    ASSERT_TRUE(veltest::WriteAll(link.peer.get(), "fghi"));
    ASSERT_TRUE(veltest::WaitForPending(veltest::Fd(*link.socket), 4));
    EXPECT_EQ(link.socket->readvAvail(v, n), kVELErr_Ok);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(in, "abcdefghi");
    link.peer.reset();
    std::vector<VELIoVec> more = cut(in, {3, 3});
    v = more.data();
    n = 2;
    EXPECT_EQ(link.socket->readvAvail(v, n), kVELErr_SockHalfClosed);
}

// A descriptor can poll readable with nothing to read: here an entry on its error queue (the
// time stamp of a send). The receive that follows times out, and the trace names the peer once.
TEST_F(TCPSocketTest, AvailReceivesThatFindNothingAfterAllTraceThePeerOnce) {
    VEL_SockOptions options;
    options.setNonBlock(true);  // native time-outs of 1 ms
    options.setTimeOut(0);
    veltest::SocketWithPeer link = veltest::MakeSocketWithRawPeer(options);
    ASSERT_TRUE(link.socket);
    const int fd = veltest::Fd(*link.socket);
    const int stamping = SOF_TIMESTAMPING_TX_SOFTWARE | SOF_TIMESTAMPING_SOFTWARE;
    ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_TIMESTAMPING, &stamping, sizeof(stamping)), 0);
    ASSERT_EQ(link.socket->send("s", 1), kVELErr_Ok);
    ASSERT_TRUE(veltest::WaitFor([fd] {
        pollfd entry{fd, POLLIN, 0};
        return poll(&entry, 1, 0) == 1 && entry.revents == POLLERR;
    })) << "no transmit time stamp on the error queue";
    veltest::RecordingSink sink(kVELTrace_Com);
    veltest::ScopedSink installed(&sink);
    char buf[4];
    unsigned int len = 4;
    EXPECT_EQ(link.socket->recvAvail(buf, &len), kVELErr_Incomplete);
    EXPECT_EQ(len, 0u);
    VELIoVec elements[2] = {{buf, 2}, {buf + 2, 2}};
    VELIoVec* v = elements;
    unsigned long n = 2;
    EXPECT_EQ(link.socket->readvAvail(v, n), kVELErr_Incomplete);
    EXPECT_EQ(n, 2u);
    const std::string peer = "timeout on remote address : <host = 127.0.0.1, port = " +
                             std::to_string(link.socket->getRemoteAddr().getPort()) + ">";
    EXPECT_EQ(sink.texts(),
              (std::vector<std::string>{"COM - recvAvail " + peer, "COM - readvAvail " + peer}));
}

TEST_F(TCPSocketTest, WritevAvailAdvancesTheCallersArrayAndKeepsDataOnWouldBlock) {
    veltest::SocketWithPeer link = veltest::MakeSocketWithRawPeer();
    ASSERT_TRUE(link.socket);
    setDescriptorNonBlocking(veltest::Fd(*link.socket), true);  // the way a reactor drives it
    std::string out = veltest::Pattern(8 << 20, 4);
    std::vector<std::uint32_t> lengths(8, 1 << 20);
    lengths.insert(lengths.begin() + 3, 0);
    lengths[4] -= 1;  // element boundaries away from powers of two
    lengths.push_back(1);
    std::vector<VELIoVec> elements = cut(out, lengths);
    const std::vector<VELIoVec> original = elements;

    std::string received;
    std::thread reader([&] { received = veltest::ReadExactly(link.peer.get(), out.size()); });
    VELIoVec* v = elements.data();
    unsigned long n = elements.size();
    int incomplete = 0;
    VELErr_t code = kVELErr_Incomplete;
    for (int round = 0; round < 100000 && code == kVELErr_Incomplete; ++round) {
        code = link.socket->writevAvail(v, n);
        if (code == kVELErr_Incomplete) {
            ++incomplete;
            ASSERT_GT(n, 0u);
            // Everything before `v` went out whole; `v` itself may be advanced in place.
            const std::size_t index = static_cast<std::size_t>(v - elements.data());
            ASSERT_EQ(index + n, elements.size());
            ASSERT_EQ(v->iov_base + v->iov_len, original[index].iov_base + original[index].iov_len);
            const basis::TimeValue limit(2, 0);
            ASSERT_EQ(link.socket->waitForWrite(&limit), kVELErr_Ok);
        }
    }
    reader.join();
    EXPECT_EQ(code, kVELErr_Ok);
    EXPECT_EQ(n, 0u);
    EXPECT_GT(incomplete, 0);  // the buffers cannot hold 8 MiB at once
    EXPECT_TRUE(received == out);
}

TEST_F(TCPSocketTest, FullBufferSendAvailSendsNothingWritevAvailDropsOnTimeOutKeepsOnWouldBlock) {
    for (const bool timeOut : {true, false}) {
        SCOPED_TRACE(timeOut ? "native time-out" : "non-blocking descriptor");
        VEL_SockOptions options;
        if (timeOut) {
            options.setNonBlock(true);
            options.setSendTimeOut(0);
        }
        veltest::SocketWithPeer link = veltest::MakeSocketWithRawPeer(options);
        ASSERT_TRUE(link.socket);
        unsigned int len = 3;
        EXPECT_EQ(link.socket->sendAvail("abc", &len), kVELErr_Ok);
        EXPECT_EQ(len, 3u);
        EXPECT_EQ(veltest::ReadExactly(link.peer.get(), 3), "abc");
        ASSERT_GT(fillConnection(veltest::Fd(*link.socket)), 0u);
        if (!timeOut) {
            setDescriptorNonBlocking(veltest::Fd(*link.socket), true);
        }
        len = 10;
        EXPECT_EQ(link.socket->sendAvail("0123456789", &len), kVELErr_Ok);
        EXPECT_EQ(len, VEL_TCPSocket::kNothingSent);
        EXPECT_EQ(basis::Thread::GetLastSystemErr(), EAGAIN);
        std::string out = "0123456789";
        std::vector<VELIoVec> elements = cut(out, {4, 6});
        VELIoVec* v = elements.data();
        unsigned long n = 2;
        EXPECT_EQ(link.socket->writevAvail(v, n), kVELErr_Incomplete);
        EXPECT_EQ(v, elements.data());
        EXPECT_EQ(n, timeOut ? 0u : 2u);
        EXPECT_EQ(elements[0].iov_len, timeOut ? 0u : 4u);
        EXPECT_EQ(elements[0].iov_base, &out[0]);
        EXPECT_EQ(basis::Thread::GetLastSystemErr(), EAGAIN);
    }
}

// close() from another thread ends a transfer blocked in it at once, a send on a full buffer
// with linger on included, whose time-out (5 s, native or not) it does not wait for.
TEST_F(TCPSocketTest, CloseFromAnotherThreadEndsABlockedTransferAtOnce) {
    const struct {
        const char* what;
        bool send;
        bool native;
    } cases[] = {{"recv", false, false},
                 {"send, native time-outs", true, true},
                 {"send, library time-out", true, false}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        // A thread that had not got into its call yet finds the socket closed: repeat the round.
        bool released = false;
        for (int round = 0; round < 5 && !released; ++round) {
            VEL_SockOptions options;
            options.setLinger(each.send);
            options.setNonBlock(each.native);
            options.setTimeOut(5);
            veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair(options);
            ASSERT_TRUE(pair.client && pair.server);
            if (each.send) {
                ASSERT_GT(fillConnection(veltest::Fd(*pair.client)), 0u);
            }
            std::atomic<pid_t> tid{0};
            std::atomic<bool> done{false};
            VELErr_t result = kVELErr_Ok;
            std::thread blocked([&] {
                tid = veltest::CurrentTid();
                char buf[16] = {};
                result = each.send ? pair.client->send(buf, sizeof(buf))
                                   : pair.client->recv(buf, sizeof(buf));
                done = true;
            });
            ASSERT_TRUE(veltest::WaitFor([&] { return tid.load() != 0; }));
            ASSERT_TRUE(veltest::WaitUntilSleeping(tid.load()));
            const auto start = steady_clock::now();
            EXPECT_EQ(pair.client->close(), kVELErr_Ok);
            EXPECT_LT(steady_clock::now() - start, milliseconds(1500));
            const bool ended = veltest::WaitFor([&] { return done.load(); }, milliseconds(1500));
            if (!ended && !each.send) {
                // Unblock it through the peer so that the thread can be joined.
                (void)pair.server->send("0123456789abcdef", 16);
            }
            blocked.join();
            ASSERT_TRUE(ended) << "the call was not ended by close()";
            if (result != kVELErr_SockNotConnected) {
                EXPECT_NE(result, kVELErr_Ok);
                EXPECT_NE(result, kVELErr_Timeout);
                released = true;
            }
        }
        EXPECT_TRUE(released);
    }
}

// Child body, with the default SIGPIPE disposition: writes to a connection whose peer is gone,
// through every send operation. Exits 0 when the failures came back as status codes.
[[noreturn]] void writeToClosedPeer() {
    signal(SIGPIPE, SIG_DFL);
    veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair();
    if (!pair.client) {
        std::_Exit(3);
    }
    pair.server.reset();
    std::string chunk(65536, 'p');
    VELErr_t code = kVELErr_Ok;
    for (int i = 0; i < 1000 && code == kVELErr_Ok; ++i) {
        code = pair.client->send(chunk.data(), static_cast<unsigned int>(chunk.size()));
    }
    if (code != kVELErr_Send && code != kVELErr_SockHalfClosed) {
        std::_Exit(2);
    }
    VELIoVec elements[2] = {{&chunk[0], 10}, {&chunk[10], 10}};
    VELIoVec* v = elements;
    unsigned long n = 2;
    unsigned int len = 10;
    const bool failed = pair.client->writev(elements, 2) != kVELErr_Ok &&
                        pair.client->writevAvail(v, n) != kVELErr_Ok &&
                        pair.client->sendAvail(chunk.data(), &len) != kVELErr_Ok;
    std::_Exit(failed ? 0 : 4);
}

TEST_F(TCPSocketTest, WritingToAClosedPeerDoesNotRaiseSigPipe) {
    EXPECT_EXIT(writeToClosedPeer(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
