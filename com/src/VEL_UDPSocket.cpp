#include "VEL_UDPSocket.h"

#include <sys/socket.h>

#include <cerrno>
#include <string>

#include "Thread.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

constexpr const char* kLocal = "Local address : ";

}  // namespace

VEL_UDPSocket::VEL_UDPSocket(unsigned short port, const char* host)
    : VEL_Socket(VEL_SockAddr(port, host)) {}

VEL_UDPSocket::VEL_UDPSocket(const VEL_SockAddr& local) : VEL_Socket(local) {}

VEL_UDPSocket::VEL_UDPSocket(const VEL_SockAddr& local, const VEL_SockAddr& remote)
    : VEL_Socket(local) {
    setRemoteAddr(remote);
    setConnected();
}

VELErr_t VEL_UDPSocket::open() {
    if (isValid()) {
        return kVELErr_Ok;
    }
    if (createHandle(SOCK_DGRAM, kLocal) != kVELErr_Ok) {
        return kVELErr_SocketCreate;
    }
    if (!getLocalAddr().isSet()) {
        // A host that did not convert or resolve leaves 255.255.255.255, which Linux would bind.
        basis::Thread::SetLastSystemErr(EADDRNOTAVAIL);
        return abortOpen(kVELErr_Bind, kLocal, getLocalAddr());
    }
    if (bindLocalAddr() != kVELErr_Ok) {
        return abortOpen(kVELErr_Bind, kLocal, getLocalAddr());
    }
    if (readLocalAddr() != kVELErr_Ok) {
        return abortOpen(kVELErr_GetSockName, kLocal, getLocalAddr());
    }
    if (!isConnected()) {
        return kVELErr_Ok;
    }
    if (!getRemoteAddr().isSet()) {
        return abortOpen(kVELErr_Connect, "Invalid remote address : ", getRemoteAddr());
    }
    if (getRemoteAddr().getPort() == 0) {
        setRemoteAddr(getLocalAddr());  // connected to itself
    }
    if (::connect(static_cast<int>(getHandle()), getRemoteAddr(), VEL_SockAddr::GetSize()) != 0) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        return abortOpen(kVELErr_Connect, "Remote address : ", getRemoteAddr());
    }
    return kVELErr_Ok;
}

// Stores and traces a failure, naming `peer` (the destination or sender), or the remote address.
VELErr_t VEL_UDPSocket::failed(int err, VELErr_t code, const VEL_SockAddr* peer) const {
    basis::Thread::SetLastSystemErr(err);
    velcom::traceComError(code, [&] {
        return "Remote address : " + velcom::toText(peer != nullptr ? *peer : getRemoteAddr());
    });
    return code;
}

VELErr_t VEL_UDPSocket::checkSend(const VEL_SockAddr* to) const {
    return checkUse(isValid() && (to != nullptr || isConnected()), kVELErr_SockNotConnected);
}

VELErr_t VEL_UDPSocket::checkRecv() const {
    return checkUse(isValid(), kVELErr_InvalidSocket);
}

VELErr_t VEL_UDPSocket::sendTo(const char* buf, unsigned int len, const VEL_SockAddr* to) {
    const HandleUse use(*this);
    VELErr_t code = checkSend(to);
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    code = waitBeforeSend();
    if (code != kVELErr_Ok) {
        return code;
    }
    const int fd = use.fd();
    const bool connected = isConnected();
    while (len > 0) {
        const ssize_t sent =
                connected ? ::send(fd, buf, len, MSG_NOSIGNAL)
                          : ::sendto(fd, buf, len, MSG_NOSIGNAL, *to, VEL_SockAddr::GetSize());
        if (sent > 0) {
            buf += sent;
            len -= static_cast<unsigned int>(sent);
            continue;
        }
        const int err = sent == 0 ? EAGAIN : errno;
        if (err != EINTR) {
            return failed(err, velcom::mapSendError(err, velcom::SendOp::kSendTo), to);
        }
    }
    return kVELErr_Ok;
}

VELErr_t VEL_UDPSocket::writevTo(VELIoVec* v, unsigned long n, const VEL_SockAddr* to) {
    if (n < 2) {
        return sendTo(v[0].iov_base, v[0].iov_len, to);
    }
    const HandleUse use(*this);
    VELErr_t code = checkSend(to);
    VELIoVec* current = v;
    unsigned long left = n;
    velcom::advance(current, left, 0);
    if (code != kVELErr_Ok || left == 0) {
        return code;
    }
    code = waitBeforeSend();
    if (code != kVELErr_Ok) {
        return code;
    }
    const sockaddr_in* destination = isConnected() ? nullptr : static_cast<const sockaddr_in*>(*to);
    const int err = velcom::sendAll(use.fd(), current, left, destination);
    if (err != 0) {
        return failed(err, velcom::mapSendError(err, velcom::SendOp::kSendTo), to);
    }
    return kVELErr_Ok;
}

