// The plain epoll echo server, a reference written the way a careful C server is: one thread,
// non-blocking descriptors, level-triggered epoll; each read takes up to 64 KiB into the
// connection's buffer, every whole frame in it goes back in one write (gathered behind any output
// still pending), the cut frame at the end stays for the next read, and output the socket does not
// take waits for EPOLLOUT.
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/uio.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "EchoServers.h"

namespace velbench {

namespace {

constexpr std::size_t kReadSize = 64 << 10;

struct Connection {
    Fd fd;
    std::vector<char> input = std::vector<char>(kReadSize);
    std::size_t inputUsed = 0;
    std::vector<char> output;  // pending, from outputHead
    std::size_t outputHead = 0;
};

class PlainEpollEchoServer : public EchoServer {
public:
    PlainEpollEchoServer() : _listener(Listen(&_port)), _epoll(::epoll_create1(EPOLL_CLOEXEC)) {
        _stop.reset(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK));
        if (_epoll.get() < 0 || _stop.get() < 0 ||
            ::fcntl(_listener.get(), F_SETFL, O_NONBLOCK) != 0) {
            Fail("plain epoll set-up");
        }
        watch(_listener.get(), EPOLLIN, EPOLL_CTL_ADD);
        watch(_stop.get(), EPOLLIN, EPOLL_CTL_ADD);
        _thread = std::thread([this] { loop(); });
    }
    ~PlainEpollEchoServer() override {
        const std::uint64_t one = 1;
        (void)::write(_stop.get(), &one, sizeof(one));
        _thread.join();
    }

    unsigned long connections() const override { return _count.load(); }

private:
    void watch(int fd, std::uint32_t events, int operation) {
        epoll_event event{};
        event.events = events;
        event.data.fd = fd;
        if (::epoll_ctl(_epoll.get(), operation, fd, &event) != 0 && operation != EPOLL_CTL_DEL) {
            Fail("plain epoll_ctl");
        }
    }

    void loop() {
        epoll_event events[64];
        for (;;) {
            const int ready = ::epoll_wait(_epoll.get(), events, 64, -1);
            for (int i = 0; i < ready; ++i) {
                const int fd = events[i].data.fd;
                if (fd == _stop.get()) {
                    return;
                }
                if (fd == _listener.get()) {
                    acceptAll();
                } else if (!serve(fd, events[i].events)) {
                    drop(fd);
                }
            }
        }
    }

    void acceptAll() {
        for (;;) {
            const int fd =
                    ::accept4(_listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                return;  // EAGAIN: all taken
            }
            SetNoDelay(fd);
            auto connection = std::make_unique<Connection>();
            connection->fd.reset(fd);
            _connections.emplace(fd, std::move(connection));
            watch(fd, EPOLLIN, EPOLL_CTL_ADD);
            ++_count;
        }
    }

    void drop(int fd) {
        watch(fd, 0, EPOLL_CTL_DEL);
        _connections.erase(fd);
        --_count;
    }

    // False when the connection is over.
    bool serve(int fd, std::uint32_t events) {
        Connection& connection = *_connections.at(fd);
        if ((events & EPOLLOUT) != 0 && !writePending(connection)) {
            return false;
        }
        if ((events & (EPOLLIN | EPOLLHUP | EPOLLERR)) == 0) {
            return true;
        }
        const ssize_t got = ::read(fd, connection.input.data() + connection.inputUsed,
                                   connection.input.size() - connection.inputUsed);
        if (got <= 0) {
            return got < 0 && errno == EAGAIN;
        }
        connection.inputUsed += static_cast<std::size_t>(got);
        return echoWholeFrames(connection);
    }

    // Writes every whole frame of the input back, behind any pending output, in one writev.
    bool echoWholeFrames(Connection& connection) {
        std::size_t whole = 0;
        for (;;) {
            std::uint32_t body = 0;
            if (connection.inputUsed - whole < kHeaderSize) {
                break;
            }
            if (!ParseHeader(connection.input.data() + whole, kMaxEchoBody, &body)) {
                return false;
            }
            if (connection.inputUsed - whole < kHeaderSize + body) {
                if (kHeaderSize + body > connection.input.size()) {
                    connection.input.resize(kHeaderSize + body);  // a frame larger than a read
                }
                break;
            }
            whole += kHeaderSize + body;
        }
        const std::size_t pending = connection.output.size() - connection.outputHead;
        iovec vec[2] = {{connection.output.data() + connection.outputHead, pending},
                        {connection.input.data(), whole}};
        ssize_t sent = 0;
        if (whole > 0) {
            sent = ::writev(connection.fd.get(), vec[0].iov_len > 0 ? vec : vec + 1,
                            vec[0].iov_len > 0 ? 2 : 1);
            if (sent < 0 && errno != EAGAIN) {
                return false;
            }
            sent = std::max<ssize_t>(sent, 0);
        }
        const std::size_t fromOutput = std::min(static_cast<std::size_t>(sent), pending);
        connection.outputHead += fromOutput;
        const std::size_t fromInput = static_cast<std::size_t>(sent) - fromOutput;
        connection.output.insert(connection.output.end(), connection.input.data() + fromInput,
                                 connection.input.data() + whole);
        std::memmove(connection.input.data(), connection.input.data() + whole,
                     connection.inputUsed - whole);
        connection.inputUsed -= whole;
        const bool waiting = connection.output.size() > connection.outputHead;
        if (waiting || pending > 0) {
            watch(connection.fd.get(), waiting ? EPOLLIN | EPOLLOUT : EPOLLIN, EPOLL_CTL_MOD);
        }
        return true;
    }

    bool writePending(Connection& connection) {
        const std::size_t pending = connection.output.size() - connection.outputHead;
        const ssize_t sent = ::write(connection.fd.get(),
                                     connection.output.data() + connection.outputHead, pending);
        if (sent < 0) {
            return errno == EAGAIN;
        }
        connection.outputHead += static_cast<std::size_t>(sent);
        if (connection.outputHead == connection.output.size()) {
            connection.output.clear();
            connection.outputHead = 0;
            watch(connection.fd.get(), EPOLLIN, EPOLL_CTL_MOD);
        }
        return true;
    }

    Fd _listener;
    Fd _epoll;
    Fd _stop;
    std::atomic<unsigned long> _count{0};
    std::unordered_map<int, std::unique_ptr<Connection>> _connections;  // loop thread
    std::thread _thread;
};

}  // namespace

std::unique_ptr<EchoServer> StartPlainEpollEchoServer() {
    return std::make_unique<PlainEpollEchoServer>();
}

}  // namespace velbench
