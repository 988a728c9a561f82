#include "bastion/TimeStamp.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <ctime>

using Bastion::TimeStamp;

TEST(TimeStamp, FixedPointHas24FractionBits)
{
  EXPECT_EQ(TimeStamp::One, int64_t(16777216));
  EXPECT_EQ(TimeStamp::createSeconds(1.0).value(), int64_t(1) << 24);
  EXPECT_EQ(TimeStamp::createSeconds(1.5).value(), int64_t(3) << 23);
  EXPECT_EQ(TimeStamp::createSeconds(-0.25).value(), -(int64_t(1) << 22));
  EXPECT_EQ(TimeStamp::createSeconds(0.0).value(), 0);
  EXPECT_EQ(TimeStamp().value(), 0);
  EXPECT_DOUBLE_EQ(TimeStamp::fromValue(int64_t(5) << 24).secondsD(), 5.0);
  EXPECT_DOUBLE_EQ(TimeStamp::fromValue(1).secondsD(), 1.0 / 16777216.0);
  // About 17 billion years fit; a day of seconds keeps its 24 fraction bits exactly.
  const TimeStamp day = TimeStamp::createSeconds(86400.125);
  EXPECT_EQ(day.value(), (int64_t(86400) << 24) + (int64_t(1) << 21));
  EXPECT_DOUBLE_EQ(day.secondsD(), 86400.125);
  EXPECT_EQ(TimeStamp::fromValue(day.value()), day);
}

TEST(TimeStamp, ArithmeticAndComparisons)
{
  const TimeStamp a = TimeStamp::createSeconds(2.5);
  const TimeStamp b = TimeStamp::createSeconds(0.75);
  EXPECT_DOUBLE_EQ((a + b).secondsD(), 3.25);
  EXPECT_DOUBLE_EQ((a - b).secondsD(), 1.75);
  EXPECT_DOUBLE_EQ((b - a).secondsD(), -1.75);
  TimeStamp c = a;
  c += b;
  EXPECT_EQ(c, a + b);
  c -= a;
  EXPECT_EQ(c, b);
  EXPECT_TRUE(b < a && b <= a && a > b && a >= b && a != b);
  EXPECT_TRUE(a <= a && a >= a && !(a < a) && !(a > a) && a == a);
  EXPECT_FALSE(a == b);
}

TEST(TimeStamp, GetTimeReadsTheMonotonicClock)
{
  timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const TimeStamp first = TimeStamp::getTime();
  const double clock = double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
  // getTime() drops the nanoseconds below 2^-24 s, so allow that much.
  EXPECT_GE(first.secondsD(), clock - 1e-7);
  EXPECT_LT(first.secondsD() - clock, 1.0);
  TimeStamp previous = first;
  for (int i = 0; i < 1000; ++i) {
    const TimeStamp now = TimeStamp::getTime();
    EXPECT_GE(now, previous);
    previous = now;
  }
  EXPECT_GE(first.sinceSecondsD(), 0.0);
  EXPECT_LT(first.sinceSecondsD(), 60.0);
}
