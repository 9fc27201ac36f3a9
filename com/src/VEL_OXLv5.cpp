#include "VEL_OXLv5.h"

#include "VEL_FrameTools.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VELErr_t VEL_OXLv5::sendMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    if (message->size() > kVEL_OXLv5MaxBody) {
        velcom::traceFailure(kVELErr_MessageTooBig);
        return kVELErr_MessageTooBig;
    }
    char length[kVEL_OXLv5HeaderSize];
    velcom::putUint16(length, static_cast<std::uint16_t>(message->size()));
    VELIoVec iov[2] = {{length, kVEL_OXLv5HeaderSize}, {}};
    return velcom::writeFrame(*getSocket(), iov, 1, *message);
}

VELErr_t VEL_OXLv5::recvMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    char length[kVEL_OXLv5HeaderSize];
    code = getSocket()->recv(length, kVEL_OXLv5HeaderSize);
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
        return code;
    }
    code = velcom::prepareBody(message, velcom::getUint16(length));
    if (code == kVELErr_Ok && message->size() > 0) {
        code = getSocket()->recv(message->data(), static_cast<unsigned int>(message->size()));
    }
    if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error encountered while receiving OXLv5 message",
                                 "Received header:", length, kVEL_OXLv5HeaderSize);
    }
    return code;
}
