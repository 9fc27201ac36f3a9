#include "VEL_ThreadPool.h"

#include <exception>
#include <new>

#include "Guard.h"
#include "VEL_StaticInit.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

// The pool's queue: blocking, active from the start; the dequeue condition is never needed.
constexpr bool kBlocking = true;
constexpr bool kActive = true;
constexpr unsigned long kDequeueSize = 1;

void traceItemFailure(VELErr_t code, const char* what) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ThreadError)) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("THREAD", code, what));
    }
}

}  // namespace

VEL_ThreadPool::VEL_ThreadPool(unsigned long nbThreads)
    : _queue(kBlocking, kActive, kDequeueSize), _nbThreads(nbThreads) {}

VEL_ThreadPool::VEL_ThreadPool(unsigned long nbThreads, unsigned long maxNb, bool)
    : _queue(maxNb, kBlocking, kActive, kDequeueSize), _nbThreads(nbThreads) {}

VEL_ThreadPool::~VEL_ThreadPool() {
    // The threads run members of this object: they must have ended before the queue goes.
    (void)stop();
    (void)wait();
}

basis::Err_t VEL_ThreadPool::open() {
    basis::GuardEx<basis::ThreadMutex> guard(_mutex);
    _stopped.store(false);
    return activate(_nbThreads);
}

bool VEL_ThreadPool::run() {
    if (_stopped.load()) {
        return true;
    }
    do {
        VEL_Executable* item = nullptr;
        if (_queue.get(&item, nullptr) != kVELErr_Ok) {
            break;  // deactivated by stop()
        }
        executeItem(item);
    } while (!_stopped.load());
    return true;
}

void VEL_ThreadPool::executeItem(VEL_Executable* item) {
    // One failing item must not end the thread (an escaping exception would end the process).
    try {
        item->execute();
    } catch (const std::bad_alloc& e) {
        traceItemFailure(kVELErr_Alloc, e.what());
    } catch (const std::exception& e) {
        traceItemFailure(kVELErr_StlException, e.what());
    } catch (...) {
        traceItemFailure(kVELErr_UnknownException, "");
    }
}

VELErr_t VEL_ThreadPool::stop() {
    basis::GuardEx<basis::ThreadMutex> guard(_mutex);
    if (_stopped.load()) {
        return kVELErr_Ok;
    }
    _stopped.store(true);
    return _queue.deactivate();
}

VELErr_t VEL_ThreadPool::exec(VEL_Executable* item) {
    if (item == nullptr) {
        return kVELErr_InvalidPointer;
    }
    return _queue.put(&item, nullptr);
}

VELErr_t VEL_ThreadPool::clean() {
    VELErr_t result = kVELErr_TaskRunning;
    if (_stopped.load()) {
        // No thread may take an item once the queue is active again.
        (void)wait();
    }
    (void)_queue.activate();  // always kVELErr_Ok; only a notifier could make its lock fail
    while (_stopped.load() && !_queue.isEmpty()) {
        VEL_Executable* item = nullptr;
        result = _queue.get(&item, nullptr);
        if (result != kVELErr_Ok) {
            break;
        }
        delete item;
    }
    (void)_queue.deactivate();  // fails only from inside a notifier, and the pool has none
    return _queue.isEmpty() ? kVELErr_Ok : result;
}
