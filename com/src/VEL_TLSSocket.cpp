#include "VEL_TLSSocket.h"

#include <poll.h>

#include <algorithm>
#include <cstring>
#include <mutex>
#include <string>

#include "Thread.h"
#include "Tools.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPSocket.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

// The most plaintext one TLS record carries: small pieces are gathered up to this.
constexpr std::size_t kRecordSize = 16384;

}  // namespace

// How long the waits of one call may take: without limit, until one deadline for the whole call,
// or a fixed span for each wait.
class VEL_TLSSocket::WaitLimit {
public:
    static WaitLimit None() { return WaitLimit(kNone, basis::TimeValue()); }
    static WaitLimit Whole(const basis::TimeValue& span) {
        return WaitLimit(kWhole, basis::TimeValue::GetHRTime() + span);
    }
    static WaitLimit Each(const basis::TimeValue& span) { return WaitLimit(kEach, span); }
    static WaitLimit Until(const basis::TimeValue& deadline) { return WaitLimit(kWhole, deadline); }

    // The span the next wait may take (null: no limit); false when the deadline has passed.
    bool next(basis::TimeValue& span, const basis::TimeValue*& limit) const {
        limit = nullptr;
        if (_kind == kNone) {
            return true;
        }
        span = _value;
        if (_kind == kWhole) {
            const basis::TimeValue now = basis::TimeValue::GetHRTime();
            if (now >= _value) {
                return false;
            }
            span = _value - now;
        }
        limit = &span;
        return true;
    }

private:
    enum Kind { kNone, kWhole, kEach };
    WaitLimit(Kind kind, const basis::TimeValue& value) : _kind(kind), _value(value) {}

    Kind _kind;
    basis::TimeValue _value;  // the deadline (kWhole) or each wait's span (kEach)
};

VEL_TLSSocket::VEL_TLSSocket(const VEL_TLSContext& context)
    : VEL_Socket(VEL_SockAddr()), _context(context), _handshakeTimeOut(kDefaultHandshakeTimeOut) {}

VEL_TLSSocket::~VEL_TLSSocket() {
    (void)close();  // nobody is left to report a failure to
}

VELErr_t VEL_TLSSocket::attach(VEL_TCPSocket& tcp, const char* serverName) {
    if (isValid()) {
        velcom::traceComError(kVELErr_SockConnected, [&] { return remoteText(); });
        return kVELErr_SockConnected;
    }
    if (!tcp.isValid() || !tcp.isConnected()) {
        velcom::traceComError(kVELErr_SockNotConnected, [&] {
            return "Remote address : " + velcom::toText(tcp.getRemoteAddr());
        });
        return kVELErr_SockNotConnected;
    }
    adoptConnection(tcp);
    // Without a name, a verifying client checks the address it connected to.
    const char* address = getRemoteAddr().getHostIPAddress();
    const std::string name = serverName != nullptr && *serverName != '\0' ? serverName
                             : address != nullptr                         ? address
                                                                          : "";
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    const VELErr_t code =
            _engine.start(_context, static_cast<int>(getHandle()),
                          _context.getRole() == kVELTLS_Client ? name.c_str() : nullptr);
    if (code != kVELErr_Ok) {
        velcom::traceComError(code, [&] { return remoteText() + " ; " + _engine.failureDetail(); });
        _engine.reset();
        (void)VEL_Socket::close();
    }
    return code;
}

VELErr_t VEL_TLSSocket::handshake() {
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        return code;
    }
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    return ensureHandshake(use.fd());
}

VELErr_t VEL_TLSSocket::ensureHandshake(int fd) {
    return _engine.isEstablished() ? kVELErr_Ok : runHandshake(fd);
}

VELErr_t VEL_TLSSocket::runHandshake(int fd) {
    WaitLimit limit = WaitLimit::Whole(basis::TimeValue(_handshakeTimeOut, 0));
    for (;;) {
        VELTLSWant_t want = kVELTLSWant_Read;
        const VELErr_t code = _engine.handshake(&want);
        if (code == kVELErr_Ok) {
            break;
        }
        if (code != kVELErr_Incomplete) {
            return stepFailed(fd, code);
        }
        const VELErr_t waited = waitFor(fd, want, limit);
        if (waited != kVELErr_Ok) {
            velcom::traceComError(waited, [&] { return remoteText() + " ; TLS handshake"; });
            return waited;
        }
    }
    velcom::traceComInfo([&] {
        return "TLS session " + velcom::fdText(static_cast<unsigned int>(fd)) + " ; " +
               remoteText() + " ; " + _engine.describe();
    });
    return kVELErr_Ok;
}

