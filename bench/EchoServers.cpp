#include "EchoServers.h"

#include <event2/buffer.h>
#include <event2/bufferevent.h>
#include <event2/event.h>
#include <event2/listener.h>
#include <event2/util.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>
#include <thread>
#include <utility>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "VEL_FrameCodec.h"
#include "VEL_FramedAcceptor.h"
#include "VEL_FramedConnection.h"
#include "VEL_IOReactor.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_SelectIOReactor.h"
#include "VEL_SockOptions.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPSocket.h"
#include "VEL_TimerManager.h"

namespace velbench {

namespace {

// ---- vel -------------------------------------------------------------------------------------

// One connection: reads a frame into its message and sends the same message back.
class VelEchoHandler : public VEL_EventHandler,
                       public boost::enable_shared_from_this<VelEchoHandler> {
public:
    VelEchoHandler(VEL_IOReactor& reactor, VEL_TCPSocket* socket, std::atomic<long>& count)
        : VEL_EventHandler(socket->getHandle()),
          _reactor(reactor),
          _socket(socket),
          _transport(socket, kMaxEchoBody),
          _count(count) {
        ++_count;
    }
    ~VelEchoHandler() override { --_count; }

    bool handleInput() override {
        return _transport.recvMessage(&_message) == kVELErr_Ok &&
               _transport.sendMessage(&_message) == kVELErr_Ok;
    }
    bool handleClose() override {
        // Removing twice from the handler's own call-back is Ok: handleClose may run again.
        (void)_reactor.removeEventHandler(shared_from_this());
        return true;
    }

private:
    VEL_IOReactor& _reactor;
    std::unique_ptr<VEL_TCPSocket> _socket;  // closed once the reactor lets the handler go
    VEL_OXLv1 _transport;
    VEL_Message _message;
    std::atomic<long>& _count;
};

// The listening socket: accepts one connection per call and registers its handler.
class VelAcceptHandler : public VEL_EventHandler,
                         public boost::enable_shared_from_this<VelAcceptHandler> {
public:
    VelAcceptHandler(VEL_IOReactor& reactor, VEL_TCPAcceptor& acceptor,
                     const VEL_SockOptions& options, std::atomic<long>& count)
        : VEL_EventHandler(acceptor.getHandle()),
          _reactor(reactor),
          _acceptor(acceptor),
          _options(options),
          _count(count) {}

    bool handleInput() override {
        VEL_Socket* accepted = nullptr;
        if (_acceptor.accept(accepted) != kVELErr_Ok) {
            return true;  // the client gave up; keep listening
        }
        auto* socket = static_cast<VEL_TCPSocket*>(accepted);
        (void)socket->setOptions(_options);  // a refused option leaves a usable connection
        const auto handler = boost::make_shared<VelEchoHandler>(_reactor, socket, _count);
        (void)_reactor.addEventHandler(handler, basis::TimeValue(), kVELOp_Read);
        return true;  // a refused registration drops the handler, which closes the socket
    }
    bool handleClose() override {
        (void)_reactor.removeEventHandler(shared_from_this());
        return true;
    }

private:
    VEL_IOReactor& _reactor;
    VEL_TCPAcceptor& _acceptor;
    const VEL_SockOptions _options;
    std::atomic<long>& _count;
};

class VelEchoServer : public EchoServer {
public:
    VelEchoServer(std::unique_ptr<VEL_IOReactor> reactor, const VEL_SockOptions& options)
        : _reactor(std::move(reactor)), _acceptor(0, "127.0.0.1", options) {
        VELErr_t code = _acceptor.open();
        if (code != kVELErr_Ok) {
            FailStatus("vel acceptor open", code);
        }
        _port = _acceptor.getLocalAddr().getPort();
        code = _reactor->init();
        if (code != kVELErr_Ok) {
            FailStatus("vel reactor init", code);
        }
        code = _reactor->addEventHandler(
                boost::make_shared<VelAcceptHandler>(*_reactor, _acceptor, options, _count),
                VEL_IOReactor::kNoInactivityTimeout, kVELOp_Read);
        if (code != kVELErr_Ok) {
            FailStatus("vel reactor registration", code);
        }
        if (_reactor->open() != basis::kErr_Ok) {
            throw BenchError("vel reactor thread did not start");
        }
    }
    ~VelEchoServer() override {
        (void)_reactor->stop();
        (void)_reactor->wait();
        (void)_reactor->clean();  // every handler removes itself; the sockets close
        _reactor.reset();
    }

