// The life of a framed connection: creation, start, send, close, its time limits and its output
// queue. The reading side (dispatch, decoding, delivery) is in VEL_FramedConnectionInput.cpp.
#include "VEL_FramedConnection.h"

#include <algorithm>
#include <cstring>
#include <exception>
#include <new>
#include <string>
#include <utility>

#include <boost/make_shared.hpp>
#include <boost/weak_ptr.hpp>

#include "BufferMgr.h"
#include "VEL_ByteStream.h"
#include "VEL_FrameCodec.h"
#include "VEL_FrameTrace.h"
#include "VEL_FramedConnectionInternal.h"
#include "VEL_IOReactor.h"
#include "VEL_SockAddr.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPSocket.h"
#include "VEL_TimerManager.h"
#include "VEL_TimerSubscriberInterface.h"

namespace {

const VEL_StaticInit kStaticInit;

// Frames at least this large are written at once even from a dispatch, so that a large body is
// not copied into the queue only to wait there for the dispatch to end.
constexpr std::size_t kDirectWriteBytes = 64 << 10;
// The smallest output storage allocated: a dispatch's answers to a read buffer full of small
// frames fit without growing it.
constexpr std::size_t kMinOutputBytes = 64 << 10;

basis::TimeValue seconds(unsigned long count) {
    return basis::TimeValue(static_cast<long>(count), 0);
}

std::size_t partsLength(const VELIoVec* parts, unsigned long count) {
    std::size_t total = 0;
    for (unsigned long i = 0; i < count; ++i) {
        total += parts[i].iov_len;
    }
    return total;
}

}  // namespace

// Calls the connection back when one of its timers falls due (timer thread). The manager holds it
// weakly, and it holds the connection weakly: neither keeps the other alive.
class VEL_FramedConnection::DeadlineTimer : public VEL_TimerSubscriberInterface {
public:
    explicit DeadlineTimer(const boost::weak_ptr<VEL_FramedConnection>& connection)
        : _connection(connection) {}

    void handleEvent(unsigned long timerId) override {
        const boost::shared_ptr<VEL_FramedConnection> connection = _connection.lock();
        if (connection) {
            connection->timerFired(timerId);
        }
    }

private:
    const boost::weak_ptr<VEL_FramedConnection> _connection;
};

VEL_ConnectionHandler::~VEL_ConnectionHandler() = default;

void VEL_ConnectionHandler::onDrained(VEL_FramedConnection& /*connection*/) {}

boost::shared_ptr<VEL_FramedConnection> VEL_FramedConnection::Create(
        VEL_IOReactor& reactor, std::unique_ptr<VEL_ByteStream> stream,
        std::unique_ptr<VEL_FrameCodec> codec, boost::shared_ptr<VEL_ConnectionHandler> handler,
        const VELFramedLimits_t& limits) {
    try {
        boost::shared_ptr<VEL_FramedConnection> connection(new VEL_FramedConnection(
                reactor, std::move(stream), std::move(codec), std::move(handler), limits));
        connection->_timer = boost::make_shared<DeadlineTimer>(connection);
        return connection;
    } catch (const std::bad_alloc&) {
        velframe::traceError(kVELErr_Alloc);
        return boost::shared_ptr<VEL_FramedConnection>();
    }
}

boost::shared_ptr<VEL_FramedConnection> VEL_FramedConnection::Create(
        VEL_IOReactor& reactor, std::unique_ptr<VEL_TCPSocket> socket,
        std::unique_ptr<VEL_FrameCodec> codec, boost::shared_ptr<VEL_ConnectionHandler> handler,
        const VELFramedLimits_t& limits) {
    std::unique_ptr<VEL_ByteStream> stream(new (std::nothrow) VEL_TCPByteStream(std::move(socket)));
    if (!stream) {
        velframe::traceError(kVELErr_Alloc);
        return boost::shared_ptr<VEL_FramedConnection>();
    }
    return Create(reactor, std::move(stream), std::move(codec), std::move(handler), limits);
}

