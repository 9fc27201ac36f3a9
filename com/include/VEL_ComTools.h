/// @file
#ifndef COM_INCLUDE_VEL_COMTOOLS_H
#define COM_INCLUDE_VEL_COMTOOLS_H

#include <netinet/in.h>

#include "VEL_Err.h"

/// VEL_ComTools: static helpers of the network module: marking the start and end of network use,
/// the platform's descriptor limits, and IPv4 address conversion and name resolution.
///
/// Resolution uses the system's blocking resolver (getaddrinfo, getnameinfo, getservbyname_r), so
/// it may block for as long as the resolver takes; only IPv4 (AF_INET) addresses are returned.
/// Host-name buffers are the caller's and hold 256 bytes; every copy into them is bounded and
/// terminated. Failures are traced (when the network error mask is on) and returned; nothing
/// throws.
///
/// Thread safety: every function is static and safe from any thread.
class VEL_ComTools {
public:
    VEL_ComTools() = delete;

    /// Size of the host-name buffers the functions below fill, terminator included.
    static constexpr unsigned int kHostNameSize = 256;

    /// Traces "COM - Initializing Com resources" (trace bit 2). The socket layer needs no start-up
    /// on this platform. Always kVELErr_Ok.
    static VELErr_t Initialize();
    /// Traces "COM - Cleaning COM resources" (trace bit 2).
    static void Cleanup();

    ///@{
    /// The descriptor limits the library works with: both store 2048. Always kVELErr_Ok.
    static VELErr_t GetFileDescLimit(unsigned long* limit);
    static VELErr_t GetFileDescMaxLimit(unsigned long* limit);
    ///@}
    /// Accepted and ignored (the limits above are fixed). Always kVELErr_Ok.
    static VELErr_t SetFileDescLimit(unsigned long limit);
    /// Nothing to do: every send of the library passes MSG_NOSIGNAL, so no SIGPIPE is raised.
    static void IgnoreSigPipe();

    /// True when `text` scans as four unsigned decimal numbers separated by points ("%u.%u.%u.%u");
    /// the numbers are not range-checked, so "999.1.1.1" is true.
    static bool IsIPString(const char* text);
    /// Dotted text of `address` into `out` (at least 16 bytes). Always kVELErr_Ok.
    static VELErr_t AddrToString(in_addr address, char* out);
    /// Port (host order) of the TCP service `name`. Unknown: *port = 0 and
    /// kVELErr_ServiceNotFound.
    static VELErr_t GetServicePort(const char* name, unsigned short* port);
    /// The dotted address `text` in host byte order; 0xFFFFFFFF when it does not parse.
    static unsigned long IPToLong(const char* text);
    /// This host's name into `out` (256 bytes). kVELErr_GetHostName on failure (errno stored as
    /// the thread's last system error).
    static VELErr_t GetLocalHostName(char* out);
    /// Converts a dotted address. kVELErr_InvalidIPAddress when it does not parse or is
    /// 255.255.255.255 (which stands for "not set"); *address is then 0xFFFFFFFF.
    static VELErr_t StringToAddr(const char* text, in_addr* address);
    /// Resolves a host name (a dotted address is accepted too). kVELErr_InvalidHostName when
    /// neither the resolver nor the dotted form gives an address; *address is then 0xFFFFFFFF.
    static VELErr_t HostNameToAddr(const char* name, in_addr* address);
    /// Reverse lookup: the name of `address` into `out` (256 bytes). kVELErr_InvalidHostName,
    /// without a trace, when the address has no name.
    static VELErr_t HostAddrToName(in_addr address, char* out);
    /// The address of this host's name. kVELErr_GetHostName or kVELErr_InvalidHostName.
    static VELErr_t GetLocalHostAddr(in_addr* address);
    /// StringToAddr when `text` scans as a dotted address (IsIPString), HostNameToAddr otherwise.
    static VELErr_t HostToAddr(const char* text, in_addr* address);

private:
    static bool _IsInitialized;
};

#endif  // COM_INCLUDE_VEL_COMTOOLS_H
