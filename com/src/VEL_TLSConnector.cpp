#include "VEL_TLSConnector.h"

#include <memory>
#include <new>

#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPConnector.h"
#include "VEL_TCPSocket.h"
#include "VEL_TLSSocket.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_TLSConnector::VEL_TLSConnector(unsigned short port, const char* host,
                                   const VEL_TLSContext& context)
    : _remoteAddr(port, host), _context(context), _serverName(host != nullptr ? host : "") {}

VEL_TLSConnector::VEL_TLSConnector(unsigned short port, const char* host,
                                   const VEL_TLSContext& context, const VEL_SockOptions& options)
    : _remoteAddr(port, host),
      _connectOptions(options),
      _context(context),
      _serverName(host != nullptr ? host : "") {}

VEL_TLSConnector::VEL_TLSConnector(const VEL_SockAddr& remote, const VEL_TLSContext& context)
    : _remoteAddr(remote), _context(context) {}

VEL_TLSConnector::~VEL_TLSConnector() = default;

VELErr_t VEL_TLSConnector::open() {
    return kVELErr_Ok;
}

VELErr_t VEL_TLSConnector::close() {
    return kVELErr_Ok;
}

VELErr_t VEL_TLSConnector::connect(VEL_Socket*& socket) {
    _failureDetail.clear();
    std::unique_ptr<VEL_TLSSocket> created;
    VEL_TLSSocket* tls = nullptr;
    if (socket == nullptr) {
        created.reset(new (std::nothrow) VEL_TLSSocket(_context));
        tls = created.get();
        if (tls == nullptr) {
            velcom::traceComError(kVELErr_Alloc,
                                  [&] { return "Connecting to : " + velcom::toText(_remoteAddr); });
            return kVELErr_Alloc;
        }
    } else {
        tls = dynamic_cast<VEL_TLSSocket*>(socket);
        if (tls == nullptr || tls->isValid()) {
            velcom::traceComError(kVELErr_InvalidSocket,
                                  [&] { return "Connecting to : " + velcom::toText(_remoteAddr); });
            return kVELErr_InvalidSocket;
        }
    }
    VEL_TCPConnector tcpConnector(_remoteAddr, _connectOptions);
    tcpConnector.setCnctTimeOut(getCnctTimeOut());
    VEL_Socket* tcp = nullptr;
    const VELErr_t code = tcpConnector.connect(tcp);  // traced by the connector
    if (code != kVELErr_Ok) {
        return code;
    }
    const std::unique_ptr<VEL_Socket> connection(tcp);
    const VELErr_t secured = secure(tcp, tls);
    if (secured != kVELErr_Ok) {
        (void)tls->close();  // a failed handshake has nothing to send: this only releases
        return secured;
    }
    if (created) {
        socket = created.release();
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSConnector::secure(VEL_Socket* tcp, VEL_TLSSocket* tls) {
    VELErr_t code = tls->attach(*static_cast<VEL_TCPSocket*>(tcp), _serverName.c_str());
    if (code == kVELErr_Ok) {
        tls->setHandshakeTimeOut(getCnctTimeOut());
        code = tls->handshake();
    }
    if (code != kVELErr_Ok) {
        _failureDetail = tls->getFailureDetail();
    }
    return code;
}