    unsigned long connections() const override { return static_cast<unsigned long>(_count.load()); }

private:
    std::atomic<long> _count{0};
    std::unique_ptr<VEL_IOReactor> _reactor;
    VEL_TCPAcceptor _acceptor;
};

// ---- vel, framed connections -------------------------------------------------------------------

// Sends every message back; counts the connections it serves.
class FramedEcho : public VEL_ConnectionHandler {
public:
    explicit FramedEcho(std::atomic<long>& count) : _count(count) {}

    void onMessage(VEL_FramedConnection& connection, VEL_Message& message) override {
        (void)connection.send(&message);  // a failure closes the connection
    }
    void onClose(VEL_FramedConnection& /*connection*/, VELErr_t /*reason*/) override { --_count; }

private:
    std::atomic<long>& _count;
};

class FramedFactory : public VEL_ConnectionFactory {
public:
    FramedFactory(const VELFramedLimits_t& limits, std::atomic<long>& count)
        : _limits(limits), _count(count), _echo(boost::make_shared<FramedEcho>(count)) {}

    boost::shared_ptr<VEL_FramedConnection> makeConnection(
            VEL_IOReactor& reactor, std::unique_ptr<VEL_TCPSocket> socket) override {
        auto connection = VEL_FramedConnection::Create(
                reactor, std::move(socket),
                std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv1Codec(kMaxEchoBody)), _echo, _limits);
        if (connection) {
            ++_count;
            std::lock_guard<std::mutex> hold(_lock);
            _connections.push_back(connection);
        }
        return connection;
    }

    std::vector<boost::shared_ptr<VEL_FramedConnection>> connections() const {
        std::lock_guard<std::mutex> hold(_lock);
        return _connections;
    }

private:
    const VELFramedLimits_t _limits;
    std::atomic<long>& _count;
    const boost::shared_ptr<FramedEcho> _echo;
    mutable std::mutex _lock;  // guards _connections
    std::vector<boost::shared_ptr<VEL_FramedConnection>> _connections;
};

class FramedEchoServer : public EchoServer {
public:
    FramedEchoServer(std::unique_ptr<VEL_IOReactor> reactor, const VELFramedLimits_t& limits)
        : _reactor(std::move(reactor)),
          _factory(boost::make_shared<FramedFactory>(limits, _count)) {
        (void)VEL_TimerManager::GetInstance();  // the connections' deadlines
        VELErr_t code = _reactor->init();
        if (code != kVELErr_Ok) {
            FailStatus("vel reactor init", code);
        }
        if (_reactor->open() != basis::kErr_Ok) {
            throw BenchError("vel reactor thread did not start");
        }
        _acceptor = VEL_FramedAcceptor::Create(*_reactor, VEL_SockAddr(0, "127.0.0.1"), _factory);
        code = _acceptor ? _acceptor->open() : kVELErr_Alloc;
        if (code != kVELErr_Ok) {
            FailStatus("vel framed acceptor open", code);
        }
        _port = _acceptor->getLocalAddr().getPort();
    }
    ~FramedEchoServer() override {
        (void)_reactor->stop();
        (void)_reactor->wait();
        (void)_reactor->clean();  // every connection and the acceptor close
        _reactor.reset();
    }

