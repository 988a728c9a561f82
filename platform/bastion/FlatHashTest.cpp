#include "bastion/FlatHash.hpp"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <random>
#include <vector>

namespace
{
  // Random insertions, overwrites and erasures over a small key range (long probe runs that wrap
  // around the end of the array, erasures in their middle) must leave the same contents as a
  // std::map after every step.
  template <bool PeerKeys>
  void compareWithMap()
  {
    Bastion::FlatHash<uint32_t, uint64_t, PeerKeys> table;
    std::map<uint32_t, uint64_t> expected;
    std::mt19937 random(7);
    for (int step = 0; step < 20000; ++step) {
      const uint32_t key = random() % 300;
      switch (random() % 3) {
      case 0: {
        const auto added = table.insert(key, step);
        EXPECT_EQ(added.second, expected.emplace(key, step).second);
        EXPECT_EQ(*added.first, expected[key]);
        break;
      }
      case 1:
        table.set(key, step);
        expected[key] = step;
        break;
      default:
        EXPECT_EQ(table.erase(key), expected.erase(key) == 1);
      }
      ASSERT_EQ(table.size(), expected.size());
      if (step % 97 == 0) {
        for (uint32_t k = 0; k < 300; ++k) {
          const auto it = expected.find(k);
          const uint64_t* found = table.find(k);
          ASSERT_EQ(found != nullptr, it != expected.end()) << "key " << k << " at step " << step;
          if (found) {
            ASSERT_EQ(*found, it->second);
          }
        }
        size_t visited = 0;
        table.forEach([&](uint32_t k, uint64_t v) {
          ++visited;
          EXPECT_EQ(expected.at(k), v);
        });
        EXPECT_EQ(visited, expected.size());
      }
    }
    table.clear();
    EXPECT_TRUE(table.empty());
    EXPECT_EQ(table.find(1), nullptr);
    EXPECT_FALSE(table.erase(1));
  }
}

TEST(FlatHash, MatchesAnOrderedMapThroughInsertionsAndErasures)
{
  compareWithMap<false>();
  compareWithMap<true>();
}

// Heap addresses share their low bits; they must still all be found after growth.
TEST(FlatHash, KeepsPointerKeysThroughGrowth)
{
  std::vector<std::unique_ptr<int>> objects;
  Bastion::FlatHash<int*, int> table;
  for (int i = 0; i < 5000; ++i) {
    objects.push_back(std::make_unique<int>(i));
    EXPECT_TRUE(table.insert(objects.back().get(), i).second);
  }
  for (int i = 0; i < 5000; i += 2)
    EXPECT_TRUE(table.erase(objects[size_t(i)].get()));
  for (int i = 0; i < 5000; ++i) {
    const int* found = table.find(objects[size_t(i)].get());
    if (i % 2)
      ASSERT_TRUE(found && *found == i);
    else
      EXPECT_EQ(found, nullptr);
  }
  EXPECT_EQ(table.size(), 2500u);
}
