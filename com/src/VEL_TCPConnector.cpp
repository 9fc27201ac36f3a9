#include "VEL_TCPConnector.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <new>
#include <string>

#include "Thread.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPSocket.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_TCPConnector::VEL_TCPConnector(unsigned short port, const char* host)
    : _remoteAddr(port, host) {}

VEL_TCPConnector::VEL_TCPConnector(const VEL_SockAddr& remote) : _remoteAddr(remote) {}

VEL_TCPConnector::VEL_TCPConnector(unsigned short port, const char* host,
                                   const VEL_SockOptions& options)
    : _remoteAddr(port, host), _connectOptions(options) {}

VEL_TCPConnector::VEL_TCPConnector(const VEL_SockAddr& remote, const VEL_SockOptions& options)
    : _remoteAddr(remote), _connectOptions(options) {}

VEL_TCPConnector::~VEL_TCPConnector() = default;

VELErr_t VEL_TCPConnector::open() {
    return kVELErr_Ok;
}

VELErr_t VEL_TCPConnector::close() {
    return kVELErr_Ok;
}

VELErr_t VEL_TCPConnector::createSocket(VEL_TCPSocket*& socket) {
    socket = new (std::nothrow) VEL_TCPSocket(VEL_SockAddr());
    return socket != nullptr ? kVELErr_Ok : kVELErr_Alloc;
}

VELErr_t VEL_TCPConnector::connect(VEL_Socket*& socket) {
    VEL_TCPSocket* tcp = nullptr;
    if (socket != nullptr) {
        tcp = dynamic_cast<VEL_TCPSocket*>(socket);
        if (tcp == nullptr) {
            velcom::traceComError(kVELErr_InvalidSocket,
                                  [&] { return "Connecting to : " + velcom::toText(_remoteAddr); });
            return kVELErr_InvalidSocket;
        }
    }
    bool created = false;
    VELErr_t code = beginConnect(tcp, created);
    if (code != kVELErr_Ok) {
        return code;
    }
    code = connectNow(tcp);
    if (code == kVELErr_InProgress) {
        velcom::traceComInfo([&] {
            return "Connection in progress for TCP socket " + velcom::fdText(tcp->getHandle()) +
                   " ; Remote address : " + velcom::toText(_remoteAddr);
        });
        code = waitConnected(tcp);
    }
    if (code == kVELErr_Ok) {
        code = completeConnect(tcp);
    }
    if (code != kVELErr_Ok) {
        return abandon(tcp, created, code);
    }
    socket = tcp;
    return kVELErr_Ok;
}

VELErr_t VEL_TCPConnector::asyncConnect(VEL_TCPSocket*& socket) {
    VEL_TCPSocket* tcp = socket;
    bool created = false;
    VELErr_t code = beginConnect(tcp, created);
    if (code != kVELErr_Ok) {
        return code;
    }
    code = connectNow(tcp);
    if (code == kVELErr_InProgress) {
        tcp->setRemoteAddr(_remoteAddr);
        socket = tcp;
        return kVELErr_InProgress;
    }
    if (code == kVELErr_Ok) {
        // Finished at once: the caller will not call finishAsyncConnect, so the socket must not
        // stay non-blocking.
        code = completeConnect(tcp);
    }
    if (code != kVELErr_Ok) {
        return abandon(tcp, created, code);
    }
    socket = tcp;
    return kVELErr_Ok;
}

VELErr_t VEL_TCPConnector::finishAsyncConnect(VEL_TCPSocket*& socket) {
    if (socket == nullptr || !socket->isValid()) {
        velcom::traceComError(kVELErr_InvalidSocket,
                              [&] { return "Connecting to : " + velcom::toText(_remoteAddr); });
        return kVELErr_InvalidSocket;
    }
    VELErr_t code = socket->setOptNonBlock(false);
    if (code == kVELErr_Ok && socket->isNonBlock()) {
        code = socket->setOptNatTimeout(true);
    }
    if (code != kVELErr_Ok) {
        return abandon(socket, false, code);
    }
    socket->setConnected();
    return kVELErr_Ok;
}

