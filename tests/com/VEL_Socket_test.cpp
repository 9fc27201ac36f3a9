#include "VEL_Socket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <functional>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "SocketSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_TCPSocket.h"
#include "VEL_Tools.h"

namespace {

// A TCP socket that can take over any descriptor, with the protected option setters open.
class ProbeSocket : public VEL_TCPSocket {
public:
    ProbeSocket() : VEL_TCPSocket(VEL_SockAddr(0, "127.0.0.1")) {}
    void adopt(int fd) {
        takeHandle(fd);
        setConnected();
    }
    using VEL_Socket::getOptError;
    using VEL_Socket::setOptNoDelay;
    using VEL_Socket::setOptRcvBufSize;
    using VEL_Socket::setOptSndBufSize;
    using VEL_Socket::setOptTimeout;
};

// Overrides nothing but open(): what the socket base itself does.
class BareSocket : public VEL_Socket {
public:
    BareSocket() : VEL_Socket(VEL_SockAddr()) {}
    VELErr_t open() override { return kVELErr_Ok; }
};

class SocketTest : public veltest::SocketLeakTest {};

TEST_F(SocketTest, UnspecifiedOrUnchangedOptionsMakeNoSystemCall) {
    // Every option call fails on a pipe, so an Ok proves that none was made.
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    veltest::RawFd writeEnd(pipeFds[1]);
    ProbeSocket probe;
    probe.adopt(pipeFds[0]);
    EXPECT_EQ(probe.setOptions(VEL_SockOptions()), kVELErr_Ok);
    EXPECT_EQ(probe.setOptNoDelay(0), kVELErr_Ok);    // already off
    EXPECT_EQ(probe.setOptNoDelay(255), kVELErr_Ok);  // unspecified
    EXPECT_EQ(probe.setOptSndBufSize(0), kVELErr_Ok);
    VEL_SockOptions timeouts;
    timeouts.setTimeOut(7);  // native time-outs are off: only recorded
    EXPECT_EQ(probe.setOptions(timeouts), kVELErr_Ok);
    EXPECT_EQ(probe.getSendTimeOut(), 7);
    EXPECT_EQ(probe.getRecvTimeOut(), 7);

    basis::Thread::SetLastSystemErr(0);
    EXPECT_EQ(probe.setOptNoDelay(1), kVELErr_NoDelay);  // a call is made, and fails
    EXPECT_NE(basis::Thread::GetLastSystemErr(), 0);
    EXPECT_FALSE(probe.isNoDelay());
}

TEST_F(SocketTest, OptionsApplyInFixedOrderAndStopAtTheFirstFailure) {
    // On a pipe every socket option fails and close-on-exec (fcntl) succeeds, so the code
    // returned names the first option applied, and close-on-exec shows which came before it.
    struct Row {
        int dropped;  // options removed from the full set: the first `dropped` of the order
        VELErr_t expected;
        bool cloExecApplied;
    };
    const Row rows[] = {{0, kVELErr_NoDelay, false}, {1, kVELErr_KeepAlive, false},
                        {2, kVELErr_Linger, false},  {3, kVELErr_SndBuf, true},
                        {4, kVELErr_RcvBuf, true},   {5, kVELErr_SndTimeOut, true}};
    for (const Row& row : rows) {
        int pipeFds[2];
        ASSERT_EQ(pipe(pipeFds), 0);
        veltest::RawFd writeEnd(pipeFds[1]);
        ProbeSocket probe;
        probe.adopt(pipeFds[0]);
        VEL_SockOptions options;
        options.setFdCloExec(true);
        options.setNonBlock(true);
        const std::function<void()> inOrder[] = {
                [&] { options.setNoDelay(true); }, [&] { options.setKeepAlive(true); },
                [&] { options.setLinger(true); }, [&] { options.setSndBufSize(65536); },
                [&] { options.setRcvBufSize(65536); }};
        for (int i = row.dropped; i < 5; ++i) {
            inOrder[i]();
        }
        EXPECT_EQ(probe.setOptions(options), row.expected) << row.dropped;
        const bool cloExec = (fcntl(pipeFds[0], F_GETFD) & FD_CLOEXEC) != 0;
        EXPECT_EQ(cloExec, row.cloExecApplied) << row.dropped;
        EXPECT_EQ(probe.isFdCloExec(), row.cloExecApplied) << row.dropped;
        EXPECT_FALSE(probe.isNonBlock());  // a failed switch is not recorded
    }
}

TEST_F(SocketTest, OptionsReachTheDescriptorAndRepeatingThemMakesNoCall) {
    ProbeSocket probe;
    ASSERT_EQ(probe.open(), kVELErr_Ok);
    const int fd = static_cast<int>(probe.getHandle());
    VEL_SockOptions options;
    options.setNoDelay(true);
    options.setKeepAlive(true);
    options.setFdCloExec(true);
    options.setSndBufSize(16384);
    options.setRcvBufSize(16384);
    options.setNonBlock(true);
    options.setTimeOut(3);
    ASSERT_EQ(probe.setOptions(options), kVELErr_Ok);
    EXPECT_EQ(veltest::IntOption(fd, IPPROTO_TCP, TCP_NODELAY), 1);
    EXPECT_EQ(veltest::IntOption(fd, SOL_SOCKET, SO_KEEPALIVE), 1);
    EXPECT_NE(fcntl(fd, F_GETFD) & FD_CLOEXEC, 0);
    EXPECT_GE(veltest::IntOption(fd, SOL_SOCKET, SO_SNDBUF), 16384);
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_RCVTIMEO), 3000000);
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_SNDTIMEO), 3000000);
    EXPECT_TRUE(probe.isNoDelay() && probe.isKeepAlive() && probe.isFdCloExec() &&
                probe.isNonBlock());
    EXPECT_EQ(probe.getSndBufSize(), 16384u);

    // Put a pipe under the same number: any further option call would now fail.
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    ASSERT_EQ(dup2(pipeFds[0], fd), fd);
    close(pipeFds[0]);
    veltest::RawFd writeEnd(pipeFds[1]);
    EXPECT_EQ(probe.setOptions(options), kVELErr_Ok);
    EXPECT_EQ(probe.setOptNoDelay(1), kVELErr_Ok);
    VEL_SockOptions longer;
    longer.setRecvTimeOut(4);  // native time-outs are on: the new value must reach the handle
    EXPECT_EQ(probe.setOptions(longer), kVELErr_SndTimeOut);
}

