#include "VEL_TN3270.h"

#include "BufferMgr.h"
#include "VEL_FrameTools.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_TN3270Codec::VEL_TN3270Codec() : _prepared(kVELErr_Ok) {}

VEL_TN3270Codec::~VEL_TN3270Codec() = default;

VELErr_t VEL_TN3270Codec::encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) {
    *count = 0;
    if (message->size() > 0) {
        parts[(*count)++] = velcom::bodyElement(*message);
    }
    return kVELErr_Ok;
}

unsigned long VEL_TN3270Codec::nextParts(VEL_Message* target, VELIoVec* parts,
                                         unsigned long* count) {
    // The buffer stays with the message from one receive to the next: sizing it is cheap.
    _prepared = velcom::prepareBody(target, kVEL_TN3270RecvSize);
    *count = 0;
    if (_prepared != kVELErr_Ok) {
        return 0;
    }
    parts[(*count)++] = VELIoVec{target->data(), kVEL_TN3270RecvSize};
    return kVEL_TN3270RecvSize;
}

VELErr_t VEL_TN3270Codec::received(VEL_Message* target, unsigned long received) {
    const VELErr_t code = _prepared;
    if (code != kVELErr_Ok) {
        reset();
        velcom::traceFailure(code);
        return code;
    }
    target->buffer()->setSize(received);
    return kVELErr_Ok;
}

void VEL_TN3270Codec::reset() {
    _prepared = kVELErr_Ok;
}

VEL_TN3270::VEL_TN3270(VEL_Socket* socket) : VEL_Transport(socket) {}

VEL_TN3270::VEL_TN3270(const VEL_TN3270& other) : VEL_Transport(other) {}

VEL_TN3270& VEL_TN3270::operator=(const VEL_TN3270& other) {
    VEL_Transport::operator=(other);
    _codec.reset();
    return *this;
}

VEL_TN3270::~VEL_TN3270() = default;

VELErr_t VEL_TN3270::sendMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    VELIoVec parts[kVEL_MaxFrameParts];
    unsigned long count = 0;
    (void)_codec.encodeParts(message, parts, &count);  // cannot fail
    const VELIoVec bytes = count > 0 ? parts[0] : VELIoVec{nullptr, 0};
    code = getSocket()->send(bytes.iov_base, bytes.iov_len);
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
    _codec.reset();
    VELIoVec place[kVEL_MaxFrameParts];
    unsigned long count = 0;
    unsigned int length = static_cast<unsigned int>(_codec.nextParts(message, place, &count));
    if (length == 0) {
        return _codec.received(message, 0);  // no buffer: nothing is read
    }
    code = getSocket()->recvAvail(place[0].iov_base, &length);
    if (length > 0 && (code == kVELErr_Ok || code == kVELErr_Incomplete)) {
        // A short read is the normal case: whatever had arrived.
        return _codec.received(message, length);
    }
    message->buffer()->setSize(0);  // the buffer stays with the message for the next receive
    if (code != kVELErr_Incomplete) {
        velcom::traceFailure(code);
    }
    return code;
}
