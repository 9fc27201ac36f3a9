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
const basis::TimeValue kSweepSpan(VEL_EpollIOReactor::kSweepPeriod, 0);

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

// The milliseconds from `now` to `until`, rounded up; 0 when it has passed.
int millisUntil(const basis::TimeValue& now, const basis::TimeValue& until) {
    if (until <= now) {
        return 0;
    }
    const basis::TimeValue left = until - now;
    return waitMillis(&left);
}

// Whether epoll_ctl's `err` says that the number no longer names the registered file: closed
// (EBADF), or closed and given to another file, which is not in the set (ENOENT).
bool registrationGone(int err) {
    return err == EBADF || err == ENOENT;
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
      _refused(VEL_Socket::kVEL_NoHandle),
      _nextSweep(basis::TimeValue::GetHRTime() + kSweepSpan),
      _reporting(false),
      _rebuildDue(false) {}

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
        if (operation == EPOLL_CTL_DEL) {
            _polled.erase(handle);
        } else {
            _polled[handle] = ops;
        }
        return kVELErr_Ok;
    }
    const int err = errno;
    basis::Thread::SetLastSystemErr(err);
    if (operation == EPOLL_CTL_DEL) {
        const bool known = _polled.erase(handle) != 0;
        if (!registrationGone(err)) {
            return kVELErr_Epoll;
        }
        // The number no longer names the file that was added. The kernel dropped the file's
        // registration if that was its last descriptor; if it lives on (dup, fork) the
        // registration stays, out of epoll_ctl's reach, and reports under this number. A
        // removal asked for such a report proves it: the set is rebuilt before the next wait.
        if (!known && _reporting) {
            _rebuildDue = true;
        }
        return kVELErr_Ok;
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

bool VEL_EpollIOReactor::isClosedHandle(unsigned int handle) {
    const auto found = _polled.find(handle);
    if (found == _polled.end() || _epollFd < 0) {
        return VEL_SockCtrlIOReactor::isClosedHandle(handle);
    }
    return !probe(handle, found->second);
}

bool VEL_EpollIOReactor::probe(unsigned int handle, unsigned short ops) {
    // Modifying a registration to what it is changes nothing, and fails once the number no
    // longer names the file that was added, whether or not it was given to another one since.
    epoll_event event{};
    event.events = eventMask(ops);
    event.data.u64 = eventData(handle, ops);
    return ::epoll_ctl(_epollFd, EPOLL_CTL_MOD, static_cast<int>(handle), &event) == 0 ||
           !registrationGone(errno);
}

bool VEL_EpollIOReactor::sweep(VELErr_t* status) {
    // The kernel drops a closed descriptor's registration without a report: look at each one.
    std::size_t found = 0;
    for (const auto& polled : _polled) {
        if (found < _ready.size() && !probe(polled.first, polled.second)) {
            _ready[found++] = VELReadyHandle_t{polled.first, kInvalidHandleOp};
        }
    }
    if (found == 0) {
        return false;
    }
    *status = report(found);  // kVELErr_BadFd, after which handleError drops their handlers
    return true;
}

VELErr_t VEL_EpollIOReactor::rebuild() {
    _rebuildDue = false;
    const int fd = ::epoll_create1(EPOLL_CLOEXEC);
    if (fd < 0) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        return traceEpollFailure("epoll_create1");
    }
    for (const auto& polled : _polled) {
        epoll_event event{};
        event.events = eventMask(polled.second);
        event.data.u64 = eventData(polled.first, polled.second);
        if (::epoll_ctl(fd, EPOLL_CTL_ADD, static_cast<int>(polled.first), &event) != 0) {
            _nextSweep = basis::TimeValue::kZero;  // closed meanwhile: the sweep reports it
        }
    }
    (void)::close(_epollFd);  // an epoll descriptor has nothing to flush
    _epollFd = fd;
    velframe::traceInfo("epoll set rebuilt without the registration of a closed descriptor");
    return kVELErr_Ok;
}

VELErr_t VEL_EpollIOReactor::report(std::size_t count) {
    _reporting = true;
    const VELErr_t code = reportReady(_ready.data(), count);
    _reporting = false;
    return code;
}

VELErr_t VEL_EpollIOReactor::waitForEvents(const basis::TimeValue* timeout) {
    if (isStopped()) {
        return kVELErr_ReactorStopped;
    }
    _refused = VEL_Socket::kVEL_NoHandle;  // handleError has seen the last refusal
    if (_rebuildDue && _epollFd >= 0) {
        const VELErr_t code = rebuild();
        if (code != kVELErr_Ok) {
            return code;
        }
    }
    if (_epollFd < 0 || (timeout == nullptr && getNbElement() == 0)) {
        return sleepEmpty(timeout);
    }
    basis::TimeValue now = basis::TimeValue::GetHRTime();
    const basis::TimeValue deadline = timeout != nullptr ? now + *timeout : now;
    for (;;) {
        if (now >= _nextSweep) {
            _nextSweep = now + kSweepSpan;
            VELErr_t code = kVELErr_Ok;
            if (sweep(&code)) {
                return code;
            }
        }
        // A wait without limit still wakes for the next sweep.
        const basis::TimeValue& until =
                timeout == nullptr || _nextSweep < deadline ? _nextSweep : deadline;
        const int count = ::epoll_wait(_epollFd, _events.data(), static_cast<int>(_events.size()),
                                       millisUntil(now, until));
        if (count < 0) {
            const int err = errno;
            basis::Thread::SetLastSystemErr(err);
            return err == EINTR ? GetPollingError() : traceEpollFailure("epoll_wait");
        }
        const std::size_t reported = count > 0 ? readyHandles(count) : 0;
        if (reported > 0) {
            return report(reported);
        }
        now = basis::TimeValue::GetHRTime();
        if (timeout != nullptr && now >= deadline) {
            return kVELErr_Timeout;
        }
        if (isStopped()) {
            return kVELErr_ReactorStopped;
        }
    }
}

std::size_t VEL_EpollIOReactor::readyHandles(int count) {
    std::size_t reported = 0;
    for (int i = 0; i < count; ++i) {
        const VELReadyHandle_t ready = readyHandle(_events[i]);
        // Skipped: a disarmed handle's one hang-up report (the sweep re-arms it once a second).
        if (ready.ops != 0) {
            _ready[reported++] = ready;
        }
    }
    return reported;
}
