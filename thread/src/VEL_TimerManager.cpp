#include "VEL_TimerManager.h"

#include <memory>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

#include <boost/weak_ptr.hpp>

#include "Guard.h"
#include "VEL_StaticInit.h"
#include "VEL_TimerManagerCircularQueue.h"
#include "VEL_TimerManagerCircularQueueAsync.h"
#include "VEL_TimerManagerLinearQueue.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

// Handlers are made in blocks; a large block keeps the pool's growth cheap when many timers are
// armed at once.
constexpr unsigned long kHandlerBlock = 1024;

void traceDeletedSubscriber(const char* text) {
    if (VEL_Tools::IsTraceOn(kVELTrace_Thread)) {
        VEL_Tools::TraceText(kVELLevel_Info, std::string("THREAD - ") + text);
    }
}

const char kDeletedOnEvent[] = "Handle event of already deleted subscriber";
const char kDeletedOnCancel[] = "Close already deleted subscriber";

// True on the manager's own threads (the timer thread, and the second stage of the asynchronous
// strategy), where callbacks run and where subscribers are often released.
thread_local bool tTimerThread = false;
// True on a thread while it runs CloseSingleton, which releases subscribers.
thread_local bool tClosing = false;

// CloseSingleton refused: level 2, under the thread module's error mask.
void traceRefusedClose(const char* why) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ThreadError)) {
        VEL_Tools::TraceText(kVELLevel_Warn,
                             VEL_Tools::ErrText("THREAD", kVELErr_TaskRunning, why));
    }
}

// Marks the calling thread as closing the manager for one scope.
class ClosingScope {
public:
    ClosingScope() { tClosing = true; }
    ~ClosingScope() { tClosing = false; }
    ClosingScope(const ClosingScope&) = delete;
    ClosingScope& operator=(const ClosingScope&) = delete;
};

}  // namespace

// Forwards to an object the manager does not own.
class VEL_TimerManager::RawPtrWrapperSubscriber : public VEL_TimerSubscriberInterface {
public:
    explicit RawPtrWrapperSubscriber(VEL_TimerSubscriberInterface* subscriber)
        : _subscriber(subscriber) {}

    void handleEvent(unsigned long timerId) override {
        if (_subscriber == nullptr) {
            traceDeletedSubscriber(kDeletedOnEvent);
            return;
        }
        _subscriber->handleEvent(timerId);
    }
    void cancel() override {
        if (_subscriber == nullptr) {
            traceDeletedSubscriber(kDeletedOnCancel);
            return;
        }
        _subscriber->cancel();
    }

private:
    VEL_TimerSubscriberInterface* const _subscriber;
};

// Forwards to a subscriber while it exists, holding it only for the call. Once it has gone, the
// timer ends at its next expiry: a repeating one would otherwise live, and trace, for ever.
class VEL_TimerManager::WeakPtrWrapperSubscriber : public VEL_TimerSubscriberInterface {
public:
    WeakPtrWrapperSubscriber(VEL_TimerManager& manager,
                             const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber)
        : _manager(manager), _subscriber(subscriber) {}

    void handleEvent(unsigned long timerId) override {
        const boost::shared_ptr<VEL_TimerSubscriberInterface> subscriber = _subscriber.lock();
        if (!subscriber) {
            traceDeletedSubscriber(kDeletedOnEvent);
            // On its way to this callback, the timer is only marked: it ends when the callback
            // returns, and its handler and identifier go back then.
            (void)_manager.unsubscribe(timerId);
            return;
        }
        subscriber->handleEvent(timerId);
    }
    void cancel() override {
        const boost::shared_ptr<VEL_TimerSubscriberInterface> subscriber = _subscriber.lock();
        if (!subscriber) {
            traceDeletedSubscriber(kDeletedOnCancel);
            return;
        }
        subscriber->cancel();
    }

private:
    VEL_TimerManager& _manager;  // outlives its timers, and so this wrapper
    const boost::weak_ptr<VEL_TimerSubscriberInterface> _subscriber;
};

std::atomic<VELTimerAlgorithm_t> VEL_TimerManager::_Algo{kVELTimerAlgo_CircularAsync};
std::atomic<VEL_TimerManager::Factory_t> VEL_TimerManager::_Factory{nullptr};
std::atomic<VEL_TimerManager*> VEL_TimerManager::_Instance{nullptr};
basis::ThreadMutex VEL_TimerManager::_InstanceMutex;

void VEL_TimerManager::Init(VELTimerAlgorithm_t algorithm) {
    _Algo.store(algorithm);
}

void VEL_TimerManager::RegisterFactory(Factory_t factory) {
    _Factory.store(factory);
}