VEL_FramedConnection::VEL_FramedConnection(VEL_IOReactor& reactor,
                                           std::unique_ptr<VEL_ByteStream> stream,
                                           std::unique_ptr<VEL_FrameCodec> codec,
                                           boost::shared_ptr<VEL_ConnectionHandler> handler,
                                           const VELFramedLimits_t& limits)
    : VEL_EventHandler(stream->getHandle()),
      _reactor(reactor),
      _limits(limits),
      _stream(std::move(stream)),
      _codec(std::move(codec)),
      _handler(std::move(handler)) {}

VEL_FramedConnection::~VEL_FramedConnection() {
    // A started connection is held by its reactor until it has closed, and the close cancels
    // its timers; one that never started has none. The stream closes with its unique_ptr.
    std::vector<ArmedTimer> armed;
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        armed.swap(_armed);
    }
    CancelTimers(armed);
}

bool VEL_FramedConnection::inCallback() const {
    return _callbackThread.load() == velframe::selfThread();
}

VELErr_t VEL_FramedConnection::start() {
    unsigned long armSeconds = 0;
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        if (_state != State::kNew) {
            return kVELErr_InvalidAction;
        }
        const basis::TimeValue now = basis::TimeValue::GetHRTime();
        _lastTraffic = now;
        _state = State::kOpen;
        _registeredOps = kVELOp_Read;
        // The reactor keeps no inactivity check of its own (see the header).
        const VELErr_t code = _reactor.addEventHandler(
                shared_from_this(), VEL_IOReactor::kNoInactivityTimeout, kVELOp_Read);
        _registered = code == kVELErr_Ok;
        if (code != kVELErr_Ok) {
            _state = State::kClosed;
            _handler.reset();
            (void)_stream->close();  // never served: nothing else to undo
            setHandle(VEL_Socket::kVEL_NoHandle);
            return code;
        }
        armSeconds = armSecondsFor(now);
    }
    arm(armSeconds);
    return kVELErr_Ok;
}

VELErr_t VEL_FramedConnection::send(VEL_Message* message) {
    Followup followup;
    VELErr_t code = kVELErr_Ok;
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        if (_state != State::kOpen) {
            return kVELErr_SockNotConnected;
        }
        if (_outTail - _outHead + message->size() > _limits.maxPendingOutput) {
            return kVELErr_BufferTooLarge;
        }
        const bool own = inCallback();
        code = queueFrame(message, own);
        if (code != kVELErr_Ok) {
            return code;  // refused by the codec, or the connection is closing (requestClose)
        }
        if (_outTail - _outHead >= _limits.highWater) {
            _congested = true;
            code = kVELErr_QueueFull;
            if (!_paused) {
                _paused = true;  // from a dispatch, its reading stops after this message
                _pausedSince = basis::TimeValue::GetHRTime();
            }
        }
        if (!own) {
            // The reactor thread restates the operations at the end of its dispatch; another
            // thread must ask for writability (and stop the reading) itself.
            const VELErr_t changed = applyOps(false);
            if (changed != kVELErr_Ok) {
                requestClose(changed);
                return changed;
            }
            followup.armSeconds = armSecondsFor(basis::TimeValue::GetHRTime());
        }
    }
    arm(followup.armSeconds);
    return code;
}

void VEL_FramedConnection::close() {
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        if (_state == State::kOpen) {
            requestClose(kVELErr_Ok);
            return;
        }
        if (_state != State::kNew) {
            return;
        }
        _state = State::kClosing;  // never started: closed here, without onClose
    }
    finish();
}

void VEL_FramedConnection::useCodec(const std::function<void(VEL_FrameCodec&)>& action) {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    action(*_codec);
}

std::size_t VEL_FramedConnection::pendingOutput() const {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    return _outTail - _outHead;
}

bool VEL_FramedConnection::isOpen() const {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    return _state == State::kOpen;
}

bool VEL_FramedConnection::isReading() const {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    return !_paused;
}

std::size_t VEL_FramedConnection::heldBytes() const {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    return _outCapacity + _inputHeld;
}

const VEL_SockAddr& VEL_FramedConnection::getRemoteAddr() const {
    return _stream->getRemoteAddr();
}

// ---- output ----------------------------------------------------------------------------------

