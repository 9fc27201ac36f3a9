#include "VEL_TCPPipe.h"

#include "VEL_Connector.h"
#include "VEL_FrameTrace.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPConnector.h"
#include "VEL_TCPSocket.h"

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

VEL_TCPSocket* tcpSocket(VEL_Socket* socket) {
    return dynamic_cast<VEL_TCPSocket*>(socket);
}

}  // namespace

VEL_TCPPipe::VEL_TCPPipe(bool failover, VELPipeReactorFactory_t reactorFactory)
    : VEL_Pipe(failover, reactorFactory), _cnctTimeOut(VEL_Connector::kDefaultCnctTimeOut) {}

VEL_TCPPipe::~VEL_TCPPipe() = default;

VELErr_t VEL_TCPPipe::doConnect(const VELPipeEndpoint_t& endpoint, VEL_Socket*& socket,
                                const VEL_SockOptions& options) {
    VEL_TCPConnector connector(endpoint.port, endpoint.host.c_str(), options);
    connector.setCnctTimeOut(_cnctTimeOut.load());
    VEL_Socket* connected = nullptr;
    const VELErr_t code = connector.connect(connected);
    if (code == kVELErr_Ok) {
        socket = connected;
    }
    return traced(code);
}

VELErr_t VEL_TCPPipe::doSend(VEL_Socket* socket, const char* data, unsigned int length) {
    VEL_TCPSocket* tcp = tcpSocket(socket);
    return traced(tcp != nullptr ? tcp->sendUntil(data, length, transferDeadline())
                                 : kVELErr_InvalidSocket);
}

VELErr_t VEL_TCPPipe::doRecv(VEL_Socket* socket, char* buffer, unsigned int length) {
    VEL_TCPSocket* tcp = tcpSocket(socket);
    return traced(tcp != nullptr ? tcp->recvUntil(buffer, length, transferDeadline())
                                 : kVELErr_InvalidSocket);
}

VELErr_t VEL_TCPPipe::doHasRecv(VEL_Socket* socket) {
    VEL_TCPSocket* tcp = tcpSocket(socket);
    if (tcp == nullptr) {
        return traced(kVELErr_InvalidSocket);
    }
    VELErr_t code = tcp->hasRecv();
    if (code == kVELErr_Ok) {
        code = tcp->peekRecv();  // readable also means closed or failed
    }
    return traced(code);
}

VELErr_t VEL_TCPPipe::doCheckPeer(VEL_Socket* socket) {
    VEL_TCPSocket* tcp = tcpSocket(socket);
    return traced(tcp != nullptr ? tcp->checkPeer() : kVELErr_InvalidSocket);
}

VELErr_t VEL_TCPPipe::doPurge(VEL_Socket* socket) {
    VEL_TCPSocket* tcp = tcpSocket(socket);
    if (tcp == nullptr) {
        return traced(kVELErr_InvalidSocket);
    }
    char scratch[kPurgeChunk];
    unsigned long drained = 0;
    VELErr_t status = tcp->hasRecv();
    while (status == kVELErr_Ok) {
        if (drained >= kPurgeLimit) {
            return traced(kVELErr_Incomplete);  // bounded against a peer that never stops
        }
        unsigned int length = kPurgeChunk;
        const VELErr_t code = tcp->recvAvail(scratch, &length);
        if (code != kVELErr_Ok && code != kVELErr_Incomplete) {
            return traced(code);
        }
        drained += length;
        status = tcp->hasRecv();
    }
    return traced(status);
}
