#include "Listener.h"

#include <pthread.h>
#include <signal.h>

#include <atomic>
#include <exception>
#include <memory>
#include <sstream>
#include <string>

#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>

#include "Framing.h"
#include "TimeValue.h"
#include "VEL_EpollIOReactor.h"
#include "VEL_FrameCodec.h"
#include "VEL_FramedAcceptor.h"
#include "VEL_FramedConnection.h"
#include "VEL_IOReactor.h"
#include "VEL_Message.h"
#include "VEL_SelectIOReactor.h"
#include "VEL_TCPSocket.h"
#include "VEL_TimerManager.h"
#include "VEL_Tools.h"

namespace velcat {

namespace {

// Handlers of an epoll reactor; a select reactor holds VEL_SelectIOReactor::kSetSize.
constexpr unsigned long kMaxConnections = 65536;
// The handlers a reactor of the listener holds besides its connections: its wake-up socket and
// the listening socket.
constexpr unsigned long kOwnHandlers = 2;

// Counters, written on the reactor thread and read by the main thread once it has stopped.
struct Statistics {
    std::atomic<unsigned long> messages{0};
    std::atomic<unsigned long> failures{0};
    std::atomic<unsigned long> refused{0};
};

// One accepted connection: prints each message or sends it back, following the peer's
// compression and secure session (the codec does).
class Session : public VEL_ConnectionHandler {
public:
    Session(const Options& options, Statistics& statistics, std::string peer)
        : _echo(options.echo), _hex(options.hex), _statistics(statistics), _peer(std::move(peer)) {}

    void onMessage(VEL_FramedConnection& connection, VEL_Message& message) override {
        ++_statistics.messages;
        VELErr_t code = kVELErr_Ok;
        if (_echo) {
            code = echo(connection, message);
        } else if (!PrintBody(message, _hex)) {
            code = kVELErr_InvalidAction;
        }
        if (code != kVELErr_Ok && code != kVELErr_QueueFull) {  // QueueFull: queued all the same
            _failure = code;
            connection.close();
        }
    }

    void onClose(VEL_FramedConnection& /*connection*/, VELErr_t reason) override {
        if (_failure != kVELErr_Ok) {
            reason = _failure;  // this side gave up: that is the reason to tell
        }
        if (reason == kVELErr_SockHalfClosed) {
            if (VEL_Tools::IsTraceOn(kVELTrace_Com)) {
                VEL_Tools::TraceText(kVELLevel_Info,
                                     VEL_Tools::ErrText("velcat", reason, "closed by " + _peer));
            }
        } else if (reason != kVELErr_Ok && reason != kVELErr_ReactorStopped) {
            ++_statistics.failures;
            TraceFailure(reason, "closing the connection of " + _peer);
        }
    }

private:
    // A body that cannot be compressed (empty, or a stream that does not fit its room) is sent
    // plain for this one message.
    static VELErr_t echo(VEL_FramedConnection& connection, VEL_Message& message) {
        VELErr_t code = connection.send(&message);
        if (code == kVELErr_Compression) {
            connection.useCodec([](VEL_FrameCodec& codec) { SetCompression(codec, false); });
            code = connection.send(&message);  // nothing was sent, the body is unchanged
            connection.useCodec([](VEL_FrameCodec& codec) { SetCompression(codec, true); });
        }
        return code;
    }

    const bool _echo;
    const bool _hex;
    Statistics& _statistics;
    const std::string _peer;
    VELErr_t _failure = kVELErr_Ok;  // reactor thread
};

// Makes each accepted connection, and says on stderr when the reactor is full.
class Factory : public VEL_ConnectionFactory {
public:
    Factory(const Options& options, unsigned long reactorSize, Statistics& statistics)
        : _options(options), _reactorSize(reactorSize), _statistics(statistics) {
        _limits.frameDeadline = options.deadline;
        _limits.outputDeadline = options.deadline;
        _limits.idleTimeout = 0;  // a client may keep a connection open and quiet
        // Room to echo the largest body the listener takes, whatever the peer reads meanwhile.
        _limits.maxPendingOutput = 4 * options.maxSize + (1 << 20);
    }

