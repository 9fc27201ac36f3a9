#include "VEL_TLSAcceptor.h"

#include <memory>
#include <new>

#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPSocket.h"
#include "VEL_TLSSocket.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_TLSAcceptor::VEL_TLSAcceptor(unsigned short port, const char* host,
                                 const VEL_TLSContext& context)
    : VEL_TCPAcceptor(port, host),
      _context(context),
      _handshakeTimeOut(VEL_TLSSocket::kDefaultHandshakeTimeOut),
      _deferHandshake(false) {}

VEL_TLSAcceptor::VEL_TLSAcceptor(const VEL_SockAddr& listen, const VEL_TLSContext& context)
    : VEL_TCPAcceptor(listen),
      _context(context),
      _handshakeTimeOut(VEL_TLSSocket::kDefaultHandshakeTimeOut),
      _deferHandshake(false) {}

VEL_TLSAcceptor::VEL_TLSAcceptor(const VEL_SockAddr& listen, const VEL_TLSContext& context,
                                 const VEL_SockOptions& options)
    : VEL_TCPAcceptor(listen, options),
      _context(context),
      _handshakeTimeOut(VEL_TLSSocket::kDefaultHandshakeTimeOut),
      _deferHandshake(false) {}

VELErr_t VEL_TLSAcceptor::open() {
    VELErr_t code = kVELErr_Ok;
    if (!_context.isValid()) {
        code = kVELErr_TLSInit;
    } else if (_context.getRole() != kVELTLS_Server || !_context.hasCertificateAndKey()) {
        code = kVELErr_TLSNoCertificate;
    }
    if (code != kVELErr_Ok) {
        velcom::traceComError(
                code, [&] { return "Listening address : " + velcom::toText(getLocalAddr()); });
        return code;
    }
    return VEL_TCPAcceptor::open();
}

VELErr_t VEL_TLSAcceptor::accept(VEL_Socket*& out) {
    _failureDetail.clear();
    std::unique_ptr<VEL_TLSSocket> tls(new (std::nothrow) VEL_TLSSocket(_context));
    if (!tls) {
        velcom::traceComError(kVELErr_Alloc, [&] {
            return "Listening address : " + velcom::toText(getLocalAddr());
        });
        return kVELErr_Alloc;
    }
    VEL_Socket* accepted = nullptr;
    VELErr_t code = VEL_TCPAcceptor::accept(accepted);  // traced by the acceptor
    if (code != kVELErr_Ok) {
        return code;
    }
    const std::unique_ptr<VEL_Socket> tcp(accepted);
    code = tls->attach(*static_cast<VEL_TCPSocket*>(accepted), nullptr);
    tls->setHandshakeTimeOut(_handshakeTimeOut.load());
    if (code == kVELErr_Ok && !_deferHandshake.load()) {
        code = tls->handshake();
    }
    if (code != kVELErr_Ok) {
        _failureDetail = tls->getFailureDetail();
        return code;  // the connection is closed with the socket
    }
    out = tls.release();
    return kVELErr_Ok;
}
