// basis::VolatileUID<T>: small unique numbers that can be given back and reused.
//
// getID() reuses the oldest given-back number first; with none given back it issues the next
// number after the last one issued (the first is 1). The counter is 32-bit and wraps to 1, never
// to 0, which users read as "no number". Nothing checks that a given-back number was issued or is
// not given back twice.
//
// Thread safety: every operation locks the generator's mutex.
#ifndef BASIS_INCLUDE_VOLATILEUID_H
#define BASIS_INCLUDE_VOLATILEUID_H

#include <cstdint>
#include <deque>
#include <exception>
#include <mutex>

#include "KeelException.h"
#include "ThreadMutex.h"

namespace basis {

template <class T>
class VolatileUID {
public:
    VolatileUID() = default;
    // A generator whose last issued number is `lastIssued` (the next one issued follows it).
    explicit VolatileUID(std::uint32_t lastIssued) : _last(lastIssued) {}
    VolatileUID(const VolatileUID&) = delete;
    VolatileUID& operator=(const VolatileUID&) = delete;

    // Throws keel::StdException when a standard exception escapes (memory exhausted).
    T getID();
    void releaseID(T id);
    // Forgets the given-back numbers; the last number issued is kept, so numbers stay unique.
    void dropReleased();
    std::uint32_t getLastIssued() const;

private:
    [[noreturn]] static void Rethrow(const std::exception& e, const char* function);

    mutable ThreadMutex _mutex;
    std::uint32_t _last = 0;  // guarded by _mutex
    std::deque<T> _released;  // guarded by _mutex; oldest first
};

template <class T>
T VolatileUID<T>::getID() {
    try {
        std::lock_guard<ThreadMutex> hold(_mutex);
        if (_released.empty()) {
            _last = (_last == UINT32_MAX) ? 1 : _last + 1;
            return static_cast<T>(_last);
        }
        const T id = _released.front();
        _released.pop_front();
        return id;
    } catch (const std::exception& e) {
        Rethrow(e, "basis::VolatileUID<unsigned long>::getID");
    }
}

template <class T>
void VolatileUID<T>::releaseID(T id) {
    try {
        std::lock_guard<ThreadMutex> hold(_mutex);
        _released.push_back(id);
    } catch (const std::exception& e) {
        Rethrow(e, "basis::VolatileUID<unsigned long>::releaseID");
    }
}

template <class T>
void VolatileUID<T>::dropReleased() {
    std::lock_guard<ThreadMutex> hold(_mutex);
    _released.clear();
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
