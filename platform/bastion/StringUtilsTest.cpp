#include "bastion/StringUtils.hpp"

#include "bastion/BinaryData.hpp"

#include <gtest/gtest.h>

#include <cerrno>
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

TEST(StringUtils, ErrorTextNamesKnownAndUnknownErrors)
{
  EXPECT_EQ(StringUtils::errorText(ENOENT), QByteArray("No such file or directory"));
  // An unknown number is written into the caller's buffer, which must make it into the result.
  EXPECT_TRUE(StringUtils::errorText(98765).contains("98765"));
}
