#pragma once

#include <type_traits>

namespace Bastion
{
  /// Straight (not premultiplied) RGBA colour, four floats in memory order r, g, b, a.
  struct Color
  {
    float r = 0.f;
    float g = 0.f;
    float b = 0.f;
    float a = 1.f;

    constexpr Color() = default;
    constexpr Color(float r_, float g_, float b_, float a_ = 1.f)
        : r(r_)
        , g(g_)
        , b(b_)
        , a(a_)
    {
    }

    constexpr bool operator==(const Color& o) const { return r == o.r && g == o.g && b == o.b && a == o.a; }
    constexpr bool operator!=(const Color& o) const { return !(*this == o); }
  };

  static_assert(sizeof(Color) == 16 && std::is_trivially_copyable<Color>::value &&
                    std::is_standard_layout<Color>::value,
                "Color travels as 16 raw bytes");
}
