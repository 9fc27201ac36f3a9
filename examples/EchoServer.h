// EchoServer: a small reactor server that answers every message with the same message, used by
// the echo-server example and by the demo.
//
// How it works: a VEL_SelectIOReactor runs in its own thread and watches two kinds of handler.
// The acceptor's handler accepts each new connection and registers an EchoHandler for it; an
// EchoHandler reads one frame whenever its socket has input and sends it straight back. The
// framing is the caller's choice (OXLv1, HOLM, ...), made per connection by a factory.
//
// This is the shortest correct shape of a vel server. tools/velcat/Listener.cpp shows what a
// long-running server adds: a listening socket that never blocks, native time-outs on accepted
// sockets, a pause when accept runs out of descriptors.
//
// Thread safety: start() and stop() from one thread; port() and messages() from any.
#ifndef EXAMPLES_ECHOSERVER_H
#define EXAMPLES_ECHOSERVER_H

#include <atomic>
#include <functional>
#include <memory>

#include "VEL_Err.h"

class VEL_SelectIOReactor;
class VEL_Socket;
class VEL_TCPAcceptor;
class VEL_Transport;

class EchoServer {
public:
    // Makes the transport of one accepted connection.
    using TransportFactory = std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)>;

    explicit EchoServer(TransportFactory makeTransport);
    ~EchoServer();
    EchoServer(const EchoServer&) = delete;
    EchoServer& operator=(const EchoServer&) = delete;

    // Listens on 127.0.0.1:`port` (0: the system chooses, see port()) and starts the reactor.
    VELErr_t start(unsigned short port = 0);
    // Stops the reactor, closes every connection and the listening socket. start() may follow,
    // on the same port.
    void stop();

    unsigned short port() const { return _port.load(); }
    // Messages answered since construction.
    unsigned long messages() const { return _messages.load(); }

private:
    TransportFactory _makeTransport;
    std::unique_ptr<VEL_TCPAcceptor> _acceptor;
    std::unique_ptr<VEL_SelectIOReactor> _reactor;
    std::atomic<unsigned short> _port{0};
    std::atomic<unsigned long> _messages{0};
};

#endif  // EXAMPLES_ECHOSERVER_H
