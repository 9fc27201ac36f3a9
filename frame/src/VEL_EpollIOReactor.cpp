#include "VEL_EpollIOReactor.h"

#include <poll.h>
#include <sys/epoll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <new>
#include <string>

#include "Thread.h"
#include "VEL_FrameTrace.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

// Longest sleep of a wait that nothing can wake (nothing registered, or no epoll descriptor).
constexpr int kEmptySliceMillis = 1000;

unsigned long eventsPerPass(unsigned long size) {
    return std::max(1ul, std::min(size, VEL_EpollIOReactor::kMaxEventsPerPass));
}

// The kernel's event mask for the operations asked for. No operation: one-shot with nothing
// armed, since the kernel always reports an error or hang-up; after at most one such report
// (ignored: nothing was asked) the handle is silent until it is changed again.
std::uint32_t eventMask(unsigned short ops) {
    std::uint32_t events = 0;
    if ((ops & kVELOp_Read) != 0) {
        events |= EPOLLIN;
    }
    if ((ops & kVELOp_Write) != 0) {
        events |= EPOLLOUT;
    }
    return events != 0 ? events : static_cast<std::uint32_t>(EPOLLONESHOT);
}

// The event's data carries the handle and the operations asked for, so that a wait needs no
// look-up to interpret what it found.
std::uint64_t eventData(unsigned int handle, unsigned short ops) {
    return static_cast<std::uint64_t>(ops) << 32 | handle;
}

// What to report for one event. An error or hang-up counts as readiness for each operation
// asked for, as select reports it: the handler's read or write meets the error or the end of
// stream.
VELReadyHandle_t readyHandle(const epoll_event& event) {
    const auto handle = static_cast<unsigned int>(event.data.u64 & 0xFFFFFFFFu);
    const auto asked = static_cast<unsigned short>(event.data.u64 >> 32);
    const bool failed = (event.events & (EPOLLERR | EPOLLHUP)) != 0;
    unsigned short ops = 0;
    if ((asked & kVELOp_Read) != 0 && (failed || (event.events & EPOLLIN) != 0)) {
        ops |= kVELOp_Read;
    }
    if ((asked & kVELOp_Write) != 0 && (failed || (event.events & EPOLLOUT) != 0)) {
        ops |= kVELOp_Write;
    }
    return VELReadyHandle_t{handle, ops};
}

int waitMillis(const basis::TimeValue* timeout) {
    if (timeout == nullptr) {
        return -1;
    }
    const long long millis = timeout->toMillisecondsCeil();
    return millis > INT_MAX ? INT_MAX : static_cast<int>(millis);
}

VELErr_t traceEpollFailure(const char* call) {
    velframe::traceError(kVELErr_Epoll, [call] { return std::string(call); });
    return kVELErr_Epoll;
}

}  // namespace

VEL_EpollIOReactor::VEL_EpollIOReactor(unsigned long size, const basis::TimeValue& idleTimeout)
    : VEL_SockCtrlIOReactor(size, idleTimeout),
      _epollFd(-1),
      _events(eventsPerPass(size)),
      _ready(eventsPerPass(size)),
      _refused(VEL_Socket::kVEL_NoHandle) {}

VEL_EpollIOReactor::~VEL_EpollIOReactor() {
    stopLoop();
    if (_epollFd >= 0) {
        (void)::close(_epollFd);  // nothing to report from a destructor
    }
}

VELErr_t VEL_EpollIOReactor::init() {
    if (_epollFd < 0) {
        const int fd = ::epoll_create1(EPOLL_CLOEXEC);
        if (fd < 0) {
            const int err = errno;
            basis::Thread::SetLastSystemErr(err);
            return traceEpollFailure("epoll_create1");
        }
        _epollFd = fd;
    }
    return VEL_SockCtrlIOReactor::init();
}

bool VEL_EpollIOReactor::handleError(VELErr_t status) {
    if (status == kVELErr_Epoll && _refused != VEL_Socket::kVEL_NoHandle) {
        // The core left the refused registration in place; removal goes by handle, so a
        // stand-in handler reaches it.
        const unsigned int handle = _refused;
        _refused = VEL_Socket::kVEL_NoHandle;
        (void)removeEventHandler(VEL_EventHandler::Create(handle));  // a failure is traced
    }
    return VEL_SockCtrlIOReactor::handleError(status);
}

