#include "VEL_Socket.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <climits>
#include <mutex>
#include <string>
#include <thread>

#include "Thread.h"
#include "ThreadMutex.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

constexpr unsigned char kNewSocketTimeOut = 2;  // seconds
constexpr unsigned char kUnspecified = VEL_SockOptions::kUnspecified;

VEL_SockOptions newSocketOptions() {
    VEL_SockOptions options;
    options.setNoDelay(false);
    options.setKeepAlive(false);
    options.setLinger(false);
    options.setFdCloExec(false);
    options.setNonBlock(false);
    options.setTimeOut(kNewSocketTimeOut);
    options.setSendTimeOut(kNewSocketTimeOut);
    options.setRecvTimeOut(kNewSocketTimeOut);
    return options;
}

// True when a requested on/off value asks for something other than what is in force.
bool flagChanges(unsigned char requested, unsigned char current) {
    return requested != kUnspecified && (requested != 0) != (current != 0);
}

timeval toTimeval(unsigned long milliseconds) {
    timeval value;
    value.tv_sec = static_cast<time_t>(milliseconds / 1000);
    value.tv_usec = static_cast<suseconds_t>((milliseconds % 1000) * 1000);
    return value;
}

// Native time-out for `seconds`: 0 s would mean "no limit" to the system, so it becomes 1 ms.
unsigned long nativeTimeoutMs(unsigned char seconds) {
    return seconds == 0 ? 1 : static_cast<unsigned long>(seconds) * 1000;
}

int setIntOption(int fd, int level, int name, int value) {
    return ::setsockopt(fd, level, name, &value, sizeof(value));
}

}  // namespace

basis::ThreadMutex* VEL_Socket::_Mutex = nullptr;
unsigned long VEL_Socket::_NbSockets = 0;

VEL_Socket::VEL_Socket(const VEL_SockAddr& local)
    : _handle(kVEL_NoHandle),
      _options(newSocketOptions()),
      _connected(false),
      _closed(false),
      _closing(false),
      _localAddr(local),
      _remoteAddr(),
      _users(0) {}

VEL_Socket::~VEL_Socket() {
    (void)VEL_Socket::close();  // nobody is left to report a failure to
}

VELErr_t VEL_Socket::close() {
    if (_closed.load()) {
        return kVELErr_Ok;
    }
    const unsigned int handle = getHandle();
    velcom::traceComInfo([&] {
        return "Closing socket " + velcom::fdText(handle) +
               " ; Remote address : " + velcom::toText(_remoteAddr);
    });
    VELErr_t result = kVELErr_Ok;
    if (handle != kVEL_NoHandle) {
        const int fd = static_cast<int>(handle);
        setClosing(true);
        // Forget the number first: a call that starts from now on finds no descriptor.
        _handle.store(kVEL_NoHandle);
        if (_users.load() != 0) {
            // Closing alone would not wake a thread blocked on this descriptor; a shutdown of both
            // directions ends every call in progress at once, a send on a full buffer included.
            // Failures (not connected) do not matter here. With linger on, the close that follows
            // still resets the connection.
            (void)::shutdown(fd, SHUT_RDWR);
        }
        // The system may hand the number out again at once: only release it when no call of
        // another thread is still inside the descriptor. The shutdown has woken them all, so
        // this takes no longer than their way out.
        for (unsigned int spins = 0; _users.load() != 0; ++spins) {
            if (spins < 100) {
                basis::Thread::YieldControl();
            } else {
                std::this_thread::sleep_for(std::chrono::milliseconds(1));
            }
        }
        if (::close(fd) != 0) {
            const int err = errno;
            basis::Thread::SetLastSystemErr(err);
            velcom::traceComError(kVELErr_SocketClose, [&] { return remoteText(); });
            result = kVELErr_SocketClose;  // Linux has released the descriptor all the same
        }
        if (_Mutex != nullptr) {
            std::lock_guard<basis::ThreadMutex> hold(*_Mutex);
            --_NbSockets;
        }
        setClosing(false);
    }
    (void)_localAddr.set(0, nullptr);  // cannot fail without a host
    _connected.store(false);
    _closed.store(true);
    return result;
}

