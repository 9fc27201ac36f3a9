#include "VEL_Pipe.h"

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdlib>
#include <iterator>
#include <mutex>
#include <new>
#include <sstream>
#include <string>
#include <vector>

#include "VEL_FrameTrace.h"
#include "VEL_StaticInit.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

using PipeGuard = std::lock_guard<basis::RecursiveThreadMutex>;
using Guard = std::lock_guard<basis::ThreadMutex>;

constexpr unsigned long kDefaultRetrySeconds = 600;
constexpr unsigned long kDefaultTimeoutSeconds = 10;
// Longer durations are cut to about ten years, so that a deadline cannot overflow.
constexpr unsigned long kLongestSeconds = 315360000;
// A socket time-out is 8 bits wide, 255 meaning "unset", and 0 would give 1 ms.
constexpr unsigned long kMinNativeTimeout = 1;
constexpr unsigned long kMaxNativeTimeout = 254;

basis::TimeValue now() {
    return basis::TimeValue::GetHRTime();
}

basis::TimeValue seconds(unsigned long count) {
    return basis::TimeValue(static_cast<long>(std::min(count, kLongestSeconds)), 0);
}

unsigned char nativeTimeout(unsigned long count) {
    return static_cast<unsigned char>(
            std::min(std::max(count, kMinNativeTimeout), kMaxNativeTimeout));
}

// One wait for input lasts at most 2 s; less when the whole receive time-out is below 3 s.
basis::TimeValue waitStep(unsigned long recvTimeout) {
    return recvTimeout < 3 ? seconds(recvTimeout) : seconds(VEL_Pipe::kMaxWaitSeconds);
}

std::string endpointText(const VELPipeEndpoint_t& endpoint) {
    return endpoint.host + ":" + std::to_string(endpoint.port);
}

// "FRAME - [ Pipe <address> ] <event()>" at the info level under the reactor mask.
template <class Event>
void tracePipe(const void* pipe, const Event& event, const char* file = __builtin_FILE(),
               unsigned long line = __builtin_LINE()) {
    if (VEL_Tools::IsTraceOn(kVELTrace_Frame)) {
        std::ostringstream text;
        text << "FRAME - [ Pipe " << pipe << " ] " << event();
        VEL_Tools::TraceText(kVELLevel_Info, text.str(), file, line);
    }
}

template <class List, class Record>
typename List::iterator findRecord(List& list, const Record* record) {
    return std::find_if(list.begin(), list.end(),
                        [record](const Record& each) { return &each == record; });
}

}  // namespace

void VEL_PipeNotifier::connectionEstablished(const std::string& /*host*/, unsigned short /*port*/) {
}
void VEL_PipeNotifier::connectionUsed(const std::string& /*host*/, unsigned short /*port*/) {}
void VEL_PipeNotifier::connectionFailed(const std::string& /*host*/, unsigned short /*port*/) {}
void VEL_PipeNotifier::connectionDiscarded(const std::string& /*host*/, unsigned short /*port*/) {}

boost::shared_ptr<VEL_PipeEH> VEL_PipeEH::Create(VELPipeConnection_t* connection, VEL_Pipe* pipe) {
    try {
        return boost::shared_ptr<VEL_PipeEH>(new VEL_PipeEH(connection, pipe));
    } catch (const std::bad_alloc&) {
        return boost::shared_ptr<VEL_PipeEH>();
    }
}

VEL_PipeEH::VEL_PipeEH(VELPipeConnection_t* connection, VEL_Pipe* pipe)
    : VEL_EventHandler(connection->socket->getHandle()), _connection(connection), _pipe(pipe) {}

bool VEL_PipeEH::handleInput() {
    _pipe->notifyInput(_connection);
    return true;
}

VEL_Pipe::VEL_Pipe(bool failover, VELPipeReactorFactory_t reactorFactory)
    : VEL_Socket(VEL_SockAddr()),
      _primary(nullptr),
      _lastRead(nullptr),
      _opened(false),
      _failover(failover),
      _retryTime(seconds(kDefaultRetrySeconds)),
      _sendTimeout(kDefaultTimeoutSeconds),
      _recvTimeout(kDefaultTimeoutSeconds),
      _reactorFactory(reactorFactory),
      _notifier(nullptr) {
    PipeGuard hold(_pipeLock);
    _sockOptions.setNonBlock(true);
    _sockOptions.setSendTimeOut(nativeTimeout(kDefaultTimeoutSeconds));
    _sockOptions.setRecvTimeOut(nativeTimeout(kDefaultTimeoutSeconds));
    _reactor = _reactorFactory(kReactorSize, seconds(kMaxWaitSeconds));
    configureReactor();
}

