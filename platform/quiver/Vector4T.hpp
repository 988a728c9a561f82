#pragma once

#include <type_traits>

namespace Quiver
{
  /// Four components in memory order x, y, z, w.
  template <typename T>
  struct Vector4T
  {
    T x{};
    T y{};
    T z{};
    T w{};

    constexpr Vector4T() = default;
    constexpr Vector4T(T x_, T y_, T z_, T w_)
        : x(x_)
        , y(y_)
        , z(z_)
        , w(w_)
    {
    }

    constexpr bool operator==(const Vector4T& o) const { return x == o.x && y == o.y && z == o.z && w == o.w; }
    constexpr bool operator!=(const Vector4T& o) const { return !(*this == o); }
    constexpr Vector4T operator+(const Vector4T& o) const { return {x + o.x, y + o.y, z + o.z, w + o.w}; }
    constexpr Vector4T operator-(const Vector4T& o) const { return {x - o.x, y - o.y, z - o.z, w - o.w}; }
    constexpr Vector4T operator*(T s) const { return {x * s, y * s, z * s, w * s}; }
  };

  using Vector4f = Vector4T<float>;
  using Vector4i = Vector4T<int>;

  static_assert(sizeof(Vector4f) == 16 && sizeof(Vector4i) == 16, "Vector4T must not be padded");
  static_assert(std::is_trivially_copyable<Vector4f>::value && std::is_standard_layout<Vector4f>::value);
}
