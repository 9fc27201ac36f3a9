#include "VEL_TN3270.h"

#include "BufferMgr.h"
#include "VEL_FrameTools.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VELErr_t VEL_TN3270::sendMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    code = getSocket()->send(message->data(), static_cast<unsigned int>(message->size()));
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
    }
    return code;
}

VELErr_t VEL_TN3270::recvMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    code = velcom::prepareBody(message, kVEL_TN3270RecvSize);
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
        return code;
    }
    unsigned int length = kVEL_TN3270RecvSize;
    code = getSocket()->recvAvail(message->data(), &length);
    if (code == kVELErr_Incomplete && length > 0) {
        code = kVELErr_Ok;  // a short read is the normal case: whatever had arrived
    } else if (code != kVELErr_Ok) {
        length = 0;
    }
    // The buffer stays with the message for the next receive.
    message->buffer()->setSize(length);
    if (code != kVELErr_Ok && code != kVELErr_Incomplete) {
        velcom::traceFailure(code);
    }
    return code;
}
