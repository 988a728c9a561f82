#pragma once

#include "quiver/MatrixNT.hpp"

namespace Quiver
{
  /// 4 x 4 matrix, row-major (m[row][column]), no padding.
  template <typename T>
  struct Matrix4T : MatrixNT<T, 4>
  {
    constexpr Matrix4T()
        : MatrixNT<T, 4>{}
    {
    }
    constexpr Matrix4T(const MatrixNT<T, 4>& base)
        : MatrixNT<T, 4>(base)
    {
    }
    static constexpr Matrix4T identity() { return Matrix4T(MatrixNT<T, 4>::identity()); }
  };

  using Matrix4f = Matrix4T<float>;

  static_assert(sizeof(Matrix4f) == 64, "Matrix4T must not be padded");
  static_assert(std::is_trivially_copyable<Matrix4f>::value && std::is_standard_layout<Matrix4f>::value);
}
