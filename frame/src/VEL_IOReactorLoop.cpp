// The reactor thread's side of VEL_IOReactor: the steps of a pass (dispatch of the pending
// entries, the modification pass, the wait), the loop, inactivity checks, clean-up and the
// handling of failed waits. Registration and configuration are in VEL_IOReactor.cpp.
#include <sys/socket.h>

#include <cassert>
#include <cerrno>
#include <mutex>
#include <string>
#include <vector>

#include "Thread.h"
#include "VEL_FrameTrace.h"
#include "VEL_IOReactor.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

// True when `handle` is no longer an open socket. The reactor has no socket object for a
// registered handle, hence the direct probe.
bool isClosedSocket(unsigned int handle) {
    int type = 0;
    socklen_t length = sizeof(type);
    if (::getsockopt(static_cast<int>(handle), SOL_SOCKET, SO_TYPE, &type, &length) == 0) {
        return false;
    }
    const int err = errno;
    return err == ENOTSOCK || err == EBADF;
}

}  // namespace

// Marks the entry whose call-backs run, for the span of its dispatch.
class VEL_IOReactor::Dispatching {
public:
    Dispatching(VEL_IOReactor& reactor, VEL_PollingEntry* entry) : _reactor(reactor) {
        _reactor._dispatching = entry;
    }
    ~Dispatching() { _reactor._dispatching = nullptr; }
    Dispatching(const Dispatching&) = delete;
    Dispatching& operator=(const Dispatching&) = delete;

private:
    VEL_IOReactor& _reactor;
};

VELErr_t VEL_IOReactor::reportReady(const VELReadyHandle_t* ready, std::size_t count) {
    VELErr_t code = kVELErr_Ok;
    unsigned int unknown = VEL_Socket::kVEL_NoHandle;
    {
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        for (std::size_t i = 0; i < count && code == kVELErr_Ok; ++i) {
            const unsigned int handle = ready[i].handle;
            const unsigned short ops = ready[i].ops;
            VEL_PollingEntry* entry = _entryTable.find(handle);
            if (entry != nullptr && (ops & kInvalidHandleOp) == 0) {
                addReadyOps(entry, ops);
            } else if (entry != nullptr) {
                // A closed descriptor still registered; one whose handler removed itself is
                // about to leave the polling set anyway.
                code = entry->isValid() ? kVELErr_BadFd : kVELErr_Ok;
            } else {
                entry = _modifTable.find(handle);
                if (entry == nullptr || entry->isValid()) {
                    unknown = handle;
                    code = kVELErr_HandlerNotRegistered;
                    (void)removeHandle(handle);  // the report is the same whatever it says
                }
                // Otherwise its removal is under way.
            }
        }
    }
    if (code == kVELErr_BadFd) {
        basis::Thread::SetLastSystemErr(EBADF);
        return GetPollingError();
    }
    if (code == kVELErr_HandlerNotRegistered) {
        velframe::traceError(code, [unknown] {
            return velframe::fdText(unknown) + " (remove it from the polling set)";
        });
    }
    return code;
}

VELErr_t VEL_IOReactor::processPendingEvents() {
    if (_pendingHead == nullptr) {
        return kVELErr_Ok;
    }
    const basis::TimeValue now = basis::TimeValue::GetHRTime();
    while (_pendingHead != nullptr) {
        VEL_PollingEntry* entry = _pendingHead;
        // Unlinked before anything runs for it, so that neither a failure nor an exception can
        // leave it at the head to be dispatched again.
        _pendingHead = entry->_nextPending;
        entry->_nextPending = nullptr;
        entry->_pending = false;
        --_pendingCount;
        notifyActivity();
        VELErr_t code = kVELErr_Ok;
        {
            const Dispatching current(*this, entry);
            code = entry->processEvents(now);
        }
        if (code != kVELErr_Ok) {
            velframe::traceError(code);
            if (_wakeOwed) {
                // The modification pass will not run before the next wait: the changes queued
                // by the call-backs need the wake-up they skipped.
                _wakeOwed = false;
                (void)wake();
            }
            return code;
        }
    }
    return kVELErr_Ok;
}

VELErr_t VEL_IOReactor::applyModification(VEL_PollingEntry* entry) {
    const VELEntryState_t state = entry->_state;
    const unsigned int handle = entry->_handle;
    if (state == kVELEntry_Free) {
        freeEntry(entry);
        return kVELErr_Ok;
    }
    entry->_state = kVELEntry_Free;
    _modifTable.erase(entry);
    VELErr_t code = kVELErr_InvalidEntry;  // Active or Removed: never queued
    switch (state) {
        case kVELEntry_ToAdd:
        case kVELEntry_ToChange:
            code = state == kVELEntry_ToAdd ? addHandle(handle, entry->_wantedOps)
                                            : changeHandleOps(handle, entry->_wantedOps);
            if (code == kVELErr_Ok) {
                entry->_state = kVELEntry_Active;
            }
            break;
        case kVELEntry_ToRemove:
        case kVELEntry_ToResize:
            code = state == kVELEntry_ToRemove ? removeHandle(handle) : doSetSize();
            freeEntry(entry);  // out of every table and list: nothing else could free it
            break;
        default:
            break;
    }
    return code;
}

