#include "VEL_TimerManagerCircularQueue.h"

#include <cassert>
#include <mutex>

#include "VEL_StaticInit.h"

namespace {
const VEL_StaticInit kStaticInit;
}  // namespace

VEL_TimerManager* VEL_TimerManagerCircularQueue::GetInstance() {
    return Started(new VEL_TimerManagerCircularQueue());
}

VEL_TimerManagerCircularQueue::VEL_TimerManagerCircularQueue()
    : _wheelDate(NextTick(basis::TimeValue::GetHRTime())) {}

VEL_TimerManagerCircularQueue::~VEL_TimerManagerCircularQueue() {
    stopTimer();
    (void)wait();
    clearWheel();
}

unsigned long VEL_TimerManagerCircularQueue::unsubscribe(unsigned long id) {
    return cancelTimer(id, _slots);
}

unsigned long VEL_TimerManagerCircularQueue::subscribeImpl(
        const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber, unsigned long duration,
        long period) {
    return startTimer(subscriber, duration, period);
}

void VEL_TimerManagerCircularQueue::subscribeHandler(VEL_TimerHandler* handler, unsigned long) {
    basis::ReadGuard<basis::RWThreadMutex> wheel(_registryLock);
    placeHandler(handler);
}

// The registry lock, held by the caller, keeps the wheel from turning past the chosen slot.
void VEL_TimerManagerCircularQueue::placeHandler(VEL_TimerHandler* handler) {
    const long long ahead = (handler->getCurrentDate() - _wheelDate).toMicroseconds();
    const unsigned long long ticks =
            ahead <= 0 ? 0
                       : (static_cast<unsigned long long>(ahead) + kTickMicroseconds - 1) /
                                 kTickMicroseconds;
    const unsigned long slot = (_current + ticks + 1) % kSlotCount;
    VEL_TimerSlot& target = _slots[slot];
    std::lock_guard<basis::ThreadMutex> hold(target.getLock());
    target.insert(*handler);
    handler->setPos(slot);
}

// The wheel's date is written only on this thread, so it is read here unlocked.
bool VEL_TimerManagerCircularQueue::executeSubscribers() {
    assert(basis::Thread::Equal(basis::Thread::Self(), _threadId));
    while (!isStopping()) {
        notifyActivity();
        collectDue(basis::TimeValue::GetHRTime());
        triggerAll(_due);
        sleepFor(_wheelDate - basis::TimeValue::GetHRTime());
    }
    _due.clear();
    return true;
}

void VEL_TimerManagerCircularQueue::collectDue(const basis::TimeValue& now) {
    const basis::TimeValue tick(0, kTickMicroseconds);
    while (_wheelDate <= now) {
        VEL_TimerSlot& slot = _slots[_current];
        {
            std::lock_guard<basis::ThreadMutex> hold(slot.getLock());
            while (VEL_TimerHandler* handler = slot.takeDue(now)) {
                _due.pushBack(*handler);
            }
        }
        basis::WriteGuard<basis::RWThreadMutex> turn(_registryLock);
        _current = (_current + 1) % kSlotCount;
        _wheelDate += tick;
    }
}

basis::Err_t VEL_TimerManagerCircularQueue::close(bool waitForThreads) {
    stopTimer();
    const basis::Err_t result = VEL_TimerManager::close(waitForThreads);
    if (waitForThreads) {
        clearWheel();
    }
    return result;
}

void VEL_TimerManagerCircularQueue::clearWheel() {
    for (VEL_TimerSlot& slot : _slots) {
        std::lock_guard<basis::ThreadMutex> hold(slot.getLock());
        slot.clear();
    }
    _due.clear();
}
