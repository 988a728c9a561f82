#pragma once

#include <type_traits>

namespace Quiver
{
  /// Two components in memory order x, y. Trivially copyable with no padding: the wire copies its bytes.
  template <typename T>
  struct Vector2T
  {
    T x{};
    T y{};

    constexpr Vector2T() = default;
    constexpr Vector2T(T x_, T y_)
        : x(x_)
        , y(y_)
    {
    }

    constexpr bool operator==(const Vector2T& o) const { return x == o.x && y == o.y; }
    constexpr bool operator!=(const Vector2T& o) const { return !(*this == o); }
    constexpr Vector2T operator+(const Vector2T& o) const { return {x + o.x, y + o.y}; }
    constexpr Vector2T operator-(const Vector2T& o) const { return {x - o.x, y - o.y}; }
    constexpr Vector2T operator*(T s) const { return {x * s, y * s}; }
    Vector2T& operator+=(const Vector2T& o)
    {
      x += o.x;
      y += o.y;
      return *this;
    }
    Vector2T& operator-=(const Vector2T& o)
    {
      x -= o.x;
      y -= o.y;
      return *this;
    }
    Vector2T& operator*=(T s)
    {
      x *= s;
      y *= s;
      return *this;
    }
  };

  using Vector2f = Vector2T<float>;
  using Vector2i = Vector2T<int>;
  using Vector2d = Vector2T<double>;

  static_assert(sizeof(Vector2f) == 8 && sizeof(Vector2i) == 8, "Vector2T must not be padded");
  static_assert(std::is_trivially_copyable<Vector2f>::value && std::is_standard_layout<Vector2f>::value);
}