VEL_TimerManager* VEL_TimerManager::GetInstance() {
    VEL_TimerManager* instance = _Instance.load(std::memory_order_acquire);
    if (instance != nullptr) {
        return instance;
    }
    basis::GuardEx<basis::ThreadMutex> hold(_InstanceMutex);
    instance = _Instance.load();
    if (instance == nullptr) {
        const Factory_t factory = _Factory.load();
        instance = factory != nullptr ? factory() : Create(_Algo.load());
        _Instance.store(instance, std::memory_order_release);
    }
    return instance;
}

VEL_TimerManager* VEL_TimerManager::PeekInstance() {
    return _Instance.load(std::memory_order_acquire);
}

VEL_TimerManager* VEL_TimerManager::Create(VELTimerAlgorithm_t algorithm) {
    switch (algorithm) {
        case kVELTimerAlgo_Linear:
            return VEL_TimerManagerLinearQueue::GetInstance();
        case kVELTimerAlgo_Circular:
            return VEL_TimerManagerCircularQueue::GetInstance();
        case kVELTimerAlgo_CircularAsync:
            return VEL_TimerManagerCircularQueueAsync::GetInstance();
    }
    return nullptr;
}

void VEL_TimerManager::CloseSingleton() {
    // A timer thread cannot join itself, and a close that releases a subscriber whose destructor
    // closes again would take _InstanceMutex twice: both are refused, and the manager stays as
    // it is for a later close from an ordinary thread.
    if (tTimerThread) {
        traceRefusedClose(
                "CloseSingleton called from a timer thread: the timer manager stays open");
        return;
    }
    if (tClosing) {
        traceRefusedClose("CloseSingleton called while the timer manager is closing: ignored");
        return;
    }
    const ClosingScope closing;
    VEL_TimerManager* closed = nullptr;
    {
        basis::GuardEx<basis::ThreadMutex> hold(_InstanceMutex);
        closed = _Instance.load();
        if (closed != nullptr) {
            closed->stopTimer();
            (void)closed->wait();
            (void)closed->close(true);
            // Subscribers released here may reach the manager from their destructors: it is
            // still the instance, with nothing left to cancel.
            closed->releaseAll();
            _Instance.store(nullptr);
        }
    }
    delete closed;
    VEL_TimerHandler::CloseGenerator();
}

VEL_TimerManager* VEL_TimerManager::Started(VEL_TimerManager* manager) {
    std::unique_ptr<VEL_TimerManager> owned(manager);
    (void)owned->open();  // kErr_Ok or an exception
    return owned.release();
}

VEL_TimerManager::VEL_TimerManager() : _handlerPool(kHandlerBlock) {}

VEL_TimerManager::~VEL_TimerManager() {
    // The strategies have joined their threads; what is left are timers nobody ended.
    releaseAll();
}

basis::Err_t VEL_TimerManager::open() {
    _stop.store(false);
    if (activate(1, &_threadId) == basis::kErr_Ok) {
        return basis::kErr_Ok;
    }
    _stop.store(true);
    ThrowSpawnFailure();
}

void VEL_TimerManager::ThrowSpawnFailure() {
    const std::string reason = "Failed to spawn timer manager thread : " +
                               std::to_string(basis::Thread::GetLastSystemErr());
    if (VEL_Tools::IsTraceOn(kVELTrace_ThreadError)) {
        VEL_Tools::TraceText(
                kVELLevel_Error,
                "THREAD -  " + VEL_Tools::GetErrStr(kVELErr_TimerSpawn) + " ; " + reason);
    }
    throw std::runtime_error(reason);
}

void VEL_TimerManager::EnterTimerThread() {
    tTimerThread = true;
}

bool VEL_TimerManager::run() {
    EnterTimerThread();
    bool result = true;
    while (!_stop.load()) {
        RunCatching([this, &result] { result = executeSubscribers(); });
    }
    return result;
}

void VEL_TimerManager::RunCatching(const std::function<void()>& work) {
    try {
        work();
    } catch (const std::bad_alloc&) {
        TraceCaught(kVELErr_Alloc, "VEL_TimerManager caught memory exception.");
    } catch (const std::exception&) {
        TraceCaught(kVELErr_StlException, "VEL_TimerManager caught STL exception.");
    } catch (...) {
        TraceCaught(kVELErr_UnknownException, "VEL_TimerManager caught unknown exception.");
    }
}

void VEL_TimerManager::TraceCaught(VELErr_t code, const char* text) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ThreadError)) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("THREAD", code, text));
    }
}

unsigned long VEL_TimerManager::subscribe(
        const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber, unsigned long duration,
        long period, bool weak) {
    if (!weak) {
        return subscribeImpl(subscriber, duration, period);
    }
    const boost::shared_ptr<VEL_TimerSubscriberInterface> wrapper(
            new WeakPtrWrapperSubscriber(*this, subscriber));
    return subscribeImpl(wrapper, duration, period);
}

