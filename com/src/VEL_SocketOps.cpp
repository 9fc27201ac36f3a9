#include "VEL_SocketOps.h"

#include <limits.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <new>
#include <sstream>

#include "Thread.h"
#include "VEL_SockAddr.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

// Linux has one value for both names; the switches below list EAGAIN only.
static_assert(EAGAIN == EWOULDBLOCK, "EAGAIN and EWOULDBLOCK differ on this platform");

int toPollTimeout(const basis::TimeValue& limit) {
    const long long ms = limit.toMillisecondsCeil();
    return ms > INT_MAX ? INT_MAX : static_cast<int>(ms);
}

}  // namespace

namespace velcom {

ScopedFd::~ScopedFd() {
    reset();
}

int ScopedFd::release() {
    const int fd = _fd;
    _fd = -1;
    return fd;
}

void ScopedFd::reset(int fd) {
    if (_fd >= 0) {
        // Only error paths get here; the descriptor is released even when close reports an error.
        (void)::close(_fd);
    }
    _fd = fd;
}

VELErr_t mapSendError(int err, SendOp op) {
    switch (err) {
        case EINTR:
            return op == SendOp::kWritevAvail ? kVELErr_Incomplete : kVELErr_Interrupted;
        case EINVAL:
        case ENETRESET:
        case ECONNABORTED:
        case ECONNRESET:
            return (op == SendOp::kWritev || op == SendOp::kSendAvail) ? kVELErr_Send
                                                                       : kVELErr_SockHalfClosed;
        case ECONNREFUSED:
            return op == SendOp::kSendTo ? kVELErr_SockHalfClosed : kVELErr_Send;
        case EAGAIN:
        case ETIMEDOUT:
            if (op == SendOp::kSendAvail) {
                return kVELErr_Ok;  // the caller reports "nothing taken" through the length
            }
            return op == SendOp::kWritevAvail ? kVELErr_Incomplete : kVELErr_Timeout;
        case ENOTSOCK:
        case EBADF:
            return kVELErr_InvalidSocket;
        default:  // EPIPE and ESHUTDOWN (peer gone after a shutdown) among them
            return kVELErr_Send;
    }
}

VELErr_t mapRecvError(int err, RecvOp op) {
    switch (err) {
        case EINTR:
            return op == RecvOp::kReadvAvail ? kVELErr_Recv : kVELErr_Interrupted;
        case EINVAL:
        case ENETRESET:
        case ECONNABORTED:
        case ECONNRESET:
        case EPIPE:
        case ESHUTDOWN:
            return kVELErr_SockHalfClosed;
        case ECONNREFUSED:
            return (op == RecvOp::kRecvFrom || op == RecvOp::kRecvAvailFrom)
                           ? kVELErr_SockHalfClosed
                           : kVELErr_Recv;
        case EAGAIN:
        case ETIMEDOUT:
            return (op == RecvOp::kRecvAvail || op == RecvOp::kReadvAvail) ? kVELErr_Incomplete
                                                                           : kVELErr_Timeout;
        case ENOTSOCK:
        case EBADF:
            return kVELErr_InvalidSocket;
        case EMSGSIZE:
            // A datagram larger than the buffer: recvAvailFrom keeps its first bytes.
            return op == RecvOp::kRecvAvailFrom ? kVELErr_Ok : kVELErr_Recv;
        default:
            return kVELErr_Recv;
    }
}

VELErr_t mapConnectError(int err) {
    switch (err) {
        case EINPROGRESS:
        case EINTR:  // an interrupted connect goes on in the background
        case EALREADY:
            return kVELErr_InProgress;
        default:
            return kVELErr_Connect;
    }
}

VELErr_t mapAcceptError(int err) {
    switch (err) {
        case EINTR:
            return kVELErr_Interrupted;
        default:
            return kVELErr_Accept;
    }
}

VELErr_t endOfStream() {
    basis::Thread::SetLastSystemErr(0);
    return kVELErr_SockHalfClosed;
}

namespace {

// One sendmsg of the elements, staged in `staged`, retried when interrupted; advances `v` and `n`
// past what it took. Returns 0 when some bytes were taken, EAGAIN when none (a count of 0
// included), or the errno.
int sendOnce(int fd, IoVecArray& staged, VELIoVec*& v, unsigned long& n, const sockaddr_in* to,
             int flags) {
    msghdr message = staged.message(v, n);
    message.msg_name = const_cast<sockaddr_in*>(to);
    message.msg_namelen = to != nullptr ? sizeof(*to) : 0;
    for (;;) {
        // sendmsg, not writev(2): only sendmsg takes MSG_NOSIGNAL.
        const ssize_t sent = ::sendmsg(fd, &message, MSG_NOSIGNAL | flags);
        if (sent > 0) {
            advance(v, n, static_cast<std::size_t>(sent));
            return 0;
        }
        const int err = sent == 0 ? EAGAIN : errno;
        if (err != EINTR) {
            return err;
        }
    }
}

}  // namespace

int sendAll(int fd, VELIoVec*& v, unsigned long& n, const sockaddr_in* to) {
    IoVecArray staged(n);
    while (n > 0) {
        const int err = sendOnce(fd, staged, v, n, to, 0);
        if (err != 0) {
            return err;
        }
    }
    return 0;
}

int sendNow(int fd, VELIoVec*& v, unsigned long& n) {
    IoVecArray staged(n);
    return sendOnce(fd, staged, v, n, nullptr, MSG_DONTWAIT);
}

int pollOne(int fd, short events, const basis::TimeValue* limit, short* revents, int* err) {
    // The clock is read only for a wait that an interruption could have to resume.
    const bool timed = limit != nullptr && *limit > basis::TimeValue::kZero;
    const basis::TimeValue deadline =
            timed ? basis::TimeValue::GetHRTime() + *limit : basis::TimeValue::kZero;
    int timeout = limit == nullptr ? -1 : (timed ? toPollTimeout(*limit) : 0);
    for (;;) {
        pollfd entry{fd, events, 0};
        const int ready = ::poll(&entry, 1, timeout);
        if (ready > 0) {
            if ((entry.revents & POLLNVAL) != 0) {
                *err = EBADF;
                return -1;
            }
            *revents = entry.revents;
            return 1;
        }
        if (ready == 0) {
            return 0;
        }
        const int failure = errno;
        if (failure != EINTR) {
            *err = failure;
            return -1;
        }
        if (timed) {
            const basis::TimeValue left = deadline - basis::TimeValue::GetHRTime();
            timeout = left > basis::TimeValue::kZero ? toPollTimeout(left) : 0;
        }
    }
}

IoVecArray::IoVecArray(unsigned long count) : _array(_inline), _capacity(kInline) {
    if (count > kInline) {
        const std::size_t wanted = count < IOV_MAX ? count : IOV_MAX;
        _heap.reset(new (std::nothrow) iovec[wanted]);
        if (_heap) {
            _array = _heap.get();
            _capacity = wanted;
        }
    }
}

iovec* IoVecArray::fill(const VELIoVec* v, unsigned long n) {
    _size = n < _capacity ? n : _capacity;
    for (std::size_t i = 0; i < _size; ++i) {
        _array[i].iov_base = v[i].iov_base;
        _array[i].iov_len = v[i].iov_len;
    }
    return _array;
}

msghdr IoVecArray::message(const VELIoVec* v, unsigned long n) {
    msghdr header{};
    header.msg_iov = fill(v, n);
    header.msg_iovlen = _size;
    return header;
}

std::size_t advance(VELIoVec*& v, unsigned long& n, std::size_t moved) {
    while (n > 0 && v->iov_len <= moved) {
        moved -= v->iov_len;
        ++v;
        --n;
    }
    if (n == 0) {
        return 0;
    }
    v->iov_base += moved;
    v->iov_len -= static_cast<std::uint32_t>(moved);
    return moved;
}

void advanceFilling(VELIoVec*& v, unsigned long& n, std::size_t moved, VELIoVec& startedAs) {
    const VELIoVec* before = v;
    const std::size_t rest = advance(v, n, moved);
    if (n > 0 && v != before) {
        startedAs = VELIoVec{v->iov_base - rest, static_cast<std::uint32_t>(v->iov_len + rest)};
    }
}

std::size_t totalLength(const VELIoVec* v, unsigned long n) {
    std::size_t total = 0;
    for (unsigned long i = 0; i < n; ++i) {
        total += v[i].iov_len;
    }
    return total;
}

std::string toText(const VEL_SockAddr& address) {
    std::ostringstream out;
    out << address;
    return out.str();
}

std::string fdText(unsigned int handle) {
    return "<FD = " + std::to_string(static_cast<int>(handle)) + ">";
}

}  // namespace velcom
