/// @file
#ifndef BASIS_INCLUDE_VOLATILEUID_H
#define BASIS_INCLUDE_VOLATILEUID_H

#include <cstddef>
#include <cstdint>
#include <exception>
#include <mutex>
#include <vector>

#include "KeelException.h"
#include "ThreadMutex.h"

namespace basis {

/// basis::VolatileUID<T>: small unique numbers that can be given back and reused.
///
/// getID() reuses the oldest given-back number first; with none given back it issues the next
/// number after the last one issued (the first is 1). The counter is 32-bit and wraps to 1, never
/// to 0, which users read as "no number". Nothing checks that a given-back number was issued or is
/// not given back twice.
///
/// Thread safety: every operation locks the generator's mutex.
template <class T>
class VolatileUID {
public:
    VolatileUID() = default;
    /// A generator whose last issued number is `lastIssued` (the next one issued follows it).
    explicit VolatileUID(std::uint32_t lastIssued) : _last(lastIssued) {}
    VolatileUID(const VolatileUID&) = delete;
    VolatileUID& operator=(const VolatileUID&) = delete;

    /// A number (see above). Throws keel::StdException when a standard exception escapes
    /// (memory exhausted).
    T getID();
    /// Gives `id` back for reuse.
    void releaseID(T id);
    /// Forgets the given-back numbers; the last number issued is kept, so numbers stay unique.
    void dropReleased();
    /// The last number issued (0 before the first).
    std::uint32_t getLastIssued() const;

private:
    [[noreturn]] static void Rethrow(const std::exception& e, const char* function);
    /// Doubles the ring, keeping the order. REQUIRES: _mutex held.
    void grow();

    mutable ThreadMutex _mutex;
    std::uint32_t _last = 0;  ///< guarded by _mutex
    /// The given-back numbers, oldest first from _head, in a ring whose size is a power of two
    /// (or 0); it only grows, so giving back and reusing numbers allocates nothing in the steady
    /// state. Guarded by _mutex.
    std::vector<T> _ring;
    std::size_t _head = 0;
    std::size_t _released = 0;
};

template <class T>
T VolatileUID<T>::getID() {
    try {
        std::lock_guard<ThreadMutex> hold(_mutex);
        if (_released == 0) {
            _last = (_last == UINT32_MAX) ? 1 : _last + 1;
            return static_cast<T>(_last);
        }
        const T id = _ring[_head];
        _head = (_head + 1) & (_ring.size() - 1);
        --_released;
        return id;
    } catch (const std::exception& e) {
        Rethrow(e, "basis::VolatileUID<unsigned long>::getID");
    }
}

template <class T>
void VolatileUID<T>::releaseID(T id) {
    try {
        std::lock_guard<ThreadMutex> hold(_mutex);
        if (_released == _ring.size()) {
            grow();
        }
        _ring[(_head + _released) & (_ring.size() - 1)] = id;
        ++_released;
    } catch (const std::exception& e) {
        Rethrow(e, "basis::VolatileUID<unsigned long>::releaseID");
    }
}

template <class T>
void VolatileUID<T>::dropReleased() {
    std::lock_guard<ThreadMutex> hold(_mutex);
    std::vector<T>().swap(_ring);
    _head = 0;
    _released = 0;
}

template <class T>
void VolatileUID<T>::grow() {
    std::vector<T> bigger(_ring.empty() ? 64 : 2 * _ring.size());  // may throw; nothing changed
    for (std::size_t i = 0; i < _released; ++i) {
        bigger[i] = _ring[(_head + i) & (_ring.size() - 1)];
    }
    _ring.swap(bigger);
    _head = 0;
}

template <class T>
std::uint32_t VolatileUID<T>::getLastIssued() const {
    std::lock_guard<ThreadMutex> hold(_mutex);
    return _last;
}

template <class T>
void VolatileUID<T>::Rethrow(const std::exception& e, const char* function) {
    keel::StdException wrapped(e, keel::Exception::kStatus_StdException);
    wrapped.addStackFrame(keel::StackFrame("basis/VolatileUID", __LINE__, function, e.what()));
    throw wrapped;
}

}  // namespace basis

#endif  // BASIS_INCLUDE_VOLATILEUID_H
