#include "VEL_TCPAcceptor.h"

#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <new>
#include <string>

#include "Thread.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPSocket.h"

namespace {

const VEL_StaticInit kStaticInit;

// Linux caps the backlog at its own maximum (somaxconn).
constexpr int kLargestBacklog = 0x7fffffff;

constexpr const char* kListening = "Listening address : ";

}  // namespace

VEL_TCPAcceptor::VEL_TCPAcceptor(unsigned short port, const char* host)
    : VEL_Acceptor(VEL_SockAddr(port, host)) {}

VEL_TCPAcceptor::VEL_TCPAcceptor(const VEL_SockAddr& listen) : VEL_Acceptor(listen) {}

VEL_TCPAcceptor::VEL_TCPAcceptor(unsigned short port, const char* host,
                                 const VEL_SockOptions& options)
    : VEL_Acceptor(VEL_SockAddr(port, host), options) {}

VEL_TCPAcceptor::VEL_TCPAcceptor(const VEL_SockAddr& listen, const VEL_SockOptions& options)
    : VEL_Acceptor(listen, options) {}

VELErr_t VEL_TCPAcceptor::open() {
    if (isValid()) {
        return kVELErr_Ok;
    }
    if (createHandle(SOCK_STREAM, kListening) != kVELErr_Ok) {
        return kVELErr_SocketCreate;
    }
    VELErr_t code = setCommonOptions();
    if (code == kVELErr_Ok) {
        code = VEL_Socket::setOptions(getListenOptions());
    }
    if (code != kVELErr_Ok) {
        return abortOpen(code, kListening, getLocalAddr());
    }
    if (!getLocalAddr().isSet()) {
        return abortOpen(kVELErr_Bind, "Invalid listening address : ", getLocalAddr());
    }
    if (bindLocalAddr() != kVELErr_Ok) {
        return abortOpen(kVELErr_Bind, kListening, getLocalAddr());
    }
    if (getLocalAddr().getPort() == 0 && readLocalAddr() != kVELErr_Ok) {
        return abortOpen(kVELErr_GetSockName, "Local address : ", getLocalAddr());
    }
    if (::listen(static_cast<int>(getHandle()), kLargestBacklog) != 0) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        return abortOpen(kVELErr_Listen, kListening, getLocalAddr());
    }
    setConnected();  // later setCommonOptions calls leave reuse-address alone
    return kVELErr_Ok;
}

VELErr_t VEL_TCPAcceptor::accept(VEL_Socket*& out) {
    const HandleUse use(*this);
    velcom::traceComInfo([&] {
        return "Accepting a connection for the TCP acceptor " + velcom::fdText(getHandle()) +
               " ; " + kListening + velcom::toText(getLocalAddr());
    });
    std::unique_ptr<VEL_TCPSocket> accepted(new (std::nothrow) VEL_TCPSocket(VEL_SockAddr()));
    if (!accepted) {
        velcom::traceComError(kVELErr_Alloc,
                              [&] { return kListening + velcom::toText(getLocalAddr()); });
        return kVELErr_Alloc;
    }
    sockaddr_in peer{};
    socklen_t length = 0;
    int fd = -1;
    int err = 0;
    do {
        length = sizeof(peer);
        fd = ::accept(use.fd(), reinterpret_cast<sockaddr*>(&peer), &length);
    } while (fd < 0 && (err = errno) == EINTR);
    if (fd < 0) {
        basis::Thread::SetLastSystemErr(err);
        // A failed accept returns no peer address.
        velcom::traceComError(kVELErr_Accept, [&] {
            return kListening + velcom::toText(getLocalAddr()) + "; remote address: unknown";
        });
        return velcom::mapAcceptError(err);
    }
    basis::Thread::SetLastSystemErr(0);  // a call that succeeded leaves no error behind
    accepted->takeHandle(fd);
    // A failure here leaves a usable connection; the socket is kept, as the caller cannot tell.
    (void)accepted->setCommonOptions();
    (void)accepted->resetInheritedOptions(getOptions());  // traced by the setters
    accepted->setRemoteAddr(VEL_SockAddr(&peer));
    accepted->setConnected();
    accepted->setLocalAddr(getLocalAddr());
    out = accepted.release();
    velcom::traceComInfo([&] {
        return "New connected socket " + velcom::fdText(out->getHandle()) +
               " ; Remote address : " + velcom::toText(out->getRemoteAddr());
    });
    return kVELErr_Ok;
}