VELErr_t VEL_TLSSocket::open() {
    return isValid() ? kVELErr_Ok : kVELErr_InvalidAction;
}

VELErr_t VEL_TLSSocket::close() {
    if (_sessionLock.tryAcquire()) {
        // No step of the session is under way (another thread may be waiting for the
        // descriptor): it may send its close_notify, once, without waiting (a peer that does
        // not read would not see it anyway).
        if (isValid()) {
            VELTLSWant_t want = kVELTLSWant_Write;
            (void)_engine.shutdown(&want);
        }
        (void)_sessionLock.release();
    }
    // Ends a transfer of another thread (the descriptor is shut down under it) and waits until
    // it has left the descriptor; the session can go once nothing uses it.
    const VELErr_t code = VEL_Socket::close();
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    _engine.reset();
    return code;
}

VELErr_t VEL_TLSSocket::send(const char* buf, unsigned int len) {
    VELIoVec whole{const_cast<char*>(buf), len};  // only read from
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    WaitLimit limit = sendLimit();
    return sendAll(use.fd(), &whole, 1, limit);
}

VELErr_t VEL_TLSSocket::sendUntil(const char* buf, unsigned int len,
                                  const basis::TimeValue& deadline) {
    VELIoVec whole{const_cast<char*>(buf), len};  // only read from
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    WaitLimit limit = WaitLimit::Until(deadline);
    return sendAll(use.fd(), &whole, 1, limit);
}

VEL_TLSSocket::WaitLimit VEL_TLSSocket::sendLimit() const {
    const basis::TimeValue span(getSendTimeOut(), 0);
    return isNonBlock() ? WaitLimit::Each(span) : WaitLimit::Whole(span);
}

VELErr_t VEL_TLSSocket::writev(VELIoVec* v, unsigned long n) {
    if (n < 2) {
        return send(v[0].iov_base, v[0].iov_len);
    }
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        return code;
    }
    WaitLimit limit = sendLimit();
    return sendAll(use.fd(), v, n, limit);
}

