/// @file
#ifndef COM_INCLUDE_VEL_TLSCONNECTOR_H
#define COM_INCLUDE_VEL_TLSCONNECTOR_H

#include <string>

#include "VEL_Connector.h"
#include "VEL_SockAddr.h"
#include "VEL_SockOptions.h"
#include "VEL_TLSContext.h"

class VEL_TLSSocket;

/// VEL_TLSConnector: connects to a TLS server and hands out a VEL_TLSSocket whose handshake has
/// completed and whose peer has been verified as the context asks.
///
/// @verbatim
///   VEL_TLSContext context(kVELTLS_Client);
///   context.loadTrustedCAFile("ca.pem");
///   VEL_TLSConnector connector(7001, "server.example", context);
///   VEL_Socket* socket = nullptr;
///   if (connector.connect(socket) == kVELErr_Ok) { VEL_OXLv1 transport(socket, 65536); ... }
/// @endverbatim
///
/// The server name, by default the host given to the constructor, is sent for SNI (when it is a
/// host name) and must be named by the server's certificate when the context verifies the peer;
/// setServerName changes it (for instance to connect to an address but check a name). The TCP
/// connection is made as VEL_TCPConnector makes it, with the connect options; the handshake then
/// has the connect time-out of its own.
///
/// Ownership: a socket that connect creates belongs to the caller on success; on failure it is
/// closed and deleted. A socket given by the caller stays the caller's: on failure it is closed.
///
/// Thread safety: one thread at a time; distinct connectors are independent.
class VEL_TLSConnector : public VEL_Connector {
public:
    ///@{
    /// `host` is also the server name (null: none; the address is then checked). The context is
    /// shared, not copied; without `options`, every connect option is unspecified.
    VEL_TLSConnector(unsigned short port, const char* host, const VEL_TLSContext& context);
    VEL_TLSConnector(unsigned short port, const char* host, const VEL_TLSContext& context,
                     const VEL_SockOptions& options);
    ///@}
    /// Without a server name: the remote address is checked (see setServerName).
    VEL_TLSConnector(const VEL_SockAddr& remote, const VEL_TLSContext& context);
    ~VEL_TLSConnector() override;

    ///@{
    /// Nothing to do. Always kVELErr_Ok.
    VELErr_t open() override;
    VELErr_t close() override;
    ///@}
    /// Connects and runs the handshake, each within the connect time-out. `socket` null: a
    /// VEL_TLSSocket is created; otherwise it must be a VEL_TLSSocket without a connection
    /// (kVELErr_InvalidSocket). The codes of VEL_TCPConnector::connect, then those of
    /// VEL_TLSSocket::handshake (kVELErr_TLSHandshake, kVELErr_TLSCertificate,
    /// kVELErr_TLSProtocol, kVELErr_Timeout, ...), kVELErr_TLSInit, kVELErr_Alloc.
    VELErr_t connect(VEL_Socket*& socket) override;

    /// The endpoint to connect to.
    const VEL_SockAddr& getRemoteAddr() const { return _remoteAddr; }
    ///@{
    /// The name sent for SNI and checked against the server's certificate; empty: the remote
    /// address is checked. setServerName(null) empties it.
    const std::string& getServerName() const { return _serverName; }
    void setServerName(const char* name) { _serverName = name != nullptr ? name : ""; }
    ///@}
    ///@{
    /// The options applied to the socket before connecting.
    const VEL_SockOptions& getConnectOptions() const { return _connectOptions; }
    void setConnectOptions(const VEL_SockOptions& options) { _connectOptions = options; }
    ///@}
    /// The context sessions are made from.
    const VEL_TLSContext& getContext() const { return _context; }
    /// Why the last connect's handshake failed (see VEL_TLSSocket::getFailureDetail); empty
    /// after a connect that succeeded or failed before the handshake.
    const std::string& getFailureDetail() const { return _failureDetail; }

private:
    VELErr_t secure(VEL_Socket* tcp, VEL_TLSSocket* tls);

    VEL_SockAddr _remoteAddr;
    VEL_SockOptions _connectOptions;
    VEL_TLSContext _context;
    std::string _serverName;
    std::string _failureDetail;
};

#endif  // COM_INCLUDE_VEL_TLSCONNECTOR_H
