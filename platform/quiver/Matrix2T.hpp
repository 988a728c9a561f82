#pragma once

#include "quiver/MatrixNT.hpp"

namespace Quiver
{
  /// 2 x 2 matrix, row-major (m[row][column]), no padding.
  template <typename T>
  struct Matrix2T : MatrixNT<T, 2>
  {
    constexpr Matrix2T()
        : MatrixNT<T, 2>{}
    {
    }
    constexpr Matrix2T(const MatrixNT<T, 2>& base)
        : MatrixNT<T, 2>(base)
    {
    }
    static constexpr Matrix2T identity() { return Matrix2T(MatrixNT<T, 2>::identity()); }
  };

  using Matrix2f = Matrix2T<float>;

  static_assert(sizeof(Matrix2f) == 16, "Matrix2T must not be padded");
  static_assert(std::is_trivially_copyable<Matrix2f>::value && std::is_standard_layout<Matrix2f>::value);
}
