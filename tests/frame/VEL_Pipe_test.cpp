#include "VEL_Pipe.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "FramedTestSupport.h"
#include "TLSSupport.h"
#include "TestSupport.h"
#include "VEL_HOLM.h"
#include "VEL_OXLv2.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPPipe.h"
#include "VEL_TLSContext.h"
#include "VEL_TLSSocket.h"
#include "VEL_Tools.h"

namespace {

double secondsSince(const basis::TimeValue& start) {
    return static_cast<double>((basis::TimeValue::GetHRTime() - start).toMicroseconds()) / 1e6;
}

// A loopback server that the test stops and starts again on the same port. Connections wait in
// the listen queue until the test accepts them.
class Server {
public:
    Server() { start(0); }
    unsigned short port() const { return _port; }
    void stop() {
        _peers.clear();
        _acceptor.reset();
    }
    void restart() { start(_port); }
    // The next connection (owned by the server); after 5 s without one, the test fails and gets
    // a socket that is not connected.
    VEL_TCPSocket& accept() {
        const basis::TimeValue limit(5, 0);
        VEL_Socket* socket = nullptr;
        if (_acceptor->waitForRead(&limit) != kVELErr_Ok ||
            _acceptor->accept(socket) != kVELErr_Ok) {
            ADD_FAILURE() << "no connection on port " << _port;
            socket = new VEL_TCPSocket(0, nullptr);
        }
        _peers.emplace_back(static_cast<VEL_TCPSocket*>(socket));
        return *_peers.back();
    }
    int acceptFd() { return veltest::Fd(accept()); }
    // True when a connection waits to be accepted.
    bool hasPending() { return _acceptor->waitForRead(&basis::TimeValue::kZero) == kVELErr_Ok; }

private:
    void start(unsigned short port) {
        _acceptor.reset(new VEL_TCPAcceptor(port, "127.0.0.1"));
        ASSERT_EQ(_acceptor->open(), kVELErr_Ok);
        _port = _acceptor->getLocalAddr().getPort();
    }

    std::unique_ptr<VEL_TCPAcceptor> _acceptor;
    std::vector<std::unique_ptr<VEL_TCPSocket>> _peers;
    unsigned short _port = 0;
};

std::string on(const char* event, unsigned short port) {
    return event + (" " + std::to_string(port));
}

std::string on(const char* event, const Server& server) {
    return on(event, server.port());
}

// Records the notifications as "up", "use", "fail", "drop" followed by the port.
class Recorder : public VEL_PipeNotifier, public veltest::EventLog {
public:
    void connectionEstablished(const std::string&, unsigned short port) override {
        add(on("up", port));
    }
    void connectionUsed(const std::string&, unsigned short port) override { add(on("use", port)); }
    void connectionFailed(const std::string&, unsigned short port) override {
        add(on("fail", port));
    }
    void connectionDiscarded(const std::string&, unsigned short port) override {
        add(on("drop", port));
    }
    // Events equal to `event`, or of that kind when it names no port.
    int count(const std::string& event) const {
        const std::vector<std::string> all = events();
        return static_cast<int>(std::count_if(all.begin(), all.end(), [&](const std::string& each) {
            return each == event || each.compare(0, event.size() + 1, event + " ") == 0;
        }));
    }
    std::string last() const {
        const std::vector<std::string> all = events();
        return all.empty() ? "" : all.back();
    }
};

// A TCP pipe whose sends can be made to fail, with its protected operations at hand.
class TestPipe : public VEL_TCPPipe {
public:
    TestPipe(bool failover, VELPipeReactorFactory_t factory) : VEL_TCPPipe(failover, factory) {}
    using VEL_Pipe::getNextConnection;
    using VEL_Pipe::tryMultipleReconnect;
    using VEL_TCPPipe::doCheckPeer;
    using VEL_TCPPipe::doHasBufferedInput;
    using VEL_TCPPipe::doHasRecv;
    using VEL_TCPPipe::doPurge;