// Checks the remote address, obtains an open socket, and prepares it for a non-blocking
// connect. On failure nothing is left to clean up.
VELErr_t VEL_TCPConnector::beginConnect(VEL_TCPSocket*& socket, bool& created) {
    if (!_remoteAddr.isSet()) {
        velcom::traceComError(kVELErr_Connect, [&] {
            return "Invalid remote address : " + velcom::toText(_remoteAddr);
        });
        return kVELErr_Connect;
    }
    VELErr_t code = kVELErr_Ok;
    if (socket != nullptr) {
        if (!socket->isValid()) {
            code = kVELErr_InvalidSocket;
        }
    } else {
        code = createSocket(socket);
        if (code == kVELErr_Ok) {
            created = true;
            code = socket->open();
            if (code != kVELErr_Ok) {
                delete socket;  // open() has closed it
                socket = nullptr;
                created = false;
            }
        }
    }
    if (code != kVELErr_Ok) {
        velcom::traceComError(code,
                              [&] { return "Connecting to : " + velcom::toText(_remoteAddr); });
        return code;
    }
    velcom::traceComInfo([&] {
        return "Connecting a TCP socket " + velcom::fdText(socket->getHandle()) +
               " to remote address : " + velcom::toText(_remoteAddr);
    });
    code = socket->setOptions(_connectOptions);
    if (code == kVELErr_Ok) {
        code = socket->setOptNonBlock(true);
    }
    return code == kVELErr_Ok ? kVELErr_Ok : abandon(socket, created, code);
}

// One non-blocking connect: Ok, kVELErr_InProgress, or kVELErr_Connect with errno stored.
VELErr_t VEL_TCPConnector::connectNow(VEL_TCPSocket* socket) {
    if (::connect(static_cast<int>(socket->getHandle()), _remoteAddr, VEL_SockAddr::GetSize()) ==
        0) {
        return kVELErr_Ok;
    }
    const int err = errno;
    basis::Thread::SetLastSystemErr(err);
    return velcom::mapConnectError(err);
}

// Waits for the pending connection to finish within the connect time-out; Linux reports a
// refused connection as writable with the error pending on the socket.
VELErr_t VEL_TCPConnector::waitConnected(VEL_TCPSocket* socket) {
    const basis::TimeValue limit(getCnctTimeOut(), 0);
    short revents = 0;
    int err = 0;
    const int ready =
            velcom::pollOne(static_cast<int>(socket->getHandle()), POLLOUT, &limit, &revents, &err);
    if (ready < 0) {
        basis::Thread::SetLastSystemErr(err);
        return kVELErr_Polling;
    }
    if (ready == 0) {
        return kVELErr_Timeout;
    }
    if (socket->getOptError() != kVELErr_Ok || (revents & POLLOUT) == 0) {
        return kVELErr_Connect;  // getOptError stored the pending error
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TCPConnector::completeConnect(VEL_TCPSocket* socket) {
    socket->setConnected();
    VELErr_t code = socket->setOptNonBlock(false);
    if (code == kVELErr_Ok && socket->isNonBlock()) {
        code = socket->setOptNatTimeout(true);
    }
    if (code == kVELErr_Ok) {
        socket->setRemoteAddr(_remoteAddr);
    }
    return code;
}

// Closes the socket, deletes it when this call created it, and traces the failure.
VELErr_t VEL_TCPConnector::abandon(VEL_TCPSocket*& socket, bool created, VELErr_t code) const {
    (void)socket->close();  // the failure being reported is the one that matters
    if (created) {
        delete socket;
        socket = nullptr;
    }
    velcom::traceComError(code, [&] { return "Connecting to : " + velcom::toText(_remoteAddr); });
    return code;
}
