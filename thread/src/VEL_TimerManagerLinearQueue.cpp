#include "VEL_TimerManagerLinearQueue.h"

#include <cassert>
#include <mutex>

#include "VEL_StaticInit.h"

namespace {
const VEL_StaticInit kStaticInit;
}  // namespace

VEL_TimerManager* VEL_TimerManagerLinearQueue::GetInstance() {
    return Started(new VEL_TimerManagerLinearQueue());
}

VEL_TimerManagerLinearQueue::~VEL_TimerManagerLinearQueue() {
    stopTimer();
    (void)wait();
    clearList();
}

unsigned long VEL_TimerManagerLinearQueue::unsubscribe(unsigned long id) {
    return cancelTimer(id, &_list);
}

unsigned long VEL_TimerManagerLinearQueue::subscribeImpl(
        const boost::shared_ptr<VEL_TimerSubscriberInterface>& subscriber, unsigned long duration,
        long period) {
    return startTimer(subscriber, duration, period);
}

void VEL_TimerManagerLinearQueue::subscribeHandler(VEL_TimerHandler* handler, unsigned long) {
    placeHandler(handler);
}

// The list has its own lock; the registry lock is not needed, though the caller may hold it.
void VEL_TimerManagerLinearQueue::placeHandler(VEL_TimerHandler* handler) {
    std::lock_guard<basis::ThreadMutex> hold(_list.getLock());
    _list.insert(*handler);
    handler->setPos(0);
}

bool VEL_TimerManagerLinearQueue::executeSubscribers() {
    assert(basis::Thread::Equal(basis::Thread::Self(), _threadId));
    while (!isStopping()) {
        notifyActivity();
        const basis::TimeValue now = basis::TimeValue::GetHRTime();
        collectDue(now);
        triggerAll(_due);
        // Expiry dates stand on tick boundaries, so waking at each one misses none.
        sleepFor(NextTick(now) - basis::TimeValue::GetHRTime());
    }
    _due.clear();
    return true;
}

void VEL_TimerManagerLinearQueue::collectDue(const basis::TimeValue& now) {
    std::lock_guard<basis::ThreadMutex> hold(_list.getLock());
    while (VEL_TimerHandler* handler = _list.takeDue(now)) {
        _due.pushBack(*handler);
    }
}

basis::Err_t VEL_TimerManagerLinearQueue::close(bool waitForThreads) {
    stopTimer();
    const basis::Err_t result = VEL_TimerManager::close(waitForThreads);
    if (waitForThreads) {
        clearList();
    }
    return result;
}

void VEL_TimerManagerLinearQueue::clearList() {
    {
        std::lock_guard<basis::ThreadMutex> hold(_list.getLock());
        _list.clear();
    }
    _due.clear();
}
