/// @file
#ifndef THREAD_INCLUDE_VEL_QUEUEBASE_H
#define THREAD_INCLUDE_VEL_QUEUEBASE_H

#include <atomic>
#include <cstdint>
#include <string>

#include "CondThreadMutex.h"
#include "Guard.h"
#include "ThreadMutex.h"
#include "TimeValue.h"
#include "Tools.h"
#include "VEL_Err.h"
#include "VEL_Tools.h"

/// The limits of a queue: at most maxNb elements and maxSize bytes of elements; water marks in
/// elements. A plain value.
class VEL_QueueLimits {
public:
    ///@{
    /// The limits of a default-constructed VEL_QueueLimits.
    static constexpr std::uint32_t kDefaultMaxNb = 1024;
    static constexpr std::uint32_t kDefaultMaxSize = 0x100000;
    static constexpr std::uint32_t kDefaultHighWM = 1024;
    static constexpr std::uint32_t kDefaultLowWM = 0;
    ///@}

    VEL_QueueLimits() = default;
    /// `count` as a limit: a value above the 32-bit maximum means that maximum.
    static std::uint32_t Clamp(unsigned long count) {
        return count > UINT32_MAX ? UINT32_MAX : static_cast<std::uint32_t>(count);
    }
    /// The limits as given.
    VEL_QueueLimits(std::uint32_t maxNb, std::uint32_t maxSize, std::uint32_t highWM,
                    std::uint32_t lowWM)
        : _maxNb(maxNb), _maxSize(maxSize), _highWM(highWM), _lowWM(lowWM) {}

    ///@{
    /// The most elements.
    std::uint32_t getMaxNb() const { return _maxNb; }
    void setMaxNb(std::uint32_t maxNb) { _maxNb = maxNb; }
    ///@}
    ///@{
    /// The most bytes of elements (elements times sizeof(T)).
    std::uint32_t getMaxSize() const { return _maxSize; }
    void setMaxSize(std::uint32_t maxSize) { _maxSize = maxSize; }
    ///@}
    ///@{
    /// The high water mark, in elements.
    std::uint32_t getHighWM() const { return _highWM; }
    void setHighWM(std::uint32_t highWM) { _highWM = highWM; }
    ///@}
    ///@{
    /// The low water mark, in elements.
    std::uint32_t getLowWM() const { return _lowWM; }
    void setLowWM(std::uint32_t lowWM) { _lowWM = lowWM; }
    ///@}

private:
    std::uint32_t _maxNb = kDefaultMaxNb;
    std::uint32_t _maxSize = kDefaultMaxSize;
    std::uint32_t _highWM = kDefaultHighWM;
    std::uint32_t _lowWM = kDefaultLowWM;
};

/// Told when a queue crosses its water marks (see VEL_QueueBase). Runs on the thread that made the
/// crossing, with the queue mutex held except from getRemaining.
class VEL_QueueWMNotifier {
public:
    virtual ~VEL_QueueWMNotifier() = default;
    /// The count has risen from highWM to highWM + 1.
    virtual void onHighWaterMark() = 0;
    /// The count has fallen from lowWM to lowWM - 1.
    virtual void onLowWaterMark() = 0;
};

