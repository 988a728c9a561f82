#include "bastion/Mutex.hpp"
#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <future>
#include <thread>
#include <vector>

using namespace Bastion;

namespace
{
  bool tryLockElsewhere(Mutex& m)
  {
    return std::async(std::launch::async,
                      [&m] {
                        if (!m.tryLock())
                          return false;
                        m.unlock();
                        return true;
                      })
        .get();
  }
}

TEST(Mutex, TryLockSeesHoldersAndRecursiveNeedsAsManyUnlocks)
{
  Mutex plain;
  EXPECT_FALSE(plain.isRecursive());
  EXPECT_TRUE(tryLockElsewhere(plain));
  plain.lock();
  EXPECT_FALSE(tryLockElsewhere(plain));
  plain.unlock();
  ASSERT_TRUE(plain.tryLock());
  EXPECT_FALSE(tryLockElsewhere(plain));
  plain.unlock();

  Mutex recursive(true);
  EXPECT_TRUE(recursive.isRecursive());
  recursive.lock();
  ASSERT_TRUE(recursive.tryLock());
  {
    Guard g(recursive);
    EXPECT_FALSE(tryLockElsewhere(recursive));
  }
  {
    Guard g(plain);
    g.unlock();
    EXPECT_TRUE(tryLockElsewhere(plain));
    g.relock();
    EXPECT_FALSE(tryLockElsewhere(plain));
  }
  EXPECT_TRUE(tryLockElsewhere(plain));
  recursive.unlock();
  EXPECT_FALSE(tryLockElsewhere(recursive));
  recursive.unlock();
  EXPECT_TRUE(tryLockElsewhere(recursive));
}

TEST(Mutex, GuardSerialisesIncrementsFromManyThreads)
{
  Mutex m;
  long counter = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 20000; ++i) {
        Guard g(m);
        ++counter;
      }
    });
  for (auto& t : threads)
    t.join();
  EXPECT_EQ(counter, 80000);
}

TEST(Condition, WaitTimesOutOrWakesAndRetakesTheMutex)
{
  using Clock = std::chrono::steady_clock;
  for (bool recursive : {false, true}) {
    Mutex m(recursive);
    Condition c;
    m.lock();
    const auto start = Clock::now();
    EXPECT_FALSE(c.wait(m, 30));
    EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(29));
    // The mutex is held again after the timeout.
    EXPECT_FALSE(tryLockElsewhere(m));
    m.unlock();

    // Two waiters on wakeAll, one on wakeOne; each checks its predicate under the mutex.
    int stage = 0;
    auto waiter = [&](int until) {
      Guard g(m);
      return c.waitFor(m, 5000, [&] { return stage >= until; });
    };
    auto a = std::async(std::launch::async, waiter, 1);
    auto b = std::async(std::launch::async, waiter, 1);
    {
      Guard g(m);
      stage = 1;
      c.wakeAll();
    }
    EXPECT_TRUE(a.get());
    EXPECT_TRUE(b.get());

    auto one = std::async(std::launch::async, [&] {
      Guard g(m);
      while (stage < 2) {
        if (!c.wait(m, 5000))
          return false;
      }
      return true;
    });
    {
      Guard g(m);
      stage = 2;
      c.wakeOne();
    }
    EXPECT_TRUE(one.get());

    // A predicate that never holds: false once the whole time has passed, mutex held again.
    Guard g(m);
    const auto waitStart = Clock::now();
    EXPECT_FALSE(c.waitFor(m, 30, [] { return false; }));
    EXPECT_GE(Clock::now() - waitStart, std::chrono::milliseconds(29));
    EXPECT_FALSE(tryLockElsewhere(m));
  }
}

TEST(SharedMutex, ReadersShareItAndAWriterWaitsForThem)
{
  SharedMutex s;
  s.lockShared();
  auto reader = std::async(std::launch::async, [&] { ReadGuard r(s); });
  EXPECT_EQ(reader.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  std::atomic<bool> written{false};
  auto writer = std::async(std::launch::async, [&] {
    WriteGuard w(s);
    written = true;
  });
  // Bounded check that the writer stays out while a reader holds the lock.
  EXPECT_EQ(writer.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  EXPECT_FALSE(written.load());
  s.unlockShared();
  EXPECT_EQ(writer.wait_for(std::chrono::seconds(5)), std::future_status::ready);
  EXPECT_TRUE(written.load());
}
