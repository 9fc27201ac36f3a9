/// @file
#ifndef THREAD_INCLUDE_VEL_FASTQUEUE_H
#define THREAD_INCLUDE_VEL_FASTQUEUE_H

#include <algorithm>
#include <atomic>
#include <memory>
#include <new>
#include <utility>

#include "CondThreadMutex.h"
#include "VEL_Err.h"
#include "VEL_QueueBase.h"

/// VEL_FastQueue<T>: a VEL_QueueBase that keeps its elements in a ring buffer.
///
/// Ring invariants (all fields under the queue mutex; _count and _capacity are also read without
/// it, as hints):
/// - the capacity N = min(maxSize / sizeof(T), maxNb) is at least 1;
/// - the slots head, head + 1, ..., head + count - 1 (mod N) hold constructed elements in queue
///   order and no other slot does; tail = (head + count) mod N is the next back slot, so a full
///   ring has tail == head;
/// - nothing is allocated per element: the slots change only when setLimits (or an auto-resize)
///   changes the capacity. Shrinking keeps the oldest elements at the start of the new slots;
///   growing keeps every element at its index and, when the content wraps past the old end,
///   continues the wrapped run right after it.
///
/// T needs a copy constructor and a move assignment; a move that may throw is replaced by a copy
/// when the ring is resized, so an exception from T leaves the queue unchanged and propagates to
/// the caller.
///
/// Ownership and thread safety: as VEL_QueueBase. The constructor throws std::bad_alloc when the
/// slots cannot be allocated.
template <class T>
class VEL_FastQueue : public VEL_QueueBase<T> {
public:
    ///@{
    /// As the VEL_QueueBase constructors, plus the count at which a put signals the dequeue
    /// condition (values below 2 never signal it).
    VEL_FastQueue(const VEL_QueueLimits& limits, VEL_QueueWMNotifier* notifier, bool blocking,
                  bool active, unsigned long dequeueSize);
    VEL_FastQueue(unsigned long maxNb, bool blocking, bool active, unsigned long dequeueSize);
    VEL_FastQueue(bool blocking, bool active, unsigned long dequeueSize);
    ///@}
    ~VEL_FastQueue() override;

    bool isEmpty() const override { return _count.load(std::memory_order_relaxed) == 0; }
    bool isFull() const override;

    ///@{
    /// Elements held / the capacity N. Exact under the queue mutex (from a notifier), a snapshot
    /// otherwise. Any thread.
    unsigned long getNbElement() const { return _count.load(std::memory_order_relaxed); }
    unsigned long getRealMaxNb() const { return _capacity.load(std::memory_order_relaxed); }
    ///@}
    ///@{
    /// The count at which a put signals the dequeue condition (see the constructors).
    unsigned long getDequeueSize() const;
    void setDequeueSize(unsigned long dequeueSize);
    ///@}
    ///@{
    /// count * 100 / maxNb and count * sizeof(T) * 100 / maxSize, in whole percent.
    unsigned long getNbUsage() const;
    unsigned long getSizeUsage() const;
    ///@}

protected:
    unsigned long getFrontElem(T* out) override;
    VELErr_t putElem(const T* elem, bool front, unsigned long* newCount) override;
    VELErr_t setLimits_nolock(const VEL_QueueLimits& limits,
                              VEL_QueueWMNotifier* notifier) override;

private:
    /// Storage for one element; constructed only while it holds one.
    struct Slot {
        alignas(T) unsigned char bytes[sizeof(T)];
    };

    T* slot(unsigned long index) { return std::launder(reinterpret_cast<T*>(_slots[index].bytes)); }
    unsigned long next(unsigned long index) const {
        return index + 1 == _capacity.load(std::memory_order_relaxed) ? 0 : index + 1;
    }
    /// Builds the first `keep` elements, in queue order, in `to` at place(old index, position),
    /// then destroys every old element. If building throws, `to` is emptied again and the old
    /// elements are left as they were.
    template <class Place>
    void relocate(Slot* to, unsigned long keep, Place place);
    void growInto(Slot* to, unsigned long newCapacity);
    void shrinkInto(Slot* to, unsigned long newCapacity);