/// VEL_QueueBase<T>: the common part of the library's bounded blocking queues, which hand work
/// between threads. The base holds the limits, the activity state, the blocking rules, the one
/// queue mutex and its conditions; a derived class (VEL_FastQueue) stores the elements.
///
/// Rules every queue follows:
/// - An inactive queue refuses put and get with kVELErr_QueueNotActive; deactivate() wakes every
///   blocked producer and consumer, who then return that status. Elements stay in an inactive
///   queue and are drained with getRemaining().
/// - A blocking queue makes put wait while it is full and get wait while it is empty, each up to
///   an optional time limit that bounds the whole call; a non-blocking queue answers
///   kVELErr_QueueFull / kVELErr_QueueEmpty at once instead.
/// - An auto-resizable queue doubles its limits when a put finds it full, up to the 32-bit limit
///   of maxNb and maxSize, after which it is full as usual.
/// - Water marks: the put that raises the count from highWM to highWM + 1 calls onHighWaterMark;
///   the get (or getRemaining) that lowers it from lowWM to lowWM - 1 calls onLowWaterMark. Each
///   crossing is reported once, on the thread that made it.
///
/// Ownership: the queue holds copies of its elements and destroys them when they are taken out,
/// dropped by shrinking limits, or left at destruction; for pointer elements it never deletes
/// what they point to, which stays the caller's. It does not own its water-mark notifier.
///
/// Thread safety: a queue is safe for concurrent put, put_front, get, getRemaining, activate,
/// deactivate, setLimits(..., true) and all reads from any number of threads. setMutexName must
/// be called before the queue is shared. The notifier runs with the queue mutex held (except from
/// getRemaining): it may read the queue's counters, but a put, get, deactivate or locked
/// setLimits on the same queue from inside it returns kVELErr_Mutex instead of deadlocking.
/// An exception thrown by the notifier or by T's copy reaches the caller with the mutex released.
/// Nothing may use a queue while it is being destroyed.
///
/// Lock order: the queue mutex is a leaf of the library's lock order: no library lock is taken
/// while it is held. Only the notifier is called under it.
template <class T>
class VEL_QueueBase {
public:
    ///@{
    /// The two flags are the blocking mode (false: non-blocking) and the initial activity. Limits
    /// that leave room for no element (maxNb 0, or maxSize below sizeof(T)) are raised to hold
    /// one. The short forms use the default limits, with `maxNb` elements (a value above the
    /// 32-bit maximum means that maximum) or 1024.
    VEL_QueueBase(const VEL_QueueLimits& limits, VEL_QueueWMNotifier* notifier, bool blocking,
                  bool active);
    VEL_QueueBase(unsigned long maxNb, bool blocking, bool active);
    VEL_QueueBase(bool blocking, bool active);
    ///@}
    virtual ~VEL_QueueBase() = default;
    VEL_QueueBase(const VEL_QueueBase&) = delete;
    VEL_QueueBase& operator=(const VEL_QueueBase&) = delete;

    /// True when the queue holds no element. Any thread.
    virtual bool isEmpty() const = 0;
    /// True when the queue holds as many elements as its limits allow. Any thread.
    virtual bool isFull() const = 0;

    /// Makes the queue accept put and get again. kVELErr_Ok; throws basis::ThreadException when
    /// the mutex cannot be taken (called from the notifier). Any thread.
    VELErr_t activate();
    /// Makes put and get fail with kVELErr_QueueNotActive and wakes every thread blocked in them.
    /// kVELErr_Ok; kVELErr_Mutex when called from the notifier or when a wake-up fails. Any thread.
    VELErr_t deactivate();
    /// True while the queue accepts put and get. Any thread.
    bool isActive() const { return _active.load(); }

    ///@{
    /// Copies *elem at the back (put) or the front (put_front, so that the next get returns it).
    /// A blocking queue waits while full, without limit when `limit` is null, else for at most
    /// *limit in all. kVELErr_Ok; kVELErr_QueueNotActive when inactive or deactivated while
    /// waiting; kVELErr_QueueFull when full in non-blocking mode (also when an auto-resize could
    /// not allocate); kVELErr_Timeout when the limit passed; kVELErr_Mutex when called from the
    /// notifier. Any thread.
    VELErr_t put(const T* elem, const basis::TimeValue* limit) { return put_i(elem, limit, false); }
    VELErr_t put_front(const T* elem, const basis::TimeValue* limit) {
        return put_i(elem, limit, true);
    }
    ///@}
    /// Moves the front element into *out. A blocking queue waits while empty, like put.
    /// kVELErr_Ok; kVELErr_QueueNotActive; kVELErr_QueueEmpty when empty in non-blocking mode;
    /// kVELErr_Timeout; kVELErr_Mutex when called from the notifier. Any thread.
    VELErr_t get(T* out, const basis::TimeValue* limit);
    /// Drains a deactivated queue: moves the front element into *out without waiting.
    /// kVELErr_Ok; kVELErr_QueueActive when the queue is active, kVELErr_QueueSpawn when it is
    /// empty (both traced as errors); kVELErr_Mutex when called from the notifier. Any thread.
    VELErr_t getRemaining(T* out);

