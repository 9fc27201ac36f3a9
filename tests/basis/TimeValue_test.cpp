#include "TimeValue.h"

#include <gtest/gtest.h>

namespace {

using basis::TimeValue;

TEST(TimeValueTest, ConstructionNormalisesMicrosecondsIntoSeconds) {
    const long rows[][4] = {{1, 2500000, 3, 500000}, {1, -250000, 0, 750000}, {0, -1, -1, 999999}};
    for (const auto& row : rows) {
        const TimeValue value(row[0], row[1]);
        EXPECT_EQ(value.getSecond(), row[2]) << row[0] << " " << row[1];
        EXPECT_EQ(value.getMicrosecond(), row[3]) << row[0] << " " << row[1];
    }
}

TEST(TimeValueTest, ArithmeticCarriesAndBorrows) {
    const TimeValue a(2, 900000);
    const TimeValue b(0, 200000);
    EXPECT_EQ(a + b, TimeValue(3, 100000));
    EXPECT_EQ(b - a, TimeValue(-3, 300000));  // -2.7 s
    EXPECT_EQ((b - a).toMicroseconds(), -2700000);
    TimeValue c = a;
    c += TimeValue(0, 125000);
    EXPECT_EQ(c, TimeValue(3, 25000));
}

TEST(TimeValueTest, ComparisonIsLexicographic) {
    const TimeValue never(-1, 0);
    EXPECT_LT(never, TimeValue::kZero);
    EXPECT_LT(TimeValue(1, 999999), TimeValue(2, 0));
    EXPECT_GT(TimeValue(2, 1), TimeValue(2, 0));
    EXPECT_LE(TimeValue(2, 0), TimeValue(2, 0));
    EXPECT_NE(TimeValue(2, 0), TimeValue(2, 1));
}

TEST(TimeValueTest, MillisecondsRoundUpAndNegativeGivesZero) {
    EXPECT_EQ(TimeValue(0, 1).toMillisecondsCeil(), 1);
    EXPECT_EQ(TimeValue(1, 999).toMillisecondsCeil(), 1001);
    EXPECT_EQ(TimeValue(-1, 0).toMillisecondsCeil(), 0);
    EXPECT_EQ(TimeValue::FromMicroseconds(1250000), TimeValue(1, 250000));
}

TEST(TimeValueTest, MonotonicClockNeverGoesBack) {
    TimeValue previous = TimeValue::GetHRTime();
    for (int i = 0; i < 1000; ++i) {
        const TimeValue now = TimeValue::GetHRTime();
        ASSERT_GE(now, previous);
        previous = now;
    }
    EXPECT_GT(TimeValue::GetTimeOfDay().getSecond(), 1600000000);  // a 2020s wall clock
}

}  // namespace
