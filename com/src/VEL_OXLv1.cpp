#include "VEL_OXLv1.h"

#include "VEL_FrameTools.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_OXLv1::VEL_OXLv1(VEL_Socket* socket, unsigned long maxMessageSize)
    : VEL_Transport(socket), _header(), _maxMessageSize(maxMessageSize) {}

VEL_OXLv1::~VEL_OXLv1() = default;

VELErr_t VEL_OXLv1::sendMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    VELIoVec iov[2];
    unsigned long count = 0;
    (void)buildHeader(iov, count, message);  // cannot fail
    return velcom::writeFrame(*getSocket(), iov, count, *message);
}

VELErr_t VEL_OXLv1::recvMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    unsigned long count = 0;
    code = recvHeader(nullptr, count, message);
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
        return code;
    }
    if (message->size() == 0) {
        return kVELErr_Ok;
    }
    VELIoVec body = velcom::bodyElement(*message);
    code = getSocket()->readv(&body, 1);
    if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error receiving an OXLv1 message",
                                 "Received header :", _header, kVEL_OXLv1HeaderSize);
    }
    return code;
}

VELErr_t VEL_OXLv1::buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message) {
    // Bodies come from the buffer manager, so the total fits in 32 bits.
    velcom::putLengthPair(_header,
                          static_cast<std::uint32_t>(message->size()) + kVEL_OXLv1HeaderSize);
    velcom::putUint16(_header + 8, kVEL_OXLv1Marker);
    _header[10] = kVEL_OXLv1Version;
    _header[11] = 0;
    iov[count++] = VELIoVec{_header, kVEL_OXLv1HeaderSize};
    return kVELErr_Ok;
}

VELErr_t VEL_OXLv1::recvHeader(VELIoVec* /*iov*/, unsigned long& /*count*/, VEL_Message* message) {
    VELErr_t code = getSocket()->recv(_header, kVEL_OXLv1HeaderSize);
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
        return code;
    }
    std::uint32_t total = 0;
    if (!velcom::getLengthPair(_header, &total) ||
        velcom::getUint16(_header + 8) != kVEL_OXLv1Marker || _header[10] != kVEL_OXLv1Version) {
        code = kVELErr_BadStreamHeader;
    } else if (total < kVEL_OXLv1HeaderSize || total - kVEL_OXLv1HeaderSize > _maxMessageSize) {
        code = kVELErr_MessageTooBig;
    } else {
        code = velcom::prepareBody(message, total - kVEL_OXLv1HeaderSize);
    }
    if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error encountered while receiving OXLv1 header",
                                 "Received header:", _header, kVEL_OXLv1HeaderSize);
    }
    return code;
}
