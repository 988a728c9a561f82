#include "bastion/SymbolRegistry.hpp"

#include "bastion/Guard.hpp"
#include "bastion/LogCapture.hpp"
#include "bastion/TestGate.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <limits>
#include <set>
#include <thread>
#include <vector>

using Bastion::SymbolRegistry;

namespace
{
  QByteArray nameOf(const SymbolRegistry& r, uint32_t symbol)
  {
    QByteArray name("<unknown>");
    r.lookup(symbol, name);
    return name;
  }
}

TEST(SymbolRegistry, NewSymbolsCountFromOneAndNamesResolveBothWays)
{
  SymbolRegistry r;
  QByteArray name("untouched");
  EXPECT_EQ(r.lookup(QByteArray("a")), 0u);
  EXPECT_FALSE(r.lookup(0u, name));
  EXPECT_FALSE(r.lookup(1u, name));
  EXPECT_EQ(name, QByteArray("untouched"));

  EXPECT_EQ(r.lookupOrDefine("a/b"), 1u);
  EXPECT_EQ(r.lookupOrDefine(""), 2u);
  EXPECT_EQ(r.lookupOrDefine("a/b"), 1u);
  EXPECT_EQ(r.lookupOrDefine(QByteArray("x\0y", 3)), 3u);
  EXPECT_EQ(r.lookup(QByteArray("a/b")), 1u);
  EXPECT_EQ(r.lookup(QByteArray("")), 2u);
  EXPECT_EQ(r.lookup(QByteArray("x")), 0u);
  ASSERT_TRUE(r.lookup(2u, name));
  EXPECT_TRUE(name.isEmpty());
  EXPECT_EQ(nameOf(r, 3), QByteArray("x\0y", 3));
  EXPECT_FALSE(r.lookup(0u, name));
  EXPECT_EQ(r.count(), 3);
}

TEST(SymbolRegistry, DefineReplacesBothBindingsAndRaisesTheNextSymbol)
{
  SymbolRegistry r;
  r.define("peer/a", 5);
  EXPECT_EQ(r.lookupOrDefine("local"), 6u);

  // Rebinding a name drops its old symbol.
  r.define("peer/a", 7);
  EXPECT_EQ(r.lookup(QByteArray("peer/a")), 7u);
  EXPECT_EQ(nameOf(r, 5), QByteArray("<unknown>"));

  // Rebinding a symbol drops its old name.
  r.define("peer/b", 7);
  EXPECT_EQ(r.lookup(QByteArray("peer/a")), 0u);
  EXPECT_EQ(nameOf(r, 7), QByteArray("peer/b"));

  // Defining a symbol below the highest does not lower the next one, nor does dropping the
  // highest: a number once used is never handed out again.
  r.define("low", 2);
  r.define("high", 100);
  r.define("high", 3);
  EXPECT_EQ(nameOf(r, 100), QByteArray("<unknown>"));
  EXPECT_EQ(r.lookupOrDefine("next"), 101u);

  // Binding the same pair again changes nothing.
  r.define("low", 2);
  EXPECT_EQ(nameOf(r, 2), QByteArray("low"));
  EXPECT_EQ(r.lookup(QByteArray("low")), 2u);
  EXPECT_EQ(r.count(), 5);
}

TEST(SymbolRegistry, SymbolZeroIsRefusedAndTheLargestDoesNotWrap)
{
  SymbolRegistry r;
  {
    Bastion::LogCapture log;
    r.define("zero", 0);
    EXPECT_TRUE(
        log.contains(Bastion::LogLevel::Warning, "SymbolRegistry::define # Symbol 0 names nothing, ignored for: zero"));
  }
  EXPECT_EQ(r.lookup(QByteArray("zero")), 0u);
  EXPECT_EQ(r.count(), 0);

  const uint32_t top = std::numeric_limits<uint32_t>::max();
  r.lookupOrDefine("one");
  r.define("top", top);
  const uint32_t a = r.lookupOrDefine("after-top");
  const uint32_t b = r.lookupOrDefine("after-top-2");
  EXPECT_EQ(a, 2u);
  EXPECT_EQ(b, 3u);
  EXPECT_EQ(nameOf(r, top), QByteArray("top"));
  EXPECT_EQ(nameOf(r, a), QByteArray("after-top"));
}

