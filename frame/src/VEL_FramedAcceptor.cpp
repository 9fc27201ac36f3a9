#include "VEL_FramedAcceptor.h"

#include <cerrno>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include "Thread.h"
#include "VEL_ByteStream.h"
#include "VEL_FrameTrace.h"
#include "VEL_FramedConnection.h"
#include "VEL_IOReactor.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPSocket.h"
#include "VEL_TimerManager.h"
#include "VEL_TimerSubscriberInterface.h"

namespace {

const VEL_StaticInit kStaticInit;

// A listening socket whose descriptor never blocks: an accept after a readiness report whose
// connection was reset meanwhile fails with EAGAIN instead of holding the reactor.
class NonBlockingListener : public VEL_TCPAcceptor {
public:
    NonBlockingListener(const VEL_SockAddr& listen) : VEL_TCPAcceptor(listen) {}

    VELErr_t open() override {
        VELErr_t code = VEL_TCPAcceptor::open();
        if (code == kVELErr_Ok) {
            code = setOptNonBlock(true);  // traced by the setter
            if (code != kVELErr_Ok) {
                (void)close();
            }
        }
        return code;
    }
};

bool outOfResources(int err) {
    return err == EMFILE || err == ENFILE || err == ENOBUFS || err == ENOMEM;
}

}  // namespace

// Brings a paused acceptor back (timer thread).
class VEL_FramedAcceptor::Resume : public VEL_TimerSubscriberInterface {
public:
    explicit Resume(const boost::weak_ptr<VEL_FramedAcceptor>& acceptor) : _acceptor(acceptor) {}

    void handleEvent(unsigned long /*timerId*/) override {
        const boost::shared_ptr<VEL_FramedAcceptor> acceptor = _acceptor.lock();
        if (acceptor) {
            acceptor->resume();
        }
    }

private:
    const boost::weak_ptr<VEL_FramedAcceptor> _acceptor;
};

VEL_ConnectionFactory::~VEL_ConnectionFactory() = default;

void VEL_ConnectionFactory::connectionRefused(const VEL_SockAddr& /*peer*/, VELErr_t /*reason*/) {}

void VEL_ConnectionFactory::acceptPaused(int /*err*/) {}

VEL_SockOptions VEL_FramedAcceptor::DefaultConnectionOptions() {
    VEL_SockOptions options;
    options.setNoDelay(true);
    return options;
}

boost::shared_ptr<VEL_FramedAcceptor> VEL_FramedAcceptor::Create(
        VEL_IOReactor& reactor, const VEL_SockAddr& listen,
        boost::shared_ptr<VEL_ConnectionFactory> factory, const VEL_SockOptions& options) {
    try {
        return boost::shared_ptr<VEL_FramedAcceptor>(
                new VEL_FramedAcceptor(reactor, listen, std::move(factory), options));
    } catch (const std::bad_alloc&) {
        velframe::traceError(kVELErr_Alloc);
        return boost::shared_ptr<VEL_FramedAcceptor>();
    }
}

VEL_FramedAcceptor::VEL_FramedAcceptor(VEL_IOReactor& reactor, const VEL_SockAddr& listen,
                                       boost::shared_ptr<VEL_ConnectionFactory> factory,
                                       const VEL_SockOptions& options)
    : VEL_EventHandler(VEL_Socket::kVEL_NoHandle),
      _reactor(reactor),
      _factory(std::move(factory)),
      _options(options),
      _listener(new NonBlockingListener(listen)) {}

VEL_FramedAcceptor::~VEL_FramedAcceptor() = default;

VELErr_t VEL_FramedAcceptor::open() {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    if (_open) {
        return kVELErr_InvalidAction;
    }
    VELErr_t code = _listener->open();
    if (code != kVELErr_Ok) {
        return code;  // traced by the listening socket
    }
    setHandle(_listener->getHandle());
    code = _reactor.addEventHandler(shared_from_this(), VEL_IOReactor::kNoInactivityTimeout,
                                    kVELOp_Read);
    if (code != kVELErr_Ok) {
        (void)_listener->close();
        setHandle(VEL_Socket::kVEL_NoHandle);
        return code;
    }
    _open = true;
    _paused = false;
    return kVELErr_Ok;
}

