#include "VEL_TimerManagerCircularQueueAsync.h"

#include "Task.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

// Room for this many requests at first; the queue doubles when a burst of timers fills it.
constexpr unsigned long kInitialRequests = 1024;

}  // namespace

// The thread that calls the subscribers.
class VEL_TimerManagerCircularQueueAsync::SecondStage : public basis::Task {
public:
    explicit SecondStage(VEL_TimerManagerCircularQueueAsync& owner) : _owner(owner) {}
    ~SecondStage() override { (void)wait(); }

    basis::Err_t open() override { return activate(1); }

protected:
    bool run() override {
        EnterTimerThread();
        _owner.runRequests();
        return true;
    }

private:
    VEL_TimerManagerCircularQueueAsync& _owner;
};

VEL_TimerManager* VEL_TimerManagerCircularQueueAsync::GetInstance() {
    return Started(new VEL_TimerManagerCircularQueueAsync());
}

VEL_TimerManagerCircularQueueAsync::VEL_TimerManagerCircularQueueAsync()
    : _requests(kInitialRequests, true, false, 1), _stage(new SecondStage(*this)) {
    // A full queue grows instead of making the timer thread wait.
    _requests.setAutoResizable(true);
}

VEL_TimerManagerCircularQueueAsync::~VEL_TimerManagerCircularQueueAsync() {
    stopTimer();
    (void)wait();
    (void)_stage->wait();
}

basis::Err_t VEL_TimerManagerCircularQueueAsync::open() {
    (void)_requests.activate();
    if (_stage->open() != basis::kErr_Ok) {
        (void)_requests.deactivate();
        ThrowSpawnFailure();
    }
    try {
        return VEL_TimerManagerCircularQueue::open();
    } catch (...) {
        (void)_requests.deactivate();
        (void)_stage->wait();
        throw;
    }
}

bool VEL_TimerManagerCircularQueueAsync::triggerSubscriber(VEL_TimerHandler* handler,
                                                           unsigned long slot) {
    const Request request{handler, slot};
    // Never waits: a full queue grows, and one that cannot take the request refuses it at once.
    if (_requests.put(&request, &basis::TimeValue::kZero) != kVELErr_Ok && !isStopping()) {
        subscribeHandler(handler, slot);
    }
    return false;
}

void VEL_TimerManagerCircularQueueAsync::stopTimer() {
    VEL_TimerManagerCircularQueue::stopTimer();
    (void)_requests.deactivate();  // wakes the second stage, which returns
}

basis::Err_t VEL_TimerManagerCircularQueueAsync::close(bool waitForThreads) {
    stopTimer();
    if (waitForThreads) {
        (void)_stage->wait();
    }
    // Requests left in the queue name timers that are still registered: the close ends them.
    return VEL_TimerManagerCircularQueue::close(waitForThreads);
}

void VEL_TimerManagerCircularQueueAsync::runRequests() {
    Request request{nullptr, 0};
    while (_requests.get(&request, nullptr) == kVELErr_Ok) {
        if (isStopping()) {
            continue;  // no callback starts once stopping; the queue refuses the next get
        }
        RunCatching([this, &request] {
            if (VEL_TimerManager::triggerSubscriber(request.handler, request.slot)) {
                removeTimer(request.handler->getID());
            }
        });
    }
}
