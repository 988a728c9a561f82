#pragma once

#include <cstdint>
#include <type_traits>

namespace Bastion
{
  /// A point in time or a duration: fixed-point seconds in a signed 64-bit value with 24 fraction
  /// bits. `getTime()` reads the monotonic clock, which all processes of one host share.
  class TimeStamp
  {
  public:
    static constexpr int FractionBits = 24;
    static constexpr int64_t One = int64_t(1) << FractionBits;

    constexpr TimeStamp() = default;

    static TimeStamp getTime();
    static constexpr TimeStamp fromValue(int64_t v) { return TimeStamp(v); }
    static constexpr TimeStamp createSeconds(double s) { return TimeStamp(int64_t(s * double(One))); }

    constexpr int64_t value() const { return m_value; }
    constexpr double secondsD() const { return double(m_value) / double(One); }
    /// Seconds since this time stamp was taken.
    double sinceSecondsD() const { return (getTime() - *this).secondsD(); }

    constexpr TimeStamp operator+(TimeStamp o) const { return TimeStamp(m_value + o.m_value); }
    constexpr TimeStamp operator-(TimeStamp o) const { return TimeStamp(m_value - o.m_value); }
    TimeStamp& operator+=(TimeStamp o)
    {
      m_value += o.m_value;
      return *this;
    }
    TimeStamp& operator-=(TimeStamp o)
    {
      m_value -= o.m_value;
      return *this;
    }
    constexpr bool operator==(TimeStamp o) const { return m_value == o.m_value; }
    constexpr bool operator!=(TimeStamp o) const { return m_value != o.m_value; }
    constexpr bool operator<(TimeStamp o) const { return m_value < o.m_value; }
    constexpr bool operator<=(TimeStamp o) const { return m_value <= o.m_value; }
    constexpr bool operator>(TimeStamp o) const { return m_value > o.m_value; }
    constexpr bool operator>=(TimeStamp o) const { return m_value >= o.m_value; }

  private:
    constexpr explicit TimeStamp(int64_t v)
        : m_value(v)
    {
    }
    int64_t m_value = 0;
  };

  static_assert(sizeof(TimeStamp) == 8 && std::is_trivially_copyable<TimeStamp>::value,
                "TimeStamp travels as 8 raw bytes");
}