// Runs under the core's table lock: no trace here, the core traces the status it gets.
VELErr_t VEL_EpollIOReactor::control(int operation, unsigned int handle, unsigned short ops) {
    epoll_event event{};
    event.events = eventMask(ops);
    event.data.u64 = eventData(handle, ops);
    _refused = VEL_Socket::kVEL_NoHandle;
    if (_epollFd < 0) {
        basis::Thread::SetLastSystemErr(EBADF);
        return kVELErr_Epoll;  // before init(): nothing is polled, nothing to unregister
    }
    int result = ::epoll_ctl(_epollFd, operation, static_cast<int>(handle), &event);
    if (result != 0 && operation == EPOLL_CTL_MOD && errno == ENOENT) {
        // The number was closed and given to another socket since it was added (the kernel
        // dropped the old one): a handler registered again for that number before its removal
        // was applied comes here as a change. Poll what the number is now, as select would.
        result = ::epoll_ctl(_epollFd, EPOLL_CTL_ADD, static_cast<int>(handle), &event);
    }
    if (result == 0) {
        return kVELErr_Ok;
    }
    const int err = errno;
    basis::Thread::SetLastSystemErr(err);
    if (operation == EPOLL_CTL_DEL) {
        // Closed (the kernel dropped it) or never added: out of the set either way.
        return err == EBADF || err == ENOENT ? kVELErr_Ok : kVELErr_Epoll;
    }
    _refused = handle;
    return kVELErr_Epoll;
}

VELErr_t VEL_EpollIOReactor::addHandle(unsigned int handle, unsigned short ops) {
    return control(EPOLL_CTL_ADD, handle, ops);
}

VELErr_t VEL_EpollIOReactor::removeHandle(unsigned int handle) {
    return control(EPOLL_CTL_DEL, handle, 0);
}

VELErr_t VEL_EpollIOReactor::changeHandleOps(unsigned int handle, unsigned short ops) {
    return control(EPOLL_CTL_MOD, handle, ops);
}

VELErr_t VEL_EpollIOReactor::doSetSize() {
    const unsigned long wanted = eventsPerPass(getSize());
    if (wanted > _events.size()) {
        try {
            _events.resize(wanted);
            _ready.resize(wanted);
        } catch (const std::bad_alloc&) {
            return kVELErr_Alloc;  // the arrays keep a size that still works
        }
    }
    return kVELErr_Ok;
}

VELErr_t VEL_EpollIOReactor::sleepEmpty(const basis::TimeValue* timeout) {
    const int millis = waitMillis(timeout);
    // Nothing that can wake this wait is polled: sleep (an interrupted sleep ends early).
    (void)::poll(nullptr, 0, millis < 0 || millis > kEmptySliceMillis ? kEmptySliceMillis : millis);
    if (isStopped()) {
        return kVELErr_ReactorStopped;
    }
    return timeout == nullptr ? kVELErr_Ok : kVELErr_Timeout;
}

VELErr_t VEL_EpollIOReactor::waitForEvents(const basis::TimeValue* timeout) {
    if (isStopped()) {
        return kVELErr_ReactorStopped;
    }
    _refused = VEL_Socket::kVEL_NoHandle;  // handleError has seen the last refusal
    if (_epollFd < 0 || (timeout == nullptr && getNbElement() == 0)) {
        return sleepEmpty(timeout);
    }
    const int count = ::epoll_wait(_epollFd, _events.data(), static_cast<int>(_events.size()),
                                   waitMillis(timeout));
    if (count < 0) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        return err == EINTR ? GetPollingError() : traceEpollFailure("epoll_wait");
    }
    if (count == 0) {
        return kVELErr_Timeout;
    }
    std::size_t reported = 0;
    for (int i = 0; i < count; ++i) {
        const VELReadyHandle_t ready = readyHandle(_events[i]);
        if (ready.ops != 0) {  // a disarmed handle's one hang-up report
            _ready[reported++] = ready;
        }
    }
    return reportReady(_ready.data(), reported);
}
