#include "VEL_ComEnabler.h"

#include "VEL_ComTools.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_ComEnabler::VEL_ComEnabler() {
    (void)VEL_ComTools::Initialize();
}  // never fails

VEL_ComEnabler::~VEL_ComEnabler() {
    VEL_ComTools::Cleanup();
}
