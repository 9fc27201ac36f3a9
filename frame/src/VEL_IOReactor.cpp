#include "VEL_IOReactor.h"

#include <cassert>
#include <cerrno>
#include <mutex>
#include <new>
#include <string>
#include <utility>

#include "Thread.h"
#include "VEL_FrameTrace.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

// Entries made at a time when the pool runs dry.
constexpr unsigned long kPoolBlock = 8;
constexpr long long kDefaultInactivityMicros = 1800LL * 1000 * 1000;
// Handlers released per pass before the vector that holds them grows.
constexpr std::size_t kDroppedHandlersReserve = 64;

// The handle of a handler given to a registration call, or the reason it has none.
VELErr_t handleOf(const boost::shared_ptr<VEL_EventHandler>& handler, unsigned int* handle) {
    *handle = handler ? handler->getHandle() : VEL_Socket::kVEL_NoHandle;
    if (!handler) {
        return kVELErr_InvalidPointer;
    }
    return *handle == VEL_Socket::kVEL_NoHandle ? kVELErr_InvalidSocket : kVELErr_Ok;
}

}  // namespace

const basis::TimeValue VEL_IOReactor::kNoInactivityTimeout(-1, 0);
const basis::TimeValue VEL_IOReactor::kDefaultInactivityTimeout(1800, 0);

VEL_IOReactor::VEL_IOReactor(unsigned long size, const basis::TimeValue& idleTimeout)
    : _entryTable(VEL_PollingTable::kEntries, size),
      _modifTable(VEL_PollingTable::kModifications, size),
      _size(size),
      _nbElements(0),
      _stopped(true),
      _stopRequested(false),
      _doIdle(false),
      _idleTimeoutUs(idleTimeout.toMicroseconds()),
      _checkFreq(1),
      _inactivityTimeoutUs(kDefaultInactivityMicros),
      _checkCounter(0),
      _lastError(kVELErr_Ok),
      _reactorThread(0),
      _modifHead(nullptr),
      _modifTail(nullptr),
      _pendingHead(nullptr),
      _pendingCount(0),
      _releasedHead(nullptr),
      _dispatching(nullptr),
      _wakeOwed(false),
      _entryPool(kPoolBlock) {
    _droppedHandlers.reserve(kDroppedHandlersReserve);
}

VEL_IOReactor::~VEL_IOReactor() {
    // A loop thread still running here would call into the back end, already destroyed: back
    // ends stop it in their own destructors (stopLoop).
    assert(getThreadCount() == 0);
}

basis::Err_t VEL_IOReactor::open() {
    (void)wait();  // a previous loop thread has ended; join it before starting the next
    // The caller may have driven the reactor (clean, processEvents): from now on only the loop
    // thread is the reactor thread.
    _reactorThread.store(0, std::memory_order_relaxed);
    return activate(1);
}

VELErr_t VEL_IOReactor::init() {
    return kVELErr_Ok;
}

bool VEL_IOReactor::isReactorThread() const {
    return _reactorThread.load(std::memory_order_relaxed) == basis::Thread::Self().handle;
}

void VEL_IOReactor::becomeReactorThread() {
    if (!isReactorThread()) {
        _reactorThread.store(basis::Thread::Self().handle, std::memory_order_relaxed);
    }
}

void VEL_IOReactor::leaveReactorThread() {
    if (isReactorThread()) {
        _reactorThread.store(0, std::memory_order_relaxed);
    }
}

// Wakes the reactor thread after a registration change. A call-back's change needs no wake-up:
// the pass applies it before it waits again (or wakes itself when the dispatch fails).
VELErr_t VEL_IOReactor::wake() {
    if (isReactorThread() && _dispatching != nullptr) {
        _wakeOwed = true;
        return kVELErr_Ok;
    }
    return tracedWakeUp();
}

VELErr_t VEL_IOReactor::tracedWakeUp() {
    const VELErr_t code = wakeUp();
    if (code != kVELErr_Ok) {
        velframe::traceError(code);
    }
    return code;
}

bool VEL_IOReactor::reserveSlot() {
    std::lock_guard<basis::ThreadMutex> hold(_counterLock);
    if (_nbElements.load() >= _size.load()) {
        return false;
    }
    _nbElements.fetch_add(1);
    return true;
}

void VEL_IOReactor::releaseSlot() {
    std::lock_guard<basis::ThreadMutex> hold(_counterLock);
    _nbElements.fetch_sub(1);
}

VEL_PollingEntry* VEL_IOReactor::takeEntry() {
    basis::Object<VEL_PollingEntry>* object = nullptr;
    if (_entryPool.getFreeObject(&object) != basis::kErr_Ok || object == nullptr) {
        return nullptr;
    }
    VEL_PollingEntry* entry = object->get();
    entry->_poolObject = object;
    return entry;
}

