#include "plexa/remote/SyncFlags.hpp"

#include <gtest/gtest.h>

using Plexa::SyncFlags;

TEST(SyncFlagsTest, UnknownSymbolsPublishAndTheDefaultIsNotStored)
{
  SyncFlags flags;
  EXPECT_EQ(flags.getFlags(42), 1u);
  flags.setFlags(42, 0);
  EXPECT_EQ(flags.getFlags(42), 0u);
  EXPECT_EQ(flags.getFlags(43), 1u);
  flags.setFlags(42, 6);
  EXPECT_EQ(flags.getFlags(42), 6u);
  flags.setFlags(42, 1);
  EXPECT_EQ(flags.getFlags(42), 1u);
  flags.setFlags(7, 0);
  flags.setFlags(8, 2);
  flags.clear();
  EXPECT_EQ(flags.getFlags(7), 1u);
  EXPECT_EQ(flags.getFlags(8), 1u);
}
