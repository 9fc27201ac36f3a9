#include "EchoServer.h"

#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>

#include "vel.h"

namespace {

// One client connection: every message that arrives goes straight back.
class EchoHandler : public VEL_EventHandler, public boost::enable_shared_from_this<EchoHandler> {
public:
    EchoHandler(VEL_IOReactor& reactor, VEL_Socket* socket,
                const EchoServer::TransportFactory& makeTransport,
                std::atomic<unsigned long>& messages)
        : VEL_EventHandler(socket->getHandle()),
          _reactor(reactor),
          _socket(socket),
          _transport(makeTransport(socket)),
          _messages(messages) {}

    // Reactor thread: the socket has input.
    bool handleInput() override {
        VEL_Message message;
        if (_transport->recvMessage(&message) != kVELErr_Ok) {
            return false;  // the peer closed, or sent a bad frame: handleClose() follows
        }
        ++_messages;
        return _transport->sendMessage(&message) == kVELErr_Ok;
    }

    // Reactor thread (or the thread that calls clean()): leave the reactor, then close.
    bool handleClose() override {
        if (_socket->isValid()) {
            _reactor.removeEventHandler(shared_from_this());  // before the descriptor goes
            _socket->close();
        }
        return true;
    }

private:
    VEL_IOReactor& _reactor;
    std::unique_ptr<VEL_Socket> _socket;
    std::unique_ptr<VEL_Transport> _transport;
    std::atomic<unsigned long>& _messages;
};

// The listening socket: each connection that arrives gets its own EchoHandler.
class AcceptHandler : public VEL_EventHandler {
public:
    AcceptHandler(VEL_IOReactor& reactor, VEL_TCPAcceptor& acceptor,
                  const EchoServer::TransportFactory& makeTransport,
                  std::atomic<unsigned long>& messages)
        : VEL_EventHandler(acceptor.getHandle()),
          _reactor(reactor),
          _acceptor(acceptor),
          _makeTransport(makeTransport),
          _messages(messages) {}

    bool handleInput() override {
        VEL_Socket* socket = nullptr;
        if (_acceptor.accept(socket) != kVELErr_Ok) {
            return true;  // that client gave up; the server goes on
        }
        auto handler = boost::make_shared<EchoHandler>(_reactor, socket, _makeTransport, _messages);
        _reactor.addEventHandler(handler, basis::TimeValue(), kVELOp_Read);
        return true;
    }

private:
    VEL_IOReactor& _reactor;
    VEL_TCPAcceptor& _acceptor;
    const EchoServer::TransportFactory& _makeTransport;
    std::atomic<unsigned long>& _messages;
};

}  // namespace

EchoServer::EchoServer(TransportFactory makeTransport) : _makeTransport(std::move(makeTransport)) {}

EchoServer::~EchoServer() {
    stop();
}

VELErr_t EchoServer::start(unsigned short port) {
    _acceptor.reset(new VEL_TCPAcceptor(port, "127.0.0.1"));
    VELErr_t code = _acceptor->open();
    if (code != kVELErr_Ok) {
        return code;
    }
    _port = _acceptor->getLocalAddr().getPort();
    _reactor.reset(new VEL_SelectIOReactor(1024, basis::TimeValue(1, 0)));
    code = _reactor->init();
    if (code == kVELErr_Ok) {
        code = _reactor->addEventHandler(
                boost::make_shared<AcceptHandler>(*_reactor, *_acceptor, _makeTransport, _messages),
                basis::TimeValue(), kVELOp_Read);
    }
    if (code == kVELErr_Ok && _reactor->open() != basis::kErr_Ok) {
        code = kVELErr_Polling;
    }
    return code;
}

void EchoServer::stop() {
    if (_reactor) {
        _reactor->stop();
        _reactor->wait();
        _reactor->clean();  // every handler's handleClose(), on this thread
        _reactor.reset();
    }
    _acceptor.reset();  // closes the listening socket
}