void VEL_IOReactor::freeEntry(VEL_PollingEntry* entry) {
    assert(!entry->_pending && !_entryTable.contains(entry) && !_modifTable.contains(entry));
    if (entry->_evtHandler) {
        try {
            _droppedHandlers.push_back(entry->_evtHandler);
        } catch (const std::bad_alloc&) {
            // The reset below drops the last reference here instead, under the table lock.
        }
    }
    entry->reset(kVELEntry_Free, 0, boost::shared_ptr<VEL_EventHandler>(), kNoInactivityTimeout);
    entry->_nextModif = nullptr;
    entry->_nextReleased = nullptr;
    entry->_poolObject->unlock();
}

void VEL_IOReactor::addToModifList(VEL_PollingEntry* entry) {
    entry->_nextModif = nullptr;
    (_modifTail != nullptr ? _modifTail->_nextModif : _modifHead) = entry;
    _modifTail = entry;
}

void VEL_IOReactor::addReadyOps(VEL_PollingEntry* entry, unsigned short ops) {
    if (ops == 0) {
        return;
    }
    if (!entry->_pending) {
        entry->_pending = true;
        entry->_nextPending = _pendingHead;
        _pendingHead = entry;
        ++_pendingCount;
    }
    entry->_readyOps.fetch_or(ops, std::memory_order_relaxed);
}

VELErr_t VEL_IOReactor::addEventHandler(const boost::shared_ptr<VEL_EventHandler>& handler,
                                        const basis::TimeValue& inactivityTimeout,
                                        unsigned short ops) {
    unsigned int handle = 0;
    VELErr_t code = handleOf(handler, &handle);
    if (code == kVELErr_Ok && !reserveSlot()) {
        code = kVELErr_ReactorFull;
    } else if (code == kVELErr_Ok) {
        boost::shared_ptr<VEL_EventHandler> replaced;  // released after the locks
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        code = addLocked(handle, handler, inactivityTimeout, ops, &replaced);
        if (code != kVELErr_Ok) {
            releaseSlot();
        }
    }
    if (code != kVELErr_Ok) {
        velframe::traceHandleError(code, handle);
        return code;
    }
    return wake();
}

VELErr_t VEL_IOReactor::addLocked(unsigned int handle,
                                  const boost::shared_ptr<VEL_EventHandler>& handler,
                                  const basis::TimeValue& inactivityTimeout, unsigned short ops,
                                  boost::shared_ptr<VEL_EventHandler>* replaced) {
    // The handle being dispatched is registered, unless its handler has just removed itself.
    if (isReactorThread() && _dispatching != nullptr && _dispatching->_handle == handle &&
        _dispatching->_state != kVELEntry_Removed) {
        return kVELErr_FdRegistered;
    }
    VEL_PollingEntry* entry = _modifTable.find(handle);
    if (entry != nullptr) {
        // A removal not yet applied becomes a change: the handle stays in the polling set.
        std::lock_guard<basis::ThreadMutex> hold(entry->_entryLock);
        if (entry->_state != kVELEntry_ToRemove) {
            return kVELErr_FdRegistered;
        }
        *replaced = entry->_evtHandler;
        entry->reset(kVELEntry_ToChange, ops, handler, inactivityTimeout);
        _entryTable.insert(entry);
        return kVELErr_Ok;
    }
    entry = _entryTable.find(handle);
    const bool fresh = entry == nullptr;
    if (fresh) {
        entry = takeEntry();
        if (entry == nullptr) {
            return kVELErr_Alloc;
        }
        entry->_handle = handle;
        _entryTable.insert(entry);
    }
    {
        std::lock_guard<basis::ThreadMutex> hold(entry->_entryLock);
        if (!fresh && entry->_state != kVELEntry_Removed) {
            return kVELErr_FdRegistered;
        }
        *replaced = entry->_evtHandler;  // a handler that removed itself: its entry is reused
        entry->reset(kVELEntry_ToAdd, ops, handler, inactivityTimeout);
    }
    _modifTable.insert(entry);
    addToModifList(entry);
    return kVELErr_Ok;
}

VELErr_t VEL_IOReactor::removeEventHandler(const boost::shared_ptr<VEL_EventHandler>& handler) {
    unsigned int handle = 0;
    VELErr_t code = handleOf(handler, &handle);
    bool queued = false;
    if (code == kVELErr_Ok && !removeDispatched(handle, &code)) {
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        code = removeLocked(handle);
        queued = code == kVELErr_Ok;
    }
    if (code != kVELErr_Ok) {
        velframe::traceHandleError(code, handle);
        return code;
    }
    return queued ? wake() : kVELErr_Ok;
}