    /// Guarded by the queue mutex. _count and _capacity are written only under it, and atomic
    /// because the fast paths and the counters read them without it.
    std::atomic<unsigned long> _count{0};
    unsigned long _tail = 0;
    unsigned long _head = 0;
    unsigned long _dequeueSize;
    basis::CondThreadMutex _dequeueCond;  ///< signalled when a put brings the count to _dequeueSize
    std::atomic<unsigned long> _capacity;
    std::unique_ptr<Slot[]> _slots;
};

template <class T>
VEL_FastQueue<T>::VEL_FastQueue(const VEL_QueueLimits& limits, VEL_QueueWMNotifier* notifier,
                                bool blocking, bool active, unsigned long dequeueSize)
    : VEL_QueueBase<T>(limits, notifier, blocking, active),
      _dequeueSize(dequeueSize),
      _dequeueCond(this->_mutex),
      _capacity(VEL_QueueBase<T>::CapacityOf(this->_limits)),
      _slots(new Slot[_capacity.load()]) {}

template <class T>
VEL_FastQueue<T>::VEL_FastQueue(unsigned long maxNb, bool blocking, bool active,
                                unsigned long dequeueSize)
    : VEL_FastQueue(
              VEL_QueueLimits(VEL_QueueLimits::Clamp(maxNb), VEL_QueueLimits::kDefaultMaxSize,
                              VEL_QueueLimits::kDefaultHighWM, VEL_QueueLimits::kDefaultLowWM),
              nullptr, blocking, active, dequeueSize) {}

template <class T>
VEL_FastQueue<T>::VEL_FastQueue(bool blocking, bool active, unsigned long dequeueSize)
    : VEL_FastQueue(VEL_QueueLimits(), nullptr, blocking, active, dequeueSize) {}

template <class T>
VEL_FastQueue<T>::~VEL_FastQueue() {
    const unsigned long count = _count.load();
    for (unsigned long i = 0, index = _head; i < count; ++i, index = next(index)) {
        slot(index)->~T();
    }
}

template <class T>
bool VEL_FastQueue<T>::isFull() const {
    return _count.load(std::memory_order_relaxed) >= _capacity.load(std::memory_order_relaxed);
}

template <class T>
unsigned long VEL_FastQueue<T>::getDequeueSize() const {
    typename VEL_QueueBase<T>::Hold hold(this->_mutex);
    return _dequeueSize;
}

template <class T>
void VEL_FastQueue<T>::setDequeueSize(unsigned long dequeueSize) {
    typename VEL_QueueBase<T>::Hold hold(this->_mutex);
    _dequeueSize = dequeueSize;
}

template <class T>
unsigned long VEL_FastQueue<T>::getNbUsage() const {
    typename VEL_QueueBase<T>::Hold hold(this->_mutex);
    // maxNb is never 0: the constructor raises it and setLimits refuses it.
    return _count.load() * 100 / this->_limits.getMaxNb();
}

template <class T>
unsigned long VEL_FastQueue<T>::getSizeUsage() const {
    typename VEL_QueueBase<T>::Hold hold(this->_mutex);
    return _count.load() * sizeof(T) * 100 / this->_limits.getMaxSize();
}

template <class T>
unsigned long VEL_FastQueue<T>::getFrontElem(T* out) {
    T* front = slot(_head);
    *out = std::move(*front);  // a throwing assignment leaves the element in place
    front->~T();
    _head = next(_head);
    const unsigned long count = _count.load(std::memory_order_relaxed) - 1;
    _count.store(count, std::memory_order_relaxed);
    return count;
}

template <class T>
VELErr_t VEL_FastQueue<T>::putElem(const T* elem, bool front, unsigned long* newCount) {
    const unsigned long capacity = _capacity.load(std::memory_order_relaxed);
    // The copy is built before any index moves, so a throwing copy changes nothing.
    if (front) {
        const unsigned long index = _head == 0 ? capacity - 1 : _head - 1;
        ::new (static_cast<void*>(_slots[index].bytes)) T(*elem);
        _head = index;
    } else {
        ::new (static_cast<void*>(_slots[_tail].bytes)) T(*elem);
        _tail = next(_tail);
    }
    const unsigned long count = _count.load(std::memory_order_relaxed) + 1;
    _count.store(count, std::memory_order_relaxed);
    *newCount = count;
    if (this->wakeConsumer_nolock() != kVELErr_Ok) {
        return kVELErr_Mutex;
    }
    if (count == _dequeueSize && _dequeueSize >= 2 && _dequeueCond.signal() != basis::kErr_Ok) {
        return kVELErr_Mutex;
    }
    return kVELErr_Ok;
}