VELErr_t VEL_FramedConnection::queueFrame(VEL_Message* message, bool own) {
    // parts[0] is kept for the pending output, so that it goes out with the frame in one write.
    VELIoVec parts[kVEL_MaxFrameParts + 1];
    unsigned long count = 0;
    VELErr_t code = _codec->encodeParts(message, parts + 1, &count);
    if (code != kVELErr_Ok) {
        return code;  // traced by the codec; nothing to send
    }
    const std::size_t pending = _outTail - _outHead;
    const std::size_t frameBytes = partsLength(parts + 1, count);
    // From a dispatch, small frames wait for its end; another thread writes only behind an empty
    // queue (the reactor thread writes a queue that holds something when the stream is writable).
    const bool writeNow = own ? (!_corked || frameBytes >= kDirectWriteBytes) : pending == 0;
    std::size_t moved = 0;
    if (writeNow) {
        VELIoVec* first = parts + 1;
        unsigned long pieces = count;
        if (pending > 0) {
            parts[0].iov_base = _outData.get() + _outHead;
            parts[0].iov_len =
                    static_cast<std::uint32_t>(std::min<std::size_t>(pending, UINT32_MAX));
            first = parts;
            ++pieces;
        }
        code = _stream->writeAvail(first, pieces, &moved);
        if (code != kVELErr_Ok) {
            requestClose(code);
            return code;
        }
    }
    const std::size_t fromQueue = std::min(moved, pending);
    code = appendOutput(parts + 1, count, moved - fromQueue);
    if (code != kVELErr_Ok) {
        requestClose(code);  // part of the frame may be on the wire: the stream is lost
        return code;
    }
    if (fromQueue > 0) {
        consumed(fromQueue);
    }
    if (moved > 0 || pending == 0) {
        noteProgress(basis::TimeValue::GetHRTime());
    }
    return kVELErr_Ok;
}

VELErr_t VEL_FramedConnection::appendOutput(const VELIoVec* parts, unsigned long count,
                                            std::size_t skip) {
    const std::size_t total = partsLength(parts, count) - skip;
    if (total == 0) {
        return kVELErr_Ok;
    }
    const std::size_t pending = _outTail - _outHead;
    if (_outTail + total > _outCapacity) {
        if (pending + total <= _outCapacity) {
            std::memmove(_outData.get(), _outData.get() + _outHead, pending);
        } else {
            const std::size_t capacity =
                    std::max({pending + total, 2 * _outCapacity, kMinOutputBytes});
            std::unique_ptr<char[]> larger(new (std::nothrow) char[capacity]);
            if (!larger) {
                return kVELErr_Alloc;  // the connection closes for it (traced then)
            }
            if (pending > 0) {
                std::memcpy(larger.get(), _outData.get() + _outHead, pending);
            }
            _outData = std::move(larger);
            _outCapacity = capacity;
        }
        _outHead = 0;
        _outTail = pending;
    }
    for (unsigned long i = 0; i < count; ++i) {
        std::size_t length = parts[i].iov_len;
        const char* from = parts[i].iov_base;
        const std::size_t skipped = std::min(skip, length);
        skip -= skipped;
        length -= skipped;
        if (length > 0) {
            std::memcpy(_outData.get() + _outTail, from + skipped, length);
            _outTail += length;
        }
    }
    return kVELErr_Ok;
}

VELErr_t VEL_FramedConnection::flush() {
    const std::size_t pending = _outTail - _outHead;
    if (pending == 0) {
        return kVELErr_Ok;
    }
    VELIoVec piece;
    piece.iov_base = _outData.get() + _outHead;
    piece.iov_len = static_cast<std::uint32_t>(std::min<std::size_t>(pending, UINT32_MAX));
    std::size_t moved = 0;
    const VELErr_t code = _stream->writeAvail(&piece, 1, &moved);
    if (code == kVELErr_Ok && moved > 0) {
        consumed(moved);
        noteProgress(basis::TimeValue::GetHRTime());
    }
    return code;
}

void VEL_FramedConnection::consumed(std::size_t bytes) {
    _outHead += bytes;
    if (_outHead == _outTail) {
        releaseOutput();  // an idle connection holds no output storage
    }
}

void VEL_FramedConnection::releaseOutput() {
    _outData.reset();
    _outCapacity = 0;
    _outHead = 0;
    _outTail = 0;
}