// The short path of a handler removing itself from its call-back: out of the polling set at
// once; the entry stays in the entry table until the next modification pass frees it.
bool VEL_IOReactor::removeDispatched(unsigned int handle, VELErr_t* code) {
    if (!isReactorThread() || _dispatching == nullptr) {
        return false;
    }
    VEL_PollingEntry* entry = _dispatching;
    {
        std::lock_guard<basis::ThreadMutex> hold(entry->_entryLock);
        if (entry->_handle != handle) {
            return false;
        }
        switch (entry->_state) {
            case kVELEntry_Removed:
                *code = kVELErr_Ok;
                return true;
            case kVELEntry_Active:
                entry->_state = kVELEntry_Removed;
                break;
            case kVELEntry_ToAdd:
            case kVELEntry_ToChange:
                return false;  // a change is queued for it: the queued removal replaces it
            default:
                *code = kVELErr_HandlerNotRegistered;
                return true;
        }
    }
    entry->_nextReleased = _releasedHead;
    _releasedHead = entry;
    releaseSlot();
    *code = removeHandle(handle);
    return true;
}

VELErr_t VEL_IOReactor::removeLocked(unsigned int handle) {
    VEL_PollingEntry* entry = _entryTable.find(handle);
    if (entry == nullptr) {
        return kVELErr_HandlerNotRegistered;
    }
    VELErr_t code = kVELErr_Ok;
    {
        std::lock_guard<basis::ThreadMutex> hold(entry->_entryLock);
        if (!_modifTable.contains(entry)) {
            if (entry->_state == kVELEntry_Removed) {
                return kVELErr_HandlerNotRegistered;
            }
            entry->_state = kVELEntry_ToRemove;
            _modifTable.insert(entry);
            addToModifList(entry);
        } else if (entry->_state == kVELEntry_ToRemove) {
            return kVELErr_HandlerNotRegistered;
        } else if (entry->_state == kVELEntry_ToChange) {
            entry->_state = kVELEntry_ToRemove;
        } else {
            // ToAdd: never polled, freed from the modification list without a back-end call.
            code = entry->_state == kVELEntry_ToAdd ? kVELErr_Ok : kVELErr_InvalidEntry;
            entry->_state = kVELEntry_Free;
            _modifTable.erase(entry);
        }
    }
    _entryTable.erase(entry);
    releaseSlot();
    return code;
}

VELErr_t VEL_IOReactor::changeEventHandlerOps(const boost::shared_ptr<VEL_EventHandler>& handler,
                                              unsigned short ops) {
    unsigned int handle = 0;
    VELErr_t code = handleOf(handler, &handle);
    bool queued = false;
    if (code == kVELErr_Ok && !changeDispatched(handle, ops, &code)) {
        boost::shared_ptr<VEL_EventHandler> replaced;  // released after the locks
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        code = changeLocked(handle, handler, ops, &replaced);
        queued = code == kVELErr_Ok;
    }
    if (code != kVELErr_Ok) {
        velframe::traceHandleError(code, handle);
        return code;
    }
    return queued ? wake() : kVELErr_Ok;
}

VELErr_t VEL_IOReactor::redispatch(const boost::shared_ptr<VEL_EventHandler>& handler,
                                   unsigned short ops) {
    if (!handler || !isReactorThread() || _dispatching == nullptr) {
        return kVELErr_InvalidAction;
    }
    unsigned int handle = VEL_Socket::kVEL_NoHandle;
    {
        std::lock_guard<basis::ThreadMutex> hold(_dispatching->_entryLock);
        // Active, or with a change of operations queued by another thread: still polled.
        if (_dispatching->_evtHandler != handler || (_dispatching->_state != kVELEntry_Active &&
                                                     _dispatching->_state != kVELEntry_ToChange)) {
            return kVELErr_InvalidAction;
        }
        handle = _dispatching->_handle;
    }
    try {
        _redispatched.push_back(Redispatch{handler, handle, ops});
    } catch (const std::bad_alloc&) {
        return kVELErr_Alloc;
    }
    return kVELErr_Ok;
}

// The short path of a handler changing its own operations from its call-back: the polling set
// changes at once and the entry records the new operations.
bool VEL_IOReactor::changeDispatched(unsigned int handle, unsigned short ops, VELErr_t* code) {
    if (!isReactorThread() || _dispatching == nullptr) {
        return false;
    }
    VEL_PollingEntry* entry = _dispatching;
    {
        std::lock_guard<basis::ThreadMutex> hold(entry->_entryLock);
        if (entry->_handle != handle ||
            (entry->_state != kVELEntry_Active && entry->_state != kVELEntry_Removed)) {
            return false;
        }
        if (entry->_state == kVELEntry_Removed || entry->_wantedOps == ops) {
            *code = entry->_state == kVELEntry_Removed ? kVELErr_HandlerNotRegistered : kVELErr_Ok;
            return true;
        }
        entry->_wantedOps = ops;
    }
    *code = changeHandleOps(handle, ops);
    return true;
}

