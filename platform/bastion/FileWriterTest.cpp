#include "bastion/FileWriter.hpp"
#include "bastion/Guard.hpp"
#include "bastion/LogCapture.hpp"
#include "bastion/TestGate.hpp"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

using namespace Bastion;

TEST(FileWriter, NestedGuardsNameTheInnermostAndLogEntryAndExit)
{
  LogCapture log;
  EXPECT_TRUE(FileWriter::current().isEmpty());
  {
    FileWriter outer("Settings::sync");
    EXPECT_EQ(FileWriter::current(), QByteArray("Settings::sync"));
    {
      FileWriter inner("Cache::flush");
      EXPECT_EQ(FileWriter::current(), QByteArray("Cache::flush"));
    }
    EXPECT_EQ(FileWriter::current(), QByteArray("Settings::sync"));
  }
  EXPECT_TRUE(FileWriter::current().isEmpty());
  const std::vector<QByteArray> expected{"FileWriter # begin Settings::sync", "FileWriter # begin Cache::flush",
                                         "FileWriter # end Cache::flush", "FileWriter # end Settings::sync"};
  EXPECT_EQ(log.texts(), expected);
}

TEST(FileWriter, GuardedWritesOfTwoThreadsDoNotInterleave)
{
  Mutex m;
  std::vector<QByteArray> events;
  auto note = [&](const char* e) {
    Guard g(m);
    events.push_back(e);
  };
  TestGate starting;
  std::thread other;
  {
    FileWriter mine("main");
    other = std::thread([&] {
      starting.raise();
      FileWriter theirs("other");
      note("other in");
      EXPECT_EQ(FileWriter::current(), QByteArray("other"));
    });
    ASSERT_TRUE(starting.wait());
    // Give the other thread every chance to (wrongly) get in first.
    for (int i = 0; i < 1000; ++i)
      std::this_thread::yield();
    EXPECT_EQ(FileWriter::current(), QByteArray("main"));
    note("main out");
  }
  other.join();
  const std::vector<QByteArray> expected{"main out", "other in"};
  EXPECT_EQ(events, expected);
}