    /// Replaces the limits and the notifier. Shrinking below the current count keeps the oldest
    /// elements and destroys the newest ones (pointer elements dropped this way are the caller's,
    /// the queue does not delete what they point to); growing wakes blocked producers.
    /// kVELErr_Ok; kVELErr_BadValue when the limits leave room for no element; kVELErr_Alloc when
    /// the new storage cannot be allocated (nothing changes then); kVELErr_Mutex when `lock` is
    /// set and the caller already holds the queue mutex.
    /// REQUIRES: `lock` is true, unless the caller holds the queue mutex (a notifier) or no other
    /// thread uses the queue.
    VELErr_t setLimits(const VEL_QueueLimits& limits, VEL_QueueWMNotifier* notifier, bool lock);
    /// The limits in force. Any thread.
    VEL_QueueLimits getLimits() const;
    /// When set, a put that finds the queue full doubles maxNb and maxSize first. Any thread.
    void setAutoResizable(bool autoResizable);
    /// Names the mutex `name` and the conditions "<name>IsNotEmptyCond" and "<name>IsNotFull".
    /// kVELErr_Ok, or kVELErr_Mutex when a name is refused (null).
    /// REQUIRES: the queue is not yet shared.
    VELErr_t setMutexName(const char* name);

protected:
    // Steps supplied by the storage. Each runs with the queue mutex held.
    /// Moves the front element into *out; returns the new count. REQUIRES: not empty.
    virtual unsigned long getFrontElem(T* out) = 0;
    /// Stores a copy of *elem, sets *newCount and wakes a waiting consumer. REQUIRES: not full.
    virtual VELErr_t putElem(const T* elem, bool front, unsigned long* newCount) = 0;
    /// Stores limits and notifier and resizes the storage (see setLimits).
    virtual VELErr_t setLimits_nolock(const VEL_QueueLimits& limits,
                                      VEL_QueueWMNotifier* notifier) = 0;

    /// Holds the queue mutex for one scope. Acquiring fails only when the calling thread holds the
    /// mutex already (a notifier calling back); held() is false then, and the caller may still
    /// read the guarded fields, since its own thread holds the mutex.
    class Hold {
    public:
        /// Tries to acquire `mutex`.
        explicit Hold(basis::ThreadMutex& mutex)
            : _held(mutex.acquire() == basis::kErr_Ok), _mutex(mutex) {}
        ~Hold() {
            if (_held) {
                (void)_mutex.release();  // held by this thread: cannot fail
            }
        }
        Hold(const Hold&) = delete;
        Hold& operator=(const Hold&) = delete;
        /// True when the constructor acquired the mutex.
        bool held() const { return _held; }

    private:
        const bool _held;
        basis::ThreadMutex& _mutex;
    };

    /// The threads blocked on one condition, and how many of them a signal has already released
    /// without their having run yet. A signal is sent only for a waiter that no earlier signal
    /// covers: nobody waiting costs nothing, and a put does not signal again and again while the
    /// consumer it woke is still getting back the mutex.
    struct WaiterCount {
        unsigned long blocked = 0;   ///< between entering and leaving a wait
        unsigned long released = 0;  ///< signalled and not yet left; never above blocked

        /// A thread starts waiting.
        void enter() { ++blocked; }
        /// A thread stops waiting, released by a signal or not.
        void leave() {
            --blocked;
            if (released > 0) {
                --released;
            }
        }
        /// True when a waiter is not yet covered by a signal: the caller signals for it.
        bool claimOne() {
            if (released >= blocked) {
                return false;
            }
            ++released;
            return true;
        }
        /// Every waiter is covered: the caller broadcasts.
        void claimAll() { released = blocked; }
    };

    /// Number of elements that `limits` leave room for: min(maxSize / sizeof(T), maxNb).
    static unsigned long CapacityOf(const VEL_QueueLimits& limits);

