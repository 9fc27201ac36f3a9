#include "VEL_TCPSocket.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "Thread.h"
#include "Tools.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

// The status of a failed send or writev.
VELErr_t sendError(int err, bool vectored) {
    return velcom::mapSendError(err, vectored ? velcom::SendOp::kWritev : velcom::SendOp::kSend);
}

// A receive of what is waiting that found nothing after all (a native time-out, or a descriptor
// that polled readable without data): information, not an error.
VELErr_t foundNothing(int err, const char* operation, const VEL_SockAddr& peer) {
    basis::Thread::SetLastSystemErr(err);
    velcom::traceComInfo([&] {
        return std::string(operation) + " timeout on remote address : " + velcom::toText(peer);
    });
    return kVELErr_Incomplete;
}

}  // namespace

VEL_TCPSocket::VEL_TCPSocket(unsigned short port, const char* host)
    : VEL_Socket(VEL_SockAddr(port, host)) {}

VEL_TCPSocket::VEL_TCPSocket(const VEL_SockAddr& local) : VEL_Socket(local) {}

VELErr_t VEL_TCPSocket::open() {
    if (isValid()) {
        return kVELErr_Ok;
    }
    if (createHandle(SOCK_STREAM, "Local address : ") != kVELErr_Ok) {
        return kVELErr_SocketCreate;
    }
    if (getLocalAddr().isSet()) {
        if (bindLocalAddr() != kVELErr_Ok) {
            return abortOpen(kVELErr_Bind, "Local address : ", getLocalAddr());
        }
        if (getLocalAddr().getPort() == 0 && readLocalAddr() != kVELErr_Ok) {
            return abortOpen(kVELErr_GetSockName, "Local address : ", getLocalAddr());
        }
    }
    const VELErr_t code = setCommonOptions();
    return code == kVELErr_Ok ? kVELErr_Ok : abortOpen(code, "Local address : ", getLocalAddr());
}

// Stores the error and traces it; resets are only returned.
VELErr_t VEL_TCPSocket::transferFailed(int err, VELErr_t code) const {
    basis::Thread::SetLastSystemErr(err);
    if (code != kVELErr_SockHalfClosed) {
        velcom::traceComError(code, [&] { return remoteText(); });
    }
    return code;
}

VELErr_t VEL_TCPSocket::send(const char* buf, unsigned int len) {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    VELIoVec whole{const_cast<char*>(buf), len};  // only read from
    return sendStream(use.fd(), &whole, 1, false);
}

VELErr_t VEL_TCPSocket::sendUntil(const char* buf, unsigned int len,
                                  const basis::TimeValue& deadline) {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    VELIoVec whole{const_cast<char*>(buf), len};  // only read from
    return sendBefore(use.fd(), &whole, 1, false, deadline);
}

// With native time-outs the system bounds each call. Otherwise the library bounds the whole
// transfer by the send time-out: a blocking call could wait for ever once the peer stops reading,
// even after it took part of the data.
VELErr_t VEL_TCPSocket::sendStream(int fd, VELIoVec* v, unsigned long n, bool vectored) {
    if (!isNonBlock()) {
        const basis::TimeValue deadline =
                basis::TimeValue::GetHRTime() + basis::TimeValue(getSendTimeOut(), 0);
        return sendBefore(fd, v, n, vectored, deadline);
    }
    const int err = velcom::sendAll(fd, v, n, nullptr);
    return err == 0 ? kVELErr_Ok : transferFailed(err, sendError(err, vectored));
}

// Offers the bytes without blocking and waits for room between offers, so that no call outlasts
// the deadline (the native time-outs play no part). A send that took part of the data and then
// timed out leaves the rest unsent: the stream is then cut in the middle of the caller's data.
VELErr_t VEL_TCPSocket::sendBefore(int fd, VELIoVec* v, unsigned long n, bool vectored,
                                   const basis::TimeValue& deadline) {
    for (;;) {
        const int err = velcom::sendNow(fd, v, n);
        if (err == 0) {
            if (n == 0) {
                return kVELErr_Ok;
            }
            continue;  // the rest may fit at once
        }
        if (err != EAGAIN) {
            return transferFailed(err, sendError(err, vectored));
        }
        const VELErr_t code = waitUntil(fd, POLLOUT, deadline);
        if (code == kVELErr_Timeout) {
            basis::Thread::SetLastSystemErr(EAGAIN);  // the last send would have blocked
            velcom::traceComError(code, [&] { return remoteText(); });
        }
        if (code != kVELErr_Ok) {
            return code;
        }
    }
}