    unsigned long connections() const override { return static_cast<unsigned long>(_count.load()); }
    std::size_t heldBytes() const override {
        std::size_t most = 0;
        for (const auto& connection : _factory->connections()) {
            most = std::max(most, connection->heldBytes());
        }
        return most;
    }

private:
    std::atomic<long> _count{0};
    std::unique_ptr<VEL_IOReactor> _reactor;
    const boost::shared_ptr<FramedFactory> _factory;
    boost::shared_ptr<VEL_FramedAcceptor> _acceptor;
};

// ---- libevent --------------------------------------------------------------------------------

class LibeventEchoServer : public EchoServer {
public:
    LibeventEchoServer() {
        _base = event_base_new();
        if (_base == nullptr) {
            throw BenchError("event_base_new failed");
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        _listener = evconnlistener_new_bind(
                _base, &LibeventEchoServer::onAccept, this,
                LEV_OPT_REUSEABLE | LEV_OPT_CLOSE_ON_FREE | LEV_OPT_CLOSE_ON_EXEC, -1,
                reinterpret_cast<sockaddr*>(&address), sizeof(address));
        if (_listener == nullptr) {
            Fail("evconnlistener_new_bind");
        }
        socklen_t length = sizeof(address);
        if (::getsockname(evconnlistener_get_fd(_listener), reinterpret_cast<sockaddr*>(&address),
                          &length) != 0) {
            Fail("getsockname");
        }
        _port = ntohs(address.sin_port);
        // The loop is single-threaded: another thread stops it through this pipe.
        if (::pipe2(_stopPipe, O_CLOEXEC) != 0) {
            Fail("pipe2");
        }
        _stopEvent = event_new(_base, _stopPipe[0], EV_READ, &LibeventEchoServer::onStop, this);
        if (_stopEvent == nullptr || event_add(_stopEvent, nullptr) != 0) {
            throw BenchError("libevent stop event");
        }
        _thread = std::thread([this] { (void)event_base_dispatch(_base); });
    }
    ~LibeventEchoServer() override {
        const char byte = 0;
        if (::write(_stopPipe[1], &byte, 1) != 1) {
            (void)event_base_loopbreak(_base);  // the loop is not running if the write failed
        }
        _thread.join();
        for (bufferevent* connection : _connections) {
            bufferevent_free(connection);
        }
        evconnlistener_free(_listener);
        event_free(_stopEvent);
        event_base_free(_base);
        (void)::close(_stopPipe[0]);
        (void)::close(_stopPipe[1]);
    }

    unsigned long connections() const override {
        std::lock_guard<std::mutex> hold(_countLock);
        return _connections.size();
    }

private:
    static void onAccept(evconnlistener* /*listener*/, evutil_socket_t fd, sockaddr* /*peer*/,
                         int /*length*/, void* arg) {
        auto* self = static_cast<LibeventEchoServer*>(arg);
        SetNoDelay(fd);
        bufferevent* connection = bufferevent_socket_new(self->_base, fd, BEV_OPT_CLOSE_ON_FREE);
        if (connection == nullptr) {
            (void)::close(fd);
            return;
        }
        bufferevent_setcb(connection, &LibeventEchoServer::onRead, nullptr,
                          &LibeventEchoServer::onEvent, self);
        (void)bufferevent_enable(connection, EV_READ | EV_WRITE);
        std::lock_guard<std::mutex> hold(self->_countLock);
        self->_connections.insert(connection);
    }

    // Moves every whole frame from the input to the output buffer.
    static void onRead(bufferevent* connection, void* arg) {
        evbuffer* input = bufferevent_get_input(connection);
        evbuffer* output = bufferevent_get_output(connection);
        for (;;) {
            const std::size_t waiting = evbuffer_get_length(input);
            char header[kHeaderSize];
            if (waiting < kHeaderSize ||
                evbuffer_copyout(input, header, kHeaderSize) != static_cast<ssize_t>(kHeaderSize)) {
                return;
            }
            std::uint32_t body = 0;
            if (!ParseHeader(header, kMaxEchoBody, &body)) {
                static_cast<LibeventEchoServer*>(arg)->drop(connection);
                return;
            }
            if (waiting < kHeaderSize + body) {
                return;
            }
            (void)evbuffer_remove_buffer(input, output, kHeaderSize + body);
        }
    }

    static void onEvent(bufferevent* connection, short events, void* arg) {
        if ((events & (BEV_EVENT_EOF | BEV_EVENT_ERROR)) != 0) {
            static_cast<LibeventEchoServer*>(arg)->drop(connection);
        }
    }

    static void onStop(evutil_socket_t /*fd*/, short /*events*/, void* arg) {
        (void)event_base_loopbreak(static_cast<LibeventEchoServer*>(arg)->_base);
    }

    void drop(bufferevent* connection) {
        {
            std::lock_guard<std::mutex> hold(_countLock);
            _connections.erase(connection);
        }
        bufferevent_free(connection);
    }

    event_base* _base = nullptr;
    evconnlistener* _listener = nullptr;
    event* _stopEvent = nullptr;
    int _stopPipe[2] = {-1, -1};
    std::thread _thread;
    mutable std::mutex _countLock;  // guards _connections (read by connections())
    std::set<bufferevent*> _connections;
};

// ---- blocking --------------------------------------------------------------------------------

class BlockingEchoServer : public EchoServer {
public:
    BlockingEchoServer() : _listener(Listen(&_port)) {
        _acceptThread = std::thread([this] { acceptLoop(); });
    }
    ~BlockingEchoServer() override {
        // shutdown ends the blocked accept and every blocked read.
        (void)::shutdown(_listener.get(), SHUT_RDWR);
        _acceptThread.join();
        {
            std::lock_guard<std::mutex> hold(_lock);
            for (const Fd& connection : _connectionFds) {
                (void)::shutdown(connection.get(), SHUT_RDWR);
            }
        }
        for (std::thread& worker : _workers) {
            worker.join();
        }
    }