    ///@{
    /// Wake one blocked consumer / every blocked producer, if there is one; a condition nobody
    /// waits on is not signalled. kVELErr_Ok or kVELErr_Mutex. REQUIRES: the queue mutex is held
    /// (a signal sent without it can miss a waiter).
    VELErr_t wakeConsumer_nolock();
    VELErr_t wakeProducers_nolock();
    ///@}

    /// The blocking mode given at construction.
    const bool _blocking;
    std::atomic<bool> _active;       ///< written under _mutex; read without it for fast rejection
    VEL_QueueLimits _limits;         ///< guarded by _mutex
    VEL_QueueWMNotifier* _notifier;  ///< guarded by _mutex
    /// The queue's one lock (a leaf: see the lock order above). Guards _limits, _notifier, the
    /// fields below and the derived class's storage. A spinning mutex: producers and consumers
    /// take it for a few instructions each, all the time.
    mutable basis::ThreadMutex _mutex;
    basis::CondThreadMutex _notEmptyCond;  ///< consumers wait on it
    basis::CondThreadMutex _notFullCond;   ///< producers wait on it
    /// See setAutoResizable; guarded by _mutex.
    bool _autoResizable = false;
    WaiterCount _getWaiters;  ///< threads blocked on _notEmptyCond
    WaiterCount _putWaiters;  ///< threads blocked on _notFullCond

private:
    VELErr_t put_i(const T* elem, const basis::TimeValue* limit, bool front);
    /// Waits on `cond` while (this->*busy)() holds. kVELErr_Ok once it does not and the queue is
    /// active; `wouldBlock` in non-blocking mode; kVELErr_QueueNotActive; kVELErr_Timeout when
    /// `limit` (null: none) has passed since the call; kVELErr_Mutex when the wait failed.
    /// REQUIRES: the queue mutex is held.
    VELErr_t waitWhile_nolock(bool (VEL_QueueBase::*busy)() const, basis::CondThreadMutex& cond,
                              WaiterCount& waiters, const basis::TimeValue* limit,
                              VELErr_t wouldBlock);
    /// Doubles maxNb and maxSize (each at most 0xFFFFFFFF) when that adds room.
    void grow_nolock();
    static void TraceError(VELErr_t code);
};

template <class T>
VEL_QueueBase<T>::VEL_QueueBase(const VEL_QueueLimits& limits, VEL_QueueWMNotifier* notifier,
                                bool blocking, bool active)
    : _blocking(blocking),
      _active(active),
      _limits(limits),
      _notifier(notifier),
      _mutex(basis::ThreadMutex::kSpinning),
      _notEmptyCond(_mutex),
      _notFullCond(_mutex) {
    if (CapacityOf(_limits) == 0) {
        // A queue that can hold nothing would block every producer for ever.
        if (_limits.getMaxNb() == 0) {
            _limits.setMaxNb(1);
        }
        if (_limits.getMaxSize() < sizeof(T)) {
            _limits.setMaxSize(static_cast<std::uint32_t>(sizeof(T)));
        }
    }
}

template <class T>
VEL_QueueBase<T>::VEL_QueueBase(unsigned long maxNb, bool blocking, bool active)
    : VEL_QueueBase(
              VEL_QueueLimits(VEL_QueueLimits::Clamp(maxNb), VEL_QueueLimits::kDefaultMaxSize,
                              VEL_QueueLimits::kDefaultHighWM, VEL_QueueLimits::kDefaultLowWM),
              nullptr, blocking, active) {}

template <class T>
VEL_QueueBase<T>::VEL_QueueBase(bool blocking, bool active)
    : VEL_QueueBase(VEL_QueueLimits(), nullptr, blocking, active) {}

template <class T>
unsigned long VEL_QueueBase<T>::CapacityOf(const VEL_QueueLimits& limits) {
    const unsigned long bySize = limits.getMaxSize() / sizeof(T);
    return bySize < limits.getMaxNb() ? bySize : limits.getMaxNb();
}

template <class T>
VELErr_t VEL_QueueBase<T>::activate() {
    basis::GuardEx<basis::ThreadMutex> guard(_mutex);
    _active.store(true);
    return kVELErr_Ok;
}