// One receive, retried when interrupted: the datagram's whole length (MSG_TRUNC makes Linux
// report it even when the buffer was shorter), or -1 with *err set. `from` gets the sender.
ssize_t VEL_UDPSocket::receiveOne(int fd, char* buf, std::size_t len, VEL_SockAddr* from,
                                  int* err) const {
    for (;;) {
        sockaddr_in sender{};
        socklen_t length = sizeof(sender);
        const ssize_t got =
                ::recvfrom(fd, buf, len, MSG_TRUNC, reinterpret_cast<sockaddr*>(&sender), &length);
        if (got >= 0) {
            if (from != nullptr) {
                (void)from->set(&sender);  // always Ok
            }
            return got;
        }
        *err = errno;
        if (*err != EINTR) {
            return -1;
        }
    }
}

VELErr_t VEL_UDPSocket::recvFrom(char* buf, unsigned int len, VEL_SockAddr* from) {
    const HandleUse use(*this);
    const VELErr_t code = checkRecv();
    if (code != kVELErr_Ok || len == 0) {
        return code;
    }
    unsigned int received = 0;
    while (received < len) {
        int err = 0;
        const ssize_t got = receiveOne(use.fd(), buf + received, len - received, from, &err);
        if (got < 0) {
            return failed(err, velcom::mapRecvError(err, velcom::RecvOp::kRecvFrom), from);
        }
        if (got == 0) {
            return velcom::endOfStream();
        }
        if (static_cast<std::size_t>(got) > len - received) {
            return failed(EMSGSIZE, velcom::mapRecvError(EMSGSIZE, velcom::RecvOp::kRecvFrom),
                          from);
        }
        received += static_cast<unsigned int>(got);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_UDPSocket::recvAvailFrom(char* buf, unsigned int* len, VEL_SockAddr* from) {
    const HandleUse use(*this);
    const VELErr_t code = checkRecv();
    if (code != kVELErr_Ok || *len == 0) {
        return code;
    }
    int err = 0;
    const ssize_t got = receiveOne(use.fd(), buf, *len, from, &err);
    if (got < 0) {
        return failed(err, velcom::mapRecvError(err, velcom::RecvOp::kRecvAvailFrom), from);
    }
    if (got == 0) {
        return velcom::endOfStream();
    }
    if (static_cast<std::size_t>(got) > *len) {
        // Cut to the buffer: Ok with *len unchanged, the rest of the datagram is lost.
        basis::Thread::SetLastSystemErr(EMSGSIZE);
        return velcom::mapRecvError(EMSGSIZE, velcom::RecvOp::kRecvAvailFrom);
    }
    *len = static_cast<unsigned int>(got);
    return kVELErr_Ok;
}

VELErr_t VEL_UDPSocket::readvFrom(VELIoVec* v, unsigned long n, VEL_SockAddr* from) {
    if (n < 2) {
        return recvFrom(v[0].iov_base, v[0].iov_len, from);
    }
    const HandleUse use(*this);
    const VELErr_t code = checkRecv();
    VELIoVec* current = v;
    unsigned long left = n;
    velcom::advance(current, left, 0);
    if (code != kVELErr_Ok || left == 0) {
        return code;
    }
    const int fd = use.fd();
    VELIoVec startedAs = *current;  // the element being filled, as it was when filling began
    velcom::IoVecArray staged(left);
    while (left > 0) {
        sockaddr_in sender{};
        msghdr message = staged.message(current, left);
        message.msg_name = &sender;
        message.msg_namelen = sizeof(sender);
        const ssize_t got = ::recvmsg(fd, &message, 0);
        if (got < 0) {
            const int err = errno;
            if (err == EINTR) {
                continue;
            }
            const VELErr_t mapped = velcom::mapRecvError(err, velcom::RecvOp::kRecvFrom);
            if (mapped == kVELErr_Timeout) {
                *current = startedAs;
            }
            return failed(err, mapped, from);
        }
        if (from != nullptr) {
            (void)from->set(&sender);  // always Ok
        }
        if ((message.msg_flags & MSG_TRUNC) != 0) {
            return failed(EMSGSIZE, velcom::mapRecvError(EMSGSIZE, velcom::RecvOp::kRecvFrom),
                          from);
        }
        if (got == 0) {
            return velcom::endOfStream();
        }
        velcom::advanceFilling(current, left, static_cast<std::size_t>(got), startedAs);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_UDPSocket::send(const char* buf, unsigned int len) {
    return sendTo(buf, len, nullptr);
}

VELErr_t VEL_UDPSocket::writev(VELIoVec* v, unsigned long n) {
    return writevTo(v, n, nullptr);
}

VELErr_t VEL_UDPSocket::recv(char* buf, unsigned int len) {
    VEL_SockAddr sender;
    return recvFrom(buf, len, &sender);
}

VELErr_t VEL_UDPSocket::recvAvail(char* buf, unsigned int* len) {
    VEL_SockAddr sender;
    return recvAvailFrom(buf, len, &sender);
}

VELErr_t VEL_UDPSocket::readv(VELIoVec* v, unsigned long n) {
    VEL_SockAddr sender;
    return readvFrom(v, n, &sender);
}
