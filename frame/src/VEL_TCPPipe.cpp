#include "VEL_TCPPipe.h"

#include <mutex>
#include <new>

#include "VEL_Connector.h"
#include "VEL_FrameTrace.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPConnector.h"
#include "VEL_TCPSocket.h"
#include "VEL_TLSConnector.h"
#include "VEL_TLSContext.h"
#include "VEL_TLSSocket.h"

namespace {

const VEL_StaticInit kStaticInit;

// The status of a transport operation, traced when it is a failure.
VELErr_t traced(VELErr_t code, const char* file = __builtin_FILE(),
                unsigned long line = __builtin_LINE()) {
    if (code != kVELErr_Ok) {
        velframe::traceError(code, file, line);
    }
    return code;
}

// Runs `action` on the socket as what it is (a TCP or a TLS socket: both have the operations a
// pipe uses); kVELErr_InvalidSocket for any other kind.
template <class Action>
VELErr_t onSocket(VEL_Socket* socket, const Action& action) {
    if (auto* tcp = dynamic_cast<VEL_TCPSocket*>(socket)) {
        return action(*tcp);
    }
    if (auto* tls = dynamic_cast<VEL_TLSSocket*>(socket)) {
        return action(*tls);
    }
    return kVELErr_InvalidSocket;
}

}  // namespace

VEL_TCPPipe::VEL_TCPPipe(bool failover, VELPipeReactorFactory_t reactorFactory)
    : VEL_Pipe(failover, reactorFactory), _cnctTimeOut(VEL_Connector::kDefaultCnctTimeOut) {}

VEL_TCPPipe::~VEL_TCPPipe() = default;

VELErr_t VEL_TCPPipe::setTLSContext(const VEL_TLSContext& context) {
    if (!context.isValid() || context.getRole() != kVELTLS_Client) {
        return traced(kVELErr_TLSInit);
    }
    std::shared_ptr<const VEL_TLSContext> shared(new (std::nothrow) VEL_TLSContext(context));
    if (!shared) {
        return traced(kVELErr_Alloc);
    }
    std::lock_guard<basis::ThreadMutex> hold(_connectLock);
    _tls = std::move(shared);
    return kVELErr_Ok;
}

VELErr_t VEL_TCPPipe::doConnect(const VELPipeEndpoint_t& endpoint, VEL_Socket*& socket,
                                const VEL_SockOptions& options) {
    std::shared_ptr<const VEL_TLSContext> tls;
    {
        std::lock_guard<basis::ThreadMutex> hold(_connectLock);
        tls = _tls;
    }
    VEL_Socket* connected = nullptr;
    VELErr_t code = kVELErr_Ok;
    std::string detail;
    if (tls) {
        // The handshake's failure is traced by the TLS socket, with its reason.
        VEL_TLSConnector connector(endpoint.port, endpoint.host.c_str(), *tls, options);
        connector.setCnctTimeOut(_cnctTimeOut.load());
        code = connector.connect(connected);
        detail = connector.getFailureDetail();
    } else {
        VEL_TCPConnector connector(endpoint.port, endpoint.host.c_str(), options);
        connector.setCnctTimeOut(_cnctTimeOut.load());
        code = connector.connect(connected);
    }
    if (code == kVELErr_Ok) {
        socket = connected;
    } else {
        std::lock_guard<basis::ThreadMutex> hold(_connectLock);
        _lastFailure = code;
        _lastFailureDetail = detail;
    }
    return traced(code);
}

VELErr_t VEL_TCPPipe::getLastConnectFailure(std::string* detail) const {
    std::lock_guard<basis::ThreadMutex> hold(_connectLock);
    *detail = _lastFailureDetail;
    return _lastFailure;
}

VELErr_t VEL_TCPPipe::doSend(VEL_Socket* socket, const char* data, unsigned int length) {
    return traced(onSocket(socket, [&](auto& connected) {
        return connected.sendUntil(data, length, transferDeadline());
    }));
}

VELErr_t VEL_TCPPipe::doRecv(VEL_Socket* socket, char* buffer, unsigned int length) {
    return traced(onSocket(socket, [&](auto& connected) {
        return connected.recvUntil(buffer, length, transferDeadline());
    }));
}

VELErr_t VEL_TCPPipe::doHasRecv(VEL_Socket* socket) {
    return traced(onSocket(socket, [](auto& connected) {
        VELErr_t code = connected.hasRecv();
        if (code == kVELErr_Ok) {
            code = connected.peekRecv();  // readable also means closed or failed
        }
        return code;
    }));
}

VELErr_t VEL_TCPPipe::doCheckPeer(VEL_Socket* socket) {
    return traced(onSocket(socket, [](auto& connected) { return connected.checkPeer(); }));
}

VELErr_t VEL_TCPPipe::doPurge(VEL_Socket* socket) {
    return traced(onSocket(socket, [](auto& connected) {
        char scratch[kPurgeChunk];
        unsigned long drained = 0;
        VELErr_t status = connected.hasRecv();
        while (status == kVELErr_Ok) {
            if (drained >= kPurgeLimit) {
                return kVELErr_Incomplete;  // bounded against a peer that never stops
            }
            unsigned int length = kPurgeChunk;
            const VELErr_t code = connected.recvAvail(scratch, &length);
            if (code != kVELErr_Ok && code != kVELErr_Incomplete) {
                return code;
            }
            drained += length;
            status = connected.hasRecv();
        }
        return status;
    }));
}

bool VEL_TCPPipe::doHasBufferedInput(VEL_Socket* socket) {
    auto* tls = dynamic_cast<VEL_TLSSocket*>(socket);
    return tls != nullptr && tls->peekRecv() != kVELErr_Timeout;
}