template <class T>
VELErr_t VEL_QueueBase<T>::deactivate() {
    Hold hold(_mutex);
    if (!hold.held()) {
        return kVELErr_Mutex;
    }
    _active.store(false);
    _putWaiters.claimAll();
    _getWaiters.claimAll();
    // Producers first, then consumers: every waiter wakes and sees the queue inactive.
    if (_notFullCond.broadcast() != basis::kErr_Ok || _notEmptyCond.broadcast() != basis::kErr_Ok) {
        return kVELErr_Mutex;
    }
    return kVELErr_Ok;
}

template <class T>
VELErr_t VEL_QueueBase<T>::put_i(const T* elem, const basis::TimeValue* limit, bool front) {
    // Fast rejection without the mutex; the flag is read again under it.
    if (!_active.load(std::memory_order_relaxed)) {
        return kVELErr_QueueNotActive;
    }
    Hold hold(_mutex);
    if (!hold.held()) {
        return kVELErr_Mutex;
    }
    if (_autoResizable && isFull()) {
        grow_nolock();  // when it cannot grow, the queue is full as usual
    }
    if (isFull() || !_active.load(std::memory_order_relaxed)) {
        const VELErr_t waited = waitWhile_nolock(&VEL_QueueBase::isFull, _notFullCond, _putWaiters,
                                                 limit, kVELErr_QueueFull);
        if (waited != kVELErr_Ok) {
            return waited;
        }
    }
    unsigned long newCount = 0;
    const VELErr_t result = putElem(elem, front, &newCount);
    if (result == kVELErr_Ok && _notifier != nullptr && newCount - 1 == _limits.getHighWM()) {
        // Under the queue mutex, so that crossings are reported in the order they happen.
        _notifier->onHighWaterMark();
    }
    return result;
}

template <class T>
VELErr_t VEL_QueueBase<T>::get(T* out, const basis::TimeValue* limit) {
    if (!_active.load(std::memory_order_relaxed)) {
        return kVELErr_QueueNotActive;
    }
    if (!_blocking && isEmpty()) {
        return kVELErr_QueueEmpty;
    }
    Hold hold(_mutex);
    if (!hold.held()) {
        return kVELErr_Mutex;
    }
    if (isEmpty() || !_active.load(std::memory_order_relaxed)) {
        const VELErr_t waited = waitWhile_nolock(&VEL_QueueBase::isEmpty, _notEmptyCond,
                                                 _getWaiters, limit, kVELErr_QueueEmpty);
        if (waited != kVELErr_Ok) {
            return waited;
        }
    }
    const unsigned long newCount = getFrontElem(out);
    // Signalled with the mutex held: the condition's wake-up is only reliable that way.
    if (_putWaiters.claimOne() && _notFullCond.signal() != basis::kErr_Ok) {
        return kVELErr_Mutex;
    }
    if (_notifier != nullptr && newCount + 1 == _limits.getLowWM()) {
        _notifier->onLowWaterMark();  // under the queue mutex, as in put
    }
    return kVELErr_Ok;
}

template <class T>
VELErr_t VEL_QueueBase<T>::getRemaining(T* out) {
    VELErr_t result = kVELErr_Ok;
    unsigned long newCount = 0;
    VEL_QueueWMNotifier* notifier = nullptr;
    unsigned long lowWM = 0;
    {
        Hold hold(_mutex);
        if (!hold.held()) {
            return kVELErr_Mutex;
        }
        if (_active.load()) {
            result = kVELErr_QueueActive;
        } else if (isEmpty()) {
            result = kVELErr_QueueSpawn;
        } else {
            newCount = getFrontElem(out);
            notifier = _notifier;
            lowWM = _limits.getLowWM();
        }
    }
    // Traced and notified after the mutex is released.
    if (result != kVELErr_Ok) {
        TraceError(result);
        return result;
    }
    if (notifier != nullptr && newCount + 1 == lowWM) {
        notifier->onLowWaterMark();
    }
    return kVELErr_Ok;
}

