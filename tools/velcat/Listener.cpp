#include "Listener.h"

#include <pthread.h>
#include <signal.h>

#include <cerrno>
#include <exception>
#include <memory>
#include <sstream>
#include <string>

#include <boost/enable_shared_from_this.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include "Framing.h"
#include "Thread.h"
#include "VEL_EpollIOReactor.h"
#include "VEL_EventHandler.h"
#include "VEL_IOReactor.h"
#include "VEL_Message.h"
#include "VEL_SelectIOReactor.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPSocket.h"
#include "VEL_TimerManager.h"
#include "VEL_TimerSubscriberInterface.h"
#include "VEL_Tools.h"

namespace velcat {

namespace {

// Handlers of an epoll reactor: connections beyond it are accepted and closed at once. A select
// reactor holds VEL_SelectIOReactor::kSetSize.
constexpr unsigned long kMaxConnections = 65536;

// Counters of the reactor thread, read by the main thread once the reactor has stopped.
struct Statistics {
    unsigned long connections = 0;
    unsigned long messages = 0;
    unsigned long failures = 0;
};

// A listening socket whose descriptor never blocks: accept() after a readiness report whose
// connection was reset meanwhile fails with EAGAIN instead of holding the reactor.
class NonBlockingAcceptor : public VEL_TCPAcceptor {
public:
    using VEL_TCPAcceptor::VEL_TCPAcceptor;

    VELErr_t open() override {
        VELErr_t code = VEL_TCPAcceptor::open();
        if (code == kVELErr_Ok) {
            code = setOptNonBlock(true);
        }
        return code;
    }
};

// One accepted connection: reads a frame whenever input arrives, prints it or sends it back.
class Connection : public VEL_EventHandler, public boost::enable_shared_from_this<Connection> {
public:
    Connection(VEL_IOReactor& reactor, std::unique_ptr<VEL_TCPSocket> socket,
               const Options& options, Statistics& statistics)
        : VEL_EventHandler(socket->getHandle()),
          _reactor(reactor),
          _socket(std::move(socket)),
          _framing(options.protocol, _socket.get(), options.maxSize),
          _echo(options.echo),
          _hex(options.hex),
          _peer(PeerText(*_socket)),
          _statistics(statistics) {}

    bool handleInput() override {
        VELErr_t code = _framing.receive(_message);
        if (code == kVELErr_Incomplete) {
            return true;  // tn3270: the input was gone by the time it was read
        }
        if (code == kVELErr_SockHalfClosed && basis::Thread::GetLastSystemErr() == 0) {
            // The end of the stream, between frames or in the middle of one: no failure here.
            if (VEL_Tools::IsTraceOn(kVELTrace_Com)) {
                VEL_Tools::TraceText(kVELLevel_Info,
                                     VEL_Tools::ErrText("velcat", code, "closed by " + _peer));
            }
            return false;
        }
        if (code == kVELErr_Ok) {
            ++_statistics.messages;
            code = _echo ? _framing.send(_message) : print();
        }
        if (code != kVELErr_Ok) {
            ++_statistics.failures;
            TraceFailure(code, "closing the connection of " + _peer);
            return false;
        }
        return true;
    }

    // Called once a call-back failed, and for every connection when the server stops.
    bool handleClose() override {
        if (_socket->isValid()) {
            // Out of the reactor first: the descriptor's number is reused once it is closed.
            (void)_reactor.removeEventHandler(shared_from_this());  // at once from a call-back
            (void)_socket->close();  // the connection is given up either way
        }
        return true;
    }

private:
    VELErr_t print() { return PrintBody(_message, _hex) ? kVELErr_Ok : kVELErr_InvalidAction; }

    VEL_IOReactor& _reactor;
    std::unique_ptr<VEL_TCPSocket> _socket;
    Framing _framing;
    VEL_Message _message;
    const bool _echo;
    const bool _hex;
    const std::string _peer;
    Statistics& _statistics;
};

// Brings a paused acceptor back when its timer fires (timer thread; the reactor takes changes
// from any thread).
class Resume : public VEL_TimerSubscriberInterface {
public:
    Resume(VEL_IOReactor& reactor, const boost::weak_ptr<VEL_EventHandler>& acceptor)
        : _reactor(reactor), _acceptor(acceptor) {}