VELErr_t VEL_TLSSocket::sendAll(int fd, VELIoVec* v, unsigned long n, WaitLimit& limit) {
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    VELErr_t code = ensureHandshake(fd);
    if (code != kVELErr_Ok) {
        return code;
    }
    velcom::advance(v, n, 0);  // leading empty pieces
    while (n > 0) {
        std::size_t put = 0;
        code = writeRecord(fd, v, n, limit, &put);
        if (code != kVELErr_Ok) {
            return code;
        }
        velcom::advance(v, n, put);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSSocket::writeRecord(int fd, VELIoVec* v, unsigned long n, WaitLimit& limit,
                                    std::size_t* put) {
    std::size_t size = 0;
    const char* data = recordOf(v, n, &size);
    if (data == nullptr) {
        return kVELErr_Alloc;
    }
    for (;;) {
        VELTLSWant_t want = kVELTLSWant_Write;
        // A write that could not finish is offered the same bytes again: `data` stays as it is.
        const VELErr_t code = _engine.write(data, size, put, &want);
        if (code == kVELErr_Ok) {
            return code;
        }
        if (code != kVELErr_Incomplete) {
            return stepFailed(fd, code);
        }
        const VELErr_t waited = waitFor(fd, want, limit);
        if (waited != kVELErr_Ok) {
            velcom::traceComError(waited, [&] { return remoteText(); });
            return waited;
        }
    }
}

const char* VEL_TLSSocket::recordOf(const VELIoVec* v, unsigned long n, std::size_t* size) {
    if (n == 1 || v[0].iov_len >= kRecordSize) {
        *size = v[0].iov_len;
        return v[0].iov_base;
    }
    if (!_stage) {
        _stage.reset(new (std::nothrow) char[kRecordSize]);
        if (!_stage) {
            velcom::traceComError(kVELErr_Alloc, [&] { return remoteText(); });
            return nullptr;
        }
    }
    std::size_t gathered = 0;
    for (unsigned long i = 0; i < n && gathered < kRecordSize; ++i) {
        const std::size_t take = std::min<std::size_t>(v[i].iov_len, kRecordSize - gathered);
        std::memcpy(_stage.get() + gathered, v[i].iov_base, take);
        gathered += take;
    }
    *size = gathered;
    return _stage.get();
}

VELErr_t VEL_TLSSocket::recv(char* buf, unsigned int len) {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    WaitLimit limit = isNonBlock() ? WaitLimit::Each(basis::TimeValue(getRecvTimeOut(), 0))
                                   : WaitLimit::None();
    return recvAll(use.fd(), buf, len, limit);
}

VELErr_t VEL_TLSSocket::recvUntil(char* buf, unsigned int len, const basis::TimeValue& deadline) {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    WaitLimit limit = WaitLimit::Until(deadline);
    return recvAll(use.fd(), buf, len, limit);
}

VELErr_t VEL_TLSSocket::recvAll(int fd, char* buf, unsigned int len, WaitLimit& limit) {
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    std::size_t got = 0;
    const VELErr_t received = recvInto(fd, buf, len, limit, &got);
    return received == kVELErr_Timeout ? recvTimedOut(len, got) : received;
}

VELErr_t VEL_TLSSocket::readv(VELIoVec* v, unsigned long n) {
    if (n < 2) {
        return recv(v[0].iov_base, v[0].iov_len);
    }
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        return code;
    }
    const int fd = use.fd();
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    WaitLimit limit = isNonBlock() ? WaitLimit::Each(basis::TimeValue(getRecvTimeOut(), 0))
                                   : WaitLimit::None();
    const std::size_t expected = velcom::totalLength(v, n);
    std::size_t received = 0;
    velcom::advance(v, n, 0);
    while (n > 0) {
        std::size_t got = 0;
        code = recvInto(fd, v[0].iov_base, v[0].iov_len, limit, &got);
        received += got;
        if (code != kVELErr_Ok) {
            // A time-out leaves the element being filled as it was (its bytes are lost).
            return code == kVELErr_Timeout ? recvTimedOut(expected, received) : code;
        }
        velcom::advance(v, n, got);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSSocket::recvInto(int fd, char* buf, std::size_t size, WaitLimit& limit,
                                 std::size_t* got) {
    *got = 0;
    VELErr_t code = ensureHandshake(fd);
    while (code == kVELErr_Ok && *got < size) {
        std::size_t taken = 0;
        VELTLSWant_t want = kVELTLSWant_Read;
        code = _engine.read(buf + *got, size - *got, &taken, &want);
        *got += taken;
        if (code == kVELErr_Incomplete) {
            code = waitFor(fd, want, limit);
            if (code == kVELErr_Select) {
                velcom::traceComError(code, [&] { return remoteText(); });
            }
        } else if (code != kVELErr_Ok) {
            return stepFailed(fd, code);
        }
    }
    return code;
}

VELErr_t VEL_TLSSocket::recvAvail(char* buf, unsigned int* len) {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        *len = 0;
        return code;
    }
    if (*len == 0) {
        return kVELErr_Ok;
    }
    const int fd = use.fd();
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    const unsigned int wanted = *len;
    *len = 0;
    VELErr_t step = ensureHandshake(fd);
    if (step != kVELErr_Ok) {
        return step;  // traced by the handshake
    }
    while (step == kVELErr_Ok && *len < wanted) {
        std::size_t taken = 0;
        VELTLSWant_t want = kVELTLSWant_Read;
        step = _engine.read(buf + *len, wanted - *len, &taken, &want);
        *len += static_cast<unsigned int>(taken);
    }
    if (step == kVELErr_Ok) {
        return kVELErr_Ok;
    }
    if (step == kVELErr_Incomplete || *len > 0) {
        return kVELErr_Incomplete;  // a failure after some bytes is reported by the next call
    }
    return stepFailed(fd, step);
}

VELErr_t VEL_TLSSocket::waitForRead(const basis::TimeValue* limit) {
    const HandleUse use(*this);
    const int fd = use.fd();
    if (fd < 0) {
        basis::Thread::SetLastSystemErr(EBADF);
        velcom::traceComError(kVELErr_Select, [&] { return velcom::fdText(getHandle()); });
        return kVELErr_Select;
    }
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    WaitLimit waits = limit != nullptr ? WaitLimit::Whole(*limit) : WaitLimit::None();
    for (;;) {
        VELTLSWant_t want = kVELTLSWant_Read;
        if (_engine.peek(&want) != kVELErr_Incomplete) {
            return kVELErr_Ok;  // input, or an end or failure that a receive reports
        }
        const VELErr_t code = waitFor(fd, want, waits);
        if (code != kVELErr_Ok) {
            velcom::traceComError(code, [&] { return velcom::fdText(getHandle()); });
            return code;
        }
    }
}

VELErr_t VEL_TLSSocket::hasRecv() {
    const VELErr_t code = peekRecv();
    if (code == kVELErr_Ok || code == kVELErr_Timeout || code == kVELErr_SockNotConnected) {
        return code;
    }
    return kVELErr_Ok;  // the end or a failure is waiting: the next receive reports it
}

VELErr_t VEL_TLSSocket::peekRecv() {
    const HandleUse use(*this);
    if (use.fd() < 0 || !isConnected()) {
        return kVELErr_SockNotConnected;
    }
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    VELTLSWant_t want = kVELTLSWant_Read;
    const VELErr_t code = _engine.peek(&want);
    return code == kVELErr_Incomplete ? kVELErr_Timeout : code;
}

VELErr_t VEL_TLSSocket::checkPeer() {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        return code;
    }
    {
        std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
        if (_engine.isOver()) {
            basis::Thread::SetLastSystemErr(0);
            return kVELErr_SockHalfClosed;  // close_notify read, or the session failed
        }
    }
    return peerEndStatus(use.fd());
}

bool VEL_TLSSocket::isEstablished() const {
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    return _engine.isEstablished();
}

std::string VEL_TLSSocket::getProtocol() const {
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    return _engine.describe();
}

std::string VEL_TLSSocket::getPeerSubject() const {
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    return _engine.peerSubject();
}

std::string VEL_TLSSocket::getFailureDetail() const {
    std::lock_guard<basis::ThreadMutex> hold(_sessionLock);
    return _engine.failureDetail();
}

VELErr_t VEL_TLSSocket::waitFor(int fd, VELTLSWant_t want, WaitLimit& limit) const {
    basis::TimeValue span;
    const basis::TimeValue* wait = nullptr;
    if (!limit.next(span, wait)) {
        return kVELErr_Timeout;
    }
    short revents = 0;
    int err = 0;
    // The session is free while this thread waits: another may send meanwhile, or close.
    (void)_sessionLock.release();
    const int ready =
            velcom::pollOne(fd, want == kVELTLSWant_Read ? POLLIN : POLLOUT, wait, &revents, &err);
    (void)_sessionLock.acquire();
    if (ready < 0) {
        basis::Thread::SetLastSystemErr(err);
        return kVELErr_Select;
    }
    // Ready also means hung up or failed: the next step reports that.
    return ready == 0 ? kVELErr_Timeout : kVELErr_Ok;
}

VELErr_t VEL_TLSSocket::stepFailed(int fd, VELErr_t code) const {
    if (isClosing() || static_cast<int>(getHandle()) != fd) {
        return kVELErr_SockHalfClosed;  // another thread closed the socket under the call
    }
    if (code != kVELErr_SockHalfClosed) {
        velcom::traceComError(code, [&] { return remoteText() + " ; " + _engine.failureDetail(); });
    }
    return code;
}

VELErr_t VEL_TLSSocket::recvTimedOut(std::size_t expected, std::size_t received) const {
    velcom::traceComError(kVELErr_Timeout, [&] {
        return remoteText() + "; " + std::to_string(expected) + " bytes expected, " +
               std::to_string(received) + " received.";
    });
    return kVELErr_Timeout;
}
