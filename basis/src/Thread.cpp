#include "Thread.h"

#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include <thread>

namespace basis {

namespace {

thread_local long tLastSystemErr = 0;

}  // namespace

// The system hands a pthread handle to the next new thread once a thread has ended: the kernel
// thread id tells such threads apart.
bool operator==(const ThreadID_t& a, const ThreadID_t& b) {
    return a.handle == b.handle && a.tid == b.tid;
}

bool operator!=(const ThreadID_t& a, const ThreadID_t& b) {
    return !(a == b);
}

bool operator<(const ThreadID_t& a, const ThreadID_t& b) {
    return a.handle != b.handle ? a.handle < b.handle : a.tid < b.tid;
}

ThreadID_t Thread::Self() {
    thread_local const ThreadID_t self{static_cast<unsigned long>(pthread_self()), gettid()};
    return self;
}

unsigned int Thread::ToNumber(const ThreadID_t& id) {
    return static_cast<unsigned int>(id.tid);
}

void Thread::YieldControl() {
    std::this_thread::yield();
}

long Thread::GetLastSystemErr() {
    return tLastSystemErr;
}

void Thread::SetLastSystemErr(long err) {
    tLastSystemErr = err;
    errno = static_cast<int>(err);
}

}  // namespace basis
