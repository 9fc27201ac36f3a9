#include "VEL_Transport.h"

#include "VEL_FrameTools.h"
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
