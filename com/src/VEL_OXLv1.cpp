#include "VEL_OXLv1.h"

#include "VEL_FrameTools.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_OXLv1Codec::VEL_OXLv1Codec(unsigned long maxMessageSize)
    : _outHeader(), _inHeader(), _maxMessageSize(maxMessageSize), _inBody(false) {
    reset();
}

VEL_OXLv1Codec::~VEL_OXLv1Codec() = default;

const char* VEL_OXLv1Codec::fillHeader(const VEL_Message& message) {
    // Bodies come from the buffer manager, so the total fits in 32 bits.
    velcom::putLengthPair(_outHeader,
                          static_cast<std::uint32_t>(message.size()) + kVEL_OXLv1HeaderSize);
    velcom::putUint16(_outHeader + 8, kVEL_OXLv1Marker);
    _outHeader[10] = kVEL_OXLv1Version;
    _outHeader[11] = 0;
    return _outHeader;
}

VELErr_t VEL_OXLv1Codec::encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) {
    parts[0] = VELIoVec{const_cast<char*>(fillHeader(*message)), kVEL_OXLv1HeaderSize};
    *count = 1;
    if (message->size() > 0) {
        parts[(*count)++] = velcom::bodyElement(*message);
    }
    return kVELErr_Ok;
}

unsigned long VEL_OXLv1Codec::nextParts(VEL_Message* /*target*/, VELIoVec* parts,
                                        unsigned long* count) {
    return _cursor.next(parts, count);
}

VELErr_t VEL_OXLv1Codec::received(VEL_Message* target, unsigned long received) {
    return velcom::receiveHeaderThenBody(
            _cursor, _inBody, target, received, [this, target] { return judgeHeader(target); },
            [this] { reset(); });
}

VELErr_t VEL_OXLv1Codec::judgeHeader(VEL_Message* target) {
    std::uint32_t total = 0;
    VELErr_t code = kVELErr_Ok;
    if (!velcom::getLengthPair(_inHeader, &total) ||
        velcom::getUint16(_inHeader + 8) != kVEL_OXLv1Marker ||
        _inHeader[10] != kVEL_OXLv1Version) {
        code = kVELErr_BadStreamHeader;
    } else if (total < kVEL_OXLv1HeaderSize || total - kVEL_OXLv1HeaderSize > _maxMessageSize) {
        code = kVELErr_MessageTooBig;
    } else {
        code = velcom::prepareBody(target, total - kVEL_OXLv1HeaderSize);
    }
    if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error encountered while receiving OXLv1 header",
                                 "Received header:", _inHeader, kVEL_OXLv1HeaderSize);
    }
    return code;
}

void VEL_OXLv1Codec::reset() {
    _inBody = false;
    _cursor.clear();
    _cursor.add(_inHeader, kVEL_OXLv1HeaderSize);
}

VEL_OXLv1::VEL_OXLv1(VEL_Socket* socket, unsigned long maxMessageSize)
    : VEL_Transport(socket), _codec(maxMessageSize) {}

VEL_OXLv1::~VEL_OXLv1() = default;

VELErr_t VEL_OXLv1::sendMessage(VEL_Message* message) {
    return sendFramed(_codec, message);
}

VELErr_t VEL_OXLv1::recvMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    _codec.reset();  // a frame cut short by a failed call is not resumed
    unsigned long count = 0;
    code = recvHeader(nullptr, count, message);
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
        return code;
    }
    if (!_codec.inFrame()) {
        return kVELErr_Ok;  // an empty body
    }
    code = readRest(_codec, message);
    if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error receiving an OXLv1 message",
                                 "Received header :", _codec.receivedHeader(),
                                 kVEL_OXLv1HeaderSize);
    }
    return code;
}

VELErr_t VEL_OXLv1::buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message) {
    iov[count++] = VELIoVec{const_cast<char*>(_codec.fillHeader(*message)), kVEL_OXLv1HeaderSize};
    return kVELErr_Ok;
}

VELErr_t VEL_OXLv1::recvHeader(VELIoVec* /*iov*/, unsigned long& /*count*/, VEL_Message* message) {
    bool fromSocket = false;
    const VELErr_t code = readFrameHeader(_codec, message, &fromSocket);
    return code == kVELErr_Incomplete ? kVELErr_Ok : code;  // the body follows
}
