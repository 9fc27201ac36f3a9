#include "VEL_Transport.h"

#include "VEL_FrameCodec.h"
#include "VEL_FrameTools.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_Transport::~VEL_Transport() = default;

VELErr_t VEL_Transport::checkArguments(const VEL_Message* message) const {
    VELErr_t code = kVELErr_Ok;
    if (_socket == nullptr) {
        code = kVELErr_InvalidSocket;
    } else if (message == nullptr) {
        code = kVELErr_InvalidPointer;
    }
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
    }
    return code;
}

VELErr_t VEL_Transport::readRest(VEL_FrameCodec& codec, VEL_Message* message,
                                 bool* fromSocket) const {
    for (;;) {
        VELIoVec parts[kVEL_MaxFrameParts];
        unsigned long count = 0;
        const unsigned long length = codec.nextParts(message, parts, &count);
        VELErr_t code = length > 0 ? _socket->readv(parts, count) : kVELErr_Ok;
        const bool socketFailed = code != kVELErr_Ok;
        if (!socketFailed) {
            code = codec.received(message, length);
        }
        if (code != kVELErr_Incomplete) {
            if (fromSocket != nullptr) {
                *fromSocket = socketFailed;
            }
            return code;
        }
    }
}

VELErr_t VEL_Transport::sendFramed(VEL_FrameCodec& codec, VEL_Message* message, const char* file,
                                   unsigned long line) const {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    VELIoVec iov[kVEL_MaxFrameParts];
    unsigned long count = 0;
    code = codec.encodeParts(message, iov, &count);
    return code == kVELErr_Ok ? velcom::writeParts(*_socket, iov, count, file, line) : code;
}

VELErr_t VEL_Transport::readFrameHeader(VEL_FrameCodec& codec, VEL_Message* message,
                                        bool* fromSocket, const char* file,
                                        unsigned long line) const {
    VELIoVec parts[kVEL_MaxFrameParts];
    unsigned long count = 0;
    const unsigned long length = codec.nextParts(message, parts, &count);
    const VELErr_t code = _socket->recv(parts[0].iov_base, static_cast<unsigned int>(length));
    *fromSocket = code != kVELErr_Ok;
    if (*fromSocket) {
        velcom::traceFailure(code, file, line);
        return code;
    }
    return codec.received(message, length);
}