void VEL_FramedConnection::noteProgress(const basis::TimeValue& now) {
    _lastTraffic = now;
    _outputSince = now;
}

// ---- operations and back-pressure --------------------------------------------------------------

unsigned short VEL_FramedConnection::wantedOps() const {
    unsigned short ops = _paused ? 0 : kVELOp_Read;
    if (_outTail > _outHead) {
        ops |= kVELOp_Write;
    }
    return ops | _stream->extraOps();
}

VELErr_t VEL_FramedConnection::applyOps(bool force) {
    const unsigned short wanted = wantedOps();
    if (!force && wanted == _registeredOps) {
        return kVELErr_Ok;
    }
    const VELErr_t code = _reactor.changeEventHandlerOps(shared_from_this(), wanted);
    if (code == kVELErr_Ok) {
        _registeredOps = wanted;
        if (!inCallback()) {
            _foreignChanges = true;
        }
    }
    return code;
}

bool VEL_FramedConnection::pauseOrResume(const basis::TimeValue& now) {
    const std::size_t pending = _outTail - _outHead;
    if (!_paused && pending >= _limits.highWater) {
        _paused = true;
        _pausedSince = now;
        return false;
    }
    if (_paused && pending < _limits.lowWater) {
        _paused = false;
        if (_inFrame) {
            _frameSince += now - _pausedSince;  // the peer could not send while we did not read
        }
    }
    if (_congested && !_paused) {
        _congested = false;
        return true;
    }
    return false;
}

// ---- closing -----------------------------------------------------------------------------------

void VEL_FramedConnection::requestClose(VELErr_t reason) {
    if (_state != State::kOpen) {
        return;
    }
    _state = State::kClosing;
    _reason = reason;
    if (!inCallback()) {
        // Wakes the reactor thread (the stream reads as ended), which completes the close.
        _stream->shutdown();
    }
}

VEL_FramedConnection::Followup VEL_FramedConnection::endDispatch(VELErr_t failure) {
    Followup followup;
    if (_state != State::kClosed) {
        // Also when closing: what was queued before (an answer to the peer that ended its
        // stream, the last words of a handler that closes) goes out if the stream takes it now.
        const VELErr_t written = flush();
        if (failure == kVELErr_Ok && _state == State::kOpen) {
            failure = written;
        }
    }
    if (failure != kVELErr_Ok) {
        requestClose(failure);
    }
    if (_state == State::kOpen) {
        const basis::TimeValue now = basis::TimeValue::GetHRTime();
        followup.drained = pauseOrResume(now);
        const VELErr_t changed = applyOps(_foreignChanges);
        if (changed != kVELErr_Ok) {
            requestClose(changed);
        } else {
            followup.armSeconds = armSecondsFor(now);
        }
    }
    followup.finish = _state == State::kClosing;
    if (followup.drained) {
        followup.handler = _handler;
    }
    return followup;
}

void VEL_FramedConnection::runFollowup(const Followup& followup) {
    if (followup.finish) {
        finish();
        return;
    }
    arm(followup.armSeconds);
    if (followup.handler) {
        const bool ok = velframe::runGuarded([&] {
            followup.handler->onDrained(*this);
            return true;
        });
        if (!ok) {
            failCallback();
        }
    }
}

void VEL_FramedConnection::failCallback() {
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        requestClose(kVELErr_UserCode);
    }
    finish();  // in a call-back: nobody else would
}

void VEL_FramedConnection::finish() {
    boost::shared_ptr<VEL_ConnectionHandler> handler;
    std::vector<ArmedTimer> armed;
    VELErr_t reason = kVELErr_Ok;
    bool served = false;
    const unsigned int handle = getHandle();
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        if (_state != State::kClosing) {
            return;  // still open, or closed already
        }
        served = _registered;
        reason = _reason;
        _state = State::kClosed;
        handler.swap(_handler);
        armed.swap(_armed);
        releaseOutput();
        if (served) {
            // Out of the reactor before the descriptor goes: its number is reused at once.
            (void)_reactor.removeEventHandler(shared_from_this());
        }
        (void)_stream->close();
        setHandle(VEL_Socket::kVEL_NoHandle);
    }
    CancelTimers(armed);
    if (served) {
        velframe::traceClose(reason, handle, _stream->getRemoteAddr());
    }
    if (handler && served) {
        (void)velframe::runGuarded([&] {
            handler->onClose(*this, reason);
            return true;
        });
    }
}