    boost::shared_ptr<VEL_FramedConnection> makeConnection(
            VEL_IOReactor& reactor, std::unique_ptr<VEL_TCPSocket> socket) override {
        auto session = boost::make_shared<Session>(_options, _statistics, PeerText(*socket));
        return VEL_FramedConnection::Create(reactor, std::move(socket),
                                            MakeCodec(_options.protocol, _options.maxSize), session,
                                            _limits);
    }

    void connectionRefused(const VEL_SockAddr& peer, VELErr_t reason) override {
        ++_statistics.refused;
        TraceFailure(reason, "a new connection is dropped");
        // Said without -t: a full reactor is a limit the user must hear of. Once a second at
        // most, so that a flood of connections does not become a flood of lines.
        const basis::TimeValue now = basis::TimeValue::GetHRTime();
        if (reason != kVELErr_ReactorFull || (_said && now < _lastSaid + basis::TimeValue(1, 0))) {
            return;
        }
        _said = true;
        _lastSaid = now;
        std::ostringstream peerText;
        peerText << peer;
        Say("refused a connection from " + peerText.str() + ": the " +
            (_options.backend == Backend::kSelect ? "select" : "epoll") + " back end holds " +
            std::to_string(_reactorSize) + " handlers, its own " + std::to_string(kOwnHandlers) +
            " sockets included (" + std::to_string(_statistics.refused.load()) +
            " refused so far)");
    }

    void acceptPaused(int /*err*/) override { TraceFailure(kVELErr_Accept, "accepting paused"); }

private:
    const Options& _options;
    const unsigned long _reactorSize;
    Statistics& _statistics;
    VELFramedLimits_t _limits;
    bool _said = false;  // reactor thread, as _lastSaid
    basis::TimeValue _lastSaid;
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

// Starts the timers (the connections' deadlines and the acceptor's pauses count on them), the
// reactor and the listening socket; false (said on stderr) when the server cannot start.
bool start(const Options& options, VEL_IOReactor& reactor,
           const boost::shared_ptr<VEL_FramedAcceptor>& acceptor) {
    try {
        (void)VEL_TimerManager::GetInstance();
    } catch (const std::exception& caught) {
        Say(std::string("cannot start the timers: ") + caught.what());
        return false;
    }
    VELErr_t code = reactor.init();
    if (code == kVELErr_Ok && reactor.open() != basis::kErr_Ok) {
        code = kVELErr_Polling;
    }
    if (code != kVELErr_Ok) {
        Say("cannot start the reactor: " + VEL_Tools::GetErrStr(code));
        return false;
    }
    code = acceptor->open();
    if (code != kVELErr_Ok) {
        Say("cannot listen on port " + std::to_string(options.port) + ": " +
            VEL_Tools::GetErrStr(code));
        return false;
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
    std::unique_ptr<VEL_IOReactor> reactor = makeReactor(options.backend);
    const auto factory = boost::make_shared<Factory>(options, reactor->getSize(), statistics);
    const auto acceptor = VEL_FramedAcceptor::Create(
            *reactor,
            VEL_SockAddr(options.port, options.host.empty() ? nullptr : options.host.c_str()),
            factory);
    if (!acceptor || !start(options, *reactor, acceptor)) {
        return 1;
    }
    const VEL_SockAddr& local = acceptor->getLocalAddr();
    Say(std::string("listening on ") + local.getHostIPAddress() + " port " +
        std::to_string(local.getPort()) + " (" + ProtocolName(options.protocol) + ", " +
        backendName(options.backend) + ")");

    int received = 0;
    (void)sigwait(&stopSignals, &received);  // fails only for a bad set

    // Nothing the reactor thread does waits on a peer, so it stops at once.
    (void)reactor->stop();
    (void)reactor->wait();
    (void)reactor->clean();  // every connection and the acceptor close
    VEL_TimerManager::CloseSingleton();
    Say("stopped: " + std::to_string(acceptor->getAccepted()) + " connections, " +
        std::to_string(statistics.messages.load()) + " messages, " +
        std::to_string(statistics.failures.load()) + " closed on errors, " +
        std::to_string(statistics.refused.load()) + " refused");
    return 0;
}

}  // namespace velcat