VELErr_t VEL_Socket::send(const char*, unsigned int) {
    return kVELErr_InvalidAction;
}

VELErr_t VEL_Socket::recv(char*, unsigned int) {
    return kVELErr_InvalidAction;
}

VELErr_t VEL_Socket::recvAvail(char*, unsigned int*) {
    return kVELErr_InvalidAction;
}

VELErr_t VEL_Socket::writev(VELIoVec*, unsigned long) {
    return kVELErr_InvalidAction;
}

VELErr_t VEL_Socket::readv(VELIoVec*, unsigned long) {
    return kVELErr_InvalidAction;
}

VELErr_t VEL_Socket::waitForRead(const basis::TimeValue* limit) {
    return waitFor(POLLIN, limit);
}

VELErr_t VEL_Socket::waitForWrite(const basis::TimeValue* limit) {
    return waitFor(POLLOUT, limit);
}

VELErr_t VEL_Socket::waitFor(short events, const basis::TimeValue* limit) {
    const HandleUse use(*this);
    const int handle = use.fd();
    short revents = 0;
    int err = 0;
    int ready = -1;
    if (handle < 0) {
        err = EBADF;  // poll() would ignore a negative descriptor and wait for nothing
    } else {
        ready = velcom::pollOne(handle, events, limit, &revents, &err);
    }
    if (ready < 0) {
        basis::Thread::SetLastSystemErr(err);
        velcom::traceComError(kVELErr_Select, [&] { return velcom::fdText(getHandle()); });
        return kVELErr_Select;
    }
    if (ready == 0) {
        velcom::traceComError(kVELErr_Timeout, [&] { return velcom::fdText(getHandle()); });
        return kVELErr_Timeout;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::setOptions(const VEL_SockOptions& options) {
    VELErr_t code = kVELErr_Ok;
    if (!isValid()) {
        code = kVELErr_InvalidSocket;
    } else if (_closed.load()) {
        code = kVELErr_SockHalfClosed;
    } else {
        code = setOptNoDelay(options.getNoDelay());
        if (code == kVELErr_Ok) {
            code = setOptKeepAlive(options.getKeepAlive());
        }
        if (code == kVELErr_Ok) {
            code = setOptLinger(options.getLinger());
        }
        if (code == kVELErr_Ok) {
            code = setOptFdCloExec(options.getFdCloExec());
        }
        if (code == kVELErr_Ok) {
            code = setOptSndBufSize(options.getSndBufSize());
        }
        if (code == kVELErr_Ok) {
            code = setOptRcvBufSize(options.getRcvBufSize());
        }
        if (code == kVELErr_Ok) {
            code = setOptTimeout(&options);
        }
    }
    if (code != kVELErr_Ok) {
        velcom::traceComError(code, [&] { return velcom::fdText(getHandle()); });
    }
    return code;
}

unsigned long VEL_Socket::GetNbInstances() {
    if (_Mutex == nullptr) {
        return _NbSockets;  // only before start-up or after shutdown, on one thread
    }
    std::lock_guard<basis::ThreadMutex> hold(*_Mutex);
    return _NbSockets;
}

bool VEL_Socket::isClosing() const {
    basis::ReadGuard<basis::RWThreadMutex> hold(_lock);
    return _closing;
}

void VEL_Socket::setClosing(bool closing) {
    basis::WriteGuard<basis::RWThreadMutex> hold(_lock);
    _closing = closing;
}

VELErr_t VEL_Socket::optionFailed(int err, VELErr_t code) const {
    basis::Thread::SetLastSystemErr(err);
    velcom::traceComError(code, [&] { return velcom::fdText(getHandle()); });
    return code;
}

VELErr_t VEL_Socket::setCommonOptions() {
    if (!isValid()) {
        return optionFailed(EBADF, kVELErr_InvalidSocket);
    }
    if (_closed.load()) {
        velcom::traceComError(kVELErr_SockHalfClosed, [&] { return velcom::fdText(getHandle()); });
        return kVELErr_SockHalfClosed;
    }
    if (!_connected.load() &&
        setIntOption(static_cast<int>(getHandle()), SOL_SOCKET, SO_REUSEADDR, 1) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_ReuseAddr);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::setOptNoDelay(unsigned char value) {
    if (!flagChanges(value, _options.getNoDelay())) {
        return kVELErr_Ok;
    }
    if (setIntOption(static_cast<int>(getHandle()), IPPROTO_TCP, TCP_NODELAY, value != 0) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_NoDelay);
    }
    _options.setNoDelay(value != 0);
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::setOptKeepAlive(unsigned char value) {
    if (!flagChanges(value, _options.getKeepAlive())) {
        return kVELErr_Ok;
    }
    if (setIntOption(static_cast<int>(getHandle()), SOL_SOCKET, SO_KEEPALIVE, value != 0) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_KeepAlive);
    }
    _options.setKeepAlive(value != 0);
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::setOptLinger(unsigned char value) {
    if (!flagChanges(value, _options.getLinger())) {
        return kVELErr_Ok;
    }
    const linger setting{value != 0 ? 1 : 0, 0};
    if (::setsockopt(static_cast<int>(getHandle()), SOL_SOCKET, SO_LINGER, &setting,
                     sizeof(setting)) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_Linger);
    }
    _options.setLinger(value != 0);
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::setOptFdCloExec(unsigned char value) {
    if (!flagChanges(value, _options.getFdCloExec())) {
        return kVELErr_Ok;
    }
    const int fd = static_cast<int>(getHandle());
    const int flags = ::fcntl(fd, F_GETFD);
    if (flags < 0 ||
        ::fcntl(fd, F_SETFD, value != 0 ? (flags | FD_CLOEXEC) : (flags & ~FD_CLOEXEC)) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_FdCloExec);
    }
    _options.setFdCloExec(value != 0);
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::setOptSndBufSize(unsigned int size) {
    return setBufSize(size, true);
}

VELErr_t VEL_Socket::setOptRcvBufSize(unsigned int size) {
    return setBufSize(size, false);
}

VELErr_t VEL_Socket::setBufSize(unsigned int size, bool sendSide) {
    const unsigned int current = sendSide ? _options.getSndBufSize() : _options.getRcvBufSize();
    if (size == 0 || size == current) {
        return kVELErr_Ok;
    }
    const int fd = static_cast<int>(getHandle());
    const int name = sendSide ? SO_SNDBUF : SO_RCVBUF;
    const VELErr_t failure = sendSide ? kVELErr_SndBuf : kVELErr_RcvBuf;
    const int asked = size > INT_MAX ? INT_MAX : static_cast<int>(size);
    if (setIntOption(fd, SOL_SOCKET, name, asked) != 0) {
        const int err = errno;
        return optionFailed(err, failure);
    }
    int obtained = 0;
    socklen_t length = sizeof(obtained);
    if (::getsockopt(fd, SOL_SOCKET, name, &obtained, &length) == 0 && obtained >= 0 &&
        static_cast<unsigned int>(obtained) >= size) {
        if (sendSide) {
            _options.setSndBufSize(size);
        } else {
            _options.setRcvBufSize(size);
        }
        return kVELErr_Ok;
    }
    if (VEL_Tools::IsTraceOn(kVELTrace_Com)) {
        VEL_Tools::TraceText(kVELLevel_Error,
                             std::string("COM - Warning! Failed to set the TCP ") +
                                     (sendSide ? "send" : "receive") + " buffer size for " +
                                     velcom::fdText(getHandle()) + " to " + std::to_string(size) +
                                     " bytes. The OS only gave " + std::to_string(obtained) +
                                     " bytes; this is the value that will be used.");
    }
    velcom::traceComError(failure, [&] { return velcom::fdText(getHandle()); });
    return failure;
}

VELErr_t VEL_Socket::setOptNonBlock(bool on) {
    int value = on ? 1 : 0;
    if (::ioctl(static_cast<int>(getHandle()), FIONBIO, &value) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_NonBlock);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::setOptNatTimeout(bool on) {
    const int fd = static_cast<int>(getHandle());
    const timeval sendLimit = toTimeval(on ? nativeTimeoutMs(_options.getSendTimeOut()) : 0);
    const timeval recvLimit = toTimeval(on ? nativeTimeoutMs(_options.getRecvTimeOut()) : 0);
    if (::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &sendLimit, sizeof(sendLimit)) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_SndTimeOut);
    }
    if (::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &recvLimit, sizeof(recvLimit)) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_RcvTimeOut);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::getOptError() {
    int pending = 0;
    socklen_t length = sizeof(pending);
    if (::getsockopt(static_cast<int>(getHandle()), SOL_SOCKET, SO_ERROR, &pending, &length) != 0) {
        const int err = errno;
        return optionFailed(err, kVELErr_SoError);
    }
    if (pending != 0) {
        basis::Thread::SetLastSystemErr(pending);
        return kVELErr_SoError;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::setOptTimeout(const VEL_SockOptions* options) {
    unsigned char sendTimeOut = options->getSendTimeOut();
    unsigned char recvTimeOut = options->getRecvTimeOut();
    if (options->getTimeOut() != kUnspecified) {
        sendTimeOut = sendTimeOut == kUnspecified ? options->getTimeOut() : sendTimeOut;
        recvTimeOut = recvTimeOut == kUnspecified ? options->getTimeOut() : recvTimeOut;
    }
    bool changed = false;
    if (sendTimeOut != kUnspecified && sendTimeOut != _options.getSendTimeOut()) {
        _options.setSendTimeOut(sendTimeOut);
        changed = true;
    }
    if (recvTimeOut != kUnspecified && recvTimeOut != _options.getRecvTimeOut()) {
        _options.setRecvTimeOut(recvTimeOut);
        changed = true;
    }
    VELErr_t code = kVELErr_Ok;
    const unsigned char nonBlock = options->getNonBlock();
    if (flagChanges(nonBlock, _options.getNonBlock())) {
        code = setOptNatTimeout(nonBlock != 0);
        if (code == kVELErr_Ok) {
            _options.setNonBlock(nonBlock != 0);
        }
    } else if (changed && _options.getNonBlock() != 0) {
        code = setOptNatTimeout(true);
    }
    if (code != kVELErr_Ok) {
        velcom::traceComError(code, [&] { return velcom::fdText(getHandle()); });
    }
    return code;
}

void VEL_Socket::takeHandle(int fd) {
    _handle.store(static_cast<unsigned int>(fd));
    _closed.store(false);
    if (_Mutex != nullptr) {
        std::lock_guard<basis::ThreadMutex> hold(*_Mutex);
        ++_NbSockets;
    }
}

void VEL_Socket::adoptConnection(VEL_Socket& from) {
    _options = from._options;
    _localAddr = from._localAddr;
    _remoteAddr = from._remoteAddr;
    _connected.store(from._connected.exchange(false));
    _closed.store(false);
    // The descriptor changes owner without being closed: the count stays as it is.
    _handle.store(from._handle.exchange(kVEL_NoHandle));
    from._closed.store(true);
}

VELErr_t VEL_Socket::bindLocalAddr() {
    if (::bind(static_cast<int>(getHandle()), _localAddr, VEL_SockAddr::GetSize()) != 0) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        return kVELErr_Bind;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::readLocalAddr() {
    sockaddr_in bound{};
    socklen_t length = sizeof(bound);
    if (::getsockname(static_cast<int>(getHandle()), reinterpret_cast<sockaddr*>(&bound),
                      &length) != 0) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        return kVELErr_GetSockName;
    }
    (void)_localAddr.set(&bound);  // always Ok; the resolve flag is kept
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::waitBeforeSend() {
    if (isNonBlock()) {
        return kVELErr_Ok;
    }
    const basis::TimeValue limit(getSendTimeOut(), 0);
    const VELErr_t code = waitForWrite(&limit);
    if (code != kVELErr_Ok) {
        velcom::traceComError(code, [&] { return remoteText(); });
    }
    return code;
}

VELErr_t VEL_Socket::abortOpen(VELErr_t code, const char* label, const VEL_SockAddr& address) {
    std::string detail;
    const bool traced = VEL_Tools::IsTraceOn(kVELTrace_ComError);
    if (traced) {
        detail = label + velcom::toText(address);
    }
    (void)close();  // the failure being reported is the one that matters
    if (traced) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("COM", code, detail));
    }
    return code;
}

std::string VEL_Socket::remoteText() const {
    return "Remote address : " + velcom::toText(_remoteAddr);
}

VELErr_t VEL_Socket::checkUse(bool ready, VELErr_t notReady) const {
    const VELErr_t code =
            !ready ? notReady : (_closed.load() ? kVELErr_SockHalfClosed : kVELErr_Ok);
    if (code != kVELErr_Ok) {
        velcom::traceComError(code, [&] { return remoteText(); });
    }
    return code;
}

VELErr_t VEL_Socket::checkTransfer() const {
    return checkUse(isValid() && _connected.load(), kVELErr_SockNotConnected);
}

VELErr_t VEL_Socket::peerEndStatus(int fd) {
    short revents = 0;
    int err = 0;
    const int ready = velcom::pollOne(fd, POLLRDHUP, &basis::TimeValue::kZero, &revents, &err);
    if (ready == 0) {
        return kVELErr_Ok;
    }
    if (ready < 0) {
        basis::Thread::SetLastSystemErr(err);
        return kVELErr_SockHalfClosed;
    }
    if ((revents & POLLERR) == 0 || getOptError() != kVELErr_SoError) {
        basis::Thread::SetLastSystemErr(0);  // an orderly end, or a hang-up without error
    }
    return kVELErr_SockHalfClosed;
}

VELErr_t VEL_Socket::createHandle(int type, const char* label) {
    velcom::ScopedFd fd(::socket(AF_INET, type, 0));
    if (!fd.valid()) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        return abortOpen(kVELErr_SocketCreate, label, _localAddr);
    }
    takeHandle(fd.release());
    return kVELErr_Ok;
}

VELErr_t VEL_Socket::resetInheritedOptions(const VEL_SockOptions& inherited) {
    const VEL_SockOptions fresh = _options;
    // Record what the descriptor really has now, then apply the fresh values through the
    // ordinary setters, which see the difference and make only the calls needed.
    _options.setNoDelay(inherited.getNoDelay() == 1);
    _options.setKeepAlive(inherited.getKeepAlive() == 1);
    _options.setLinger(inherited.getLinger() == 1);
    _options.setNonBlock(inherited.getNonBlock() == 1);
    _options.setSndBufSize(inherited.getSndBufSize());
    _options.setRcvBufSize(inherited.getRcvBufSize());
    VELErr_t code = setOptNoDelay(fresh.getNoDelay());
    if (code == kVELErr_Ok) {
        code = setOptKeepAlive(fresh.getKeepAlive());
    }
    if (code == kVELErr_Ok) {
        code = setOptLinger(fresh.getLinger());
    }
    if (code == kVELErr_Ok) {
        code = setOptTimeout(&fresh);
    }
    return code;
}
