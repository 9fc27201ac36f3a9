#include "VEL_StaticInit.h"

#include <new>
#include <set>

#include "CondThreadMutex.h"
#include "StaticInit.h"
#include "ThreadMutex.h"
#include "VEL_Socket.h"
#include "VEL_Tools.h"
#include "VEL_TraceHandler.h"

namespace {

const VEL_StaticInit kStaticInit;

basis::StaticInit* gBasisInit = nullptr;

template <class T>
void destroy(T*& pointer) {
    delete pointer;
    pointer = nullptr;
}

}  // namespace

std::atomic<unsigned long> VEL_StaticInit::_count{0};

VEL_StaticInit::VEL_StaticInit() {
    if (_count.fetch_add(1) == 0) {
        initStaticMembers();
    }
}

VEL_StaticInit::~VEL_StaticInit() {
    if (_count.fetch_sub(1) == 1) {
        releaseStaticMembers();
    }
}

// Creates the shared objects in a fixed order; an allocation that fails leaves its pointer null
// and start-up goes on.
void VEL_StaticInit::initStaticMembers() const {
    gBasisInit = new (std::nothrow) basis::StaticInit();
    // Reserved: the secure-session table and its three locks, then the timer-identifier lock,
    // are created here, ahead of the trace statics, when their modules are added.
    VEL_Tools::_HandlerMutex = new (std::nothrow) basis::ThreadMutex();
    VEL_Tools::_ForbiddenThreadsSet = new (std::nothrow) std::set<basis::ThreadID_t>();
    VEL_TraceHandler::_TracingMutex = new (std::nothrow) basis::ThreadMutex();
    if (VEL_TraceHandler::_TracingMutex != nullptr) {
        VEL_TraceHandler::_TracingCondMutex =
                new (std::nothrow) basis::CondThreadMutex(*VEL_TraceHandler::_TracingMutex);
    }
    VEL_Socket::_Mutex = new (std::nothrow) basis::ThreadMutex();
}

// Releases in the reverse order of creation.
void VEL_StaticInit::releaseStaticMembers() const {
    destroy(VEL_Socket::_Mutex);
    destroy(VEL_TraceHandler::_TracingCondMutex);
    destroy(VEL_TraceHandler::_TracingMutex);
    VEL_Tools::_AnyForbidden.store(false);
    destroy(VEL_Tools::_ForbiddenThreadsSet);
    destroy(VEL_Tools::_HandlerMutex);
    // Reserved: the timer-identifier lock, then the secure-session locks and table (emptied
    // first) are released here, in the reverse order of their creation above.
    destroy(gBasisInit);
}