TEST_F(SocketTest, NativeTimeOutOfZeroSecondsBecomesOneMillisecond) {
    ProbeSocket probe;
    ASSERT_EQ(probe.open(), kVELErr_Ok);
    const int fd = static_cast<int>(probe.getHandle());
    VEL_SockOptions options;
    options.setNonBlock(true);
    options.setSendTimeOut(0);
    options.setRecvTimeOut(3);
    ASSERT_EQ(probe.setOptions(options), kVELErr_Ok);
    const long long send = veltest::TimeoutMicros(fd, SO_SNDTIMEO);
    EXPECT_GT(send, 0);  // 0 would mean "no limit"; the system rounds 1 ms to its tick
    EXPECT_LE(send, 20000);
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_RCVTIMEO), 3000000);

    VEL_SockOptions general;
    general.setTimeOut(5);  // fills the unspecified ones
    general.setRecvTimeOut(1);
    ASSERT_EQ(probe.setOptions(general), kVELErr_Ok);
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_SNDTIMEO), 5000000);
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_RCVTIMEO), 1000000);

    VEL_SockOptions off;
    off.setNonBlock(false);
    ASSERT_EQ(probe.setOptions(off), kVELErr_Ok);
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_SNDTIMEO), 0);
    EXPECT_EQ(veltest::TimeoutMicros(fd, SO_RCVTIMEO), 0);
    EXPECT_EQ(probe.getSendTimeOut(), 5);  // the values stay recorded
}

TEST_F(SocketTest, BufferLargerThanTheSystemGrantsWarnsAndFails) {
    veltest::RecordingSink sink(kVELTrace_Com | kVELTrace_Error);
    veltest::ScopedSink installed(&sink);
    ProbeSocket probe;
    ASSERT_EQ(probe.open(), kVELErr_Ok);
    const std::string fd = std::to_string(probe.getHandle());
    const unsigned int huge = 1u << 30;
    EXPECT_EQ(probe.setOptSndBufSize(huge), kVELErr_SndBuf);
    EXPECT_EQ(probe.getSndBufSize(), 0u);  // not recorded, whatever the warning says
    EXPECT_EQ(probe.setOptRcvBufSize(huge), kVELErr_RcvBuf);
    const std::string granted = std::to_string(
            veltest::IntOption(static_cast<int>(probe.getHandle()), SOL_SOCKET, SO_SNDBUF));
    EXPECT_TRUE(sink.contains("COM - Warning! Failed to set the TCP send buffer size for <FD = " +
                              fd + "> to 1073741824 bytes. The OS only gave " + granted +
                              " bytes; this is the value that will be used."));
    EXPECT_TRUE(sink.contains(
            "COM - Warning! Failed to set the TCP receive buffer size for <FD = " + fd +
            "> to 1073741824 bytes."));
    EXPECT_TRUE(sink.contains("COM - Cannot set SndBuf option {"));
    EXPECT_TRUE(sink.contains("COM - Cannot set RcvBuf option {"));
    EXPECT_EQ(sink.lines()[0].level, kVELLevel_Error);
    EXPECT_EQ(probe.setOptSndBufSize(10000), kVELErr_Ok);  // Linux grants (twice) this much
    EXPECT_EQ(probe.getSndBufSize(), 10000u);
}

