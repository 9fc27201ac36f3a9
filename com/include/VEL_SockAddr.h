/// @file
#ifndef COM_INCLUDE_VEL_SOCKADDR_H
#define COM_INCLUDE_VEL_SOCKADDR_H

#include <netinet/in.h>

#include <iosfwd>

#include "VEL_Err.h"

struct sockaddr;

/// VEL_SockAddr: an IPv4 endpoint (address and port), the value every socket, acceptor and
/// connector keeps for its local and remote ends.
///
/// The address is held as a sockaddr_in (family AF_INET, port and address in network byte order)
/// that socket calls take directly through the conversion operators. The address 0xFFFFFFFF
/// (INADDR_NONE) means "not set" (a host that failed to resolve); 0 (INADDR_ANY) means this host,
/// any interface. Only IPv4 exists.
///
/// Printing writes "<host = a.b.c.d, port = n>". With the resolve flag on, the host's name is
/// printed instead of the dotted address (looked up at every print, which may block on the
/// resolver); an address without a name prints as "#Unresolved# (a.b.c.d)".
///
/// Thread safety: a value type; distinct objects are independent, a shared object is safe for
/// concurrent reads only.
class VEL_SockAddr {
public:
    /// Size of the embedded sockaddr_in, the address length socket calls pass.
    static constexpr unsigned long _Size = sizeof(sockaddr_in);

    /// Any interface, port 0.
    VEL_SockAddr();
    /// set(port, host); a failure is not reported here (isSet() is then false).
    VEL_SockAddr(unsigned short port, const char* host);
    /// set(address).
    explicit VEL_SockAddr(const sockaddr_in* address);

    /// Builds the address from a port (host order) and a host: null means any interface, a
    /// dotted string is converted without the resolver, anything else is resolved.
    /// kVELErr_InvalidIPAddress or kVELErr_InvalidHostName when the host does not convert; the
    /// address is then not set. Traced under the network error mask.
    VELErr_t set(unsigned short port, const char* host);
    /// Copies the structure and forces the family to AF_INET. Always kVELErr_Ok.
    VELErr_t set(const sockaddr_in* address);
    /// set(sockaddr_in) with `other`'s address; this address keeps its resolve flag.
    VELErr_t set(const VEL_SockAddr& other);

    /// Port in host byte order.
    unsigned short getPort() const;
    /// Dotted text of the address, in a buffer of the calling thread that the next call on this
    /// thread overwrites.
    const char* getHostIPAddress() const;
    /// The host's name (the local host name for address 0) into `out`, which holds 256 bytes.
    /// kVELErr_InvalidHostName when the address has no name, kVELErr_GetHostName when the local
    /// name cannot be read.
    VELErr_t getHostName(char* out) const;
    /// True when the address is not 0xFFFFFFFF.
    bool isSet() const;

    ///@{
    /// The resolve flag: when set, printing the address (operator<<) shows the host's name
    /// instead of the dotted address. Off by default.
    void setResolveHostName(bool resolve) { _resolveHostName = resolve; }
    bool isResolveHostName() const { return _resolveHostName; }
    ///@}

    /// _Size.
    static unsigned long GetSize() { return _Size; }

    ///@{
    /// Direct access to the system structure, for socket calls.
    operator sockaddr_in*() { return &_address; }
    operator const sockaddr_in*() const { return &_address; }
    operator sockaddr*();
    operator const sockaddr*() const;
    ///@}

private:
    sockaddr_in _address;
    bool _resolveHostName;
};

/// "<host = " host ", port = " port ">"; see the class comment for the host text.
std::ostream& operator<<(std::ostream& out, const VEL_SockAddr& address);

#endif  // COM_INCLUDE_VEL_SOCKADDR_H