    std::atomic<int> failSends{0};  // the next doSend calls that fail with kVELErr_Send
    std::atomic<int> sends{0};

protected:
    VELErr_t doSend(VEL_Socket* socket, const char* data, unsigned int length) override {
        ++sends;
        if (failSends > 0) {
            --failSends;
            return kVELErr_Send;
        }
        return VEL_TCPPipe::doSend(socket, data, length);
    }
};

// A thread that makes one blocking call on the pipe; joined on every path.
class Caller {
public:
    explicit Caller(std::function<VELErr_t()> call)
        : _thread([this, call] {
              _tid = veltest::CurrentTid();
              _result = call();
          }) {}
    ~Caller() { (void)finish(); }
    // True once the thread blocks.
    bool blocked() {
        return veltest::WaitFor([this] { return _tid != 0; }) && veltest::WaitUntilSleeping(_tid);
    }
    // The call's status, once it has returned.
    VELErr_t finish() {
        if (_thread.joinable()) {
            _thread.join();
        }
        return _result;
    }

private:
    std::atomic<pid_t> _tid{0};
    VELErr_t _result = kVELErr_Ok;
    std::thread _thread;
};

class PipeTest : public veltest::SocketLeakTest,
                 public ::testing::WithParamInterface<veltest::ReactorFactory> {
protected:
    // A pipe to `servers` in this order, with 1 s times, not opened.
    std::unique_ptr<TestPipe> makePipe(bool failover, const std::vector<Server*>& servers) {
        std::unique_ptr<TestPipe> pipe(new TestPipe(failover, GetParam()));
        for (const Server* server : servers) {
            EXPECT_EQ(pipe->addConnection(server->port(), "127.0.0.1"), kVELErr_Ok);
        }
        pipe->setRetryTime(1);
        pipe->setSendTimeout(1);
        pipe->setRecvTimeout(1);
        pipe->setConnectTimeout(1);
        pipe->setPipeNotifier(&recorder);
        return pipe;
    }
    VEL_Socket* socketOf(TestPipe& pipe) {
        VELPipeConnection_t* connection = nullptr;
        EXPECT_EQ(pipe.getNextConnection(connection), kVELErr_Ok);
        return connection != nullptr ? connection->socket : nullptr;
    }

    Recorder recorder;
};

TEST_P(PipeTest, FailoverStartsAtARandomEndpoint) {
    Server servers[2];
    std::set<std::string> primaries;
    for (int round = 0; round < 40 && primaries.size() < 2; ++round) {
        Recorder connections;
        auto pipe = makePipe(true, {&servers[0], &servers[1]});
        pipe->setPipeNotifier(&connections);
        ASSERT_EQ(pipe->open(), kVELErr_Ok);
        ASSERT_EQ(connections.count("up"), 1);  // one connection only
        primaries.insert(connections.last());
    }
    EXPECT_EQ(primaries.size(), 2u);
}

TEST_P(PipeTest, FailoverLeavesAStoppedPrimaryAndReturnsOnceItsRetryTimeHasPassed) {
    Server servers[2];
    auto pipe = makePipe(true, {&servers[0], &servers[1]});
    ASSERT_EQ(pipe->open(), kVELErr_Ok);
    const bool firstIsPrimary = recorder.last() == on("up", servers[0]);
    Server& primary = servers[firstIsPrimary ? 0 : 1];
    Server& backup = servers[firstIsPrimary ? 1 : 0];
    (void)primary.accept();
    primary.stop();
    const basis::TimeValue stopped = basis::TimeValue::GetHRTime();
    ASSERT_EQ(pipe->send("x", 1), kVELErr_Ok);
    EXPECT_EQ(recorder.last(), on("use", backup));
    EXPECT_EQ(recorder.count("drop"), 1);
    const int backupFd = backup.acceptFd();
    EXPECT_EQ(veltest::ReadExactly(backupFd, 1), "x");
    ASSERT_TRUE(veltest::WriteAll(backupFd, "a"));  // the backup's answer is read
    char answer = 0;
    EXPECT_EQ(pipe->recv(&answer, 1), kVELErr_Ok);
    EXPECT_EQ(answer, 'a');
    primary.restart();
    // Sends stay on the backup until the primary's retry time (1 s) has passed.
    ASSERT_TRUE(veltest::WaitFor([&] {
        return pipe->send("y", 1) == kVELErr_Ok && recorder.last() == on("use", primary);
    }));
    EXPECT_GE(secondsSince(stopped), 1.0);
    EXPECT_LE(secondsSince(stopped), 3.0);
    EXPECT_EQ(recorder.count(on("drop", backup)), 1);
    EXPECT_EQ(veltest::ReadExactly(primary.acceptFd(), 1), "y");
}

TEST_P(PipeTest, OpenWithNothingReachableFailsAndEndpointsWaitForTheirRetryTime) {
    veltest::RecordingSink sink(kVELTrace_FrameError);
    veltest::ScopedSink installed(&sink);
    std::unique_ptr<TestPipe> pipe(new TestPipe(false, GetParam()));
    for (int i = 0; i < 2; ++i) {
        ASSERT_EQ(pipe->addConnection(veltest::ClosedPort(SOCK_STREAM), "127.0.0.1"), kVELErr_Ok);
    }
    pipe->setRetryTime(1);
    pipe->setPipeNotifier(&recorder);
    const basis::TimeValue start = basis::TimeValue::GetHRTime();
    EXPECT_EQ(pipe->open(), kVELErr_PipeNoConnection);
    EXPECT_TRUE(sink.contains("FRAME - " + VEL_Tools::GetErrStr(kVELErr_PipeNoConnection)));
    EXPECT_EQ(recorder.count("fail"), 2);
    const basis::TimeValue far = start + basis::TimeValue(10, 0);
    EXPECT_EQ(pipe->tryMultipleReconnect(far), kVELErr_PipeNoConnection);
    EXPECT_EQ(recorder.count("fail"), 2);  // neither retry time has passed
    ASSERT_TRUE(veltest::WaitFor([&] {
        (void)pipe->tryMultipleReconnect(far);
        return recorder.count("fail") == 4;
    }));
    EXPECT_GE(secondsSince(start), 1.0);
    EXPECT_LE(secondsSince(start), 3.0);
    pipe->setSendTimeout(0);  // a send ignores retry times
    EXPECT_EQ(pipe->send("x", 1), kVELErr_PipeNoConnection);
    EXPECT_EQ(recorder.count("fail"), 5);  // the send's deadline stopped it after one attempt
}

// The recv that meets the closed connection of a stopped server reports it read ("Message read",
// used), then drops it; calls fail while the port refuses, and once the server is back recv
// reconnects at once and returns early.
TEST_P(PipeTest, StoppedServerIsDroppedAndRecvReconnectsOnceItIsBack) {
    veltest::RecordingSink sink(kVELTrace_Frame);
    veltest::ScopedSink installed(&sink);
    Server server;
    auto pipe = makePipe(false, {&server});
    pipe->setRecvTimeout(10);
    ASSERT_EQ(pipe->open(), kVELErr_Ok);
    ASSERT_EQ(pipe->send("a", 1), kVELErr_Ok);
    EXPECT_EQ(veltest::ReadExactly(server.acceptFd(), 1), "a");
    server.stop();  // the connection ends; the port refuses new ones
    char buffer[2] = {};
    EXPECT_EQ(pipe->recv(buffer, 2), kVELErr_PipeNoConnection);
    EXPECT_EQ(recorder.events(),
              (std::vector<std::string>{on("up", server), on("use", server), on("use", server),
                                        on("drop", server), on("fail", server)}));
    const std::string endpoint = "127.0.0.1:" + std::to_string(server.port());
    const std::vector<std::string> texts = sink.texts();
    const auto read = std::find_if(texts.begin(), texts.end(), [&](const std::string& text) {
        return text.find("] Message read = " + endpoint) != std::string::npos;
    });
    EXPECT_TRUE(std::any_of(read, texts.end(), [&](const std::string& text) {
        return text.find("] Discard a connection = " + endpoint) != std::string::npos;
    }));
    EXPECT_EQ(pipe->send("b", 1), kVELErr_PipeNoConnection);
    server.restart();
    basis::TimeValue start = basis::TimeValue::GetHRTime();
    EXPECT_EQ(pipe->recv(buffer, 2), kVELErr_Timeout);  // reconnected, nothing read
    EXPECT_LE(secondsSince(start), 1.0);
    EXPECT_EQ(recorder.count("up"), 2);
    VEL_TCPSocket& peer = server.accept();
    ASSERT_EQ(peer.send("ok", 2), kVELErr_Ok);
    start = basis::TimeValue::GetHRTime();
    ASSERT_EQ(pipe->recv(buffer, 2), kVELErr_Ok);  // the new connection is polled at once
    EXPECT_LE(secondsSince(start), 1.0);
    EXPECT_EQ(std::string(buffer, 2), "ok");
    EXPECT_EQ(pipe->send("c", 1), kVELErr_Ok);
    EXPECT_EQ(veltest::ReadExactly(veltest::Fd(peer), 1), "c");
}

// close() from another thread ends a waiting recv() and a waiting waitForRead().
TEST_P(PipeTest, CloseEndsWaitingCallsAndLaterCallsFindThePipeClosed) {
    Server server;
    auto pipe = makePipe(false, {&server});
    pipe->setRecvTimeout(20);
    ASSERT_EQ(pipe->open(), kVELErr_Ok);
    char buffer[1];
    Caller reader([&] { return pipe->recv(buffer, 1); });
    Caller waiter([&] { return pipe->waitForRead(nullptr); });
    ASSERT_TRUE(reader.blocked());
    ASSERT_TRUE(waiter.blocked());
    const basis::TimeValue start = basis::TimeValue::GetHRTime();
    EXPECT_EQ(pipe->close(), kVELErr_Ok);
    EXPECT_EQ(reader.finish(), kVELErr_PipeClosed);
    EXPECT_EQ(waiter.finish(), kVELErr_PipeClosed);
    EXPECT_LE(secondsSince(start), 2.5);
    EXPECT_EQ(pipe->recv(buffer, 1), kVELErr_PipeClosed);
    EXPECT_EQ(pipe->send("x", 1), kVELErr_PipeNoConnection);  // the endpoints are gone
    ASSERT_EQ(pipe->addConnection(server.port(), "127.0.0.1"), kVELErr_Ok);
    (void)server.accept();  // the connection of open()
    // A closed pipe makes no connection: one made now would never be read after open().
    EXPECT_EQ(pipe->send("x", 1), kVELErr_PipeClosed);
    EXPECT_FALSE(server.hasPending());
    EXPECT_EQ(pipe->open(), kVELErr_Ok);  // with a new reactor
    VEL_TCPSocket& peer = server.accept();
    EXPECT_FALSE(server.hasPending());
    ASSERT_EQ(pipe->send("y", 1), kVELErr_Ok);
    EXPECT_EQ(veltest::ReadExactly(veltest::Fd(peer), 1), "y");
    ASSERT_EQ(peer.send("z", 1), kVELErr_Ok);
    ASSERT_EQ(pipe->recv(buffer, 1), kVELErr_Ok);
    EXPECT_EQ(buffer[0], 'z');
}

// A thread waiting for input holds the reactor, not the pipe: sends go on meanwhile, and a
// connection dropped by the sender leaves the reactor before its socket is closed. A connection
// whose server stops is dropped by the waiting thread as soon as it notices, and the wait goes on
// over the others: a client that reads under its own transport lock once input is reported (as
// velcat does) never holds that lock waiting on a dead connection.
TEST_P(PipeTest, WaitingThreadDropsADeadConnectionAndSendsGoOnMeanwhile) {
    Server servers[3];
    auto pipe = makePipe(false, {&servers[0], &servers[1], &servers[2]});
    pipe->setRecvTimeout(5);  // waits of 2 s in the reactor
    pipe->setRetryTime(60);
    ASSERT_EQ(pipe->open(), kVELErr_Ok);
    VEL_TCPSocket* peers[3] = {&servers[0].accept(), &servers[1].accept(), &servers[2].accept()};
    std::mutex transport;
    char got = 0;
    Caller reader([&] {
        VELErr_t code = pipe->waitForRead(nullptr);
        if (code == kVELErr_Ok) {
            std::lock_guard<std::mutex> hold(transport);
            code = pipe->recv(&got, 1);
        }
        return code;
    });
    ASSERT_TRUE(reader.blocked());
    pipe->failSends = 1;  // servers[0], first in turn
    EXPECT_EQ(pipe->send("a", 1), kVELErr_Ok);
    EXPECT_EQ(recorder.count(on("drop", servers[0])), 1);
    EXPECT_EQ(veltest::ReadExactly(veltest::Fd(*peers[1]), 1), "a");
    servers[1].stop();
    EXPECT_TRUE(veltest::WaitFor([&] { return recorder.count(on("drop", servers[1])) == 1; },
                                 std::chrono::seconds(3)));
    const basis::TimeValue start = basis::TimeValue::GetHRTime();
    {
        std::lock_guard<std::mutex> hold(transport);
        EXPECT_EQ(pipe->send("s", 1), kVELErr_Ok);
    }
    EXPECT_LE(secondsSince(start), 1.0);
    EXPECT_EQ(veltest::ReadExactly(veltest::Fd(*peers[2]), 1), "s");
    EXPECT_EQ(peers[2]->send("r", 1), kVELErr_Ok);
    EXPECT_EQ(reader.finish(), kVELErr_Ok);
    EXPECT_EQ(got, 'r');
}

// A peer that trickles its message, one byte every 200 ms, holds a recv() no longer than its
// receive time-out (plus a connect time-out): the connection is dropped with its half message.
// A send from another thread goes on while the recv waits, and waits for it no longer while it
// reads.
TEST_P(PipeTest, TricklingPeerCannotHoldRecvPastItsTimeOut) {
    Server servers[2];
    auto pipe = makePipe(false, {&servers[0], &servers[1]});
    pipe->setRetryTime(60);
    ASSERT_EQ(pipe->open(), kVELErr_Ok);
    const int trickling = servers[0].acceptFd();
    const int other = servers[1].acceptFd();
    char buffer[30];
    const basis::TimeValue start = basis::TimeValue::GetHRTime();
    Caller reader([&] { return pipe->recv(buffer, sizeof(buffer)); });
    ASSERT_TRUE(reader.blocked());
    EXPECT_EQ(pipe->send("w", 1), kVELErr_Ok);  // to servers[0], first in turn
    EXPECT_LE(secondsSince(start), 0.9);
    const veltest::Paced trickle(std::chrono::milliseconds(200), std::chrono::seconds(10),
                                 [trickling] { return ::send(trickling, "t", 1, 0) == 1; });
    ASSERT_TRUE(veltest::WaitFor([&] { return recorder.count(on("use", servers[0])) == 2; }));
    EXPECT_EQ(pipe->send("x", 1), kVELErr_Ok);  // behind the read, at most until its deadline
    EXPECT_LE(secondsSince(start), 1.0 + 1.0 + 1.0);
    EXPECT_EQ(reader.finish(), kVELErr_Timeout);
    EXPECT_GE(secondsSince(start), 0.9);
    EXPECT_LE(secondsSince(start), 1.0 + 1.0 + 1.0);
    EXPECT_EQ(recorder.count(on("drop", servers[0])), 1);
    EXPECT_EQ(veltest::ReadExactly(other, 1), "x");
}

// A peer that sent a reply and then shut down its sending side (or closed) carries no more
// sends, even with its reply unread: the send goes to the next connection. The reply is still
// read, then the connection is dropped.
TEST_P(PipeTest, PeerThatClosedCarriesNoSendAndIsDroppedOnceItsInputIsRead) {
    for (const bool halfClose : {true, false}) {
        SCOPED_TRACE(halfClose ? "shut down its sending side" : "closed");
        Server servers[2];
        auto pipe = makePipe(false, {&servers[0], &servers[1]});
        ASSERT_EQ(pipe->open(), kVELErr_Ok);
        VEL_TCPSocket& replying = servers[0].accept();
        VEL_TCPSocket& other = servers[1].accept();
        VEL_Socket* ending = socketOf(*pipe);
        (void)socketOf(*pipe);  // back to the order of registration
        ASSERT_EQ(replying.send("hi", 2), kVELErr_Ok);
        if (halfClose) {
            ASSERT_EQ(::shutdown(veltest::Fd(replying), SHUT_WR), 0);
        } else {
            ASSERT_EQ(replying.close(), kVELErr_Ok);
        }
        ASSERT_TRUE(veltest::WaitFor([ending] {
            pollfd entry{veltest::Fd(*ending), POLLRDHUP, 0};
            return ::poll(&entry, 1, 0) == 1;
        }));
        ASSERT_EQ(pipe->send("m", 1), kVELErr_Ok);
        EXPECT_EQ(recorder.count(on("use", servers[0])), 0);
        EXPECT_EQ(veltest::ReadExactly(veltest::Fd(other), 1), "m");
        if (halfClose) {
            char nothing;
            EXPECT_EQ(::recv(veltest::Fd(replying), &nothing, 1, MSG_DONTWAIT), -1);
        }
        char buffer[2];
        ASSERT_EQ(pipe->recv(buffer, 2), kVELErr_Ok);
        EXPECT_EQ(std::string(buffer, 2), "hi");
        EXPECT_EQ(recorder.events().back(), on("drop", servers[0]));
    }
}

// Sends take the connections in registration order; a failed send moves to the next one until
// the deadline.
TEST_P(PipeTest, MultiModeSendsRotateAndAFailedSendMovesOnUntilTheDeadline) {
    Server servers[3];
    auto pipe = makePipe(false, {&servers[0], &servers[1], &servers[2]});
    ASSERT_EQ(pipe->open(), kVELErr_Ok);
    const int fds[3] = {servers[0].acceptFd(), servers[1].acceptFd(), servers[2].acceptFd()};
    for (const char* message : {"m0", "m1", "m2", "m3"}) {
        ASSERT_EQ(pipe->send(message, 2), kVELErr_Ok);
    }
    pipe->failSends = 1;  // the next connection, servers[1], fails
    ASSERT_EQ(pipe->send("z", 1), kVELErr_Ok);
    EXPECT_EQ(pipe->sends, 6);
    EXPECT_EQ(recorder.count(on("drop", servers[1])), 1);
    EXPECT_EQ(veltest::ReadExactly(fds[0], 4), "m0m3");
    EXPECT_EQ(veltest::ReadExactly(fds[1], 2), "m1");
    EXPECT_EQ(veltest::ReadExactly(fds[2], 3), "m2z");
    pipe->setSendTimeout(0);  // one attempt
    pipe->failSends = 100;
    EXPECT_EQ(pipe->send("z", 1), kVELErr_Timeout);
    EXPECT_EQ(pipe->sends, 7);
}

TEST_P(PipeTest, PurgeDrainsWaitingInputAndDropsClosedConnections) {
    Server servers[2];
    auto pipe = makePipe(false, {&servers[0], &servers[1]});
    ASSERT_EQ(pipe->open(), kVELErr_Ok);
    VEL_TCPSocket* peers[2] = {&servers[0].accept(), &servers[1].accept()};
    VEL_Socket* first = socketOf(*pipe);
    ASSERT_NE(first, nullptr);
    ASSERT_EQ(peers[0]->send(veltest::Pattern(2500, 1).data(), 2500), kVELErr_Ok);
    ASSERT_TRUE(veltest::WaitForPending(veltest::Fd(*first), 2500));
    EXPECT_EQ(pipe->doPurge(first), kVELErr_Timeout);  // 1024 + 1024 + 452, then nothing
    EXPECT_EQ(pipe->doHasRecv(first), kVELErr_Timeout);
    ASSERT_EQ(peers[1]->send("12345", 5), kVELErr_Ok);
    EXPECT_EQ(pipe->purge(), kVELErr_Ok);
    ASSERT_EQ(peers[0]->send("next", 4), kVELErr_Ok);
    char buffer[4];
    ASSERT_EQ(pipe->recv(buffer, 4), kVELErr_Ok);  // purge took nothing more
    EXPECT_EQ(std::string(buffer, 4), "next");
    servers[1].stop();
    EXPECT_EQ(pipe->purge(), kVELErr_SockHalfClosed);
    EXPECT_EQ(recorder.count(on("drop", servers[1])), 1);
    EXPECT_EQ(pipe->purge(), kVELErr_Ok);
}

// Frames written by a transport over the pipe arrive whole at one server each, and frames from
// two servers are read back whole, header and body from the same connection.
TEST_P(PipeTest, FramingTransportsRunOverAPipeInMultiConnectionMode) {
    using Make = std::unique_ptr<VEL_Transport> (*)(VEL_Socket*);
    const std::vector<std::pair<const char*, Make>> protocols = {
            {"OXLv1",
             [](VEL_Socket* s) -> std::unique_ptr<VEL_Transport> {
                 return std::unique_ptr<VEL_OXLv1>(new VEL_OXLv1(s, 1 << 16));
             }},
            {"OXLv2",
             [](VEL_Socket* s) -> std::unique_ptr<VEL_Transport> {
                 std::unique_ptr<VEL_OXLv2> transport(new VEL_OXLv2(s, 1 << 16));
                 transport->setCompression(true);
                 return transport;
             }},
            // HOLM reads its header with recv() and the rest with readv().
            {"HOLM", [](VEL_Socket* s) -> std::unique_ptr<VEL_Transport> {
                 std::unique_ptr<VEL_HOLM> transport(new VEL_HOLM(s, 1 << 20));
                 transport->setCompression(true);
                 return transport;
             }}};
    for (const auto& protocol : protocols) {
        SCOPED_TRACE(protocol.first);
        Server servers[2];
        auto pipe = makePipe(false, {&servers[0], &servers[1]});
        ASSERT_EQ(pipe->open(), kVELErr_Ok);
        std::unique_ptr<VEL_Transport> client = protocol.second(pipe.get());
        std::unique_ptr<VEL_Transport> peers[2] = {protocol.second(&servers[0].accept()),
                                                   protocol.second(&servers[1].accept())};
        // Compressible, and each of its own size and bytes.
        const std::string bodies[4] = {std::string(3000, 'a'), std::string(100, 'b'),
                                       std::string(5000, 'c'), std::string(700, 'd')};
        for (int i = 0; i < 4; ++i) {
            VEL_Message message;
            ASSERT_EQ(message.setData(bodies[i].data(), bodies[i].size()), kVELErr_Ok);
            ASSERT_EQ((i < 2 ? client : peers[i - 2])->sendMessage(&message), kVELErr_Ok);
        }
        std::set<std::string> received;
        for (int i = 0; i < 4; ++i) {
            VEL_Message message;
            ASSERT_EQ((i < 2 ? peers[i] : client)->recvMessage(&message), kVELErr_Ok);
            const std::string body(message.data(), message.size());
            if (i < 2) {
                EXPECT_EQ(body, bodies[i]);
            } else {
                received.insert(body);
            }
        }
        EXPECT_EQ(received, std::set<std::string>(bodies + 2, bodies + 4));
    }
}

// recv() and waitForRead() time out on a quiet pipe; input is reported and left for recvAvail()
// and recv().
TEST_P(PipeTest, RecvAndWaitForReadTimeOutThenSeeInput) {
    Server server;
    auto pipe = makePipe(true, {&server});
    ASSERT_EQ(pipe->open(), kVELErr_Ok);
    VEL_TCPSocket& peer = server.accept();
    char buffer[2] = {};
    basis::TimeValue start = basis::TimeValue::GetHRTime();
    EXPECT_EQ(pipe->recv(buffer, 2), kVELErr_Timeout);
    EXPECT_GE(secondsSince(start), 1.0);
    EXPECT_LE(secondsSince(start), 2.5);
    const basis::TimeValue limit(0, 300000);
    start = basis::TimeValue::GetHRTime();
    EXPECT_EQ(pipe->waitForRead(&limit), kVELErr_Timeout);
    EXPECT_GE(secondsSince(start), 0.29);
    EXPECT_LE(secondsSince(start), 1.5);
    ASSERT_EQ(peer.send("in!", 3), kVELErr_Ok);
    EXPECT_EQ(pipe->waitForRead(nullptr), kVELErr_Ok);
    EXPECT_EQ(pipe->waitForRead(&limit), kVELErr_Ok);  // still there
    unsigned int length = 2;
    ASSERT_EQ(pipe->recvAvail(buffer, &length), kVELErr_Ok);  // no more than asked for
    EXPECT_EQ(std::string(buffer, length), "in");
    ASSERT_EQ(pipe->recv(buffer, 1), kVELErr_Ok);
    EXPECT_EQ(buffer[0], '!');
    pipe->setRecvTimeout(0);  // one poll: what is waiting is read
    ASSERT_EQ(peer.send("z", 1), kVELErr_Ok);
    ASSERT_TRUE(veltest::WaitForPending(veltest::Fd(*socketOf(*pipe)), 1));
    ASSERT_EQ(pipe->recv(buffer, 1), kVELErr_Ok);
    EXPECT_EQ(buffer[0], 'z');
}

// A TLS echo server on a reactor of its own (framed connections over TLS).
class TLSEchoServer {
public:
    TLSEchoServer() : _reactor(veltest::MakeSelectReactor(64, basis::TimeValue(1, 0))) {
        (void)VEL_TimerManager::GetInstance();  // the connections' deadlines
        EXPECT_EQ(_reactor->init(), kVELErr_Ok);
        EXPECT_EQ(_reactor->open(), basis::kErr_Ok);
        _acceptor = VEL_FramedAcceptor::Create(*_reactor, VEL_SockAddr(0, "127.0.0.1"),
                                               boost::make_shared<frametest::EchoFactory>(_log));
        EXPECT_EQ(_acceptor->useTLS(veltest::ServerContext()), kVELErr_Ok);
        EXPECT_EQ(_acceptor->open(), kVELErr_Ok);
    }
    ~TLSEchoServer() {
        veltest::StopAndClean(*_reactor);
        _acceptor.reset();
    }
    unsigned short port() const { return _acceptor->getLocalAddr().getPort(); }

private:
    veltest::EventLog _log;
    std::unique_ptr<VEL_IOReactor> _reactor;
    boost::shared_ptr<VEL_FramedAcceptor> _acceptor;
};

// A pipe over TLS: frames go to both servers in turn and come back. The echo of two frames sent
// together comes back in one record, so that the second is decrypted with the first and its
// descriptor has nothing more to report: it is read at once, not after the receive time-out. A
// server whose certificate the pipe cannot verify gives no connection.
TEST_P(PipeTest, TLSConnectionsCarryFramesAndDecryptedInputIsReadAtOnce) {
    ASSERT_TRUE(veltest::TLSFiles::Get().made);
    TLSEchoServer servers[2];
    TestPipe pipe(false, GetParam());
    for (const TLSEchoServer& server : servers) {
        ASSERT_EQ(pipe.addConnection(server.port(), "127.0.0.1"), kVELErr_Ok);
    }
    pipe.setRecvTimeout(1);
    pipe.setPipeNotifier(&recorder);
    ASSERT_EQ(pipe.setTLSContext(veltest::ClientContext()), kVELErr_Ok);
    ASSERT_EQ(pipe.open(), kVELErr_Ok);
    EXPECT_EQ(recorder.count("up"), 2);
    VEL_OXLv1 transport(&pipe, 1024);
    VEL_Message message;
    const auto body = [&message] { return std::string(message.data(), message.size()); };
    for (int i = 0; i < 4; ++i) {
        const std::string sent = "message " + std::to_string(i);
        ASSERT_EQ(message.setData(sent.data(), sent.size()), kVELErr_Ok);
        ASSERT_EQ(transport.sendMessage(&message), kVELErr_Ok);
        ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok);
        EXPECT_EQ(body(), sent);
    }
    EXPECT_EQ(recorder.count(on("use", servers[0].port())),
              recorder.count(on("use", servers[1].port())));

