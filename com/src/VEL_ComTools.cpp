#include "VEL_ComTools.h"

#include "VEL_StaticInit.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

constexpr unsigned long kFileDescLimit = 2048;

}  // namespace

bool VEL_ComTools::_IsInitialized = false;

VELErr_t VEL_ComTools::Initialize() {
    if (VEL_Tools::IsTraceOn(kVELTrace_Com)) {
        VEL_Tools::TraceText(kVELLevel_Info, "COM - Initializing Com resources");
    }
    return kVELErr_Ok;
}

void VEL_ComTools::Cleanup() {
    if (VEL_Tools::IsTraceOn(kVELTrace_Com)) {
        VEL_Tools::TraceText(kVELLevel_Info, "COM - Cleaning COM resources");
    }
}

VELErr_t VEL_ComTools::GetFileDescLimit(unsigned long* limit) {
    *limit = kFileDescLimit;
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::GetFileDescMaxLimit(unsigned long* limit) {
    *limit = kFileDescLimit;
    return kVELErr_Ok;
}

VELErr_t VEL_ComTools::SetFileDescLimit(unsigned long) {
    return kVELErr_Ok;
}

void VEL_ComTools::IgnoreSigPipe() {}
