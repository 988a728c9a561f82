#pragma once

#include "bastion/Color.hpp"

namespace Bastion
{
  /// RGBA colour with r, g, b premultiplied by alpha; same layout as `Color`.
  struct ColorPMA
  {
    float r = 0.f;
    float g = 0.f;
    float b = 0.f;
    float a = 1.f;

    constexpr ColorPMA() = default;
    constexpr ColorPMA(float r_, float g_, float b_, float a_ = 1.f)
        : r(r_)
        , g(g_)
        , b(b_)
        , a(a_)
    {
    }
    /// Premultiplies a straight colour.
    constexpr explicit ColorPMA(const Color& c)
        : r(c.r * c.a)
        , g(c.g * c.a)
        , b(c.b * c.a)
        , a(c.a)
    {
    }

    /// Back to a straight colour; a fully transparent colour stays black.
    Color toColor() const { return a == 0.f ? Color(0, 0, 0, 0) : Color(r / a, g / a, b / a, a); }

    constexpr bool operator==(const ColorPMA& o) const { return r == o.r && g == o.g && b == o.b && a == o.a; }
    constexpr bool operator!=(const ColorPMA& o) const { return !(*this == o); }
  };

  static_assert(sizeof(ColorPMA) == 16 && std::is_trivially_copyable<ColorPMA>::value &&
                    std::is_standard_layout<ColorPMA>::value,
                "ColorPMA travels as 16 raw bytes");
}
