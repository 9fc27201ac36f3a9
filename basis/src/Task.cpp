#include "Task.h"

#include <system_error>

namespace basis {

Task::~Task() {
    // Derived classes end and join their threads before this runs; this only keeps a thread
    // that was left joinable from terminating the process.
    (void)wait();
}

Err_t Task::activate(unsigned long threadCount) {
    return activate(threadCount, nullptr);
}

Err_t Task::activate(unsigned long threadCount, ThreadID_t* ids) {
    if (threadCount == 0) {
        return kErr_BadValue;
    }
    std::unique_lock<std::mutex> hold(_lock);
    Err_t result = kErr_Ok;
    for (unsigned long i = 0; i < threadCount; ++i) {
        ++_starting;
        try {
            _threads.emplace_back(&Task::threadBody, this, ids ? &ids[i] : nullptr);
        } catch (const std::system_error& e) {
            --_starting;
            Thread::SetLastSystemErr(e.code().value());
            result = kErr_Thread;
            break;
        }
    }
    if (_starting == 0) {
        _allStarted.notify_all();  // the threads that did start may all be waiting already
    }
    _allStarted.wait(hold, [this] { return _starting == 0; });
    return result;
}

void Task::threadBody(ThreadID_t* idSlot) {
    if (idSlot != nullptr) {
        *idSlot = Thread::Self();
    }
    {
        std::unique_lock<std::mutex> gate(_lock);
        if (--_starting == 0) {
            _allStarted.notify_all();
        }
        _allStarted.wait(gate, [this] { return _starting == 0; });
    }
    (void)run();
}

Err_t Task::wait() {
    std::vector<std::thread> threads;
    {
        std::lock_guard<std::mutex> hold(_lock);
        threads.swap(_threads);
    }
    const std::thread::id self = std::this_thread::get_id();
    for (std::thread& thread : threads) {
        if (thread.get_id() == self) {
            thread.detach();  // a thread cannot join itself; it is ending anyway
        } else if (thread.joinable()) {
            thread.join();
        }
    }
    return kErr_Ok;
}

unsigned long Task::getThreadCount() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _threads.size();
}

Err_t Task::close(bool waitForThreads) {
    return waitForThreads ? wait() : kErr_Ok;
}

}  // namespace basis
