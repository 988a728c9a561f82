#pragma once

#include "quiver/Vector2T.hpp"

namespace Quiver
{
  /// An axis-aligned rectangle as two corners in memory order: `low` (minimum x, y), then `high`.
  template <typename T>
  struct RectT
  {
    Vector2T<T> low;
    Vector2T<T> high;

    constexpr RectT() = default;
    constexpr RectT(Vector2T<T> l, Vector2T<T> h)
        : low(l)
        , high(h)
    {
    }
    constexpr RectT(T x0, T y0, T x1, T y1)
        : low(x0, y0)
        , high(x1, y1)
    {
    }

    constexpr T width() const { return high.x - low.x; }
    constexpr T height() const { return high.y - low.y; }
    constexpr bool isEmpty() const { return !(high.x > low.x && high.y > low.y); }
    constexpr bool contains(Vector2T<T> p) const
    {
      return p.x >= low.x && p.y >= low.y && p.x <= high.x && p.y <= high.y;
    }
    constexpr bool operator==(const RectT& o) const { return low == o.low && high == o.high; }
    constexpr bool operator!=(const RectT& o) const { return !(*this == o); }
  };

  using Rectf = RectT<float>;
  using Recti = RectT<int>;
  using Rectd = RectT<double>;

  static_assert(sizeof(Rectf) == 16 && sizeof(Recti) == 16 && sizeof(Rectd) == 32, "RectT must not be padded");
}
