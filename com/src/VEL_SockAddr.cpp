#include "VEL_SockAddr.h"

#include <arpa/inet.h>
#include <sys/socket.h>

#include <cstring>
#include <ostream>
#include <string>

#include "VEL_ComTools.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_SockAddr::VEL_SockAddr() : _address(), _resolveHostName(false) {
    (void)set(0, nullptr);  // cannot fail without a host
}

VEL_SockAddr::VEL_SockAddr(unsigned short port, const char* host)
    : _address(), _resolveHostName(false) {
    (void)set(port, host);  // a failure leaves the address "not set", which isSet() reports
}

VEL_SockAddr::VEL_SockAddr(const sockaddr_in* address) : _address(), _resolveHostName(false) {
    (void)set(address);  // always Ok
}

VELErr_t VEL_SockAddr::set(unsigned short port, const char* host) {
    std::memset(&_address, 0, sizeof(_address));
    _address.sin_family = AF_INET;
    _address.sin_port = htons(port);
    _address.sin_addr.s_addr = INADDR_NONE;
    if (host == nullptr) {
        _address.sin_addr.s_addr = htonl(INADDR_ANY);
        return kVELErr_Ok;
    }
    const VELErr_t code = VEL_ComTools::HostToAddr(host, &_address.sin_addr);
    if (code != kVELErr_Ok) {
        velcom::traceComError(code, [&] {
            return std::string("Host : ") + host + ", Port : " + std::to_string(port);
        });
    }
    return code;
}

VELErr_t VEL_SockAddr::set(const sockaddr_in* address) {
    std::memcpy(&_address, address, sizeof(_address));
    _address.sin_family = AF_INET;
    return kVELErr_Ok;
}

VELErr_t VEL_SockAddr::set(const VEL_SockAddr& other) {
    return set(&other._address);
}

unsigned short VEL_SockAddr::getPort() const {
    return ntohs(_address.sin_port);
}

const char* VEL_SockAddr::getHostIPAddress() const {
    thread_local char text[INET_ADDRSTRLEN];
    (void)VEL_ComTools::AddrToString(_address.sin_addr, text);  // always Ok
    return text;
}

VELErr_t VEL_SockAddr::getHostName(char* out) const {
    if (_address.sin_addr.s_addr == htonl(INADDR_ANY)) {
        return VEL_ComTools::GetLocalHostName(out);
    }
    return VEL_ComTools::HostAddrToName(_address.sin_addr, out);
}

bool VEL_SockAddr::isSet() const {
    return _address.sin_addr.s_addr != INADDR_NONE;
}

VEL_SockAddr::operator sockaddr*() {
    return reinterpret_cast<sockaddr*>(&_address);
}

VEL_SockAddr::operator const sockaddr*() const {
    return reinterpret_cast<const sockaddr*>(&_address);
}

std::ostream& operator<<(std::ostream& out, const VEL_SockAddr& address) {
    out << "<host = ";
    if (!address.isResolveHostName()) {
        out << address.getHostIPAddress();
    } else {
        char name[VEL_ComTools::kHostNameSize];
        if (address.getHostName(name) == kVELErr_Ok) {
            out << name;
        } else {
            out << "#Unresolved# (" << address.getHostIPAddress() << ")";
        }
    }
    return out << ", port = " << address.getPort() << ">";
}
