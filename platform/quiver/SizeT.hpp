#pragma once

#include <type_traits>

namespace Quiver
{
  /// A two-dimensional extent in memory order width, height.
  template <typename T>
  struct SizeT
  {
    T width{};
    T height{};

    constexpr SizeT() = default;
    constexpr SizeT(T w, T h)
        : width(w)
        , height(h)
    {
    }

    constexpr T area() const { return width * height; }
    constexpr bool operator==(const SizeT& o) const { return width == o.width && height == o.height; }
    constexpr bool operator!=(const SizeT& o) const { return !(*this == o); }
    constexpr SizeT operator*(T s) const { return {width * s, height * s}; }
  };

  using Sizef = SizeT<float>;
  using Sizei = SizeT<int>;

  static_assert(sizeof(Sizef) == 8 && sizeof(Sizei) == 8, "SizeT must not be padded");
  static_assert(std::is_trivially_copyable<Sizef>::value && std::is_standard_layout<Sizef>::value);
}
