#include "VEL_Connector.h"

#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_Connector::~VEL_Connector() = default;