TEST_F(SocketTest, OptionsNeedADescriptor) {
    ProbeSocket probe;
    VEL_SockOptions options;
    options.setNoDelay(true);
    EXPECT_EQ(probe.setOptions(options), kVELErr_InvalidSocket);
    ASSERT_EQ(probe.open(), kVELErr_Ok);
    ASSERT_EQ(probe.close(), kVELErr_Ok);
    EXPECT_EQ(probe.setOptions(options), kVELErr_InvalidSocket);  // the descriptor is gone
}

TEST_F(SocketTest, CloseTwiceTracesAndUncountsOnce) {
    veltest::RecordingSink sink(kVELTrace_Com | kVELTrace_Error);
    veltest::ScopedSink installed(&sink);
    const unsigned long before = VEL_Socket::GetNbInstances();
    VEL_TCPSocket socket(0, "127.0.0.1");
    ASSERT_EQ(socket.open(), kVELErr_Ok);
    EXPECT_EQ(VEL_Socket::GetNbInstances(), before + 1);
    EXPECT_NE(socket.getLocalAddr().getPort(), 0);
    const std::string fd = std::to_string(socket.getHandle());
    EXPECT_EQ(socket.close(), kVELErr_Ok);
    EXPECT_EQ(VEL_Socket::GetNbInstances(), before);
    EXPECT_FALSE(socket.isValid());
    EXPECT_EQ(socket.getLocalAddr().getPort(), 0);
    const std::vector<std::string> expected = {"COM - Closing socket <FD = " + fd +
                                               "> ; Remote address : <host = 0.0.0.0, port = 0>"};
    EXPECT_EQ(sink.texts(), expected);
    EXPECT_EQ(socket.close(), kVELErr_Ok);
    EXPECT_EQ(sink.texts(), expected);
    EXPECT_EQ(VEL_Socket::GetNbInstances(), before);
}

TEST_F(SocketTest, FailedCloseIsReportedButTheDescriptorIsNotKept) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    const unsigned long before = VEL_Socket::GetNbInstances();
    ProbeSocket probe;
    ASSERT_EQ(probe.open(), kVELErr_Ok);
    ASSERT_EQ(close(static_cast<int>(probe.getHandle())), 0);  // behind the socket's back
    EXPECT_EQ(probe.close(), kVELErr_SocketClose);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), EBADF);
    EXPECT_FALSE(probe.isValid());
    EXPECT_FALSE(probe.isClosing());
    EXPECT_EQ(VEL_Socket::GetNbInstances(), before);
    EXPECT_TRUE(sink.contains("COM - Cannot close socket {" + std::to_string(EBADF) +
                              "} ; Remote address : <host = 0.0.0.0, port = 0>"));
    EXPECT_EQ(probe.close(), kVELErr_Ok);
}

TEST_F(SocketTest, WaitsEndWithTheirLimitAndWaitsWithoutOneIgnoreTheSocketTimeOuts) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    VEL_SockOptions options;
    options.setNonBlock(true);
    options.setTimeOut(0);
    veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair(options);
    ASSERT_TRUE(pair.client && pair.server);
    const basis::TimeValue limit(0, 200000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(pair.client->waitForRead(&limit), kVELErr_Timeout);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(195));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1200));
    EXPECT_TRUE(sink.contains("COM - Timeout error {"));
    EXPECT_EQ(pair.client->waitForWrite(&basis::TimeValue::kZero), kVELErr_Ok);

    const pid_t waiter = veltest::CurrentTid();
    std::thread writer([&] {
        // Write only once the main thread is blocked in its wait.
        EXPECT_TRUE(veltest::WaitUntilSleeping(waiter));
        EXPECT_EQ(pair.server->send("x", 1), kVELErr_Ok);
    });
    EXPECT_EQ(pair.client->waitForRead(nullptr), kVELErr_Ok);
    writer.join();

    BareSocket bare;  // no descriptor: fails at once even without a limit
    EXPECT_EQ(bare.waitForRead(nullptr), kVELErr_Select);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), EBADF);
}

TEST_F(SocketTest, DescriptorAbove1023IsWaitedOn) {
    const int high = 1500;
    veltest::ScopedFdLimit limit(high + 1);
    if (!limit.applied()) {
        GTEST_SKIP() << "the hard descriptor limit is too low";
    }
    veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair();
    ASSERT_TRUE(pair.client && pair.server);
    ASSERT_EQ(dup2(static_cast<int>(pair.server->getHandle()), high), high);
    ProbeSocket probe;
    probe.adopt(high);
    EXPECT_EQ(probe.waitForRead(&basis::TimeValue::kZero), kVELErr_Timeout);
    EXPECT_EQ(probe.hasRecv(), kVELErr_Timeout);
    ASSERT_EQ(pair.client->send("ping", 4), kVELErr_Ok);
    const basis::TimeValue wait(2, 0);
    EXPECT_EQ(probe.waitForRead(&wait), kVELErr_Ok);
    EXPECT_EQ(probe.hasRecv(), kVELErr_Ok);
    char buf[4];
    ASSERT_EQ(probe.recv(buf, 4), kVELErr_Ok);
    EXPECT_EQ(std::string(buf, 4), "ping");
}

}  // namespace
