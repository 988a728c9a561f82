#include "bastion/MemGrid8u.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <utility>

using Bastion::MemGrid8u;

namespace
{
  bool aligned(const void* p)
  {
    return reinterpret_cast<uintptr_t>(p) % 4096 == 0;
  }

  void fill(MemGrid8u& g, uint8_t seed)
  {
    for (size_t i = 0; i < g.byteCount(); ++i)
      g.data()[i] = uint8_t(seed + i * 7);
  }
}

TEST(MemGrid8u, ReallocatesOnlyWhenTheAreaExceedsTheCapacity)
{
  MemGrid8u g;
  EXPECT_EQ(g.data(), nullptr);
  EXPECT_EQ(g.capacity(), 0u);
  ASSERT_TRUE(g.resize(10, 10));
  EXPECT_EQ(g.width(), 10);
  EXPECT_EQ(g.height(), 10);
  EXPECT_EQ(g.capacity(), 100u);
  EXPECT_TRUE(aligned(g.data()));
  uint8_t* block = g.data();
  fill(g, 1);

  // Same or smaller area: same block, bytes kept.
  for (auto wh : {std::make_pair(20, 5), std::make_pair(1, 100), std::make_pair(3, 3), std::make_pair(0, 7)}) {
    ASSERT_TRUE(g.resize(wh.first, wh.second));
    EXPECT_EQ(g.data(), block);
    EXPECT_EQ(g.capacity(), 100u);
    EXPECT_EQ(g.width(), wh.first);
    EXPECT_EQ(g.height(), wh.second);
  }
  EXPECT_EQ(g.data()[99], uint8_t(1 + 99 * 7));

  // Larger area: a new aligned block, its size rounded up to a multiple of 4.
  ASSERT_TRUE(g.resize(11, 10));
  EXPECT_EQ(g.capacity(), 112u);
  EXPECT_TRUE(aligned(g.data()));
  ASSERT_TRUE(g.resize(7, 7));
  EXPECT_EQ(g.capacity(), 112u);
  ASSERT_TRUE(g.resize(113, 1));
  EXPECT_EQ(g.capacity(), 116u);
  ASSERT_TRUE(g.resize(4097, 3));
  EXPECT_EQ(g.capacity(), 12292u);
  EXPECT_TRUE(aligned(g.data()));
  // Every byte of the capacity is usable (AddressSanitizer checks this write).
  std::memset(g.data(), 0xab, g.capacity());
  EXPECT_EQ(g.line(2), g.data() + 2 * 4097);

  ASSERT_TRUE(g.resize(-5, 4));
  EXPECT_EQ(g.width(), 0);
  EXPECT_EQ(g.height(), 4);
  EXPECT_EQ(g.byteCount(), 0u);
  g.clear();
  EXPECT_EQ(g.data(), nullptr);
  EXPECT_EQ(g.capacity(), 0u);
  EXPECT_EQ(g.width(), 0);
  EXPECT_EQ(g.height(), 0);
}

TEST(MemGrid8u, CopiesAreDeepAndEqualityComparesShapeAndBytes)
{
  MemGrid8u a(6, 4);
  fill(a, 3);
  MemGrid8u b(a);
  EXPECT_NE(b.data(), a.data());
  EXPECT_TRUE(aligned(b.data()));
  EXPECT_TRUE(b == a);
  b.data()[5] ^= 1;
  EXPECT_FALSE(b == a);
  EXPECT_TRUE(b != a);
  EXPECT_EQ(a.data()[5], uint8_t(3 + 5 * 7));

  // Assignment into a bigger grid keeps its block.
  MemGrid8u big(50, 50);
  uint8_t* bigBlock = big.data();
  big = a;
  EXPECT_EQ(big.data(), bigBlock);
  EXPECT_EQ(big.width(), 6);
  EXPECT_EQ(big.height(), 4);
  EXPECT_TRUE(big == a);
  const MemGrid8u& same = big;
  big = same;
  EXPECT_TRUE(big == a);

  // Same bytes, other shape: not equal.
  MemGrid8u reshaped(a);
  ASSERT_TRUE(reshaped.resize(4, 6));
  EXPECT_EQ(std::memcmp(reshaped.data(), a.data(), 24), 0);
  EXPECT_FALSE(reshaped == a);

  EXPECT_TRUE(MemGrid8u() == MemGrid8u());
  EXPECT_FALSE(MemGrid8u() == MemGrid8u(0, 9));

  MemGrid8u moved(std::move(b));
  EXPECT_EQ(b.data(), nullptr);
  EXPECT_EQ(b.width(), 0);
  EXPECT_EQ(moved.width(), 6);
  MemGrid8u target(2, 2);
  target = std::move(moved);
  EXPECT_EQ(target.width(), 6);
  EXPECT_EQ(moved.capacity(), 0u);
  EXPECT_FALSE(target == a);
}