    std::string two;
    for (const char* each : {"first", "second"}) {
        ASSERT_EQ(message.setData(each, std::strlen(each)), kVELErr_Ok);
        std::string frame;
        ASSERT_EQ(VEL_OXLv1Codec(1024).encode(&message, frame), kVELErr_Ok);
        two += frame;
    }
    ASSERT_EQ(pipe.send(two.data(), static_cast<unsigned int>(two.size())), kVELErr_Ok);
    ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok);
    EXPECT_EQ(body(), "first");
    const basis::TimeValue start = basis::TimeValue::GetHRTime();
    ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok);
    EXPECT_EQ(body(), "second");
    EXPECT_LT(secondsSince(start), 0.9) << "waited for the descriptor";

    TestPipe refusing(true, GetParam());
    ASSERT_EQ(refusing.addConnection(servers[0].port(), "127.0.0.1"), kVELErr_Ok);
    ASSERT_EQ(refusing.setTLSContext(VEL_TLSContext(kVELTLS_Client)), kVELErr_Ok);  // trusts none
    refusing.setPipeNotifier(&recorder);
    EXPECT_EQ(refusing.open(), kVELErr_PipeNoConnection);
    EXPECT_EQ(recorder.last(), on("fail", servers[0].port()));
}

INSTANTIATE_TEST_SUITE_P(BackEnds, PipeTest,
                         ::testing::Values(&veltest::MakeSelectReactor, &veltest::MakeEpollReactor),
                         veltest::BackEndName);

