#include "quiver/Matrix2T.hpp"
#include "quiver/Matrix3T.hpp"
#include "quiver/Matrix4T.hpp"
#include "quiver/RectT.hpp"
#include "quiver/Vector4T.hpp"

#include <gtest/gtest.h>

#include <cstring>

using namespace Quiver;

TEST(Quiver, MemberOrderIsTheByteOrder)
{
  // The wire copies these types byte for byte, so member order must be memory order.
  Vector4f v(1, 2, 3, 4);
  float raw[4];
  std::memcpy(raw, &v, sizeof(raw));
  EXPECT_EQ(raw[0], 1);
  EXPECT_EQ(raw[3], 4);

  Rectf r(1, 2, 3, 4);
  std::memcpy(raw, &r, sizeof(raw));
  EXPECT_EQ(raw[0], 1);
  EXPECT_EQ(raw[1], 2);
  EXPECT_EQ(raw[2], 3);
  EXPECT_EQ(raw[3], 4);

  Matrix2f m;
  m(0, 1) = 7; // row 0, column 1 is the second float in memory
  std::memcpy(raw, &m, sizeof(raw));
  EXPECT_EQ(raw[1], 7);
  EXPECT_EQ(raw[2], 0);
}

TEST(Quiver, MatrixProductsTakeRowsTimesColumns)
{
  Matrix3f a = Matrix3f::identity();
  a(0, 2) = 5;
  Matrix3f b = Matrix3f::identity();
  b(2, 0) = 2;
  Matrix3f p = a * b;
  EXPECT_EQ(p(0, 0), 11); // 1*1 + 5*2
  EXPECT_EQ(p(2, 0), 2);
  EXPECT_EQ(Matrix4f::identity() * Matrix4f::identity(), Matrix4f::identity());
}
