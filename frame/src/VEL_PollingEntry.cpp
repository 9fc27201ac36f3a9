#include "VEL_PollingEntry.h"

#include <mutex>

#include "Tools.h"
#include "VEL_FrameTrace.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

// The call-backs that the ready bits select, in the order they run (close comes last, apart).
constexpr unsigned short kDispatchOrder[] = {kVELOp_Read, kVELOp_Write, kVELOp_Inactivity};

}  // namespace

VEL_PollingEntry::VEL_PollingEntry()
    : _state(kVELEntry_Free),
      _wantedOps(0),
      _readyOps(0),
      _handle(VEL_Socket::kVEL_NoHandle),
      _nextPending(nullptr),
      _nextModif(nullptr),
      _nextReleased(nullptr),
      _pending(false),
      _poolObject(nullptr) {}

VEL_PollingEntry::~VEL_PollingEntry() = default;

void VEL_PollingEntry::reset(VELEntryState_t state, unsigned short ops,
                             const boost::shared_ptr<VEL_EventHandler>& handler,
                             const basis::TimeValue& inactivityTimeout) {
    _state = state;
    _wantedOps = ops;
    _readyOps.store(0, std::memory_order_relaxed);
    _evtHandler = handler;
    if (handler) {
        _handle = handler->getHandle();
        handler->notifyActivity(basis::TimeValue::GetHRTime());
    }
    _inactivityTimeout = inactivityTimeout;
}

bool VEL_PollingEntry::isValid() const {
    return _state == kVELEntry_Active || _state == kVELEntry_ToAdd || _state == kVELEntry_ToChange;
}

VEL_PollingEntry::View VEL_PollingEntry::look() {
    std::lock_guard<basis::ThreadMutex> hold(_entryLock);
    return View{isValid(), _readyOps.load(std::memory_order_relaxed), _handle, _evtHandler};
}

// Runs one call-back; a failure (false or an exception) is followed by handleClose(), and a
// failing handleClose() gives kVELErr_UserCode.
VELErr_t VEL_PollingEntry::callBack(const View& view, unsigned short op) {
    VEL_EventHandler& handler = *view.handler;
    const bool carryOn = velframe::runGuarded([&handler, op] {
        switch (op) {
            case kVELOp_Read:
                return handler.handleInput();
            case kVELOp_Write:
                return handler.handleOutput(nullptr);
            case kVELOp_Inactivity:
                return handler.handleInactivity();
            default:
                return handler.handleClose();
        }
    });
    if (carryOn || (op != kVELOp_Close &&
                    velframe::runGuarded([&handler] { return handler.handleClose(); }))) {
        return kVELErr_Ok;
    }
    velframe::traceHandleError(kVELErr_UserCode, view.handle);
    return kVELErr_UserCode;
}

VELErr_t VEL_PollingEntry::processEvents(const basis::TimeValue& now) {
    VELErr_t result = kVELErr_Ok;
    View view = look();
    if (view.handler) {
        view.handler->notifyActivity(now);
    } else {
        // A ready bit on an entry without handler breaks the reactor's invariants; the
        // call-backs are skipped.
        velframe::traceInfo(
                "Warning ! VEL_PollingEntry in VEL_IOReactor::processEvent has a NULL _evtHandler");
    }
    // The state and handler are read again after each call-back: it may have unregistered the
    // handler or another thread may have changed the entry meanwhile.
    for (const unsigned short op : kDispatchOrder) {
        if (view.valid && view.handler && (view.ready & op) != 0) {
            if (callBack(view, op) != kVELErr_Ok) {
                result = kVELErr_UserCode;
            }
            view = look();
        }
    }
    if (view.valid && view.handler && (view.ready & kVELOp_Close) != 0 &&
        callBack(view, kVELOp_Close) != kVELErr_Ok) {
        result = kVELErr_UserCode;
    }
    std::lock_guard<basis::ThreadMutex> hold(_entryLock);
    _readyOps.store(0, std::memory_order_relaxed);
    return result;
}

VEL_PollingTable::VEL_PollingTable(Kind kind, unsigned long size)
    : _kind(kind), _buckets(basis::nextPrime_(static_cast<unsigned int>(2 * size + 1)), nullptr) {}

VEL_PollingEntry* VEL_PollingTable::find(unsigned int handle) const {
    VEL_PollingEntry* entry = _buckets[handle % _buckets.size()];
    while (entry != nullptr && link(entry).key != handle) {
        entry = link(entry).chain;
    }
    return entry;
}

void VEL_PollingTable::insert(VEL_PollingEntry* entry) {
    VEL_PollingEntry::TableLink& own = link(entry);
    own.key = entry->_handle;
    own.in = true;
    VEL_PollingEntry*& head = bucket(own.key);
    own.chain = head;
    head = entry;
    own.prev = _last;
    own.next = nullptr;
    (_last != nullptr ? link(_last).next : _first) = entry;
    _last = entry;
    ++_count;
}

void VEL_PollingTable::erase(VEL_PollingEntry* entry) {
    VEL_PollingEntry::TableLink& own = link(entry);
    if (!own.in) {
        return;
    }
    VEL_PollingEntry** slot = &bucket(own.key);
    while (*slot != entry) {
        slot = &link(*slot).chain;
    }
    *slot = own.chain;
    (own.prev != nullptr ? link(own.prev).next : _first) = own.next;
    (own.next != nullptr ? link(own.next).prev : _last) = own.prev;
    own = VEL_PollingEntry::TableLink();
    --_count;
}