template <class T>
VELErr_t VEL_FastQueue<T>::setLimits_nolock(const VEL_QueueLimits& limits,
                                            VEL_QueueWMNotifier* notifier) {
    const unsigned long newCapacity = VEL_QueueBase<T>::CapacityOf(limits);
    if (newCapacity == 0) {
        return kVELErr_BadValue;
    }
    const unsigned long oldCapacity = _capacity.load(std::memory_order_relaxed);
    if (newCapacity != oldCapacity) {
        std::unique_ptr<Slot[]> slots(new (std::nothrow) Slot[newCapacity]);
        if (!slots) {
            return kVELErr_Alloc;
        }
        if (newCapacity > oldCapacity) {
            growInto(slots.get(), newCapacity);
        } else {
            shrinkInto(slots.get(), newCapacity);
        }
        _slots.swap(slots);
        _capacity.store(newCapacity, std::memory_order_relaxed);
    }
    this->_limits = limits;
    this->_notifier = notifier;
    return newCapacity > oldCapacity ? this->wakeProducers_nolock() : kVELErr_Ok;
}

template <class T>
template <class Place>
void VEL_FastQueue<T>::relocate(Slot* to, unsigned long keep, Place place) {
    const unsigned long count = _count.load(std::memory_order_relaxed);
    unsigned long built = 0;
    unsigned long index = _head;
    try {
        for (; built < keep; ++built, index = next(index)) {
            ::new (static_cast<void*>(to[place(index, built)].bytes))
                    T(std::move_if_noexcept(*slot(index)));
        }
    } catch (...) {
        // Only a copy can throw here, so the old elements are intact: undo the new ones.
        for (unsigned long i = 0, from = _head; i < built; ++i, from = next(from)) {
            std::launder(reinterpret_cast<T*>(to[place(from, i)].bytes))->~T();
        }
        throw;
    }
    for (unsigned long i = 0, from = _head; i < count; ++i, from = next(from)) {
        slot(from)->~T();
    }
}

template <class T>
void VEL_FastQueue<T>::growInto(Slot* to, unsigned long newCapacity) {
    const unsigned long oldCapacity = _capacity.load(std::memory_order_relaxed);
    const unsigned long head = _head;
    const unsigned long tail = _tail;
    // Wrapped: the content runs from head to the old end, then from 0 to tail. As much of the
    // run [0, tail) as fits goes right after the old end; the rest moves down to index 0.
    const bool wrapped = _count.load(std::memory_order_relaxed) > 0 && tail <= head;
    const unsigned long moved = wrapped ? std::min(tail, newCapacity - oldCapacity) : 0;
    relocate(to, _count.load(std::memory_order_relaxed),
             [=](unsigned long from, unsigned long) -> unsigned long {
                 if (!wrapped || from >= head) {
                     return from;
                 }
                 return from < moved ? oldCapacity + from : from - moved;
             });
    if (wrapped) {
        // When the moved run ends exactly at the new end, the next back slot is index 0.
        _tail = moved == tail ? (oldCapacity + moved) % newCapacity : tail - moved;
    }
}

template <class T>
void VEL_FastQueue<T>::shrinkInto(Slot* to, unsigned long newCapacity) {
    const unsigned long keep = std::min(_count.load(std::memory_order_relaxed), newCapacity);
    relocate(to, keep, [](unsigned long, unsigned long position) { return position; });
    _head = 0;
    _tail = keep == newCapacity ? 0 : keep;
    _count.store(keep, std::memory_order_relaxed);
}

#endif  // THREAD_INCLUDE_VEL_FASTQUEUE_H
