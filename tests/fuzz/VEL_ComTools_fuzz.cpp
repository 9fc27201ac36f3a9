// Fuzzes the address-string parsers: IsIPString, StringToAddr, IPToLong, AddrToString, and, for
// strings that IsIPString accepts, HostToAddr and VEL_SockAddr::set. Strings it refuses would go
// to the name resolver, so they never reach those two; and the resolver's entries are replaced
// below by ones that abort, so that no input can make a query leave the machine.
#include <arpa/inet.h>
#include <netdb.h>

#include <sstream>

#include "FuzzSupport.h"
#include "VEL_ComTools.h"
#include "VEL_SockAddr.h"

extern "C" {
int getaddrinfo(const char*, const char*, const addrinfo*, addrinfo**) {
    std::abort();
}
int getnameinfo(const sockaddr*, socklen_t, char*, socklen_t, char*, socklen_t, int) {
    std::abort();
}
hostent* gethostbyname(const char*) {
    std::abort();
}
hostent* gethostbyaddr(const void*, socklen_t, int) {
    std::abort();
}
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    const char* string = text.c_str();  // up to the first zero byte
    velfuzz::SetTracing(size > 0 && (data[0] & 1) != 0);

    in_addr address{};
    const VELErr_t code = VEL_ComTools::StringToAddr(string, &address);
    VEL_FUZZ_CHECK((code == kVELErr_Ok) == (address.s_addr != INADDR_NONE));
    VEL_FUZZ_CHECK(VEL_ComTools::IPToLong(string) == ntohl(address.s_addr));
    if (code == kVELErr_Ok) {
        char dotted[INET_ADDRSTRLEN];
        VEL_FUZZ_CHECK(VEL_ComTools::AddrToString(address, dotted) == kVELErr_Ok);
        in_addr back{};
        VEL_FUZZ_CHECK(VEL_ComTools::StringToAddr(dotted, &back) == kVELErr_Ok &&
                       back.s_addr == address.s_addr);
    }
    if (!VEL_ComTools::IsIPString(string)) {
        return 0;
    }
    in_addr host{};
    VEL_FUZZ_CHECK(VEL_ComTools::HostToAddr(string, &host) == code);
    VEL_FUZZ_CHECK(code != kVELErr_Ok || host.s_addr == address.s_addr);
    VEL_SockAddr endpoint(static_cast<unsigned short>(size), string);
    VEL_FUZZ_CHECK(endpoint.isSet() == (code == kVELErr_Ok));
    std::ostringstream printed;
    printed << endpoint;
    VEL_FUZZ_CHECK(printed.str().find(endpoint.getHostIPAddress()) != std::string::npos);
    return 0;
}