VELErr_t VEL_IOReactor::processModifSet() {
    assert(_pendingHead == nullptr);  // nothing pending may go back to the pool
    VELErr_t code = kVELErr_Ok;
    unsigned int failed = VEL_Socket::kVEL_NoHandle;
    {
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        _wakeOwed = false;
        while (_releasedHead != nullptr) {
            VEL_PollingEntry* entry = _releasedHead;
            _releasedHead = entry->_nextReleased;
            entry->_nextReleased = nullptr;
            if (entry->_state == kVELEntry_Removed) {  // otherwise registered again meanwhile
                entry->_state = kVELEntry_Free;
                _entryTable.erase(entry);
                freeEntry(entry);
            }
        }
        while (_modifHead != nullptr && code == kVELErr_Ok) {
            VEL_PollingEntry* entry = _modifHead;
            _modifHead = entry->_nextModif;
            entry->_nextModif = nullptr;
            failed = entry->_handle;
            code = applyModification(entry);
        }
        if (_modifHead == nullptr) {
            _modifTail = nullptr;
        }
    }
    _droppedHandlers.clear();  // handlers' destructors run here, with no lock held
    if (code != kVELErr_Ok) {
        velframe::traceHandleError(code, failed);
    }
    return code;
}

VELErr_t VEL_IOReactor::processEvents() {
    becomeReactorThread();
    const VELErr_t code = processPendingEvents();
    return code != kVELErr_Ok ? code : processModifSet();
}

VELErr_t VEL_IOReactor::waitEvents() {
    if (isStopped()) {
        _reactorThread.store(0, std::memory_order_relaxed);
        return kVELErr_ReactorStopped;
    }
    becomeReactorThread();
    if (!_redispatched.empty()) {
        // Handlers wait to be called again: the others get what this poll finds, and nobody
        // waits. Marked after the poll, which reports through the same pending list.
        const VELErr_t code = waitForEvents(&basis::TimeValue::kZero);
        markRedispatched();
        return code == kVELErr_Timeout ? kVELErr_Ok : code;
    }
    if (!isIdle()) {
        return waitForEvents(nullptr);
    }
    const basis::TimeValue limit = getIdleTimeout();
    const VELErr_t code = waitForEvents(&limit);
    if (code != kVELErr_Timeout) {
        return code;
    }
    return handleIdle() ? kVELErr_Timeout : kVELErr_UserCode;
}

void VEL_IOReactor::markRedispatched() {
    std::vector<Redispatch> asked;
    asked.swap(_redispatched);
    std::lock_guard<basis::ThreadMutex> hold(_tableLock);
    for (const Redispatch& each : asked) {
        VEL_PollingEntry* entry = _entryTable.find(each.handle);
        if (entry == nullptr) {
            continue;  // removed since
        }
        std::lock_guard<basis::ThreadMutex> entryHold(entry->_entryLock);
        // Owner comparison: no handler is locked (and so none released) under the table lock.
        const bool polled =
                entry->_state == kVELEntry_Active || entry->_state == kVELEntry_ToChange;
        if (polled && !each.handler.owner_before(entry->_evtHandler) &&
            !entry->_evtHandler.owner_before(each.handler)) {
            addReadyOps(entry, each.ops);
        }
    }
}

VELErr_t VEL_IOReactor::waitAndProcessEvents() {
    const VELErr_t code = processEvents();
    return code != kVELErr_Ok ? code : waitEvents();
}

bool VEL_IOReactor::run() {
    becomeReactorThread();
    basis::TimeValue nextCheck = basis::TimeValue::GetHRTime();
    {
        std::lock_guard<basis::ThreadMutex> hold(_stopLock);
        if (_stopRequested) {
            _stopRequested = false;
            _stopped.store(true);
            _reactorThread.store(0, std::memory_order_relaxed);
            return true;
        }
        _stopped.store(false);
    }
    _checkCounter.store(0);
    while (runPass(nextCheck)) {
    }
    return true;
}

// One pass of the loop; false once the reactor is stopped. Exceptions from the hooks are
// traced and the loop carries on.
bool VEL_IOReactor::runPass(basis::TimeValue& nextCheck) {
    bool carryOn = true;
    (void)velframe::runGuarded([this, &nextCheck, &carryOn] {
        notifyActivity();
        const VELErr_t status = waitAndProcessEvents();
        if (status == kVELErr_ReactorStopped) {
            carryOn = false;
            return true;
        }
        if (status != kVELErr_Ok) {
            if (status != kVELErr_Timeout) {
                velframe::traceError(status);
            }
            _lastError.store(status);
            (void)handleError(status);  // the answer does not change the loop
        }
        checkWhenDue(nextCheck);
        return true;
    });
    return carryOn;
}

