// EchoServer: a small reactor server that answers every message with the same message, used by
// the echo-server example and by the demo.
//
// How it works: a VEL_SelectIOReactor runs in its own thread. A VEL_FramedAcceptor listens and
// accepts each new connection; for each it makes a VEL_FramedConnection, which decodes the frames
// as their bytes arrive and hands every whole message to the Echo handler, whose send queues the
// answer and writes it without waiting. No peer can hold up another: one that stops in the middle
// of a frame, or stops reading its answers, is closed once its deadline passes (30 s by default)
// while the others are served. The wire format is the caller's choice (OXLv1, HOLM, ...), a codec
// made for each connection.
//
// tools/velcat/Listener.cpp shows what a long-running server adds: deadlines of its choosing,
// counters, a word on stderr when the reactor is full.
//
// Thread safety: start() and stop() from one thread; port() and messages() from any.
#ifndef EXAMPLES_ECHOSERVER_H
#define EXAMPLES_ECHOSERVER_H

#include <atomic>
#include <functional>
#include <memory>

#include <boost/shared_ptr.hpp>

#include "VEL_Err.h"

class VEL_FrameCodec;
class VEL_FramedAcceptor;
class VEL_SelectIOReactor;

class EchoServer {
public:
    // Makes the codec of one accepted connection: its wire format.
    using CodecFactory = std::function<std::unique_ptr<VEL_FrameCodec>()>;

    explicit EchoServer(CodecFactory makeCodec);
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
    CodecFactory _makeCodec;
    std::unique_ptr<VEL_SelectIOReactor> _reactor;
    boost::shared_ptr<VEL_FramedAcceptor> _acceptor;
    std::atomic<unsigned short> _port{0};
    std::atomic<unsigned long> _messages{0};
};

#endif  // EXAMPLES_ECHOSERVER_H
