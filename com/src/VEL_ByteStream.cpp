#include "VEL_ByteStream.h"

#include <poll.h>
#include <sys/socket.h>

#include <cerrno>

#include "Thread.h"
#include "TimeValue.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPSocket.h"

namespace {

const VEL_StaticInit kStaticInit;

// The descriptor of an open socket, or -1.
int descriptorOf(const VEL_Socket& socket) {
    return socket.isValid() ? static_cast<int>(socket.getHandle()) : -1;
}

// One recvmsg (`receiving`) or sendmsg of the elements without blocking, retried when
// interrupted; *moved gets what it moved. A call that would block moves nothing and is no failure.
VELErr_t transferAvail(const VEL_Socket& socket, bool receiving, const VELIoVec* elements,
                       unsigned long count, std::size_t* moved) {
    *moved = 0;
    const int fd = descriptorOf(socket);
    if (fd < 0) {
        return kVELErr_SockNotConnected;
    }
    velcom::IoVecArray staged(count);
    msghdr message = staged.message(elements, count);
    ssize_t done = 0;
    do {
        // sendmsg, not writev(2): only sendmsg takes MSG_NOSIGNAL.
        done = receiving ? ::recvmsg(fd, &message, MSG_DONTWAIT)
                         : ::sendmsg(fd, &message, MSG_NOSIGNAL | MSG_DONTWAIT);
    } while (done < 0 && errno == EINTR);
    if (done > 0 || (done == 0 && !receiving)) {
        *moved = static_cast<std::size_t>(done);
        return kVELErr_Ok;
    }
    if (done == 0) {
        return velcom::endOfStream();
    }
    const int err = errno;  // before anything else runs
    if (err == EAGAIN || err == EWOULDBLOCK) {
        return kVELErr_Ok;
    }
    basis::Thread::SetLastSystemErr(err);
    return receiving ? velcom::mapRecvError(err, velcom::RecvOp::kRecv)
                     : velcom::mapSendError(err, velcom::SendOp::kSend);
}

}  // namespace

VEL_ByteStream::~VEL_ByteStream() = default;

unsigned short VEL_ByteStream::extraOps() const {
    return 0;
}

bool VEL_ByteStream::hasBufferedInput() const {
    return false;
}

bool VEL_ByteStream::isEstablished() const {
    return true;
}

std::string VEL_ByteStream::failureDetail() const {
    return std::string();
}

VEL_TCPByteStream::VEL_TCPByteStream(std::unique_ptr<VEL_TCPSocket> socket)
    : _socket(std::move(socket)) {}

VEL_TCPByteStream::~VEL_TCPByteStream() = default;

unsigned int VEL_TCPByteStream::getHandle() const {
    return _socket->getHandle();
}

const VEL_SockAddr& VEL_TCPByteStream::getRemoteAddr() const {
    return _socket->getRemoteAddr();
}

VELErr_t VEL_TCPByteStream::readAvail(const VELIoVec* places, unsigned long count,
                                      std::size_t* moved) {
    return transferAvail(*_socket, true, places, count, moved);
}

VELErr_t VEL_TCPByteStream::writeAvail(const VELIoVec* pieces, unsigned long count,
                                       std::size_t* moved) {
    return transferAvail(*_socket, false, pieces, count, moved);
}

void VEL_TCPByteStream::shutdown() {
    const int fd = descriptorOf(*_socket);
    if (fd >= 0) {
        // ENOTCONN once the peer has gone: both directions are over either way.
        (void)::shutdown(fd, SHUT_RDWR);
    }
}

VELErr_t VEL_TCPByteStream::close() {
    return _socket->close();
}

bool VEL_TCPByteStream::InputWaiting(const VEL_Socket& socket) {
    const int fd = descriptorOf(socket);
    if (fd < 0) {
        return false;
    }
    const basis::TimeValue now = basis::TimeValue::kZero;
    short revents = 0;
    int err = 0;
    return velcom::pollOne(fd, POLLIN, &now, &revents, &err) > 0;
}
