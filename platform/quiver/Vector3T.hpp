#pragma once

#include <type_traits>

namespace Quiver
{
  /// Three components in memory order x, y, z.
  template <typename T>
  struct Vector3T
  {
    T x{};
    T y{};
    T z{};

    constexpr Vector3T() = default;
    constexpr Vector3T(T x_, T y_, T z_)
        : x(x_)
        , y(y_)
        , z(z_)
    {
    }

    constexpr bool operator==(const Vector3T& o) const { return x == o.x && y == o.y && z == o.z; }
    constexpr bool operator!=(const Vector3T& o) const { return !(*this == o); }
    constexpr Vector3T operator+(const Vector3T& o) const { return {x + o.x, y + o.y, z + o.z}; }
    constexpr Vector3T operator-(const Vector3T& o) const { return {x - o.x, y - o.y, z - o.z}; }
    constexpr Vector3T operator*(T s) const { return {x * s, y * s, z * s}; }
    Vector3T& operator+=(const Vector3T& o)
    {
      x += o.x;
      y += o.y;
      z += o.z;
      return *this;
    }
    Vector3T& operator-=(const Vector3T& o)
    {
      x -= o.x;
      y -= o.y;
      z -= o.z;
      return *this;
    }
    Vector3T& operator*=(T s)
    {
      x *= s;
      y *= s;
      z *= s;
      return *this;
    }
  };

  using Vector3f = Vector3T<float>;
  using Vector3i = Vector3T<int>;

  static_assert(sizeof(Vector3f) == 12 && sizeof(Vector3i) == 12, "Vector3T must not be padded");
  static_assert(std::is_trivially_copyable<Vector3f>::value && std::is_standard_layout<Vector3f>::value);
}
