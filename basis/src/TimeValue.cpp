#include "TimeValue.h"

#include <time.h>

namespace basis {

namespace {

constexpr long kMicrosPerSecond = 1000000;

TimeValue fromTimespec(const timespec& ts) {
    return TimeValue(ts.tv_sec, ts.tv_nsec / 1000);
}

}  // namespace

const TimeValue TimeValue::kZero;

TimeValue::TimeValue(long seconds, long microseconds) {
    set(seconds, microseconds);
}

void TimeValue::set(long seconds, long microseconds) {
    _tv.tv_sec = seconds;
    _tv.tv_usec = microseconds;
    normalise();
}

void TimeValue::setMicrosecond(long microseconds) {
    _tv.tv_usec = microseconds;
    normalise();
}

void TimeValue::normalise() {
    if (_tv.tv_usec >= kMicrosPerSecond || _tv.tv_usec < 0) {
        long carry = _tv.tv_usec / kMicrosPerSecond;
        long rest = _tv.tv_usec % kMicrosPerSecond;
        if (rest < 0) {
            rest += kMicrosPerSecond;
            --carry;
        }
        _tv.tv_sec += carry;
        _tv.tv_usec = rest;
    }
}

long long TimeValue::toMicroseconds() const {
    return static_cast<long long>(_tv.tv_sec) * kMicrosPerSecond + _tv.tv_usec;
}

long long TimeValue::toMillisecondsCeil() const {
    const long long us = toMicroseconds();
    return us <= 0 ? 0 : (us + 999) / 1000;
}

TimeValue TimeValue::FromMicroseconds(long long microseconds) {
    return TimeValue(static_cast<long>(microseconds / kMicrosPerSecond),
                     static_cast<long>(microseconds % kMicrosPerSecond));
}

TimeValue TimeValue::operator+(const TimeValue& other) const {
    return TimeValue(_tv.tv_sec + other._tv.tv_sec, _tv.tv_usec + other._tv.tv_usec);
}

TimeValue TimeValue::operator-(const TimeValue& other) const {
    return TimeValue(_tv.tv_sec - other._tv.tv_sec, _tv.tv_usec - other._tv.tv_usec);
}

TimeValue& TimeValue::operator+=(const TimeValue& other) {
    return *this = *this + other;
}

TimeValue& TimeValue::operator-=(const TimeValue& other) {
    return *this = *this - other;
}

TimeValue TimeValue::GetTimeOfDay() {
    timespec ts;
    (void)clock_gettime(CLOCK_REALTIME, &ts);  // cannot fail with a valid clock and pointer
    return fromTimespec(ts);
}

TimeValue TimeValue::GetHRTime() {
    timespec ts;
    (void)clock_gettime(CLOCK_MONOTONIC, &ts);  // cannot fail with a valid clock and pointer
    return fromTimespec(ts);
}

}  // namespace basis