// Waits until `fd` reports `events` (or a failure or hang-up, which the next call reports) or
// the deadline has passed: kVELErr_Timeout, not traced. kVELErr_Select when the wait fails
// (traced).
VELErr_t VEL_TCPSocket::waitUntil(int fd, short events, const basis::TimeValue& deadline) const {
    basis::TimeValue left = deadline - basis::TimeValue::GetHRTime();
    if (left < basis::TimeValue::kZero) {
        left = basis::TimeValue::kZero;
    }
    short revents = 0;
    int err = 0;
    const int ready = velcom::pollOne(fd, events, &left, &revents, &err);
    if (ready > 0) {
        return kVELErr_Ok;
    }
    if (ready == 0) {
        return kVELErr_Timeout;
    }
    basis::Thread::SetLastSystemErr(err);
    velcom::traceComError(kVELErr_Select, [&] { return remoteText(); });
    return kVELErr_Select;
}

VELErr_t VEL_TCPSocket::recv(char* buf, unsigned int len) {
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    const int fd = use.fd();
    unsigned int received = 0;
    while (received < len) {
        const ssize_t got = ::recv(fd, buf + received, len - received, 0);
        if (got > 0) {
            received += static_cast<unsigned int>(got);
            continue;
        }
        if (got == 0) {
            return velcom::endOfStream();
        }
        const int err = errno;
        if (err == EINTR) {
            // Another thread closing this socket may have interrupted the call; the descriptor
            // number must not be used again then.
            if (isClosing() || use.fd() != fd) {
                return kVELErr_SockHalfClosed;
            }
            continue;
        }
        basis::Thread::SetLastSystemErr(err);
        code = velcom::mapRecvError(err, velcom::RecvOp::kRecv);
        if (code == kVELErr_Timeout) {
            return recvTimedOut(len, received, buf, nullptr, 0);
        }
        return transferFailed(err, code);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TCPSocket::recvUntil(char* buf, unsigned int len, const basis::TimeValue& deadline) {
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    const int fd = use.fd();
    unsigned int received = 0;
    while (received < len) {
        // Without blocking: the wait below is the only one, and it ends at the deadline.
        const ssize_t got = ::recv(fd, buf + received, len - received, MSG_DONTWAIT);
        if (got > 0) {
            received += static_cast<unsigned int>(got);
            continue;
        }
        if (got == 0) {
            return velcom::endOfStream();
        }
        const int err = errno;
        if (err == EINTR) {
            continue;
        }
        if (err != EAGAIN) {
            return transferFailed(err, velcom::mapRecvError(err, velcom::RecvOp::kRecv));
        }
        code = waitUntil(fd, POLLIN, deadline);
        if (code == kVELErr_Timeout) {
            basis::Thread::SetLastSystemErr(err);
            return recvTimedOut(len, received, buf, nullptr, 0);
        }
        if (code != kVELErr_Ok) {
            return code;
        }
    }
    return kVELErr_Ok;
}

// Traces a receive time-out with the byte counts and, with trace bit 16, dumps what arrived
// (`data` for a plain receive, the `filled` elements for a vector one).
VELErr_t VEL_TCPSocket::recvTimedOut(std::size_t expected, std::size_t received, const char* data,
                                     const VELIoVec* filled, unsigned long filledCount) const {
    velcom::traceComError(kVELErr_Timeout, [&] {
        return remoteText() + "; " + std::to_string(expected) + " bytes expected, " +
               std::to_string(received) + " received.";
    });
    if (received > 0 && VEL_Tools::IsTraceOn(kVELTrace_MsgDump)) {
        VEL_Tools::TraceText(kVELLevel_Error,
                             VEL_Tools::ErrText("COM", kVELErr_Timeout, "Received data : "));
        if (filled == nullptr) {
            VEL_Tools::MemDump(basis::Tools::Basename(__FILE__), __LINE__, kVELLevel_Error, data,
                               static_cast<unsigned int>(received), 0);
        } else {
            VEL_Tools::MemDumpVec(basis::Tools::Basename(__FILE__), __LINE__, kVELLevel_Error,
                                  filled, filledCount);
        }
    }
    return kVELErr_Timeout;
}

VELErr_t VEL_TCPSocket::writev(VELIoVec* v, unsigned long n) {
    if (n < 2) {
        return send(v[0].iov_base, v[0].iov_len);
    }
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    VELIoVec* current = v;
    unsigned long left = n;
    velcom::advance(current, left, 0);  // leading empty elements
    if (code != kVELErr_Ok || left == 0) {
        return code;
    }
    return sendStream(use.fd(), current, left, true);
}

VELErr_t VEL_TCPSocket::readv(VELIoVec* v, unsigned long n) {
    if (n < 2) {
        return recv(v[0].iov_base, v[0].iov_len);
    }
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    VELIoVec* current = v;
    unsigned long left = n;
    velcom::advance(current, left, 0);
    if (code != kVELErr_Ok || left == 0) {
        return code;
    }
    const int fd = use.fd();
    const std::size_t expected = velcom::totalLength(v, n);
    std::size_t received = 0;
    // The element being filled, as it was when filling it began.
    VELIoVec startedAs = *current;
    velcom::IoVecArray staged(left);
    while (left > 0) {
        msghdr message = staged.message(current, left);
        const ssize_t got = ::recvmsg(fd, &message, 0);
        if (got > 0) {
            received += static_cast<std::size_t>(got);
            velcom::advanceFilling(current, left, static_cast<std::size_t>(got), startedAs);
            continue;
        }
        if (got == 0) {
            return velcom::endOfStream();
        }
        const int err = errno;
        if (err == EINTR) {
            continue;
        }
        basis::Thread::SetLastSystemErr(err);
        code = velcom::mapRecvError(err, velcom::RecvOp::kReadv);
        if (code == kVELErr_Timeout) {
            *current = startedAs;
            return recvTimedOut(expected, received, nullptr, v,
                                static_cast<unsigned long>(current - v));
        }
        return transferFailed(err, code);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TCPSocket::sendAvail(const char* buf, unsigned int* len) {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || *len == 0) {
        return code;
    }
    const int fd = use.fd();
    for (;;) {
        const ssize_t sent = ::send(fd, buf, *len, MSG_NOSIGNAL);
        if (sent >= 0) {
            *len = static_cast<unsigned int>(sent);
            return kVELErr_Ok;
        }
        const int err = errno;
        if (err != EINTR) {
            const VELErr_t mapped = velcom::mapSendError(err, velcom::SendOp::kSendAvail);
            if (mapped == kVELErr_Ok) {
                basis::Thread::SetLastSystemErr(err);
                *len = kNothingSent;
                return kVELErr_Ok;
            }
            return transferFailed(err, mapped);
        }
    }
}

VELErr_t VEL_TCPSocket::recvAvail(char* buf, unsigned int* len) {
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok || *len == 0) {
        return code;
    }
    code = pollReadable(use.fd());
    if (code != kVELErr_Ok) {
        if (code == kVELErr_Timeout) {
            *len = 0;
            return kVELErr_Incomplete;
        }
        return code;
    }
    const int fd = use.fd();
    for (;;) {
        const ssize_t got = ::recv(fd, buf, *len, 0);
        if (got > 0) {
            if (static_cast<unsigned int>(got) < *len) {
                *len = static_cast<unsigned int>(got);
                return kVELErr_Incomplete;
            }
            return kVELErr_Ok;
        }
        if (got == 0) {
            return velcom::endOfStream();
        }
        const int err = errno;
        if (err == EINTR) {
            continue;
        }
        code = velcom::mapRecvError(err, velcom::RecvOp::kRecvAvail);
        if (code == kVELErr_Incomplete) {
            *len = 0;
            return foundNothing(err, "recvAvail", getRemoteAddr());
        }
        return transferFailed(err, code);
    }
}

VELErr_t VEL_TCPSocket::writevAvail(VELIoVec*& v, unsigned long& n) {
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        return code;
    }
    velcom::advance(v, n, 0);  // leading empty elements
    if (n == 0) {
        return kVELErr_Ok;
    }
    velcom::IoVecArray staged(n);
    msghdr message = staged.message(v, n);
    const ssize_t sent = ::sendmsg(use.fd(), &message, MSG_NOSIGNAL);
    if (sent >= 0) {
        velcom::advance(v, n, static_cast<std::size_t>(sent));
        return n == 0 ? kVELErr_Ok : kVELErr_Incomplete;
    }
    const int err = errno;
    basis::Thread::SetLastSystemErr(err);
    // EAGAIN is both "would block" and "native time-out expired": with native time-outs on it
    // can only be the latter. Only a real time-out drops the rest of the data.
    if ((err == EAGAIN && isNonBlock()) || err == ETIMEDOUT) {
        v->iov_len = 0;
        n = 0;
        return kVELErr_Incomplete;
    }
    code = velcom::mapSendError(err, velcom::SendOp::kWritevAvail);
    if (code == kVELErr_InvalidSocket) {
        velcom::traceComError(
                code, [&] { return remoteText() + " (error code = " + std::to_string(err) + ")"; });
    } else if (code == kVELErr_Send) {
        velcom::traceComError(code, [&] {
            return "Remote Address : " + velcom::toText(getRemoteAddr()) +
                   " (error Code = " + std::to_string(err) +
                   ") (system erro = " + std::to_string(basis::Thread::GetLastSystemErr()) + ")";
        });
    }
    return code;
}

VELErr_t VEL_TCPSocket::readvAvail(VELIoVec*& v, unsigned long& n) {
    const HandleUse use(*this);
    VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        return code;
    }
    velcom::advance(v, n, 0);  // leading empty elements
    if (n == 0) {
        return kVELErr_Ok;
    }
    code = pollReadable(use.fd());
    if (code != kVELErr_Ok) {
        return code == kVELErr_Timeout ? kVELErr_Incomplete : code;
    }
    velcom::IoVecArray staged(n);
    msghdr message = staged.message(v, n);
    const ssize_t got = ::recvmsg(use.fd(), &message, 0);
    if (got > 0) {
        velcom::advance(v, n, static_cast<std::size_t>(got));
        return n == 0 ? kVELErr_Ok : kVELErr_Incomplete;
    }
    if (got == 0) {
        return velcom::endOfStream();
    }
    const int err = errno;
    code = velcom::mapRecvError(err, velcom::RecvOp::kReadvAvail);
    if (code == kVELErr_Incomplete) {
        return foundNothing(err, "readvAvail", getRemoteAddr());
    }
    return transferFailed(err, code);
}