    void handleEvent(unsigned long /*timerId*/) override {
        const boost::shared_ptr<VEL_EventHandler> acceptor = _acceptor.lock();
        if (acceptor) {
            (void)_reactor.changeEventHandlerOps(acceptor, kVELOp_Read);  // failures are traced
        }
    }

private:
    VEL_IOReactor& _reactor;
    const boost::weak_ptr<VEL_EventHandler> _acceptor;
};

// The listening socket's handler: accepts one connection per readiness report and registers it.
class AcceptHandler : public VEL_EventHandler,
                      public boost::enable_shared_from_this<AcceptHandler> {
public:
    AcceptHandler(VEL_IOReactor& reactor, VEL_TCPAcceptor& acceptor, const Options& options,
                  Statistics& statistics)
        : VEL_EventHandler(acceptor.getHandle()),
          _reactor(reactor),
          _acceptor(acceptor),
          _options(options),
          _statistics(statistics) {}

    bool handleInput() override {
        VEL_Socket* accepted = nullptr;
        if (_acceptor.accept(accepted) != kVELErr_Ok) {
            const long err = basis::Thread::GetLastSystemErr();
            if (err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM) {
                pause();
            }
            return true;  // EAGAIN, ECONNABORTED, ...: that connection is gone, not the server
        }
        serve(std::unique_ptr<VEL_TCPSocket>(static_cast<VEL_TCPSocket*>(accepted)));
        return true;
    }

private:
    void serve(std::unique_ptr<VEL_TCPSocket> socket) {
        ++_statistics.connections;
        // Native time-outs bound how long a peer that stops in the middle of a frame holds the
        // reactor; request/response traffic must not wait on Nagle's algorithm.
        VEL_SockOptions options;
        options.setNoDelay(true);
        options.setNonBlock(true);
        options.setTimeOut(kPeerTimeoutSeconds);
        VELErr_t code = socket->setOptions(options);
        boost::shared_ptr<Connection> connection;
        if (code == kVELErr_Ok) {
            connection = boost::make_shared<Connection>(_reactor, std::move(socket), _options,
                                                        _statistics);
            code = _reactor.addEventHandler(connection, VEL_IOReactor::kNoInactivityTimeout,
                                            kVELOp_Read);
        }
        if (code != kVELErr_Ok) {
            ++_statistics.failures;
            TraceFailure(code, "a new connection is dropped");
        }
    }

    // Stops reading from the listening socket for a while: the pending connection would
    // otherwise be reported again at once, and fail again.
    void pause() {
        TraceFailure(kVELErr_Accept, "accepting paused");
        (void)_reactor.changeEventHandlerOps(shared_from_this(), 0);  // at once from a call-back
        try {
            VEL_TimerManager* timers = VEL_TimerManager::GetInstance();
            if (timers != nullptr &&
                timers->subscribe(boost::make_shared<Resume>(_reactor, shared_from_this()),
                                  kAcceptPauseSeconds, 1, false) != 0) {
                return;
            }
        } catch (const std::exception&) {
            // no timer: resume at once below
        }
        (void)_reactor.changeEventHandlerOps(shared_from_this(), kVELOp_Read);
    }

    VEL_IOReactor& _reactor;
    VEL_TCPAcceptor& _acceptor;
    const Options& _options;
    Statistics& _statistics;
};

std::unique_ptr<VEL_IOReactor> makeReactor(Backend backend) {
    const basis::TimeValue idle(1, 0);
    if (backend == Backend::kEpoll) {
        return std::unique_ptr<VEL_IOReactor>(new VEL_EpollIOReactor(kMaxConnections, idle));
    }
    return std::unique_ptr<VEL_IOReactor>(
            new VEL_SelectIOReactor(VEL_SelectIOReactor::kSetSize, idle));
}

const char* backendName(Backend backend) {
    return backend == Backend::kEpoll ? "epoll" : "select";
}

// Opens the listening socket and starts the reactor; false (said on stderr) when it cannot.
bool start(const Options& options, VEL_TCPAcceptor& acceptor, VEL_IOReactor& reactor,
           Statistics& statistics) {
    VELErr_t code = acceptor.open();
    if (code != kVELErr_Ok) {
        Say("cannot listen on port " + std::to_string(options.port) + ": " +
            VEL_Tools::GetErrStr(code));
        return false;
    }
    code = reactor.init();
    if (code == kVELErr_Ok) {
        code = reactor.addEventHandler(
                boost::make_shared<AcceptHandler>(reactor, acceptor, options, statistics),
                VEL_IOReactor::kNoInactivityTimeout, kVELOp_Read);
    }
    if (code == kVELErr_Ok && reactor.open() != basis::kErr_Ok) {
        code = kVELErr_Polling;
    }
    if (code != kVELErr_Ok) {
        Say("cannot start the reactor: " + VEL_Tools::GetErrStr(code));
        return false;
    }
    try {
        (void)VEL_TimerManager::GetInstance();  // started now, so that a pause can count on it
    } catch (const std::exception& caught) {
        Say(std::string("timers unavailable, accept failures will not pause: ") + caught.what());
    }
    return true;
}

}  // namespace

int RunListener(const Options& options) {
    // Blocked here, before any thread exists, so that every thread inherits the mask and the
    // signals wait for sigwait below.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stopSignals, nullptr);

    Statistics statistics;
    NonBlockingAcceptor acceptor(options.port,
                                 options.host.empty() ? nullptr : options.host.c_str());
    std::unique_ptr<VEL_IOReactor> reactor = makeReactor(options.backend);
    if (!start(options, acceptor, *reactor, statistics)) {
        return 1;
    }
    const VEL_SockAddr& local = acceptor.getLocalAddr();
    Say(std::string("listening on ") + local.getHostIPAddress() + " port " +
        std::to_string(local.getPort()) + " (" + ProtocolName(options.protocol) + ", " +
        backendName(options.backend) + ")");

    int received = 0;
    (void)sigwait(&stopSignals, &received);  // fails only for a bad set

    (void)reactor->stop();
    (void)reactor->wait();
    VEL_TimerManager::CloseSingleton();  // a pending resume points into the reactor
    (void)reactor->clean();              // every connection gets handleClose()
    (void)acceptor.close();
    Say("stopped: " + std::to_string(statistics.connections) + " connections, " +
        std::to_string(statistics.messages) + " messages, " + std::to_string(statistics.failures) +
        " closed on errors");
    return 0;
}

}  // namespace velcat
