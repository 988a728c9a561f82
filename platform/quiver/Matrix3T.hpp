#pragma once

#include "quiver/MatrixNT.hpp"

namespace Quiver
{
  /// 3 x 3 matrix, row-major (m[row][column]), no padding.
  template <typename T>
  struct Matrix3T : MatrixNT<T, 3>
  {
    constexpr Matrix3T()
        : MatrixNT<T, 3>{}
    {
    }
    constexpr Matrix3T(const MatrixNT<T, 3>& base)
        : MatrixNT<T, 3>(base)
    {
    }
    static constexpr Matrix3T identity() { return Matrix3T(MatrixNT<T, 3>::identity()); }
  };

  using Matrix3f = Matrix3T<float>;

  static_assert(sizeof(Matrix3f) == 36, "Matrix3T must not be padded");
  static_assert(std::is_trivially_copyable<Matrix3f>::value && std::is_standard_layout<Matrix3f>::value);
}