    unsigned long connections() const override { return _open.load(); }

private:
    void acceptLoop() {
        for (;;) {
            const int fd = ::accept4(_listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) {
                if (errno == EINTR || errno == ECONNABORTED) {
                    continue;
                }
                return;  // shut down
            }
            SetNoDelay(fd);
            std::lock_guard<std::mutex> hold(_lock);
            _connectionFds.emplace_back(fd);
            ++_open;
            _workers.emplace_back([this, fd] { serve(fd); });
        }
    }

    void serve(int fd) {
        std::vector<char> body(kMaxEchoBody);
        char header[kHeaderSize];
        std::uint32_t size = 0;
        while (ReadFull(fd, header, kHeaderSize) && ParseHeader(header, kMaxEchoBody, &size) &&
               ReadFull(fd, body.data(), size)) {
            iovec vec[2] = {{header, kHeaderSize}, {body.data(), size}};
            if (!WriteVecFull(fd, vec, 2)) {
                break;
            }
        }
        --_open;
    }

    Fd _listener;
    std::thread _acceptThread;
    std::atomic<unsigned long> _open{0};
    std::mutex _lock;  // guards _connectionFds and _workers
    std::vector<Fd> _connectionFds;
    std::vector<std::thread> _workers;
};

}  // namespace

std::unique_ptr<EchoServer> StartVelEchoServer(std::unique_ptr<VEL_IOReactor> reactor,
                                               const VEL_SockOptions& options) {
    return std::make_unique<VelEchoServer>(std::move(reactor), options);
}

std::unique_ptr<EchoServer> StartSelectEchoServer(unsigned long size,
                                                  const VEL_SockOptions& options) {
    return StartVelEchoServer(std::make_unique<VEL_SelectIOReactor>(size, basis::TimeValue(2, 0)),
                              options);
}

std::unique_ptr<EchoServer> StartFramedEchoServer(std::unique_ptr<VEL_IOReactor> reactor,
                                                  const VELFramedLimits_t& limits) {
    return std::make_unique<FramedEchoServer>(std::move(reactor), limits);
}

std::unique_ptr<EchoServer> StartLibeventEchoServer() {
    return std::make_unique<LibeventEchoServer>();
}

std::unique_ptr<EchoServer> StartBlockingEchoServer() {
    return std::make_unique<BlockingEchoServer>();
}

}  // namespace velbench