VELErr_t VEL_TCPSocket::hasRecv() {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    return code != kVELErr_Ok ? code : pollReadable(use.fd());
}

VELErr_t VEL_TCPSocket::peekRecv() {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        return code;
    }
    char byte = 0;
    ssize_t got;
    do {
        got = ::recv(use.fd(), &byte, 1, MSG_PEEK | MSG_DONTWAIT);
    } while (got < 0 && errno == EINTR);
    if (got > 0) {
        return kVELErr_Ok;
    }
    if (got == 0) {
        return velcom::endOfStream();
    }
    const int err = errno;  // capture before anything else runs
    basis::Thread::SetLastSystemErr(err);
    return err == EAGAIN || err == EWOULDBLOCK ? kVELErr_Timeout : kVELErr_SockHalfClosed;
}

VELErr_t VEL_TCPSocket::checkPeer() {
    const HandleUse use(*this);
    const VELErr_t code = checkTransfer();
    if (code != kVELErr_Ok) {
        return code;
    }
    return peerEndStatus(use.fd());
}

// One poll without waiting. A readable descriptor (input, end of stream, or a pending error that
// the next receive reports) gives Ok.
VELErr_t VEL_TCPSocket::pollReadable(int fd) {
    short revents = 0;
    int err = 0;
    const int ready = velcom::pollOne(fd, POLLIN, &basis::TimeValue::kZero, &revents, &err);
    if (ready > 0) {
        return kVELErr_Ok;
    }
    if (ready == 0) {
        return kVELErr_Timeout;
    }
    basis::Thread::SetLastSystemErr(err);
    if (VEL_Tools::IsTraceOn(kVELTrace_FrameError)) {
        VEL_Tools::TraceText(kVELLevel_Error, "FRAME - " + VEL_Tools::GetErrStr(kVELErr_Select) +
                                                      " ; Unknown error while waiting for event " +
                                                      velcom::fdText(getHandle()) +
                                                      "; Last error: " + std::to_string(err));
    }
    return kVELErr_Select;
}
