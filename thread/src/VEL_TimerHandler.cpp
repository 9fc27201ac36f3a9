#include "VEL_TimerHandler.h"

#include <climits>
#include <exception>
#include <mutex>
#include <new>

#include "Guard.h"
#include "VEL_StaticInit.h"
#include "VEL_TimerManager.h"

namespace {

const VEL_StaticInit kStaticInit;

// Holds a handler's mutex for one scope unless the calling thread holds it already, which is the
// case when a callback reaches its own handler; the outer holder then keeps it.
class HoldUnlessOwned {
public:
    explicit HoldUnlessOwned(basis::ThreadMutex& mutex)
        : _mutex(mutex), _acquired(!mutex.isHeldBySelf() && mutex.acquire() == basis::kErr_Ok) {}
    ~HoldUnlessOwned() {
        if (_acquired) {
            (void)_mutex.release();  // held by this thread: cannot fail
        }
    }
    HoldUnlessOwned(const HoldUnlessOwned&) = delete;
    HoldUnlessOwned& operator=(const HoldUnlessOwned&) = delete;

private:
    basis::ThreadMutex& _mutex;
    const bool _acquired;
};

std::int32_t clampRepeatCount(long repeatCount) {
    if (repeatCount < 0) {
        return -1;
    }
    return repeatCount > INT32_MAX ? INT32_MAX : static_cast<std::int32_t>(repeatCount);
}

// Runs one call into a subscriber; an exception it throws is traced and reported as false.
template <class Call>
bool callSubscriber(Call call) {
    try {
        call();
        return true;
    } catch (const std::bad_alloc&) {
        VEL_TimerManager::TraceCaught(kVELErr_Alloc, "Timer caught memory exception.");
    } catch (const std::exception&) {
        VEL_TimerManager::TraceCaught(kVELErr_StlException, "Timer caught STL exception.");
    } catch (...) {
        VEL_TimerManager::TraceCaught(kVELErr_UnknownException, "Timer caught unknown exception.");
    }
    return false;
}

}  // namespace

basis::ThreadMutex* VEL_TimerHandler::_GeneratorLock = nullptr;
basis::VolatileUID<unsigned long>* VEL_TimerHandler::_Generator = nullptr;
std::uint32_t VEL_TimerHandler::_LastIssued = 0;

void VEL_TimerHandler::setTimer(unsigned long duration, long repeatCount,
                                boost::shared_ptr<VEL_TimerSubscriberInterface> subscriber,
                                basis::Object<VEL_TimerHandler>* pooled,
                                const basis::TimeValue& now) {
    _duration = duration > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(duration);
    _repeatCount.store(clampRepeatCount(repeatCount));
    // No lock: the handler is not armed, so no other thread reaches it; the pool's lock orders
    // this after the previous timer's last use.
    _subscriber = std::move(subscriber);
    _pooled = pooled;
    _date = basis::TimeValue(now.getSecond() + static_cast<long>(_duration), now.getMicrosecond());
    _id = static_cast<std::uint32_t>(DrawID());
}

bool VEL_TimerHandler::trigger(VEL_TimerManager* manager, unsigned long arg) {
    // A local reference keeps the subscriber alive through its callback even if the callback
    // drops the handler's reference; it is released after the mutex, since the subscriber's
    // destructor may call back into the manager.
    boost::shared_ptr<VEL_TimerSubscriberInterface> subscriber;
    bool called = false;
    {
        std::lock_guard<basis::ThreadMutex> hold(_mutex);
        subscriber = _subscriber;
        if (!subscriber) {
            return true;
        }
        const unsigned long id = _id;
        called = callSubscriber([&subscriber, id] { subscriber->handleEvent(id); });
    }
    if (!called) {
        return true;
    }
    // cancel(false) may store 0 at any moment; the exchange decides on one value.
    std::int32_t count = _repeatCount.load();
    std::int32_t next;
    do {
        if (count == 0) {
            return true;
        }
        next = count > 0 ? count - 1 : count;
    } while (!_repeatCount.compare_exchange_weak(count, next));
    // From the previous expiry, not from now, so that repetitions do not drift. The last shot of
    // a counted timer moves the date on too: the date is always that of the next shot due.
    _date += basis::TimeValue(static_cast<long>(_duration), 0);
    if (next == 0) {
        return true;
    }
    manager->subscribeHandler(this, arg);
    return false;
}

void VEL_TimerHandler::cancel(bool final) {
    if (!final) {
        _repeatCount.store(0);
        return;
    }
    // Released after the mutex: the subscriber's destructor may call back into the manager.
    const boost::shared_ptr<VEL_TimerSubscriberInterface> dropped = takeSubscriber(true);
}

void VEL_TimerHandler::cancelAndUnlock() {
    takeSubscriber(true).reset();
    giveBack();
}