TEST(SymbolRegistry, ReadLockHeldAcrossLookupsDoesNotBlockBehindAWaitingWriter)
{
  SymbolRegistry r;
  const uint32_t s = r.lookupOrDefine("held");
  std::atomic<bool> writerStarting{false};
  std::atomic<bool> writerDone{false};
  r.lock().lockShared();
  std::thread writer([&] {
    writerStarting = true;
    r.define("other", 50);
    writerDone = true;
  });
  ASSERT_TRUE(Bastion::waitUntil([&] { return writerStarting.load(); }));
  // The writer is queued behind our read lock (it cannot finish while we hold it). Taking the
  // read lock again must not queue behind it, or this thread would wait for itself.
  for (int i = 0; i < 2000; ++i) {
    EXPECT_EQ(r.lookup(QByteArray("held")), s);
    std::this_thread::yield();
  }
  EXPECT_FALSE(writerDone.load());
  r.lock().unlockShared();
  writer.join();
  EXPECT_EQ(r.lookup(QByteArray("other")), 50u);
}

TEST(SymbolRegistry, ConcurrentDefinesAndLookupsStayConsistent)
{
  SymbolRegistry r;
  constexpr int Threads = 4;
  constexpr int Names = 400;
  // The peer's numbers are all below the first local one, as they are once the peer has told us
  // its highest symbol.
  r.define("peer/init", 1000049u);
  std::vector<std::vector<uint32_t>> seen(Threads, std::vector<uint32_t>(Names));
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < Threads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < Names; ++i) {
        // Every thread walks the same names in a different order (steps coprime to Names).
        static const int steps[Threads] = {1, 3, 7, 9};
        const int n = (i * steps[t] + t * 37) % Names;
        const QByteArray name = "local/" + QByteArray::number(n);
        const uint32_t s = r.lookupOrDefine(name);
        seen[size_t(t)][size_t(n)] = s;
        if (s == 0 || r.lookup(name) != s || nameOf(r, s) != name)
          ++failures;
      }
    });
  }
  // A peer rebinds its own symbols meanwhile: each symbol in turn moves to a new name.
  threads.emplace_back([&] {
    for (int i = 0; i < Names; ++i) {
      const uint32_t symbol = 1000000u + uint32_t(i % 50);
      r.define("peer/" + QByteArray::number(i), symbol);
      QByteArray name;
      if (!r.lookup(symbol, name) || !name.startsWith("peer/"))
        ++failures;
    }
  });
  // A reader that holds the lock across a pair of lookups sees one consistent state.
  threads.emplace_back([&] {
    for (int i = 0; i < Names; ++i) {
      Bastion::ReadGuard hold(r.lock());
      const QByteArray name = "local/" + QByteArray::number(i);
      const uint32_t s = r.lookup(name);
      if (s != 0 && nameOf(r, s) != name)
        ++failures;
    }
  });
  for (auto& t : threads)
    t.join();

  EXPECT_EQ(failures.load(), 0);
  std::set<uint32_t> distinct;
  for (int n = 0; n < Names; ++n) {
    for (int t = 1; t < Threads; ++t)
      EXPECT_EQ(seen[size_t(t)][size_t(n)], seen[0][size_t(n)]) << "name " << n;
    distinct.insert(seen[0][size_t(n)]);
    EXPECT_GT(seen[0][size_t(n)], 1000049u);
  }
  EXPECT_EQ(int(distinct.size()), Names);
  // The peer's last 50 names hold its 50 symbols; earlier names lost theirs.
  for (int i = 0; i < Names; ++i) {
    const QByteArray name = "peer/" + QByteArray::number(i);
    if (i >= Names - 50)
      EXPECT_EQ(nameOf(r, r.lookup(name)), name);
    else
      EXPECT_EQ(r.lookup(name), 0u) << name.constData();
  }
  EXPECT_EQ(r.count(), Names + 50);
}
