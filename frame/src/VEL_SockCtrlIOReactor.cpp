#include "VEL_SockCtrlIOReactor.h"

#include <cerrno>
#include <mutex>
#include <string>

#include "Thread.h"
#include "VEL_FrameTrace.h"
#include "VEL_SockAddr.h"
#include "VEL_SockOptions.h"
#include "VEL_StaticInit.h"
#include "VEL_UDPSocket.h"

namespace {

const VEL_StaticInit kStaticInit;

constexpr char kWakeUpByte = ' ';

// A datagram refused by an earlier ICMP report: the socket stays usable (it talks to itself).
bool wasRefused(VELErr_t code) {
    return code == kVELErr_SockHalfClosed && basis::Thread::GetLastSystemErr() == ECONNREFUSED;
}

}  // namespace

VEL_SockCtrlEH::VEL_SockCtrlEH(VEL_UDPSocket* socket)
    : VEL_EventHandler(socket->getHandle()), _mayNotify(true), _ctrlSocket(socket) {}

boost::shared_ptr<VEL_SockCtrlEH> VEL_SockCtrlEH::Create(VEL_UDPSocket* socket) {
    return boost::shared_ptr<VEL_SockCtrlEH>(new VEL_SockCtrlEH(socket));
}

VELErr_t VEL_SockCtrlEH::notify() {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    if (!_mayNotify) {
        return kVELErr_Ok;
    }
    VELErr_t code = _ctrlSocket->send(&kWakeUpByte, 1);
    if (wasRefused(code)) {
        code = _ctrlSocket->send(&kWakeUpByte, 1);  // the refusal reported was an old one
    }
    if (code != kVELErr_Ok) {
        velframe::traceError(code);
        return code;
    }
    _mayNotify = false;
    return kVELErr_Ok;
}

bool VEL_SockCtrlEH::handleInput() {
    std::lock_guard<basis::ThreadMutex> hold(_lock);
    // Re-armed before reading: a wake-up asked for during the read sends a fresh datagram.
    _mayNotify = true;
    char byte = 0;
    unsigned int length = 1;
    const VELErr_t code = _ctrlSocket->recvAvail(&byte, &length);
    if (code == kVELErr_Ok || wasRefused(code)) {
        return true;
    }
    velframe::traceError(code, [] { return std::string("recv failed"); });
    return false;
}

VEL_SockCtrlIOReactor::VEL_SockCtrlIOReactor(unsigned long size,
                                             const basis::TimeValue& idleTimeout)
    : VEL_IOReactor(size, idleTimeout), _ctrlRegistered(false) {}

VEL_SockCtrlIOReactor::~VEL_SockCtrlIOReactor() {
    stopLoop();
}

VELErr_t VEL_SockCtrlIOReactor::init() {
    VELErr_t code = VEL_IOReactor::init();
    if (code == kVELErr_Ok && !_ctrlSocket) {
        const VEL_SockAddr loopback(0, "127.0.0.1");
        // Remote port 0: connected to its own bound address.
        std::unique_ptr<VEL_UDPSocket> socket(new VEL_UDPSocket(loopback, loopback));
        VEL_SockOptions options;
        options.setFdCloExec(true);
        options.setNonBlock(true);  // native time-outs, 1 ms each way
        options.setSendTimeOut(0);
        options.setRecvTimeOut(0);
        code = socket->open();
        if (code == kVELErr_Ok) {
            code = socket->setOptions(options);
        }
        if (code == kVELErr_Ok) {
            _ctrlHandler = VEL_SockCtrlEH::Create(socket.get());
            _ctrlSocket = std::move(socket);
        }
    }
    if (code != kVELErr_Ok) {
        velframe::traceError(code);
        return code;
    }
    if (!_ctrlRegistered) {
        code = addEventHandler(_ctrlHandler, basis::TimeValue(), kVELOp_Read);
        if (code != kVELErr_Ok) {
            if (VEL_Tools::IsTraceOn(kVELTrace_FrameError)) {
                VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("FRAME", code) +
                                                              " (reactor control socket)");
            }
            return code;
        }
        _ctrlRegistered = true;
    }
    return kVELErr_Ok;
}

VELErr_t VEL_SockCtrlIOReactor::clean() {
    const VELErr_t code = VEL_IOReactor::clean();
    if (code == kVELErr_Ok) {
        _ctrlRegistered = false;  // let go with every other handler
    }
    return code;
}

VELErr_t VEL_SockCtrlIOReactor::wakeUp() {
    if (!_ctrlHandler) {
        return kVELErr_Ok;
    }
    const VELErr_t code = _ctrlHandler->notify();
    if (code != kVELErr_Ok) {
        velframe::traceError(code);
    }
    return code;
}
