/// @file
#ifndef BASIS_INCLUDE_TIMEVALUE_H
#define BASIS_INCLUDE_TIMEVALUE_H

#include <sys/time.h>

namespace basis {

/// basis::TimeValue: a point or span of time in seconds and microseconds.
///
/// The value is always normalised: 0 <= microseconds < 1,000,000, with any carry moved into the
/// seconds, which may be negative (-1 s 0 us stands for "never" in the reactor). Comparisons are
/// lexicographic on (seconds, microseconds). Two clocks are offered and never mixed by the
/// library: GetTimeOfDay (wall clock, CLOCK_REALTIME) and GetHRTime (monotonic, CLOCK_MONOTONIC).
/// All other code reads clocks only through this class.
///
/// Thread safety: a value type; distinct objects are independent, a shared object is safe for
/// concurrent reads only.
class TimeValue {
public:
    /// 0 s 0 us.
    static const TimeValue kZero;

    TimeValue() : _tv{0, 0} {}
    /// The normalised value of `seconds` plus `microseconds` (either may be out of range).
    TimeValue(long seconds, long microseconds);

    /// Sets the normalised value of `seconds` plus `microseconds`.
    void set(long seconds, long microseconds);
    ///@{
    /// The seconds (may be negative).
    long getSecond() const { return _tv.tv_sec; }
    void setSecond(long seconds) { _tv.tv_sec = seconds; }
    ///@}
    /// The microseconds, 0 to 999999.
    long getMicrosecond() const { return _tv.tv_usec; }
    /// Sets the microseconds; a value out of range carries into the seconds.
    void setMicrosecond(long microseconds);

    ///@{
    /// The whole value in microseconds / in milliseconds rounded up (negative values give 0 ms).
    long long toMicroseconds() const;
    long long toMillisecondsCeil() const;
    ///@}
    /// The value of `microseconds`, normalised.
    static TimeValue FromMicroseconds(long long microseconds);

    ///@{
    /// Sum and difference, normalised.
    TimeValue operator+(const TimeValue& other) const;
    TimeValue operator-(const TimeValue& other) const;
    TimeValue& operator+=(const TimeValue& other);
    TimeValue& operator-=(const TimeValue& other);
    ///@}

    ///@{
    /// Comparisons on (seconds, microseconds). Inline: ordered containers of dates compare on
    /// every step.
    bool operator==(const TimeValue& other) const {
        return _tv.tv_sec == other._tv.tv_sec && _tv.tv_usec == other._tv.tv_usec;
    }
    bool operator!=(const TimeValue& other) const { return !(*this == other); }
    bool operator<(const TimeValue& other) const {
        return _tv.tv_sec < other._tv.tv_sec ||
               (_tv.tv_sec == other._tv.tv_sec && _tv.tv_usec < other._tv.tv_usec);
    }
    bool operator<=(const TimeValue& other) const { return !(other < *this); }
    bool operator>(const TimeValue& other) const { return other < *this; }
    bool operator>=(const TimeValue& other) const { return !(*this < other); }
    ///@}

    ///@{
    /// Direct access to the platform structure, for system calls that take a timeval.
    operator timeval*() { return &_tv; }
    operator const timeval*() const { return &_tv; }
    ///@}

    /// Wall-clock date (CLOCK_REALTIME).
    static TimeValue GetTimeOfDay();
    /// Monotonic date (CLOCK_MONOTONIC); unaffected by changes of the system clock.
    static TimeValue GetHRTime();

private:
    void normalise();

    timeval _tv;
};

}  // namespace basis

#endif  // BASIS_INCLUDE_TIMEVALUE_H