VELErr_t VEL_IOReactor::changeLocked(unsigned int handle,
                                     const boost::shared_ptr<VEL_EventHandler>& handler,
                                     unsigned short ops,
                                     boost::shared_ptr<VEL_EventHandler>* replaced) {
    VEL_PollingEntry* entry = _entryTable.find(handle);
    if (entry == nullptr) {
        return kVELErr_HandlerNotRegistered;
    }
    std::lock_guard<basis::ThreadMutex> hold(entry->_entryLock);
    if (!_modifTable.contains(entry)) {
        if (entry->_state == kVELEntry_Removed) {
            return kVELErr_HandlerNotRegistered;
        }
        *replaced = entry->_evtHandler;
        entry->reset(kVELEntry_ToChange, ops, handler, kNoInactivityTimeout);
        _modifTable.insert(entry);
        addToModifList(entry);
        return kVELErr_Ok;
    }
    switch (entry->_state) {
        case kVELEntry_ToRemove:
            return kVELErr_HandlerNotRegistered;
        case kVELEntry_ToAdd:
        case kVELEntry_ToChange:
            *replaced = entry->_evtHandler;
            entry->reset(entry->_state, ops, handler, kNoInactivityTimeout);
            return kVELErr_Ok;
        default:
            // Queued in a state no registration leaves it in: dropped (the modification pass
            // gives it back to the pool).
            entry->_state = kVELEntry_Free;
            _modifTable.erase(entry);
            _entryTable.erase(entry);
            releaseSlot();
            return kVELErr_InvalidEntry;
    }
}

VELErr_t VEL_IOReactor::setSize(unsigned long size) {
    bool accepted = false;
    {
        std::lock_guard<basis::ThreadMutex> hold(_counterLock);
        accepted = size != 0 && size >= _nbElements.load();
        if (accepted) {
            _size.store(size);
        }
    }
    if (!accepted) {
        velframe::traceError(kVELErr_BadReactorSize);
        return kVELErr_BadReactorSize;
    }
    VEL_PollingEntry* marker = takeEntry();
    if (marker == nullptr) {
        velframe::traceError(kVELErr_Alloc);
        return kVELErr_Alloc;
    }
    {
        std::lock_guard<basis::ThreadMutex> hold(_tableLock);
        marker->_state = kVELEntry_ToResize;
        addToModifList(marker);
    }
    return wake();
}

VELErr_t VEL_IOReactor::doSetSize() {
    return kVELErr_Ok;
}

bool VEL_IOReactor::handleIdle() {
    return true;
}

void VEL_IOReactor::notifyActivity() {}

void VEL_IOReactor::setIdleTimeout(const basis::TimeValue& timeout) {
    _idleTimeoutUs.store(timeout.toMicroseconds());
}

basis::TimeValue VEL_IOReactor::getIdleTimeout() const {
    return basis::TimeValue::FromMicroseconds(_idleTimeoutUs.load());
}

void VEL_IOReactor::setInactivityTimeout(const basis::TimeValue& timeout) {
    _inactivityTimeoutUs.store(timeout.toMicroseconds());
}

basis::TimeValue VEL_IOReactor::getInactivityTimeout() const {
    return basis::TimeValue::FromMicroseconds(_inactivityTimeoutUs.load());
}

void VEL_IOReactor::setInactivityCheckFreq(unsigned short seconds) {
    _checkFreq.store(seconds);
    _checkCounter.store(0);
}

VELErr_t VEL_IOReactor::stop() {
    {
        std::lock_guard<basis::ThreadMutex> hold(_stopLock);
        _stopRequested = true;
        _stopped.store(true);
    }
    return tracedWakeUp();
}

void VEL_IOReactor::start() {
    std::lock_guard<basis::ThreadMutex> hold(_stopLock);
    _stopped.store(false);
    _stopRequested = false;
}

void VEL_IOReactor::initStop() {
    start();
}

basis::Err_t VEL_IOReactor::close(bool waitForThreads) {
    (void)stop();  // a failed wake-up is traced by stop()
    return waitForThreads ? wait() : basis::kErr_Ok;
}

void VEL_IOReactor::stopLoop() {
    if (getThreadCount() != 0) {
        (void)close(true);
    }
}