unsigned long VEL_TimerManager::subscribe(VEL_TimerSubscriberInterface* subscriber,
                                          unsigned long duration, long period) {
    const boost::shared_ptr<VEL_TimerSubscriberInterface> wrapper(
            new RawPtrWrapperSubscriber(subscriber));
    return subscribeImpl(wrapper, duration, period);
}

void VEL_TimerManager::removeTimer(unsigned long id) {
    if (id > UINT32_MAX) {
        return;
    }
    VEL_TimerHandler* handler = nullptr;
    {
        basis::WriteGuard<basis::RWThreadMutex> hold(_registryLock);
        handler = _registry.erase(static_cast<std::uint32_t>(id));
    }
    if (handler != nullptr) {
        handler->unlock();
    }
}

void VEL_TimerManager::notifyActivity() {}

void VEL_TimerManager::stopTimer() {
    std::lock_guard<basis::ThreadMutex> hold(_wakeLock);
    _stop.store(true);
    (void)_wakeUp.broadcast();  // cannot fail with the lock held
}

bool VEL_TimerManager::triggerSubscriber(VEL_TimerHandler* handler, unsigned long arg) {
    return handler->trigger(this, arg);
}

basis::TimeValue VEL_TimerManager::NextTick(const basis::TimeValue& date) {
    return basis::TimeValue(date.getSecond(),
                            (date.getMicrosecond() / kTickMicroseconds + 1) * kTickMicroseconds);
}

unsigned long VEL_TimerManager::startTimer(
        const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber, unsigned long duration,
        long period) {
    basis::Object<VEL_TimerHandler>* pooled = nullptr;
    if (_handlerPool.getFreeObject(&pooled) != basis::kErr_Ok) {
        return 0;
    }
    VEL_TimerHandler* handler = pooled->get();
    handler->setTimer(duration, period, subscriber, pooled,
                      NextTick(basis::TimeValue::GetHRTime()));
    // Read before the handler is placed: from then on it may fire, end and be armed again.
    const unsigned long id = handler->getID();
    bool entered = false;
    {
        basis::WriteGuard<basis::RWThreadMutex> hold(_registryLock);
        try {
            _registry.insert(static_cast<std::uint32_t>(id), handler);
            entered = true;
        } catch (const std::bad_alloc&) {
        }
        if (entered) {
            placeHandler(handler);
        }
    }
    if (!entered) {
        handler->unlock();
        return 0;
    }
    return id;
}

unsigned long VEL_TimerManager::cancelTimer(unsigned long id, VEL_TimerSlot* slots) {
    if (id > UINT32_MAX) {
        return 0;
    }
    VEL_TimerHandler* handler = nullptr;
    bool waiting = false;
    {
        basis::WriteGuard<basis::RWThreadMutex> hold(_registryLock);
        handler = _registry.find(static_cast<std::uint32_t>(id));
        if (handler == nullptr) {
            return 0;
        }
        // With the registry held for writing nobody places the handler, so if it is in a slot
        // at all, it is in the one its position names.
        VEL_TimerSlot& slot = slots[handler->getPos()];
        std::lock_guard<basis::ThreadMutex> slotHold(slot.getLock());
        waiting = slot.remove(*handler);
        if (waiting) {
            (void)_registry.erase(static_cast<std::uint32_t>(id));
        } else {
            // The timer thread holds it for its trigger; the timer ends there, through
            // removeTimer. Keep the handler out of the pool until it is detached below.
            handler->cancel(false);
            handler->retain();
        }
    }
    if (!waiting) {
        handler->detach();
        return 0;
    }
    handler->cancelAndUnlock();
    return id;
}

void VEL_TimerManager::triggerAll(VEL_TimerDueList& due) {
    // No callback starts once the manager is stopping; what is left stays registered and is
    // released by the close.
    while (!isStopping()) {
        VEL_TimerHandler* handler = due.popFront();
        if (handler == nullptr) {
            break;
        }
        if (triggerSubscriber(handler, handler->getPos())) {
            removeTimer(handler->getID());
        }
    }
}

void VEL_TimerManager::sleepFor(const basis::TimeValue& span) {
    const basis::TimeValue tick(0, kTickMicroseconds);
    basis::TimeValue limit = span < tick ? span : tick;
    std::lock_guard<basis::ThreadMutex> hold(_wakeLock);
    if (!_stop.load() && limit > basis::TimeValue::kZero) {
        (void)_wakeUp.wait(&limit);  // woken early by stopTimer; a time-out is the normal end
    }
}

void VEL_TimerManager::releaseAll() {
    VEL_TimerRegistry registry;
    {
        basis::WriteGuard<basis::RWThreadMutex> hold(_registryLock);
        registry.swap(_registry);
    }
    registry.forEach([](VEL_TimerHandler* handler) { handler->unlock(); });
}
