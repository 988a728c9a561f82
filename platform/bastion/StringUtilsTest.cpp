#include "bastion/StringUtils.hpp"

#include "bastion/BinaryData.hpp"

#include <gtest/gtest.h>

#include <typeinfo>
#include <vector>

using Bastion::StringUtils;

namespace
{
  struct LocalThing
  {
  };
}

TEST(StringUtils, DemangleGivesReadableNamesOrTheRawOne)
{
  EXPECT_EQ(StringUtils::demangle(typeid(Bastion::BinaryData).name()), QString("Bastion::BinaryData"));
  EXPECT_EQ(StringUtils::demangle(typeid(std::vector<int>).name()), QString("std::vector<int, std::allocator<int> >"));
  EXPECT_EQ(StringUtils::demangle(typeid(LocalThing).name()), QString("(anonymous namespace)::LocalThing"));
  // One leading '*' is skipped; a second one is part of the name.
  EXPECT_EQ(StringUtils::demangle("*N7Bastion10BinaryDataE"), QString("Bastion::BinaryData"));
  EXPECT_EQ(StringUtils::demangle("**N7Bastion10BinaryDataE"), QString("*N7Bastion10BinaryDataE"));
  EXPECT_EQ(StringUtils::demangle("not a mangled name"), QString("not a mangled name"));
  EXPECT_EQ(StringUtils::demangle("_Z"), QString("_Z"));
  EXPECT_EQ(StringUtils::demangle(""), QString(""));
  EXPECT_TRUE(StringUtils::demangle(nullptr).isEmpty());
}