VELErr_t VEL_FramedAcceptor::close() {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    if (!_open) {
        return kVELErr_Ok;
    }
    _open = false;
    // Out of the reactor before the descriptor goes: its number is reused at once.
    const VELErr_t code = _reactor.removeEventHandler(shared_from_this());
    (void)_listener->close();
    setHandle(VEL_Socket::kVEL_NoHandle);
    return code;
}

const VEL_SockAddr& VEL_FramedAcceptor::getLocalAddr() const {
    return _listener->getLocalAddr();
}

bool VEL_FramedAcceptor::handleInput() {
    std::unique_ptr<VEL_TCPSocket> accepted[kAcceptsPerDispatch];
    int pausedFor = 0;
    const unsigned int count = acceptPending(accepted, &pausedFor);
    // The factory runs without the lock: it may close this acceptor.
    for (unsigned int i = 0; i < count; ++i) {
        serve(std::move(accepted[i]));
    }
    if (pausedFor != 0) {
        pause(pausedFor);
    }
    return true;
}

bool VEL_FramedAcceptor::handleClose() {
    (void)close();  // failures are traced by the reactor
    return true;
}

unsigned int VEL_FramedAcceptor::acceptPending(std::unique_ptr<VEL_TCPSocket>* accepted,
                                               int* pausedFor) {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    unsigned int count = 0;
    // The reactor said one connection waits; for the others, a poll that does not trace, so
    // that the accept that would find none is never made (it would trace a failure).
    while (_open && !_paused && count < kAcceptsPerDispatch &&
           (count == 0 || VEL_TCPByteStream::InputWaiting(*_listener))) {
        VEL_Socket* socket = nullptr;
        if (_listener->accept(socket) != kVELErr_Ok) {
            const int err = static_cast<int>(basis::Thread::GetLastSystemErr());
            if (outOfResources(err)) {
                *pausedFor = err;
            }
            break;  // EAGAIN, ECONNABORTED, ...: that connection is gone, not the listener
        }
        accepted[count++].reset(static_cast<VEL_TCPSocket*>(socket));
    }
    return count;
}

void VEL_FramedAcceptor::serve(std::unique_ptr<VEL_TCPSocket> socket) {
    const VEL_SockAddr peer = socket->getRemoteAddr();
    VELErr_t code = socket->setOptions(_options);
    boost::shared_ptr<VEL_FramedConnection> connection;
    if (code == kVELErr_Ok) {
        (void)velframe::runGuarded([&] {
            connection = _factory->makeConnection(_reactor, std::move(socket));
            return true;
        });
        code = connection ? connection->start() : kVELErr_InvalidAction;
    }
    if (code == kVELErr_Ok) {
        ++_accepted;
        return;
    }
    ++_refused;
    socket.reset();  // closed (if the factory did not take it) before anyone hears of it
    (void)velframe::runGuarded([&] {
        _factory->connectionRefused(peer, code);
        return true;
    });
}

void VEL_FramedAcceptor::pause(int err) {
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        if (!_open) {
            return;
        }
        _paused = true;
        (void)_reactor.changeEventHandlerOps(shared_from_this(), 0);  // at once: own call-back
    }
    velframe::traceError(kVELErr_Accept, [err] {
        return "accepting paused for " + std::to_string(kPauseSeconds) + " s (system error " +
               std::to_string(err) + ")";
    });
    (void)velframe::runGuarded([&] {
        _factory->acceptPaused(err);
        return true;
    });
    try {
        VEL_TimerManager* timers = VEL_TimerManager::GetInstance();
        if (timers != nullptr && timers->subscribe(boost::make_shared<Resume>(shared_from_this()),
                                                   kPauseSeconds, 1, false) != 0) {
            return;
        }
    } catch (const std::exception&) {
        // no timer: resume at once below
    }
    resume();
}

void VEL_FramedAcceptor::resume() {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    if (_open && _paused) {
        _paused = false;
        (void)_reactor.changeEventHandlerOps(shared_from_this(), kVELOp_Read);  // traced
    }
}
