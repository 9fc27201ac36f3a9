#include "VEL_ComTools.h"

#include <arpa/inet.h>
#include <netdb.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "Thread.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

constexpr unsigned long kFileDescLimit = 2048;

// Copies `text` into a caller's host-name buffer, always terminated.
void copyHostName(const char* text, char* out) {
    const std::size_t length = ::strnlen(text, VEL_ComTools::kHostNameSize - 1);
    std::memcpy(out, text, length);
    out[length] = '\0';
}

}  // namespace

bool VEL_ComTools::_IsInitialized = false;

VELErr_t VEL_ComTools::Initialize() {
    if (VEL_Tools::IsTraceOn(kVELTrace_Com)) {
        VEL_Tools::TraceText(kVELLevel_Info, "COM - Initializing Com resources");
    }
    return kVELErr_Ok;
}

void VEL_ComTools::Cleanup() {
    if (VEL_Tools::IsTraceOn(kVELTrace_Com)) {
        VEL_Tools::TraceText(kVELLevel_Info, "COM - Cleaning COM resources");
    }
}

VELErr_t VEL_ComTools::GetFileDescLimit(unsigned long* limit) {
    *limit = kFileDescLimit;
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::GetFileDescMaxLimit(unsigned long* limit) {
    *limit = kFileDescLimit;
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::SetFileDescLimit(unsigned long) {
    return kVELErr_Ok;
}

void VEL_ComTools::IgnoreSigPipe() {}

bool VEL_ComTools::IsIPString(const char* text) {
    unsigned int parts[4];
    return std::sscanf(text, "%u.%u.%u.%u", &parts[0], &parts[1], &parts[2], &parts[3]) == 4;
}

VELErr_t VEL_ComTools::AddrToString(in_addr address, char* out) {
    // Cannot fail: the buffer of INET_ADDRSTRLEN bytes always holds a dotted IPv4 address.
    (void)::inet_ntop(AF_INET, &address, out, INET_ADDRSTRLEN);
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::GetServicePort(const char* name, unsigned short* port) {
    servent entry;
    servent* found = nullptr;
    char scratch[1024];
    if (::getservbyname_r(name, "tcp", &entry, scratch, sizeof(scratch), &found) == 0 &&
        found != nullptr) {
        *port = ntohs(static_cast<unsigned short>(found->s_port));
        return kVELErr_Ok;
    }
    *port = 0;
    velcom::traceComError(kVELErr_ServiceNotFound,
                          [&] { return std::string("Service : ") + name; });
    return kVELErr_ServiceNotFound;
}

unsigned long VEL_ComTools::IPToLong(const char* text) {
    return ntohl(::inet_addr(text));
}

VELErr_t VEL_ComTools::GetLocalHostName(char* out) {
    if (::gethostname(out, kHostNameSize) != 0) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        out[0] = '\0';
        velcom::traceComError(kVELErr_GetHostName, [] { return std::string(); });
        return kVELErr_GetHostName;
    }
    out[kHostNameSize - 1] = '\0';  // gethostname does not terminate a truncated name
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::StringToAddr(const char* text, in_addr* address) {
    address->s_addr = ::inet_addr(text);
    if (address->s_addr == INADDR_NONE) {
        velcom::traceComError(kVELErr_InvalidIPAddress,
                              [&] { return std::string("IP address : ") + text; });
        return kVELErr_InvalidIPAddress;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::HostNameToAddr(const char* name, in_addr* address) {
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (::getaddrinfo(name, nullptr, &hints, &found) == 0 && found != nullptr) {
        *address = reinterpret_cast<const sockaddr_in*>(found->ai_addr)->sin_addr;
        ::freeaddrinfo(found);
        return kVELErr_Ok;
    }
    address->s_addr = ::inet_addr(name);
    if (address->s_addr == INADDR_NONE) {
        velcom::traceComError(kVELErr_InvalidHostName,
                              [&] { return std::string("Host : ") + name; });
        return kVELErr_InvalidHostName;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::HostAddrToName(in_addr address, char* out) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_addr = address;
    char name[NI_MAXHOST];
    if (::getnameinfo(reinterpret_cast<const sockaddr*>(&peer), sizeof(peer), name, sizeof(name),
                      nullptr, 0, NI_NAMEREQD) != 0) {
        return kVELErr_InvalidHostName;
    }
    copyHostName(name, out);
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::GetLocalHostAddr(in_addr* address) {
    char name[kHostNameSize];
    VELErr_t code = GetLocalHostName(name);
    if (code == kVELErr_Ok) {
        code = HostNameToAddr(name, address);
    }
    if (code != kVELErr_Ok) {
        velcom::traceComError(code, [&] { return std::string("Local host : ") + name; });
    }
    return code;
}

VELErr_t VEL_ComTools::HostToAddr(const char* text, in_addr* address) {
    return IsIPString(text) ? StringToAddr(text, address) : HostNameToAddr(text, address);
}