template <class T>
VELErr_t VEL_QueueBase<T>::setLimits(const VEL_QueueLimits& limits, VEL_QueueWMNotifier* notifier,
                                     bool lock) {
    if (!lock) {
        return setLimits_nolock(limits, notifier);
    }
    Hold hold(_mutex);
    if (!hold.held()) {
        return kVELErr_Mutex;
    }
    return setLimits_nolock(limits, notifier);
}

template <class T>
VEL_QueueLimits VEL_QueueBase<T>::getLimits() const {
    Hold hold(_mutex);  // not held only when this thread holds it already: reading is safe
    return _limits;
}

template <class T>
void VEL_QueueBase<T>::setAutoResizable(bool autoResizable) {
    Hold hold(_mutex);
    _autoResizable = autoResizable;
}

template <class T>
VELErr_t VEL_QueueBase<T>::setMutexName(const char* name) {
    if (name == nullptr) {
        return kVELErr_Mutex;
    }
    const std::string base(name);
    if (_mutex.setName(name) != basis::kErr_Ok ||
        _notEmptyCond.setName((base + "IsNotEmptyCond").c_str()) != basis::kErr_Ok ||
        _notFullCond.setName((base + "IsNotFull").c_str()) != basis::kErr_Ok) {
        return kVELErr_Mutex;
    }
    return kVELErr_Ok;
}

template <class T>
VELErr_t VEL_QueueBase<T>::wakeConsumer_nolock() {
    if (!_getWaiters.claimOne()) {
        return kVELErr_Ok;
    }
    return _notEmptyCond.signal() == basis::kErr_Ok ? kVELErr_Ok : kVELErr_Mutex;
}

template <class T>
VELErr_t VEL_QueueBase<T>::wakeProducers_nolock() {
    if (_putWaiters.blocked == 0) {
        return kVELErr_Ok;
    }
    _putWaiters.claimAll();
    return _notFullCond.broadcast() == basis::kErr_Ok ? kVELErr_Ok : kVELErr_Mutex;
}

template <class T>
VELErr_t VEL_QueueBase<T>::waitWhile_nolock(bool (VEL_QueueBase::*busy)() const,
                                            basis::CondThreadMutex& cond, WaiterCount& waiters,
                                            const basis::TimeValue* limit, VELErr_t wouldBlock) {
    basis::TimeValue deadline;
    bool deadlineSet = false;
    while ((this->*busy)()) {
        if (!_active.load()) {
            return kVELErr_QueueNotActive;
        }
        if (!_blocking) {
            return wouldBlock;
        }
        basis::TimeValue remaining;
        if (limit != nullptr) {
            // One deadline for the whole call: a wake-up that another thread beats to the
            // element does not restart the limit.
            const basis::TimeValue now = basis::TimeValue::GetHRTime();
            if (!deadlineSet) {
                deadline = now + *limit;
                deadlineSet = true;
            }
            if (deadline <= now) {
                return kVELErr_Timeout;
            }
            remaining = deadline - now;
        }
        waiters.enter();
        const basis::Err_t waited = cond.wait(limit != nullptr ? &remaining : nullptr);
        waiters.leave();
        if (waited == basis::kErr_Timeout) {
            return kVELErr_Timeout;
        }
        if (waited != basis::kErr_Ok) {
            return kVELErr_Mutex;
        }
    }
    return _active.load() ? kVELErr_Ok : kVELErr_QueueNotActive;
}

template <class T>
void VEL_QueueBase<T>::grow_nolock() {
    const auto doubled = [](std::uint32_t value) -> std::uint32_t {
        return value > 0x7FFFFFFFu ? 0xFFFFFFFFu : value * 2;
    };
    VEL_QueueLimits grown(_limits);
    grown.setMaxNb(doubled(_limits.getMaxNb()));
    grown.setMaxSize(doubled(_limits.getMaxSize()));
    if (CapacityOf(grown) > CapacityOf(_limits)) {
        // A failed allocation leaves the queue as it was, full.
        (void)setLimits_nolock(grown, _notifier);
    }
}

template <class T>
void VEL_QueueBase<T>::TraceError(VELErr_t code) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ThreadError)) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("THREAD", code));
    }
}

#endif  // THREAD_INCLUDE_VEL_QUEUEBASE_H
