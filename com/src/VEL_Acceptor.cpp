#include "VEL_Acceptor.h"

#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_Acceptor::VEL_Acceptor(const VEL_SockAddr& listen) : VEL_Socket(listen) {}

VEL_Acceptor::VEL_Acceptor(const VEL_SockAddr& listen, const VEL_SockOptions& options)
    : VEL_Socket(listen), _listenOptions(options) {}

VEL_Acceptor::~VEL_Acceptor() = default;

VELErr_t VEL_Acceptor::setOptions(const VEL_SockOptions&) {
    return kVELErr_Ok;
}
