#include "SocketSupport.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>

#include "TestSupport.h"
#include "VEL_Socket.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPConnector.h"

namespace veltest {

namespace {

sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

unsigned short boundPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        return 0;
    }
    return ntohs(address.sin_port);
}

}  // namespace

RawFd RawListener(unsigned short* port, int backlog) {
    RawFd listener(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(0);
    if (listener.get() < 0 ||
        bind(listener.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0 ||
        listen(listener.get(), backlog) != 0) {
        ADD_FAILURE() << "raw listener: errno " << errno;
        return RawFd();
    }
    *port = boundPort(listener.get());
    return listener;
}

RawFd RawConnect(unsigned short port) {
    RawFd client(socket(AF_INET, SOCK_STREAM, 0));
    const sockaddr_in address = loopback(port);
    if (client.get() < 0 ||
        connect(client.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ADD_FAILURE() << "raw connect: errno " << errno;
        return RawFd();
    }
    return client;
}

int RawFd::release() {
    const int fd = _fd;
    _fd = -1;
    return fd;
}

void RawFd::reset(int fd) {
    if (_fd >= 0) {
        close(_fd);
    }
    _fd = fd;
}

TCPSocketPair MakeTCPSocketPair(const VEL_SockOptions& clientOptions) {
    TCPSocketPair pair;
    VEL_TCPAcceptor acceptor(0, "127.0.0.1");
    if (acceptor.open() != kVELErr_Ok) {
        ADD_FAILURE() << "acceptor open failed";
        return pair;
    }
    VEL_TCPConnector connector(acceptor.getLocalAddr().getPort(), "127.0.0.1", clientOptions);
    VEL_Socket* client = nullptr;
    const VELErr_t connected = connector.connect(client);
    pair.client.reset(static_cast<VEL_TCPSocket*>(client));
    VEL_Socket* server = nullptr;
    const VELErr_t accepted = connected == kVELErr_Ok ? acceptor.accept(server) : connected;
    pair.server.reset(static_cast<VEL_TCPSocket*>(server));
    if (connected != kVELErr_Ok || accepted != kVELErr_Ok) {
        ADD_FAILURE() << "socket pair: connect " << connected << ", accept " << accepted;
        pair.client.reset();
        pair.server.reset();
    }
    return pair;
}

RawPair MakeRawPair() {
    RawPair pair;
    unsigned short port = 0;
    RawFd listener = RawListener(&port, 1);
    if (listener.get() < 0) {
        return pair;
    }
    pair.client = RawConnect(port);
    pair.server.reset(accept(listener.get(), nullptr, nullptr));
    if (pair.server.get() < 0) {
        ADD_FAILURE() << "raw accept: errno " << errno;
    }
    return pair;
}

SocketWithPeer MakeSocketWithRawPeer(const VEL_SockOptions& options) {
    SocketWithPeer result;
    unsigned short port = 0;
    RawFd listener = RawListener(&port, 1);
    if (listener.get() < 0) {
        return result;
    }
    VEL_TCPConnector connector(port, "127.0.0.1", options);
    VEL_Socket* socket = nullptr;
    const VELErr_t code = connector.connect(socket);
    if (code != kVELErr_Ok) {
        ADD_FAILURE() << "connect to raw peer: " << code;
        return result;
    }
    result.socket.reset(static_cast<VEL_TCPSocket*>(socket));
    result.peer.reset(accept(listener.get(), nullptr, nullptr));
    if (result.peer.get() < 0) {
        ADD_FAILURE() << "raw accept: errno " << errno;
    }
    return result;
}

unsigned short ClosedPort(int type) {
    RawFd probe(socket(AF_INET, type, 0));
    const sockaddr_in address = loopback(0);
    if (probe.get() < 0 ||
        bind(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
        ADD_FAILURE() << "closed port: errno " << errno;
        return 0;
    }
    return boundPort(probe.get());  // closed when `probe` goes
}

StalledListener::StalledListener() {
    // A backlog of 0 admits one finished connection; the filler takes it, and the system drops
    // the handshakes that follow.
    _listener = RawListener(&_port, 0);
    if (_listener.get() >= 0) {
        _filler = RawConnect(_port);
    }
}

int Fd(const VEL_Socket& socket) {
    return static_cast<int>(socket.getHandle());
}

int IntOption(int fd, int level, int name) {
    int value = -1;
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(fd, level, name, &value, &length), 0) << "option " << name;
    return value;
}

long long TimeoutMicros(int fd, int name) {
    timeval value{};
    socklen_t length = sizeof(value);
    EXPECT_EQ(getsockopt(fd, SOL_SOCKET, name, &value, &length), 0) << "option " << name;
    return value.tv_sec * 1000000LL + value.tv_usec;
}

bool IsNonBlocking(int fd) {
    return (fcntl(fd, F_GETFL) & O_NONBLOCK) != 0;
}

bool WriteAll(int fd, const void* data, std::size_t size) {
    const char* bytes = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = send(fd, bytes, size, MSG_NOSIGNAL);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        bytes += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

bool WriteAll(int fd, const std::string& data) {
    return WriteAll(fd, data.data(), data.size());
}

std::string ReadExactly(int fd, std::size_t size, std::chrono::milliseconds limit) {
    std::string data;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char chunk[65536];
    while (data.size() < size) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
        pollfd entry{fd, POLLIN, 0};
        if (left.count() <= 0 || poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            break;
        }
        const std::size_t wanted = std::min(sizeof(chunk), size - data.size());
        const ssize_t got = recv(fd, chunk, wanted, 0);
        if (got <= 0) {
            break;
        }
        data.append(chunk, static_cast<std::size_t>(got));
    }
    return data;
}

bool WaitForPending(int fd, int size, std::chrono::milliseconds limit) {
    return WaitFor(
            [&] {
                int pending = 0;
                return ioctl(fd, FIONREAD, &pending) == 0 && pending >= size;
            },
            limit);
}

pid_t CurrentTid() {
    return static_cast<pid_t>(syscall(SYS_gettid));
}

bool WaitUntilSleeping(pid_t tid, std::chrono::milliseconds limit) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    return WaitFor(
            [&] {
                std::ifstream stat(path);
                std::string line;
                std::getline(stat, line);
                const std::size_t end = line.rfind(')');  // the command name may hold blanks
                return end != std::string::npos && line.size() > end + 2 && line[end + 2] == 'S';
            },
            limit);
}

std::string Pattern(std::size_t size, unsigned int seed) {
    std::string data(size, '\0');
    unsigned int state = seed * 2654435761u + 1;
    for (char& byte : data) {
        state = state * 1103515245u + 12345u;
        byte = static_cast<char>(state >> 16);
    }
    return data;
}

ScopedFdLimit::ScopedFdLimit(rlim_t soft) {
    if (::getrlimit(RLIMIT_NOFILE, &_saved) == 0 && soft <= _saved.rlim_max) {
        rlimit changed = _saved;
        changed.rlim_cur = soft;
        _applied = ::setrlimit(RLIMIT_NOFILE, &changed) == 0;
    }
}

ScopedFdLimit::~ScopedFdLimit() {
    if (_applied) {
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &_saved), 0);
    }
}

void SocketLeakTest::SetUp() {
    _sockets = VEL_Socket::GetNbInstances();
    _descriptors = OpenFdCount();
}

void SocketLeakTest::TearDown() {
    EXPECT_EQ(VEL_Socket::GetNbInstances(), _sockets) << "library sockets left open";
    EXPECT_EQ(OpenFdCount(), _descriptors) << "descriptors leaked";
}

}  // namespace veltest
