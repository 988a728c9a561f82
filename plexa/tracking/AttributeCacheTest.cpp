#include "plexa/tracking/AttributeCache.hpp"

#include "bastion/LogCapture.hpp"

#include <gtest/gtest.h>

using Plexa::AttributeCache;

namespace
{
  // The cache only stores the pointers; it never dereferences them.
  Carafe::Attribute* fakeAttribute(uintptr_t n)
  {
    return reinterpret_cast<Carafe::Attribute*>(n * 16);
  }
}

TEST(AttributeCacheTest, OneSymbolMapsToOneAttribute)
{
  Bastion::LogCapture log;
  AttributeCache cache;
  Carafe::Attribute* a = fakeAttribute(1);
  Carafe::Attribute* b = fakeAttribute(2);

  EXPECT_TRUE(cache.add(5, a));
  EXPECT_TRUE(cache.add(5, a));
  EXPECT_TRUE(log.texts().empty());
  EXPECT_FALSE(cache.add(5, b));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error,
                           "AttributeCache::ensureExists # Found an existing symbol (5) pointing to a different "
                           "attribute"));
  EXPECT_EQ(cache.find(5), a);
  EXPECT_EQ(cache.find(0), nullptr);
  EXPECT_EQ(cache.find(6), nullptr);

  // After removal the symbol is free for another attribute.
  EXPECT_TRUE(cache.remove(5));
  EXPECT_EQ(cache.find(5), nullptr);
  EXPECT_TRUE(cache.add(5, b));
  EXPECT_EQ(cache.find(5), b);
}

TEST(AttributeCacheTest, RemovingAMissingSymbolFailsAndLogs)
{
  Bastion::LogCapture log;
  AttributeCache cache;
  EXPECT_FALSE(cache.remove(4000000000u));
  EXPECT_TRUE(
      log.contains(Bastion::LogLevel::Error, "AttributeCache::remove # Trying to remove missing symbol: 4000000000"));
  ASSERT_TRUE(cache.add(3, fakeAttribute(3)));
  EXPECT_TRUE(cache.remove(3));
  log.clear();
  EXPECT_FALSE(cache.remove(3));
  EXPECT_EQ(log.texts(), std::vector<QByteArray>{"AttributeCache::remove # Trying to remove missing symbol: 3"});
}

TEST(AttributeCacheTest, RemovalClearsTheNodeMark)
{
  AttributeCache cache;
  cache.setIsNode(9, false); // never marked: harmless
  EXPECT_FALSE(cache.isNode(9));
  ASSERT_TRUE(cache.add(9, fakeAttribute(9)));
  cache.setIsNode(9, true);
  cache.setIsNode(9, true);
  EXPECT_TRUE(cache.isNode(9));
  cache.setIsNode(9, false);
  EXPECT_FALSE(cache.isNode(9));
  cache.setIsNode(9, true);
  EXPECT_TRUE(cache.remove(9));
  EXPECT_FALSE(cache.isNode(9));
}