bool VEL_FramedConnection::handleClose() {
    const Dispatch dispatch(*this);
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        if (_state == State::kOpen) {
            _state = State::kClosing;
            _reason = kVELErr_ReactorStopped;
        }
    }
    finish();
    return true;
}

// ---- time limits -------------------------------------------------------------------------------

bool VEL_FramedConnection::deadlinePassed(const basis::TimeValue& now, const char** which) const {
    if (_limits.frameDeadline != 0 && _inFrame && !_paused &&
        _frameSince + seconds(_limits.frameDeadline) <= now) {
        *which = "frame deadline passed";
        return true;
    }
    if (_limits.outputDeadline != 0 && _outTail > _outHead &&
        _outputSince + seconds(_limits.outputDeadline) <= now) {
        *which = "output deadline passed";
        return true;
    }
    if (_limits.idleTimeout != 0 && _lastTraffic + seconds(_limits.idleTimeout) <= now) {
        *which = "idle time-out passed";
        return true;
    }
    return false;
}

unsigned long VEL_FramedConnection::armSecondsFor(const basis::TimeValue& now) {
    if (_state != State::kOpen) {
        return 0;
    }
    bool any = false;
    basis::TimeValue due;
    const auto consider = [&](bool active, const basis::TimeValue& since, unsigned long limit) {
        if (active && limit != 0 && (!any || since + seconds(limit) < due)) {
            due = since + seconds(limit);
            any = true;
        }
    };
    consider(_inFrame && !_paused, _frameSince, _limits.frameDeadline);
    consider(_outTail > _outHead, _outputSince, _limits.outputDeadline);
    consider(true, _lastTraffic, _limits.idleTimeout);
    if (!any) {
        return 0;
    }
    for (const ArmedTimer& timer : _armed) {
        if (timer.fireTime <= due) {
            return 0;  // that timer comes in time, and arms the next one
        }
    }
    const long long waitUs = (due - now).toMicroseconds();
    const unsigned long wait =
            waitUs <= 0 ? 1 : static_cast<unsigned long>((waitUs + 999999) / 1000000);
    try {
        _armed.push_back(ArmedTimer{0, now + seconds(wait)});
    } catch (const std::bad_alloc&) {
        return 0;  // no timer now; the next dispatch tries again
    }
    return wait;
}

void VEL_FramedConnection::arm(unsigned long wait) {
    if (wait == 0) {
        return;
    }
    unsigned long id = 0;
    try {
        VEL_TimerManager* timers = VEL_TimerManager::GetInstance();
        id = timers != nullptr ? timers->subscribe(_timer, wait, 1, true) : 0;
    } catch (const std::exception& caught) {
        velframe::traceError(kVELErr_TimerSpawn, [&caught] { return std::string(caught.what()); });
    }
    bool cancel = false;
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        for (auto timer = _armed.begin(); timer != _armed.end(); ++timer) {
            if (timer->id == 0) {
                if (id == 0 || _state != State::kOpen) {
                    _armed.erase(timer);  // no timer, or one the close did not see
                    cancel = id != 0;
                } else {
                    timer->id = id;
                }
                break;
            }
        }
    }
    if (cancel) {
        CancelTimers(std::vector<ArmedTimer>{ArmedTimer{id, basis::TimeValue()}});
    }
}

void VEL_FramedConnection::timerFired(unsigned long timerId) {
    unsigned long wait = 0;
    const char* which = nullptr;
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        _armed.erase(std::remove_if(_armed.begin(), _armed.end(),
                                    [timerId](const ArmedTimer& t) { return t.id == timerId; }),
                     _armed.end());
        const basis::TimeValue now = basis::TimeValue::GetHRTime();
        if (_state == State::kOpen && deadlinePassed(now, &which)) {
            requestClose(kVELErr_Timeout);
        } else {
            which = nullptr;
            wait = armSecondsFor(now);
        }
    }
    if (which != nullptr) {
        velframe::traceDeadline(which, getHandle(), _stream->getRemoteAddr());
    }
    arm(wait);
}
