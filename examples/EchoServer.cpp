#include "EchoServer.h"

#include <boost/make_shared.hpp>

#include "vel.h"

namespace {

// What the server does with each message: send it back on the connection it came from.
class Echo : public VEL_ConnectionHandler {
public:
    explicit Echo(std::atomic<unsigned long>& messages) : _messages(messages) {}

    // Reactor thread: a whole message has arrived.
    void onMessage(VEL_FramedConnection& connection, VEL_Message& message) override {
        ++_messages;
        connection.send(&message);  // queued, and written without waiting for the peer
    }

    // The peer left, sent a bad frame or let a deadline pass: nothing of ours to clean up.
    void onClose(VEL_FramedConnection& /*connection*/, VELErr_t /*reason*/) override {}

private:
    std::atomic<unsigned long>& _messages;
};

// The listening socket's side: each connection that arrives gets a codec and the echo.
class Connections : public VEL_ConnectionFactory {
public:
    Connections(const EchoServer::CodecFactory& makeCodec, std::atomic<unsigned long>& messages)
        : _makeCodec(makeCodec), _echo(boost::make_shared<Echo>(messages)) {}

    boost::shared_ptr<VEL_FramedConnection> makeConnection(
            VEL_IOReactor& reactor, std::unique_ptr<VEL_TCPSocket> socket) override {
        return VEL_FramedConnection::Create(reactor, std::move(socket), _makeCodec(), _echo);
    }

private:
    const EchoServer::CodecFactory& _makeCodec;
    const boost::shared_ptr<Echo> _echo;  // one handler serves every connection
};

}  // namespace

EchoServer::EchoServer(CodecFactory makeCodec) : _makeCodec(std::move(makeCodec)) {}

EchoServer::~EchoServer() {
    stop();
}

VELErr_t EchoServer::start(unsigned short port) {
    _reactor.reset(new VEL_SelectIOReactor(1024, basis::TimeValue(1, 0)));
    VELErr_t code = _reactor->init();
    if (code == kVELErr_Ok && _reactor->open() != basis::kErr_Ok) {
        code = kVELErr_Polling;
    }
    if (code != kVELErr_Ok) {
        return code;
    }
    _acceptor = VEL_FramedAcceptor::Create(*_reactor, VEL_SockAddr(port, "127.0.0.1"),
                                           boost::make_shared<Connections>(_makeCodec, _messages));
    code = _acceptor->open();
    _port = _acceptor->getLocalAddr().getPort();
    return code;
}

void EchoServer::stop() {
    if (_reactor) {
        _reactor->stop();
        _reactor->wait();
        _reactor->clean();  // every connection and the acceptor close, on this thread
        _reactor.reset();
    }
    _acceptor.reset();
}
