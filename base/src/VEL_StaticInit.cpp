#include "VEL_StaticInit.h"

#include <new>
#include <set>

#include "CondThreadMutex.h"
#include "StaticInit.h"
#include "ThreadMutex.h"
#include "VEL_Socket.h"
#include "VEL_TimerHandler.h"
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
    // 1 to 4: the secure-session table and its three locks come here when that module is added.
    // 5: timer identifiers
    VEL_TimerHandler::_GeneratorLock = new (std::nothrow) basis::ThreadMutex();
    // 6 to 9: tracing
    VEL_Tools::_HandlerMutex = new (std::nothrow) basis::ThreadMutex();
    VEL_Tools::_ForbiddenThreadsSet = new (std::nothrow) std::set<basis::ThreadID_t>();
    VEL_TraceHandler::_TracingMutex = new (std::nothrow) basis::ThreadMutex();
    if (VEL_TraceHandler::_TracingMutex != nullptr) {
        VEL_TraceHandler::_TracingCondMutex =
                new (std::nothrow) basis::CondThreadMutex(*VEL_TraceHandler::_TracingMutex);
    }
    // 10: socket count
    VEL_Socket::_Mutex = new (std::nothrow) basis::ThreadMutex();
}

// Releases in the reverse order of creation.
void VEL_StaticInit::releaseStaticMembers() const {
    // 10: socket count
    destroy(VEL_Socket::_Mutex);
    // 9 to 6: tracing
    destroy(VEL_TraceHandler::_TracingCondMutex);
    destroy(VEL_TraceHandler::_TracingMutex);
    VEL_Tools::_AnyForbidden.store(false);
    destroy(VEL_Tools::_ForbiddenThreadsSet);
    destroy(VEL_Tools::_HandlerMutex);
    // 5: timer identifiers, with the generator made on first use
    destroy(VEL_TimerHandler::_Generator);
    destroy(VEL_TimerHandler::_GeneratorLock);
    // 4 to 1: the secure-session locks, then its table (emptied first), go here.
    destroy(gBasisInit);
}
