#include "BenchSupport.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "BenchRunner.h"
#include "VEL_Tools.h"

namespace velbench {

namespace {

constexpr std::uint16_t kMarker = 32;
constexpr char kVersion = '1';

void putUint32(char* at, std::uint32_t value) {
    const std::uint32_t wire = htonl(value);
    std::memcpy(at, &wire, sizeof(wire));
}

std::uint32_t getUint32(const char* at) {
    std::uint32_t wire = 0;
    std::memcpy(&wire, at, sizeof(wire));
    return ntohl(wire);
}

sockaddr_in loopback(unsigned short port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

}  // namespace

Fd::~Fd() {
    reset();
}

Fd& Fd::operator=(Fd&& other) noexcept {
    reset(other.release());
    return *this;
}

int Fd::release() {
    const int fd = _fd;
    _fd = -1;
    return fd;
}

void Fd::reset(int fd) {
    if (_fd >= 0) {
        (void)::close(_fd);  // nothing to do about a failed close of a benchmark socket
    }
    _fd = fd;
}

void Fail(const std::string& what) {
    const int err = errno;
    throw BenchError(what + ": " + std::strerror(err));
}

void FailStatus(const std::string& what, int status) {
    throw BenchError(what + ": " + VEL_Tools::GetErrStr(static_cast<VELErr_t>(status)));
}

void SetNoDelay(int fd) {
    const int on = 1;
    if (::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on)) != 0) {
        Fail("setsockopt(TCP_NODELAY)");
    }
}

Fd Listen(unsigned short* port) {
    Fd listener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (listener.get() < 0) {
        Fail("socket");
    }
    const int on = 1;
    (void)::setsockopt(listener.get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));  // best effort
    sockaddr_in address = loopback(0);
    if (::bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        Fail("bind");
    }
    if (::listen(listener.get(), SOMAXCONN) != 0) {
        Fail("listen");
    }
    socklen_t length = sizeof(address);
    if (::getsockname(listener.get(), reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        Fail("getsockname");
    }
    *port = ntohs(address.sin_port);
    return listener;
}

Fd Connect(unsigned short port, bool noDelay) {
    Fd fd(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        Fail("socket");
    }
    sockaddr_in address = loopback(port);
    if (::connect(fd.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0) {
        Fail("connect");
    }
    if (noDelay) {
        SetNoDelay(fd.get());
    }
    return fd;
}

Fd Accept(int listener) {
    int fd = -1;
    do {
        fd = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    if (fd < 0) {
        Fail("accept");
    }
    Fd accepted(fd);
    SetNoDelay(accepted.get());
    return accepted;
}

void PutHeader(char* header, std::uint32_t bodySize) {
    const std::uint32_t total = bodySize + static_cast<std::uint32_t>(kHeaderSize);
    putUint32(header, total);
    putUint32(header + 4, ~total);
    header[8] = static_cast<char>(kMarker >> 8);
    header[9] = static_cast<char>(kMarker & 0xFF);
    header[10] = kVersion;
    header[11] = 0;
}

bool ParseHeader(const char* header, std::uint32_t maxBody, std::uint32_t* bodySize) {
    const std::uint32_t total = getUint32(header);
    const std::uint16_t marker = static_cast<std::uint16_t>(
            (static_cast<unsigned char>(header[8]) << 8) | static_cast<unsigned char>(header[9]));
    if (getUint32(header + 4) != ~total || marker != kMarker || header[10] != kVersion ||
        total < kHeaderSize || total - kHeaderSize > maxBody) {
        return false;
    }
    *bodySize = total - static_cast<std::uint32_t>(kHeaderSize);
    return true;
}

std::uint32_t CheckHeader(const char* header, std::uint32_t maxBody) {
    std::uint32_t bodySize = 0;
    if (!ParseHeader(header, maxBody, &bodySize)) {
        throw BenchError("bad frame header");
    }
    return bodySize;
}

bool ReadFull(int fd, char* buf, std::size_t len) {
    while (len > 0) {
        const ssize_t got = ::read(fd, buf, len);
        if (got > 0) {
            buf += got;
            len -= static_cast<std::size_t>(got);
        } else if (got == 0 || errno != EINTR) {
            return false;
        }
    }
    return true;
}

bool WriteVecFull(int fd, iovec* vec, int count) {
    while (count > 0) {
        const ssize_t sent = ::writev(fd, vec, count);
        if (sent < 0) {
            if (errno == EINTR) {
                continue;
            }
            return false;
        }
        std::size_t left = static_cast<std::size_t>(sent);
        while (count > 0 && left >= vec->iov_len) {
            left -= vec->iov_len;
            ++vec;
            --count;
        }
        if (count > 0) {
            vec->iov_base = static_cast<char*>(vec->iov_base) + left;
            vec->iov_len -= left;
        }
    }
    return true;
}

}  // namespace velbench