void VEL_IOReactor::checkWhenDue(basis::TimeValue& nextCheck) {
    const unsigned short frequency = _checkFreq.load();
    if (frequency == 0) {
        return;
    }
    const basis::TimeValue period(frequency, 0);
    const basis::TimeValue now = basis::TimeValue::GetHRTime();
    if (nextCheck > now + period) {
        nextCheck = now + period;  // the period was shortened meanwhile
    }
    if (now <= nextCheck) {
        if (_checkCounter.fetch_add(1) + 1 < kPassesPerCheck) {
            return;
        }
        velframe::traceInfo("2000 events already, IOReactor will check ITO");
    }
    checkInactivity();
    nextCheck = now + period;
    _checkCounter.store(0);
}

void VEL_IOReactor::checkInactivity() {
    const basis::TimeValue now = basis::TimeValue::GetHRTime();
    const basis::TimeValue reactorTimeout = getInactivityTimeout();
    unsigned long withoutHandler = 0;
    {
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        _entryTable.forEach([&](VEL_PollingEntry* entry) {
            const basis::TimeValue& own = entry->_inactivityTimeout;
            if (own < basis::TimeValue::kZero || !entry->isValid()) {
                return;
            }
            if (!entry->_evtHandler) {
                ++withoutHandler;
                return;
            }
            const basis::TimeValue& limit = own == basis::TimeValue::kZero ? reactorTimeout : own;
            if (now - entry->_evtHandler->getLastActTime() > limit) {
                addReadyOps(entry, kVELOp_Inactivity);
            }
        });
    }
    for (; withoutHandler > 0; --withoutHandler) {
        velframe::traceInfo("Warning ! NULL _evtHandler into VEL_IOReactor::checkInactivity");
    }
}

VELErr_t VEL_IOReactor::clean() {
    becomeReactorThread();
    _redispatched.clear();  // every handler is closed: nothing is dispatched again
    {
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        _entryTable.forEach([this](VEL_PollingEntry* entry) { addReadyOps(entry, kVELOp_Close); });
    }
    // Every handler is closed once, whatever the others answer: a failed dispatch leaves the
    // rest pending, and the walk goes on with them. The first failure is returned at the end.
    VELErr_t first = kVELErr_Ok;
    while (_pendingHead != nullptr) {
        const VELErr_t code = processPendingEvents();  // traced by the call
        if (first == kVELErr_Ok) {
            first = code;
        }
    }
    const VELErr_t code = unregisterAll();
    return first != kVELErr_Ok ? first : code;
}

VELErr_t VEL_IOReactor::unregisterAll() {
    // Closed handlers that did not remove themselves are let go as well.
    VELErr_t code = kVELErr_Ok;
    std::vector<unsigned int> left;
    {
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        _entryTable.forEach([&left](VEL_PollingEntry* entry) {
            if (entry->isValid()) {
                left.push_back(entry->_handle);
            }
        });
        for (const unsigned int handle : left) {
            code = removeLocked(handle);
            if (code != kVELErr_Ok) {
                break;
            }
        }
    }
    if (code != kVELErr_Ok) {
        velframe::traceError(code);
        return code;
    }
    return processModifSet();
}

VELErr_t VEL_IOReactor::GetPollingError() {
    VELErr_t code = kVELErr_Polling;
    switch (basis::Thread::GetLastSystemErr()) {
        case EINTR:
            velframe::traceError(kVELErr_Interrupted,
                                 [] { return std::string("Polling function was interrupted"); });
            return kVELErr_Ok;
        case EFAULT:
            code = kVELErr_IllegalAddress;
            break;
        case EINVAL:
            code = kVELErr_BadValue;
            break;
        case EBADF:
        case ENOTSOCK:
            code = kVELErr_BadFd;
            break;
        case ENETDOWN:
            code = kVELErr_NetDown;
            break;
        default:
            break;
    }
    velframe::traceError(code);
    return code;
}

bool VEL_IOReactor::isClosedHandle(unsigned int handle) {
    return isClosedSocket(handle);
}

bool VEL_IOReactor::handleError(VELErr_t status) {
    if (status != kVELErr_BadFd) {
        return true;
    }
    std::vector<boost::shared_ptr<VEL_EventHandler>> dead;
    {
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        _entryTable.forEach([this, &dead](VEL_PollingEntry* entry) {
            if (entry->_state == kVELEntry_Active && isClosedHandle(entry->_handle)) {
                dead.push_back(entry->_evtHandler);
            }
        });
    }
    if (dead.empty()) {
        velframe::traceError(kVELErr_ReactorFdCorrupt, [] {
            return std::string("Fatal error in the reactor: corrupt reactor file descriptor");
        });
    }
    for (const boost::shared_ptr<VEL_EventHandler>& handler : dead) {
        (void)removeEventHandler(handler);  // each failure is traced by the call
    }
    return true;
}