VEL_Pipe::~VEL_Pipe() {
    (void)VEL_Pipe::close();  // always Ok
}

VELErr_t VEL_Pipe::addConnection(unsigned short port, const char* host) {
    if (host == nullptr) {
        velframe::traceError(kVELErr_InvalidPointer);
        return kVELErr_InvalidPointer;
    }
    PipeGuard hold(_pipeLock);
    try {
        _endpoints.push_back(VELPipeEndpoint_t{port, host, basis::TimeValue::kZero});
    } catch (const std::bad_alloc&) {
        velframe::traceError(kVELErr_Alloc);
        return kVELErr_Alloc;
    }
    return kVELErr_Ok;
}

void VEL_Pipe::configureReactor() {
    if (_reactor) {
        _reactor->setDoIdle(true);
        _reactor->setIdleTimeout(waitStep(_recvTimeout.load()));
    }
}

// Holds the reactor lock while this thread drives the reactor, and gives the reactor-thread role
// back when done: registration calls this thread makes later, outside the lock, must take the
// queued path and never touch the dispatch state of the thread driving the reactor then.
class VEL_Pipe::Driving {
public:
    explicit Driving(VEL_Pipe& pipe) : _pipe(pipe), _hold(pipe._reactorLock) {}
    ~Driving() {
        if (_pipe._reactor) {
            _pipe._reactor->leaveReactorThread();
        }
    }
    Driving(const Driving&) = delete;
    Driving& operator=(const Driving&) = delete;

private:
    VEL_Pipe& _pipe;
    Guard _hold;
};

VELErr_t VEL_Pipe::prepareReactor() {
    Guard hold(_reactorLock);
    if (!_reactor) {
        try {
            _reactor = _reactorFactory(kReactorSize, seconds(kMaxWaitSeconds));
        } catch (const std::bad_alloc&) {
            // reported below
        }
        if (!_reactor) {
            velframe::traceError(kVELErr_Alloc);
            return kVELErr_Alloc;
        }
        configureReactor();
    }
    const VELErr_t code = _reactor->init();
    if (code != kVELErr_Ok) {
        velframe::traceError(code);
        return code;
    }
    _reactor->start();
    return kVELErr_Ok;
}

