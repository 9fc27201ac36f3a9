#include "VEL_StaticInit.h"

#include <new>
#include <set>

#include "CondThreadMutex.h"
#include "RWThreadMutex.h"
#include "StaticInit.h"
#include "ThreadMutex.h"
#include "VEL_Encryptor.h"
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
    // 1 to 4: secure sessions
    VEL_Encryptor::_CryptKey = new (std::nothrow) VEL_Encryptor::SessionMap_t();
    VEL_Encryptor::_InstanceCreationMutex = new (std::nothrow) basis::ThreadMutex();
    VEL_Encryptor::_SessionIDMutex = new (std::nothrow) basis::ThreadMutex();
    VEL_Encryptor::_CryptMutex = new (std::nothrow) basis::RWThreadMutex();
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

// Releases in the reverse order of creation, after the secure sessions have been closed: their
// destructors trace and cancel timers.
void VEL_StaticInit::releaseStaticMembers() const {
    VEL_Encryptor::CloseAllSessions();
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
    // 4 to 1: secure sessions
    destroy(VEL_Encryptor::_CryptMutex);
    destroy(VEL_Encryptor::_SessionIDMutex);
    destroy(VEL_Encryptor::_InstanceCreationMutex);
    destroy(VEL_Encryptor::_CryptKey);
    destroy(gBasisInit);
}
