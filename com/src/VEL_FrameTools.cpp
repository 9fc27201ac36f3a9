#include "VEL_FrameTools.h"

#include "BufferMgr.h"
#include "Tools.h"
#include "VEL_FrameCodec.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

void traceDump(VELErr_t code, const char* label, const char* data, unsigned long size,
               const char* file, unsigned long line) {
    VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("COM", code, label), file, line);
    VEL_Tools::MemDump(basis::Tools::Basename(file), line, kVELLevel_Error, data,
                       static_cast<unsigned int>(size), 0);
}

}  // namespace

namespace velcom {

VELErr_t prepareBody(VEL_Message* message, std::uint32_t length) {
    basis::Buffer* body = message->buffer();
    if (body != nullptr && length > body->capacity()) {
        body->setSize(0);  // the frame overwrites it: nothing to carry over into a larger buffer
    }
    return message->allocate(length);
}

VELIoVec bodyElement(const VEL_Message& message) {
    // Bodies come from the buffer manager, whose largest buffer fits in 32 bits.
    return VELIoVec{message.data(), static_cast<std::uint32_t>(message.size())};
}

bool expectBody(VELErr_t code, VEL_Message* target, VEL_PartCursor& cursor) {
    if (code != kVELErr_Ok || target->size() == 0) {
        return false;
    }
    cursor.clear();
    cursor.add(target->data(), static_cast<std::uint32_t>(target->size()));
    return true;
}

VELErr_t writeParts(VEL_Socket& socket, VELIoVec* iov, unsigned long count, const char* file,
                    unsigned long line) {
    const VELErr_t code = socket.writev(iov, count);
    if (code != kVELErr_Ok) {
        traceFailure(code, file, line);
    }
    return code;
}

void traceRecvFailure(VELErr_t code, const char* what, const char* headerLabel, const char* header,
                      unsigned int headerSize, const char* bodyLabel, const VEL_Message* body,
                      const char* file, unsigned long line) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ComError)) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("COM", code, what), file, line);
    }
    if (VEL_Tools::IsTraceOn(kVELTrace_MsgDump)) {
        traceDump(code, headerLabel, header, headerSize, file, line);
        if (body != nullptr) {
            traceDump(code, bodyLabel, body->data(), body->size(), file, line);
        }
    }
    traceFailure(code, file, line);
}

void traceFailure(VELErr_t code, const char* file, unsigned long line) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ComError)) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("COM", code), file, line);
    }
}

}  // namespace velcom