VELErr_t VEL_Pipe::open() {
    PipeGuard hold(_pipeLock);
    VELErr_t code = prepareReactor();
    if (code != kVELErr_Ok) {
        return code;
    }
    // Connections are made only while open: every one the pipe holds was registered with this
    // reactor, and close() lets them all go with it.
    _opened = true;
    if (_failover && !_endpoints.empty()) {
        // Start at a random endpoint: r turns, each moving the first endpoint to the back.
        const std::size_t turns = static_cast<std::size_t>(std::rand()) % _endpoints.size();
        _endpoints.splice(_endpoints.end(), _endpoints, _endpoints.begin(),
                          std::next(_endpoints.begin(), static_cast<long>(turns)));
        _primary = &_endpoints.front();
    }
    for (auto next = _endpoints.begin(); next != _endpoints.end();) {
        VELPipeEndpoint_t& endpoint = *next++;  // a connected endpoint leaves the list
        VELPipeConnection_t* connection = nullptr;
        code = connectEndpoint(endpoint, connection);
        if (code == kVELErr_PipeNoConnection) {
            continue;
        }
        if (code != kVELErr_Ok) {
            velframe::traceError(code);
            return code;
        }
        if (_failover) {
            return kVELErr_Ok;
        }
    }
    if (_connections.empty()) {
        velframe::traceError(kVELErr_PipeNoConnection);
        return kVELErr_PipeNoConnection;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_Pipe::close() {
    PipeGuard hold(_pipeLock);
    std::unique_ptr<VEL_IOReactor> reactor;
    if (_reactor) {
        (void)_reactor->stop();  // ends a wait in progress in recv(); a failed wake-up is traced
        Guard driving(_reactorLock);  // taken once no recv() drives the reactor any more
        reactor = std::move(_reactor);
        (void)reactor->clean();  // lets every handler go; failures are traced
    }
    reactor.reset();
    {
        Guard ready(_readyLock);
        _ready.clear();
    }
    for (VELPipeConnection_t& connection : _connections) {
        delete connection.socket;  // closes it
    }
    _connections.clear();
    _endpoints.clear();
    _endpointsInUse.clear();
    _primary = nullptr;
    _lastRead = nullptr;
    _opened = false;
    return kVELErr_Ok;
}

VELErr_t VEL_Pipe::getNextConnection(VELPipeConnection_t*& connection) {
    PipeGuard hold(_pipeLock);
    connection = nullptr;
    const auto next = std::find_if(_connections.begin(), _connections.end(),
                                   [](const VELPipeConnection_t& each) { return !each.draining; });
    if (next == _connections.end()) {
        return kVELErr_PipeNoConnection;
    }
    _connections.splice(_connections.end(), _connections, next);
    connection = &_connections.back();
    return kVELErr_Ok;
}

VELErr_t VEL_Pipe::registerConnection(VEL_Socket* socket, VELPipeEndpoint_t* endpoint,
                                      VELPipeConnection_t*& connection) {
    PipeGuard hold(_pipeLock);
    connection = nullptr;
    tracePipe(this, [endpoint] { return "New connection = " + endpointText(*endpoint); });
    notify(*endpoint, &VEL_PipeNotifier::connectionEstablished);
    try {
        _connections.push_back(VELPipeConnection_t{endpoint, socket, {}, false});
    } catch (const std::bad_alloc&) {
        delete socket;
        velframe::traceError(kVELErr_Alloc);
        return kVELErr_Alloc;
    }
    connection = &_connections.back();
    const auto waiting = findRecord(_endpoints, endpoint);
    if (waiting != _endpoints.end()) {
        _endpointsInUse.splice(_endpointsInUse.end(), _endpoints, waiting);
    }
    connection->evtHandler = VEL_PipeEH::Create(connection, this);
    if (!connection->evtHandler) {
        velframe::traceError(kVELErr_Alloc);
        return kVELErr_Alloc;
    }
    if (!_reactor) {
        return kVELErr_PipeClosed;
    }
    // Any thread may register; the thread that next drives the reactor applies it.
    return _reactor->addEventHandler(connection->evtHandler, basis::TimeValue::kZero, kVELOp_Read);
}

void VEL_Pipe::discardConnection(VELPipeConnection_t* connection) {
    PipeGuard hold(_pipeLock);
    const auto live = findRecord(_connections, connection);
    if (live == _connections.end()) {
        return;  // never live, or discarded already
    }
    VELPipeEndpoint_t* endpoint = connection->endpoint;
    tracePipe(this, [endpoint] { return "Discard a connection = " + endpointText(*endpoint); });
    notify(*endpoint, &VEL_PipeNotifier::connectionDiscarded);
    if (_lastRead == connection) {
        _lastRead = nullptr;
    }
    unregister(connection);
    delete connection->socket;  // out of the polling set by now: its number may be reused
    _connections.erase(live);
    endpoint->nextRetryTime = now() + _retryTime;
    const auto inUse = findRecord(_endpointsInUse, endpoint);
    if (inUse != _endpointsInUse.end()) {
        _endpoints.splice(_endpoints.end(), _endpointsInUse, inUse);
    }
}

void VEL_Pipe::unregister(VELPipeConnection_t* connection) {
    if (connection->evtHandler && _reactor) {
        // Asked outside the reactor lock: its wake-up ends a wait that another thread's recv()
        // may have in progress, which then lets the lock go.
        (void)_reactor->removeEventHandler(connection->evtHandler);  // failures are traced
        Driving driving(*this);
        // Applied before the socket is closed. No dispatch can reach the handler afterwards.
        (void)_reactor->processEvents();
    }
    Guard ready(_readyLock);
    _ready.erase(std::remove(_ready.begin(), _ready.end(), connection), _ready.end());
}

void VEL_Pipe::notifyInput(VELPipeConnection_t* connection) {
    Guard hold(_readyLock);
    if (std::find(_ready.begin(), _ready.end(), connection) == _ready.end()) {
        // std::bad_alloc makes the reactor treat the call-back as failed (traced); the input
        // is reported again by the next wait.
        _ready.push_back(connection);
    }
}

bool VEL_Pipe::takeReady(VELPipeConnection_t*& connection) {
    Guard hold(_readyLock);
    if (_ready.empty()) {
        return false;
    }
    connection = _ready.front();
    _ready.pop_front();
    return true;
}

bool VEL_Pipe::isReadyEmpty() {
    Guard hold(_readyLock);
    return _ready.empty();
}

void VEL_Pipe::notify(const VELPipeEndpoint_t& endpoint, NotifierCall call) const {
    if (_notifier != nullptr) {
        (_notifier->*call)(endpoint.host, endpoint.port);
    }
}

VELErr_t VEL_Pipe::connectEndpoint(VELPipeEndpoint_t& endpoint, VELPipeConnection_t*& connection) {
    if (!_opened) {
        return kVELErr_PipeClosed;  // a connection made now would never be read
    }
    VEL_Socket* socket = nullptr;
    if (doConnect(endpoint, socket, _sockOptions) != kVELErr_Ok) {
        connectFailed(endpoint);
        return kVELErr_PipeNoConnection;
    }
    return registerConnection(socket, &endpoint, connection);
}

void VEL_Pipe::connectFailed(VELPipeEndpoint_t& endpoint) {
    notify(endpoint, &VEL_PipeNotifier::connectionFailed);
    endpoint.nextRetryTime = now() + _retryTime;
}

bool VEL_Pipe::isWaiting(const VELPipeEndpoint_t* endpoint) const {
    return std::any_of(_endpoints.begin(), _endpoints.end(),
                       [endpoint](const VELPipeEndpoint_t& each) { return &each == endpoint; });
}

VELErr_t VEL_Pipe::forceReconnect(VELPipeConnection_t*& connection,
                                  const basis::TimeValue& deadline) {
    PipeGuard hold(_pipeLock);
    connection = nullptr;
    tracePipe(this, [] { return "Force reconnect"; });
    if (!_opened && !_endpoints.empty()) {
        return kVELErr_PipeClosed;
    }
    for (auto next = _endpoints.begin(); next != _endpoints.end();) {
        if (next != _endpoints.begin() && now() >= deadline) {
            break;
        }
        const VELErr_t code = connectEndpoint(*next++, connection);
        if (code != kVELErr_PipeNoConnection) {
            return code;
        }
    }
    velframe::traceError(kVELErr_PipeNoConnection);
    return kVELErr_PipeNoConnection;
}

VELErr_t VEL_Pipe::tryMultipleReconnect(const basis::TimeValue& deadline) {
    if (_failover) {
        return kVELErr_Ok;
    }
    PipeGuard hold(_pipeLock);
    for (auto next = _endpoints.begin(); next != _endpoints.end();) {
        const basis::TimeValue date = now();
        if (date >= deadline) {
            break;
        }
        VELPipeEndpoint_t& endpoint = *next++;
        if (endpoint.nextRetryTime > date) {
            continue;
        }
        VELPipeConnection_t* connection = nullptr;
        const VELErr_t code = connectEndpoint(endpoint, connection);
        if (code != kVELErr_Ok && code != kVELErr_PipeNoConnection) {
            return code;
        }
    }
    if (_connections.empty()) {
        velframe::traceError(kVELErr_PipeNoConnection);
        return kVELErr_PipeNoConnection;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_Pipe::send(const char* data, unsigned int length) {
    PipeGuard hold(_pipeLock);
    const basis::TimeValue deadline = now() + seconds(_sendTimeout.load());
    for (;;) {
        VELPipeConnection_t* connection = nullptr;
        VELErr_t code = getNextConnection(connection);
        if (code == kVELErr_PipeNoConnection) {
            code = forceReconnect(connection, deadline);
        }
        if (code != kVELErr_Ok) {
            return code;
        }
        // A peer that closed, even behind input not read yet, is noticed here, before the data
        // would go into the void.
        if (doCheckPeer(connection->socket) != kVELErr_Ok) {
            retire(connection);
        } else {
            code = returnToPrimary(connection, deadline);
            if (code != kVELErr_Ok) {
                return code;
            }
            VELPipeEndpoint_t* endpoint = connection->endpoint;
            tracePipe(this, [endpoint] { return "Send target = " + endpointText(*endpoint); });
            notify(*endpoint, &VEL_PipeNotifier::connectionUsed);
            _deadline = deadline;
            if (doSend(connection->socket, data, length) == kVELErr_Ok) {
                (void)tryMultipleReconnect(deadline);  // its outcome is not the send's
                return kVELErr_Ok;
            }
            // Part of the data may have gone: the rest of that stream could not be framed.
            discardConnection(connection);
        }
        if (now() >= deadline) {
            velframe::traceError(kVELErr_Timeout);
            return kVELErr_Timeout;
        }
    }
}

void VEL_Pipe::retire(VELPipeConnection_t* connection) {
    if (doHasRecv(connection->socket) == kVELErr_Ok) {
        connection->draining = true;  // its input is read first; the reactor still reports it
    } else {
        discardConnection(connection);
    }
}

// Failover mode, connected elsewhere: once the primary's retry time has passed, tries it and
// moves over to it when it answers. Not after the deadline, which bounds the send.
VELErr_t VEL_Pipe::returnToPrimary(VELPipeConnection_t*& connection,
                                   const basis::TimeValue& deadline) {
    const basis::TimeValue date = now();
    if (!_failover || _primary == nullptr || connection->endpoint == _primary ||
        !isWaiting(_primary) || !(date > _primary->nextRetryTime) || date >= deadline) {
        return kVELErr_Ok;
    }
    VEL_Socket* socket = nullptr;
    if (doConnect(*_primary, socket, _sockOptions) != kVELErr_Ok) {
        connectFailed(*_primary);
        return kVELErr_Ok;
    }
    discardConnection(connection);
    return registerConnection(socket, _primary, connection);
}

VELErr_t VEL_Pipe::checkLive(const basis::TimeValue& deadline, bool* reconnected) {
    PipeGuard hold(_pipeLock);
    *reconnected = false;
    if (!_reactor) {
        return kVELErr_PipeClosed;
    }
    if (!_connections.empty()) {
        return kVELErr_Ok;
    }
    VELPipeConnection_t* connection = nullptr;
    const VELErr_t code = forceReconnect(connection, deadline);
    *reconnected = code == kVELErr_Ok;
    return code;
}

VELErr_t VEL_Pipe::recv(char* buffer, unsigned int length) {
    return receive(
            [this, buffer, length](VEL_Socket* socket) { return doRecv(socket, buffer, length); });
}

VELErr_t VEL_Pipe::recvAvail(char* buffer, unsigned int* length) {
    const unsigned int wanted = *length;
    unsigned int got = 0;
    const VELErr_t code = receive([buffer, wanted, &got](VEL_Socket* socket) {
        got = wanted;
        const VELErr_t read = socket->recvAvail(buffer, &got);
        if (read != kVELErr_Ok && read != kVELErr_Incomplete) {
            got = 0;
        }
        return read;
    });
    *length = code == kVELErr_Ok || code == kVELErr_Incomplete ? got : 0;
    return code;
}

template <class Read>
VELErr_t VEL_Pipe::receive(const Read& read) {
    const basis::TimeValue deadline = now() + seconds(_recvTimeout.load());
    for (;;) {
        bool reconnected = false;
        const VELErr_t live = checkLive(deadline, &reconnected);
        if (live != kVELErr_Ok || reconnected) {
            // A new connection has nothing to read yet: the caller calls again.
            return live != kVELErr_Ok ? live : kVELErr_Timeout;
        }
        if (isReadyEmpty() && !takeBuffered()) {
            // Polls once even when the deadline has passed: input already waiting is read.
            const VELErr_t code = waitForInput(deadline);
            if (code == kVELErr_PipeClosed) {
                return code;
            }
            if (code != kVELErr_Ok && code != kVELErr_Timeout && isReadyEmpty()) {
                PipeGuard hold(_pipeLock);
                discardConnection(_lastRead);  // nothing when nothing was read yet
            }
        }
        if (!isReadyEmpty()) {
            const VELErr_t code = readReady(read, deadline);
            if (code == kVELErr_Ok || code == kVELErr_Incomplete) {
                return code;
            }
        }
        if (now() >= deadline) {
            return kVELErr_Timeout;
        }
    }
}

VELErr_t VEL_Pipe::waitForRead(const basis::TimeValue* limit) {
    const basis::TimeValue deadline =
            now() + (limit != nullptr ? *limit : seconds(kLongestSeconds));
    for (;;) {
        bool reconnected = false;
        const VELErr_t live = checkLive(deadline, &reconnected);
        if (live != kVELErr_Ok) {
            return live;
        }
        if (settleReady() || (takeBuffered() && settleReady())) {
            return kVELErr_Ok;
        }
        const VELErr_t code = waitForInput(deadline);
        if (code == kVELErr_PipeClosed) {
            return code;
        }
        if (settleReady()) {
            return kVELErr_Ok;
        }
        if (code != kVELErr_Ok && code != kVELErr_Timeout) {
            return code;
        }
        if (now() >= deadline) {
            return kVELErr_Timeout;
        }
    }
}

// A connection reported readable may hold only the end of its stream, or a failure: it is
// discarded now, so that a caller that waits for input before it reads (and may hold its own
// lock meanwhile) is not sent to read from a dead connection.
bool VEL_Pipe::settleReady() {
    if (isReadyEmpty()) {
        return false;
    }
    PipeGuard hold(_pipeLock);
    std::deque<VELPipeConnection_t*> ready;
    {
        Guard lock(_readyLock);
        ready.swap(_ready);
    }
    std::deque<VELPipeConnection_t*> waiting;
    for (VELPipeConnection_t* connection : ready) {
        const VELErr_t code = doHasRecv(connection->socket);
        if (code == kVELErr_Ok) {
            waiting.push_back(connection);
        } else if (code != kVELErr_Timeout) {  // kVELErr_Timeout: read meanwhile, elsewhere
            discardConnection(connection);     // off the ready list already
        }
    }
    Guard lock(_readyLock);
    // Reported since, by a thread that drove the reactor meanwhile: after these.
    for (VELPipeConnection_t* connection : _ready) {
        if (std::find(waiting.begin(), waiting.end(), connection) == waiting.end()) {
            waiting.push_back(connection);
        }
    }
    _ready.swap(waiting);
    return !_ready.empty();
}

// One wait for input in the reactor, under the reactor lock only, so that sends go on
// meanwhile. kVELErr_PipeClosed once the reactor is stopped or gone.
VELErr_t VEL_Pipe::waitForInput(const basis::TimeValue& deadline) {
    Driving driving(*this);
    if (!_reactor) {
        return kVELErr_PipeClosed;
    }
    // Registrations made since the last pass (open, reconnects) join the polling set first.
    VELErr_t code = _reactor->processEvents();
    if (code != kVELErr_Ok || !isReadyEmpty()) {
        return code;
    }
    basis::TimeValue left = deadline - now();
    if (left < basis::TimeValue::kZero) {
        left = basis::TimeValue::kZero;  // one poll without waiting
    }
    _reactor->setIdleTimeout(std::min(left, waitStep(_recvTimeout.load())));
    code = _reactor->waitEvents();
    if (code == kVELErr_ReactorStopped) {
        return kVELErr_PipeClosed;
    }
    return code == kVELErr_Ok ? _reactor->processEvents() : code;
}

// Reads from the first connection of the ready list. kVELErr_Timeout when there was none or its
// input had been read meanwhile (by purge, readv or another thread); a connection that fails, or
// whose message is still incomplete at the deadline, is discarded; so is a draining connection
// once it has nothing more to read. kVELErr_Incomplete (a partial read by recvAvail) is a
// successful read.
template <class Read>
VELErr_t VEL_Pipe::readReady(const Read& read, const basis::TimeValue& deadline) {
    PipeGuard hold(_pipeLock);
    VELPipeConnection_t* connection = nullptr;
    if (!takeReady(connection)) {
        return kVELErr_Timeout;
    }
    VELErr_t code = doHasRecv(connection->socket);
    if (code == kVELErr_Timeout) {
        return code;
    }
    VELPipeEndpoint_t* endpoint = connection->endpoint;
    tracePipe(this, [endpoint] { return "Message read = " + endpointText(*endpoint); });
    notify(*endpoint, &VEL_PipeNotifier::connectionUsed);
    if (code == kVELErr_Ok) {  // otherwise the peer closed with nothing left, or it failed
        _deadline = deadline;
        code = read(connection->socket);
    }
    if (code != kVELErr_Ok && code != kVELErr_Incomplete) {
        discardConnection(connection);
        return code;
    }
    _lastRead = connection;
    if (connection->draining && doHasRecv(connection->socket) != kVELErr_Ok) {
        discardConnection(connection);  // its input is consumed (readv has nothing left to read)
    }
    (void)tryMultipleReconnect(deadline);  // its outcome is not the receive's
    return code;
}

VELErr_t VEL_Pipe::writev(VELIoVec* v, unsigned long n) {
    if (n == 1) {
        return send(v->iov_base, v->iov_len);
    }
    std::uint64_t total = 0;
    for (unsigned long i = 0; i < n; ++i) {
        total += v[i].iov_len;
    }
    if (total > UINT_MAX) {
        velframe::traceError(kVELErr_MessageTooBig);
        return kVELErr_MessageTooBig;
    }
    // One buffer, so that the whole frame goes out over one connection.
    std::vector<char> frame;
    try {
        frame.reserve(static_cast<std::size_t>(total));
    } catch (const std::bad_alloc&) {
        velframe::traceError(kVELErr_Alloc);
        return kVELErr_Alloc;
    }
    for (unsigned long i = 0; i < n; ++i) {
        frame.insert(frame.end(), v[i].iov_base, v[i].iov_base + v[i].iov_len);
    }
    return send(frame.data(), static_cast<unsigned int>(frame.size()));
}

VELErr_t VEL_Pipe::readv(VELIoVec* v, unsigned long n) {
    PipeGuard hold(_pipeLock);
    if (_lastRead == nullptr) {
        velframe::traceError(kVELErr_PipeNoConnection);
        return kVELErr_PipeNoConnection;
    }
    _deadline = now() + seconds(_recvTimeout.load());
    for (unsigned long i = 0; i < n; ++i) {
        const VELErr_t code = doRecv(_lastRead->socket, v[i].iov_base, v[i].iov_len);
        if (code != kVELErr_Ok) {
            discardConnection(_lastRead);
            return code;
        }
    }
    if (_lastRead->draining && doHasRecv(_lastRead->socket) != kVELErr_Ok) {
        discardConnection(_lastRead);  // its input is consumed
    }
    return kVELErr_Ok;
}

bool VEL_Pipe::takeBuffered() {
    PipeGuard hold(_pipeLock);
    for (VELPipeConnection_t& connection : _connections) {
        if (doHasBufferedInput(connection.socket)) {
            notifyInput(&connection);  // once on the list, whatever reported it
        }
    }
    return !isReadyEmpty();
}

bool VEL_Pipe::doHasBufferedInput(VEL_Socket* /*socket*/) {
    return false;
}

VELErr_t VEL_Pipe::doCheckPeer(VEL_Socket* socket) {
    const VELErr_t code = doHasRecv(socket);
    return code == kVELErr_Timeout ? kVELErr_Ok : code;
}

VELErr_t VEL_Pipe::purge() {
    PipeGuard hold(_pipeLock);
    VELErr_t result = kVELErr_Ok;
    for (auto next = _connections.begin(); next != _connections.end();) {
        VELPipeConnection_t& connection = *next++;
        const VELErr_t code = doPurge(connection.socket);
        if (code == kVELErr_Timeout) {
            continue;  // nothing more waiting
        }
        if (result == kVELErr_Ok) {
            result = code;
        }
        if (code != kVELErr_Incomplete) {  // more input than one purge reads is no failure
            discardConnection(&connection);
        }
    }
    return result;
}

void VEL_Pipe::setRetryTime(unsigned long count) {
    PipeGuard hold(_pipeLock);
    _retryTime = seconds(count);
}

void VEL_Pipe::setSendTimeout(unsigned long count) {
    PipeGuard hold(_pipeLock);
    _sendTimeout.store(count);
    _sockOptions.setSendTimeOut(nativeTimeout(count));
}

void VEL_Pipe::setRecvTimeout(unsigned long count) {
    PipeGuard hold(_pipeLock);
    _recvTimeout.store(count);
    _sockOptions.setRecvTimeOut(nativeTimeout(count));
    configureReactor();
}

void VEL_Pipe::setSockOptions(const VEL_SockOptions& options) {
    PipeGuard hold(_pipeLock);
    _sockOptions = options;
}

void VEL_Pipe::setPipeNotifier(VEL_PipeNotifier* notifier) {
    PipeGuard hold(_pipeLock);
    _notifier = notifier;
}
