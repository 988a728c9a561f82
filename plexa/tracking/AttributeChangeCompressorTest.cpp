#include "plexa/tracking/AttributeChangeCompressor.hpp"

#include <gtest/gtest.h>

#include <QSet>

#include <algorithm>
#include <random>

using Plexa::AttributeChangeCompressor;
using Plexa::ChangeData;
using Plexa::NodeWatcher;
using Events = std::vector<NodeWatcher::Event>;
using Changes = std::vector<ChangeData>;

namespace
{
  constexpr auto Added = NodeWatcher::AttributeAdded;
  constexpr auto Removed = NodeWatcher::AttributeRemoved;
  constexpr auto Changed = NodeWatcher::AttributeChanged;
  constexpr auto NodeAdded = NodeWatcher::NodeAdded;
  constexpr auto NodeRemoved = NodeWatcher::NodeRemoved;

  // The reduction written the plain way: backward pass with a linear search for an earlier
  // addition at every removal, reverse, forward pass. The indexed compressor must match it.
  Changes referenceCompress(const Events& events)
  {
    QSet<uint> superseded, removed, added;
    Changes scratch, out;
    for (int i = int(events.size()) - 1; i >= 0; --i) {
      const auto& e = events[size_t(i)];
      const uint s = e.symbol;
      if (e.type == Changed) {
        if (superseded.contains(s))
          continue;
        superseded.insert(s);
        scratch.push_back({e.type, s, false});
      } else if (e.type == Removed) {
        superseded.insert(s);
        removed.insert(s);
        bool bornHere = false;
        for (int j = 0; j < i; ++j)
          bornHere = bornHere || (events[size_t(j)].type == Added && events[size_t(j)].symbol == s);
        if (!bornHere)
          scratch.push_back({e.type, s, false});
      } else if (e.type == Added) {
        if (!removed.contains(s))
          scratch.push_back({e.type, s, superseded.contains(s)});
      } else {
        scratch.push_back({e.type, s, false});
      }
    }
    std::reverse(scratch.begin(), scratch.end());
    for (const auto& c : scratch) {
      if (c.type == Added)
        added.insert(c.symbol);
      else if (c.type == Changed && added.contains(c.symbol))
        continue;
      out.push_back(c);
    }
    return out;
  }

  Changes compress(const Events& events, const AttributeChangeCompressor::PeerHolds& peerHolds = {})
  {
    AttributeChangeCompressor compressor;
    Changes out{{Changed, 99, true}};
    compressor.compress(events, out, peerHolds);
    return out;
  }
}

TEST(AttributeChangeCompressorTest, ReducesEachSequenceOfOneSymbol)
{
  const uint32_t a = 7;
  struct Row
  {
    Events in;
    Changes expected;
  };
  const std::vector<Row> rows = {
      {{}, {}},
      {{{Changed, a}, {Changed, a}, {Changed, a}}, {{Changed, a, false}}},
      {{{Added, a}, {Changed, a}, {Changed, a}}, {{Added, a, true}}},
      {{{Added, a}}, {{Added, a, false}}},
      {{{Added, a}, {Changed, a}, {Removed, a}}, {}},
      {{{Changed, a}, {Removed, a}}, {{Removed, a, false}}},
      {{{Removed, a}, {Added, a}}, {{Removed, a, false}, {Added, a, false}}},
      {{{Removed, a}, {Added, a}, {Removed, a}}, {{Removed, a, false}}},
      {{{Added, a}, {Removed, a}, {Added, a}}, {{Added, a, false}}},
      {{{Added, a}, {Removed, a}, {Added, a}, {Removed, a}}, {}},
      {{{Changed, a}, {Added, a}}, {{Changed, a, false}, {Added, a, false}}},
  };
  for (size_t i = 0; i < rows.size(); ++i)
    EXPECT_EQ(compress(rows[i].in), rows[i].expected) << "row " << i;

  // The peer holds a copy of its own: one removal reaches it, and only for the symbol it holds.
  const auto holdsA = [a](uint32_t symbol) { return symbol == a; };
  const Changes removed{{Removed, a, false}};
  EXPECT_EQ(compress({{Added, a}, {Changed, a}, {Removed, a}}, holdsA), removed);
  EXPECT_EQ(compress({{Added, a}, {Removed, a}, {Added, a}, {Removed, a}}, holdsA), removed);
  EXPECT_EQ(compress({{Removed, a}, {Added, a}, {Removed, a}}, holdsA), removed);
  EXPECT_EQ(compress({{Added, a}, {Removed, a}, {Added, a}}, holdsA),
            (Changes{{Removed, a, false}, {Added, a, false}}));
  EXPECT_EQ(compress({{Added, 3}, {Removed, 3}}, holdsA), Changes{});
}

TEST(AttributeChangeCompressorTest, KeepsInputOrderAcrossSymbolsAndNodeEventsInPlace)
{
  EXPECT_EQ(compress({{Changed, 1}, {Changed, 2}, {Changed, 1}}), (Changes{{Changed, 2, false}, {Changed, 1, false}}));
  EXPECT_EQ(compress({{NodeAdded, 5}, {Changed, 1}, {NodeRemoved, 5}}),
            (Changes{{NodeAdded, 5, false}, {Changed, 1, false}, {NodeRemoved, 5, false}}));
  // A node event sharing a symbol with an attribute does not touch the attribute's state.
  EXPECT_EQ(compress({{Added, 3}, {NodeRemoved, 3}, {Changed, 3}}),
            (Changes{{Added, 3, true}, {NodeRemoved, 3, false}}));
  EXPECT_EQ(compress({{Added, 1}, {Changed, 2}, {Changed, 1}, {Removed, 3}, {Changed, 2}}),
            (Changes{{Added, 1, true}, {Removed, 3, false}, {Changed, 2, false}}));
}

TEST(AttributeChangeCompressorTest, MatchesThePlainReductionOnRandomBatches)
{
  std::mt19937 rng(12345u);
  AttributeChangeCompressor compressor; // reused across calls, as the sender does
  Changes out;
  for (int round = 0; round < 3000; ++round) {
    const int length = int(rng() % 60);
    const uint32_t symbols = uint32_t(1 + rng() % 8);
    Events events;
    for (int i = 0; i < length; ++i) {
      // Types 0..5: attribute events, node events and one value no watcher produces.
      const auto type = NodeWatcher::EventType(rng() % 6);
      events.push_back({type, uint32_t(rng() % symbols)});
    }
    compressor.compress(events, out);
    ASSERT_EQ(out, referenceCompress(events)) << "round " << round;
  }
  // One large batch, so the index grows and is later reused for small ones.
  Events big;
  for (int i = 0; i < 20000; ++i)
    big.push_back({NodeWatcher::EventType(rng() % 5), uint32_t(rng() % 3000)});
  compressor.compress(big, out);
  ASSERT_EQ(out, referenceCompress(big));
  compressor.compress({{Added, 4}, {Changed, 4}}, out);
  EXPECT_EQ(out, (Changes{{Added, 4, true}}));
}
