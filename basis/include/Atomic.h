/// @file
#ifndef BASIS_INCLUDE_ATOMIC_H
#define BASIS_INCLUDE_ATOMIC_H

#include <atomic>

namespace basis {

/// basis::Atomic: a counter that several threads may increment at once.
///
/// Thread safety: every operation is atomic.
class Atomic {
public:
    /// Starts at `value`.
    explicit Atomic(long value = 0) : _value(value) {}
    Atomic(const Atomic&) = delete;
    Atomic& operator=(const Atomic&) = delete;

    ///@{
    /// Post-increment / post-decrement: return the value before the change.
    long operator++(int) { return _value.fetch_add(1); }
    long operator--(int) { return _value.fetch_sub(1); }
    ///@}
    ///@{
    /// The value.
    long value() const { return _value.load(); }
    void set(long value) { _value.store(value); }
    ///@}

private:
    std::atomic<long> _value;
};

}  // namespace basis

#endif  // BASIS_INCLUDE_ATOMIC_H
