#include "VEL_OXLv5.h"

#include "VEL_FrameTools.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_OXLv5Codec::VEL_OXLv5Codec() : _outHeader(), _inHeader(), _inBody(false) {
    reset();
}

VEL_OXLv5Codec::~VEL_OXLv5Codec() = default;

VELErr_t VEL_OXLv5Codec::encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) {
    *count = 0;
    if (message->size() > kVEL_OXLv5MaxBody) {
        velcom::traceFailure(kVELErr_MessageTooBig);
        return kVELErr_MessageTooBig;
    }
    velcom::putUint16(_outHeader, static_cast<std::uint16_t>(message->size()));
    parts[(*count)++] = VELIoVec{_outHeader, kVEL_OXLv5HeaderSize};
    if (message->size() > 0) {
        parts[(*count)++] = velcom::bodyElement(*message);
    }
    return kVELErr_Ok;
}

unsigned long VEL_OXLv5Codec::nextParts(VEL_Message* /*target*/, VELIoVec* parts,
                                        unsigned long* count) {
    return _cursor.next(parts, count);
}

VELErr_t VEL_OXLv5Codec::received(VEL_Message* target, unsigned long received) {
    return velcom::receiveHeaderThenBody(
            _cursor, _inBody, target, received, [this, target] { return judgeHeader(target); },
            [this] { reset(); });
}

VELErr_t VEL_OXLv5Codec::judgeHeader(VEL_Message* target) {
    const VELErr_t code = velcom::prepareBody(target, velcom::getUint16(_inHeader));
    if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error encountered while receiving OXLv5 message",
                                 "Received header:", _inHeader, kVEL_OXLv5HeaderSize);
    }
    return code;
}

void VEL_OXLv5Codec::reset() {
    _inBody = false;
    _cursor.clear();
    _cursor.add(_inHeader, kVEL_OXLv5HeaderSize);
}

VEL_OXLv5::VEL_OXLv5(VEL_Socket* socket) : VEL_Transport(socket) {}

VEL_OXLv5::VEL_OXLv5(const VEL_OXLv5& other) : VEL_Transport(other) {}

VEL_OXLv5& VEL_OXLv5::operator=(const VEL_OXLv5& other) {
    VEL_Transport::operator=(other);
    _codec.reset();
    return *this;
}

VEL_OXLv5::~VEL_OXLv5() = default;

VELErr_t VEL_OXLv5::sendMessage(VEL_Message* message) {
    return sendFramed(_codec, message);
}

VELErr_t VEL_OXLv5::recvMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    _codec.reset();  // a frame cut short by a failed call is not resumed
    do {
        // Each stage, the length field and then the body, is one place: one whole recv.
        VELIoVec place[kVEL_MaxFrameParts];
        unsigned long count = 0;
        const unsigned long length = _codec.nextParts(message, place, &count);
        code = getSocket()->recv(place[0].iov_base, static_cast<unsigned int>(length));
        if (code != kVELErr_Ok && !_codec.inFrame()) {
            velcom::traceFailure(code);
            return code;
        }
        if (code != kVELErr_Ok) {
            velcom::traceRecvFailure(code, "Error encountered while receiving OXLv5 message",
                                     "Received header:", _codec.receivedHeader(),
                                     kVEL_OXLv5HeaderSize);
            return code;
        }
        code = _codec.received(message, length);
    } while (code == kVELErr_Incomplete);
    return code;
}
