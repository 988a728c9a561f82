#pragma once

#include <cstddef>
#include <type_traits>

namespace Quiver
{
  /// Square N x N matrix stored row-major: m[row][column]. The shared base of Matrix2T/3T/4T;
  /// only the element array is data, so the wire copies N*N elements in row order.
  template <typename T, int N>
  struct MatrixNT
  {
    T m[N][N];

    static constexpr MatrixNT identity()
    {
      MatrixNT r{};
      for (int i = 0; i < N; ++i)
        r.m[i][i] = T(1);
      return r;
    }

    T* data() { return &m[0][0]; }
    const T* data() const { return &m[0][0]; }
    T& operator()(int row, int col) { return m[row][col]; }
    const T& operator()(int row, int col) const { return m[row][col]; }

    bool operator==(const MatrixNT& o) const
    {
      for (int r = 0; r < N; ++r)
        for (int c = 0; c < N; ++c)
          if (!(m[r][c] == o.m[r][c]))
            return false;
      return true;
    }
    bool operator!=(const MatrixNT& o) const { return !(*this == o); }

    MatrixNT operator+(const MatrixNT& o) const
    {
      MatrixNT r{};
      for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j)
          r.m[i][j] = m[i][j] + o.m[i][j];
      return r;
    }

    MatrixNT operator-(const MatrixNT& o) const
    {
      MatrixNT r{};
      for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j)
          r.m[i][j] = m[i][j] - o.m[i][j];
      return r;
    }

    MatrixNT operator*(const MatrixNT& o) const
    {
      MatrixNT r{};
      for (int i = 0; i < N; ++i)
        for (int j = 0; j < N; ++j) {
          T sum{};
          for (int k = 0; k < N; ++k)
            sum += m[i][k] * o.m[k][j];
          r.m[i][j] = sum;
        }
      return r;
    }
  };
}