boost::shared_ptr<VEL_TimerSubscriberInterface> VEL_TimerHandler::takeSubscriber(bool tell) {
    boost::shared_ptr<VEL_TimerSubscriberInterface> taken;
    HoldUnlessOwned hold(_mutex);
    if (tell && _subscriber) {
        VEL_TimerSubscriberInterface& subscriber = *_subscriber;
        (void)callSubscriber([&subscriber] { subscriber.cancel(); });  // traced if it throws
    }
    taken.swap(_subscriber);
    return taken;
}

bool VEL_TimerHandler::isCanceled() const {
    HoldUnlessOwned hold(_mutex);
    return !_subscriber;
}

void VEL_TimerHandler::retain() {
    if (_pooled != nullptr) {
        _pooled->lock();
    }
}

void VEL_TimerHandler::detach() {
    boost::shared_ptr<VEL_TimerSubscriberInterface> dropped;
    if (!_mutex.isHeldBySelf()) {
        std::lock_guard<basis::ThreadMutex> hold(_mutex);
        dropped.swap(_subscriber);
    }
    dropped.reset();
    if (_pooled != nullptr) {
        _pooled->unlock();
    }
}

void VEL_TimerHandler::unlock() {
    // The subscriber goes first: its destructor may still unsubscribe this identifier, which
    // must not name another timer by then.
    takeSubscriber(false).reset();
    giveBack();
}

void VEL_TimerHandler::giveBack() {
    ReturnID(_id);
    if (_pooled != nullptr) {
        _pooled->unlock();  // the handler may be armed again from here on
    }
}

void VEL_TimerHandler::CloseGenerator() {
    basis::GuardEx<basis::ThreadMutex> hold(*_GeneratorLock);
    if (_Generator != nullptr) {
        _LastIssued = _Generator->getLastIssued();
        delete _Generator;
        _Generator = nullptr;
    }
}

basis::VolatileUID<unsigned long>* VEL_TimerHandler::GetGenerator() {
    if (_Generator == nullptr) {
        _Generator = new basis::VolatileUID<unsigned long>(_LastIssued);
    }
    return _Generator;
}

unsigned long VEL_TimerHandler::DrawID() {
    basis::GuardEx<basis::ThreadMutex> hold(*_GeneratorLock);
    return GetGenerator()->getID();
}

void VEL_TimerHandler::ReturnID(unsigned long id) {
    basis::GuardEx<basis::ThreadMutex> hold(*_GeneratorLock);
    GetGenerator()->releaseID(id);
}

void VEL_TimerSlot::insert(VEL_TimerHandler& handler) {
    const std::pair<Tree::iterator, bool> placed = _newest.insert_unique(handler);
    if (!placed.second) {
        // The date has a group already: the handler becomes its newest.
        VEL_TimerHandler& previous = *placed.first;
        _newest.replace_node(placed.first, handler);
        handler._older = &previous;
        previous._newer = &handler;
    }
    ++_count;
}

bool VEL_TimerSlot::remove(VEL_TimerHandler& handler) {
    if (handler._slotHook.is_linked()) {
        removeNewest(handler);
    } else if (handler._newer != nullptr) {
        handler._newer->_older = handler._older;
        if (handler._older != nullptr) {
            handler._older->_newer = handler._newer;
        }
        handler._newer = nullptr;
        handler._older = nullptr;
    } else {
        return false;
    }
    --_count;
    return true;
}

VEL_TimerHandler* VEL_TimerSlot::takeDue(const basis::TimeValue& now) {
    if (_newest.empty()) {
        return nullptr;
    }
    VEL_TimerHandler& first = *_newest.begin();
    if (now < first.getCurrentDate()) {
        return nullptr;
    }
    removeNewest(first);
    --_count;
    return &first;
}

void VEL_TimerSlot::clear() {
    _newest.clear_and_dispose([](VEL_TimerHandler* newest) {
        for (VEL_TimerHandler* handler = newest; handler != nullptr;) {
            VEL_TimerHandler* const older = handler->_older;
            handler->_newer = nullptr;
            handler->_older = nullptr;
            handler = older;
        }
    });
    _count = 0;
}

void VEL_TimerSlot::removeNewest(VEL_TimerHandler& handler) {
    VEL_TimerHandler* const older = handler._older;
    if (older == nullptr) {
        _newest.erase(_newest.iterator_to(handler));
        return;
    }
    _newest.replace_node(_newest.iterator_to(handler), *older);
    older->_newer = nullptr;
    handler._older = nullptr;
}

VEL_TimerHandler* VEL_TimerDueList::popFront() {
    if (_handlers.empty()) {
        return nullptr;
    }
    VEL_TimerHandler* handler = &_handlers.front();
    _handlers.pop_front();
    return handler;
}
