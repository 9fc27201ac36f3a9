// Socket helpers: connected loopback pairs, a refusing port, a stalled listener, raw I/O, and a
// fixture that checks that sockets and descriptors are given back. 127.0.0.1, system ports only.
#ifndef TESTS_SUPPORT_SOCKETSUPPORT_H
#define TESTS_SUPPORT_SOCKETSUPPORT_H

#include <sys/resource.h>
#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VEL_SockOptions.h"
#include "VEL_TCPSocket.h"

namespace veltest {

// Owns one raw descriptor (-1 for none) and closes it when destroyed.
class RawFd {
public:
    explicit RawFd(int fd = -1) : _fd(fd) {}
    ~RawFd() { reset(); }
    RawFd(RawFd&& other) noexcept : _fd(other.release()) {}
    RawFd& operator=(RawFd&& other) noexcept {
        reset(other.release());
        return *this;
    }
    RawFd(const RawFd&) = delete;
    RawFd& operator=(const RawFd&) = delete;

    int get() const { return _fd; }
    int release();
    void reset(int fd = -1);

private:
    int _fd;
};

// Two library sockets connected over loopback: `client` from a VEL_TCPConnector (with
// `clientOptions` as its connect options), `server` from a VEL_TCPAcceptor.
struct TCPSocketPair {
    std::unique_ptr<VEL_TCPSocket> client;
    std::unique_ptr<VEL_TCPSocket> server;
};
// Fails the calling test (and returns empty pointers) when the pair cannot be made.
TCPSocketPair MakeTCPSocketPair(const VEL_SockOptions& clientOptions = VEL_SockOptions());

// Two raw TCP descriptors connected over loopback.
struct RawPair {
    RawFd client;
    RawFd server;
};
RawPair MakeRawPair();

// A library socket (connected with a VEL_TCPConnector) and the raw descriptor at the other end,
// for tests that write or check the bytes on the wire themselves.
struct SocketWithPeer {
    std::unique_ptr<VEL_TCPSocket> socket;
    RawFd peer;
};
SocketWithPeer MakeSocketWithRawPeer(const VEL_SockOptions& options = VEL_SockOptions());

// A loopback port that was bound, read back and closed: connections to it are refused.
// `type` is SOCK_STREAM or SOCK_DGRAM.
unsigned short ClosedPort(int type);

// A listener whose queue is full: a further connection attempt stays in progress (the system
// drops its handshake), as with a peer that does not answer.
class StalledListener {
public:
    StalledListener();
    unsigned short port() const { return _port; }

private:
    RawFd _listener;
    RawFd _filler;
    unsigned short _port = 0;
};

// The descriptor of a library socket.
int Fd(const VEL_Socket& socket);
// Connects a raw TCP descriptor to 127.0.0.1:`port` (fails the calling test when it cannot).
RawFd RawConnect(unsigned short port);
// A raw listening descriptor on 127.0.0.1, its port chosen by the system and stored in *port
// (fails the calling test when it cannot be made).
RawFd RawListener(unsigned short* port, int backlog = 16);
// An integer socket option, and a time-out option (SO_SNDTIMEO, SO_RCVTIMEO) in microseconds, as
// the system has them.
int IntOption(int fd, int level, int name);
long long TimeoutMicros(int fd, int name);
// Whether O_NONBLOCK is set on the descriptor.
bool IsNonBlocking(int fd);

// Writes all of `data` to `fd`.
bool WriteAll(int fd, const void* data, std::size_t size);
bool WriteAll(int fd, const std::string& data);
// Reads exactly `size` bytes from `fd` within `limit`; returns what was read (shorter on end of
// stream, error or time-out).
std::string ReadExactly(int fd, std::size_t size,
                        std::chrono::milliseconds limit = std::chrono::seconds(10));
// Waits until at least `size` bytes are waiting to be read on `fd`.
bool WaitForPending(int fd, int size, std::chrono::milliseconds limit = std::chrono::seconds(10));
// Kernel id of the calling thread, and a wait until thread `tid` of this process sleeps (is
// blocked in a system call).
pid_t CurrentTid();
bool WaitUntilSleeping(pid_t tid, std::chrono::milliseconds limit = std::chrono::seconds(10));
// Bytes 0..size-1 of a pattern that differs with `seed`, to tell buffers apart.
std::string Pattern(std::size_t size, unsigned int seed);

// Sets the soft descriptor limit to `soft` for its lifetime, and restores it when destroyed.
// applied() is false, and nothing changed, when the hard limit is below `soft`.
class ScopedFdLimit {
public:
    explicit ScopedFdLimit(rlim_t soft);
    ~ScopedFdLimit();
    ScopedFdLimit(const ScopedFdLimit&) = delete;
    ScopedFdLimit& operator=(const ScopedFdLimit&) = delete;
    bool applied() const { return _applied; }

private:
    rlimit _saved{};
    bool _applied = false;
};

// Base fixture: after each test the process-wide socket count and the number of open
// descriptors are back where they were before it.
class SocketLeakTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

private:
    unsigned long _sockets = 0;
    int _descriptors = 0;
};

}  // namespace veltest

#endif  // TESTS_SUPPORT_SOCKETSUPPORT_H