// The probes, over TCP and over TLS: input stays where it is; a peer that closed or reset is told
// apart from one that sent something, and one that shut down its sending side behind input is
// seen before a send. Over TLS, what a probe found is inside the session, where the descriptor no
// longer shows it: the pipe is told (doHasBufferedInput). Every status but Ok is traced as an
// error ("FRAME - <status text>").
TEST(TCPPipeTransportTest, ProbesTellInputFromAPeerThatClosedOverTCPAndTLS) {
    ASSERT_TRUE(veltest::TLSFiles::Get().made);
    // The far end: a raw descriptor (TCP) or a TLS socket.
    struct Peer {
        veltest::RawFd raw;
        std::unique_ptr<VEL_TLSSocket> tls;
    };
    const std::function<void(Peer&)> nothing = [](Peer&) {};
    const std::function<void(Peer&)> input = [](Peer& peer) {
        EXPECT_TRUE(peer.tls ? peer.tls->send("b", 1) == kVELErr_Ok
                             : veltest::WriteAll(peer.raw.get(), "b"));
    };
    const std::function<void(Peer&)> end = [](Peer& peer) {
        if (peer.tls) {
            EXPECT_EQ(peer.tls->close(), kVELErr_Ok);  // close_notify, then the descriptor
        } else {
            EXPECT_EQ(::shutdown(peer.raw.get(), SHUT_WR), 0);
        }
    };
    const std::function<void(Peer&)> reset = [](Peer& peer) {
        const int fd = peer.tls ? veltest::Fd(*peer.tls) : peer.raw.get();
        const linger abort{1, 0};
        EXPECT_EQ(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort)), 0);
        if (peer.tls) {
            (void)peer.tls->close();  // close_notify, then the reset: either ends the session
        } else {
            peer.raw.reset();
        }
    };
    const struct {
        std::function<void(Peer&)> peer;
        VELErr_t hasRecv;
        VELErr_t checkPeer;
    } cases[] = {{nothing, kVELErr_Timeout, kVELErr_Ok},
                 {input, kVELErr_Ok, kVELErr_Ok},
                 {end, kVELErr_SockHalfClosed, kVELErr_SockHalfClosed},
                 {[&](Peer& peer) {
                      input(peer);
                      end(peer);
                  },
                  kVELErr_Ok, kVELErr_SockHalfClosed},
                 {reset, kVELErr_SockHalfClosed, kVELErr_SockHalfClosed}};
    TestPipe pipe(false, &veltest::MakeSelectReactor);
    for (const bool tls : {false, true}) {
        for (std::size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); ++i) {
            SCOPED_TRACE(std::string(tls ? "TLS " : "TCP ") + std::to_string(i));
            Peer peer;
            std::unique_ptr<VEL_Socket> socket;
            if (tls) {
                veltest::TLSSocketPair pair = veltest::MakeTLSSocketPair();
                ASSERT_TRUE(pair.client);
                socket = std::move(pair.client);
                peer.tls = std::move(pair.server);
                const int on = 1;  // the input goes out at once, not after the tickets' ACK
                ASSERT_EQ(::setsockopt(veltest::Fd(*peer.tls), IPPROTO_TCP, TCP_NODELAY, &on,
                                       sizeof(on)),
                          0);
            } else {
                veltest::SocketWithPeer pair = veltest::MakeSocketWithRawPeer();
                ASSERT_TRUE(pair.socket);
                socket = std::move(pair.socket);
                peer.raw = std::move(pair.peer);
            }
            cases[i].peer(peer);
            EXPECT_TRUE(veltest::WaitFor(
                    [&] { return pipe.doCheckPeer(socket.get()) == cases[i].checkPeer; }));
            {
                veltest::RecordingSink sink(kVELTrace_FrameError);
                veltest::ScopedSink installed(&sink);
                EXPECT_EQ(pipe.doHasRecv(socket.get()), cases[i].hasRecv);
                const std::vector<veltest::RecordingSink::Line> lines = sink.lines();
                if (cases[i].hasRecv == kVELErr_Ok) {
                    EXPECT_TRUE(lines.empty());
                } else {
                    ASSERT_EQ(lines.size(), 1u);
                    EXPECT_EQ(lines[0].level, kVELLevel_Error);
                    const std::string text = VEL_Tools::GetErrStr(cases[i].hasRecv);
                    const std::string status = "FRAME - " + text.substr(0, text.rfind(" {"));
                    EXPECT_EQ(lines[0].text.compare(0, status.size(), status), 0) << lines[0].text;
                }
            }
            EXPECT_EQ(pipe.doHasBufferedInput(socket.get()),
                      tls && cases[i].hasRecv != kVELErr_Timeout);
            char byte = 0;
            EXPECT_EQ(cases[i].hasRecv == kVELErr_Ok ? socket->recv(&byte, 1) : kVELErr_Ok,
                      kVELErr_Ok);  // the probes took nothing
        }
    }
}

}  // namespace
