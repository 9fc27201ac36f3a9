#include "VEL_SelectIOReactor.h"

#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <string>

#include "Thread.h"
#include "VEL_FrameTrace.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

constexpr unsigned int kNoLowest = 0x7FFFFFFF;
// Longest sleep of a wait with nothing to poll and no time-out.
constexpr int kEmptySliceMillis = 1000;

bool belowHandle(const pollfd& polled, unsigned int handle) {
    return static_cast<unsigned int>(polled.fd) < handle;
}

// What to report for one polled handle. An error or hang-up counts as readiness for each
// operation asked for (select reports it so): left unreported, poll would return at once for
// ever, while the handler's read or write meets the error or the end of stream.
unsigned short readyOps(const pollfd& polled) {
    if ((polled.revents & POLLNVAL) != 0) {
        return VEL_IOReactor::kInvalidHandleOp;
    }
    const bool failed = (polled.revents & (POLLERR | POLLHUP)) != 0;
    unsigned short ops = 0;
    if ((polled.events & POLLIN) != 0 && (failed || (polled.revents & POLLIN) != 0)) {
        ops |= kVELOp_Read;
    }
    if ((polled.events & POLLOUT) != 0 && (failed || (polled.revents & POLLOUT) != 0)) {
        ops |= kVELOp_Write;
    }
    return ops;
}

int pollMillis(const basis::TimeValue* timeout) {
    if (timeout == nullptr) {
        return -1;
    }
    const long long millis = timeout->toMillisecondsCeil();
    return millis > INT_MAX ? INT_MAX : static_cast<int>(millis);
}

}  // namespace

VEL_SelectIOReactor::VEL_SelectIOReactor(unsigned long size, const basis::TimeValue& idleTimeout)
    : VEL_SockCtrlIOReactor(std::min<unsigned long>(size, kSetSize), idleTimeout),
      _highest(0),
      _lowest(kNoLowest),
      _unpolled(0),
      _lastUnpolled(0) {
    // Each handle is in one set at least: reserved once, so that no registration allocates.
    _pollSet.reserve(2 * kSetSize);
    _ready.reserve(2 * kSetSize);
}

VEL_SelectIOReactor::~VEL_SelectIOReactor() {
    stopLoop();
}

VELErr_t VEL_SelectIOReactor::setSize(unsigned long size) {
    if (size > kSetSize) {
        velframe::traceError(kVELErr_BadReactorSize);
        return kVELErr_BadReactorSize;
    }
    return VEL_SockCtrlIOReactor::setSize(size);
}

bool VEL_SelectIOReactor::append(HandleSet& set, unsigned int handle) {
    if (set.count >= kSetSize) {
        ++_unpolled;
        _lastUnpolled = handle;
        return false;
    }
    set.handles[set.count++] = handle;
    return true;
}

void VEL_SelectIOReactor::putInSets(unsigned int handle, unsigned short ops) {
    const auto at = std::lower_bound(_pollSet.begin(), _pollSet.end(), handle, belowHandle);
    const bool present = at != _pollSet.end() && static_cast<unsigned int>(at->fd) == handle;
    const short asked = present ? at->events : 0;
    short events = asked;
    if ((ops & kVELOp_Read) != 0 && (asked & POLLIN) == 0 && append(_readSet, handle)) {
        events |= POLLIN;
    }
    if ((ops & kVELOp_Write) != 0 && (asked & POLLOUT) == 0 && append(_writeSet, handle)) {
        events |= POLLOUT;
    }
    if (present) {
        at->events = events;
    } else if (events != 0) {
        _pollSet.insert(at, pollfd{static_cast<int>(handle), events, 0});
    }
}

void VEL_SelectIOReactor::dropFromSets(unsigned int handle) {
    const auto at = std::lower_bound(_pollSet.begin(), _pollSet.end(), handle, belowHandle);
    if (at == _pollSet.end() || static_cast<unsigned int>(at->fd) != handle) {
        return;
    }
    for (HandleSet* set : {&_readSet, &_writeSet}) {
        unsigned int* const end = set->handles + set->count;
        unsigned int* const found = std::find(set->handles, end, handle);
        if (found != end) {
            std::copy(found + 1, end, found);  // the others keep their order
            --set->count;
        }
    }
    _pollSet.erase(at);
}

VELErr_t VEL_SelectIOReactor::addHandle(unsigned int handle, unsigned short ops) {
    putInSets(handle, ops);
    const auto at = std::lower_bound(_pollSet.begin(), _pollSet.end(), handle, belowHandle);
    if (at != _pollSet.end() && static_cast<unsigned int>(at->fd) == handle) {
        _highest = std::max(_highest, handle);
        _lowest = std::min(_lowest, handle);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_SelectIOReactor::removeHandle(unsigned int handle) {
    dropFromSets(handle);
    if (handle == _highest) {
        _highest = _pollSet.empty() ? 0 : static_cast<unsigned int>(_pollSet.back().fd);
    }
    if (handle == _lowest) {
        _lowest = _pollSet.empty() ? kNoLowest : static_cast<unsigned int>(_pollSet.front().fd);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_SelectIOReactor::changeHandleOps(unsigned int handle, unsigned short ops) {
    dropFromSets(handle);
    putInSets(handle, ops);
    return kVELErr_Ok;
}

VELErr_t VEL_SelectIOReactor::sleepEmpty() {
    (void)::poll(nullptr, 0, kEmptySliceMillis);  // an interrupted sleep ends the slice early
    return isStopped() ? kVELErr_ReactorStopped : kVELErr_Ok;
}

void VEL_SelectIOReactor::traceUnpolled() {
    const unsigned int count = _unpolled;
    const unsigned int last = _lastUnpolled;
    _unpolled = 0;
    velframe::traceError(kVELErr_ReactorFull, [count, last] {
        return velframe::fdText(last) + " (polling set full: " + std::to_string(count) +
               " operation(s) not polled)";
    });
}

VELErr_t VEL_SelectIOReactor::waitForEvents(const basis::TimeValue* timeout) {
    if (isStopped()) {
        return kVELErr_ReactorStopped;
    }
    if (_unpolled != 0) {
        traceUnpolled();  // recorded under the table lock, traced now that none is held
    }
    if (_pollSet.empty() && timeout == nullptr) {
        return sleepEmpty();
    }
    const int count = ::poll(_pollSet.data(), _pollSet.size(), pollMillis(timeout));
    if (count < 0) {
        const int err = errno;
        basis::Thread::SetLastSystemErr(err);
        return GetPollingError();
    }
    if (count == 0) {
        return kVELErr_Timeout;
    }
    // poll counts a handle once whatever it found: every entry is looked at.
    _ready.clear();
    for (const pollfd& polled : _pollSet) {
        if (polled.revents != 0) {
            _ready.push_back(
                    VELReadyHandle_t{static_cast<unsigned int>(polled.fd), readyOps(polled)});
        }
    }
    return reportReady(_ready.data(), _ready.size());
}
