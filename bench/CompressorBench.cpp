// The attribute change compressor on a batch of 1,000,000 watcher events with 10% removals,
// next to a plain copy of the same vector.
//
// Usage: CompressorBench [repetitions]   (default 10)

#include "plexa/tracking/AttributeChangeCompressor.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

namespace
{
  using Clock = std::chrono::steady_clock;
  using Plexa::NodeWatcher;

  constexpr size_t BatchSize = 1000000;
  constexpr uint32_t Symbols = 50000;

  // 10% removals, 10% additions, 2% node events, the rest value changes, spread over 50,000
  // symbols: a busy interval of a large tree.
  std::vector<NodeWatcher::Event> makeBatch()
  {
    std::mt19937 rng(42u);
    std::vector<NodeWatcher::Event> batch;
    batch.reserve(BatchSize);
    for (size_t i = 0; i < BatchSize; ++i) {
      const uint32_t roll = uint32_t(rng() % 100);
      const uint32_t symbol = 1 + uint32_t(rng() % Symbols);
      NodeWatcher::EventType type = NodeWatcher::AttributeChanged;
      if (roll < 10)
        type = NodeWatcher::AttributeRemoved;
      else if (roll < 20)
        type = NodeWatcher::AttributeAdded;
      else if (roll < 21)
        type = NodeWatcher::NodeAdded;
      else if (roll < 22)
        type = NodeWatcher::NodeRemoved;
      batch.push_back({type, symbol});
    }
    return batch;
  }

  template <typename F>
  double bestOf(int repetitions, F&& f)
  {
    double best = 1e9;
    for (int i = 0; i < repetitions; ++i) {
      const auto start = Clock::now();
      f();
      best = std::min(best, std::chrono::duration<double>(Clock::now() - start).count());
    }
    return best;
  }
}

int main(int argc, char** argv)
{
  const int repetitions = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10;
  const std::vector<NodeWatcher::Event> batch = makeBatch();

  std::vector<NodeWatcher::Event> copy;
  size_t sink = 0;
  const double copySeconds = bestOf(repetitions, [&] {
    copy = batch; // a fresh allocation each time, as the sender's queue swap gives
    sink += copy.size();
    std::vector<NodeWatcher::Event>().swap(copy);
  });

  Plexa::AttributeChangeCompressor compressor;
  std::vector<Plexa::ChangeData> out;
  const double compressSeconds = bestOf(repetitions, [&] {
    compressor.compress(batch, out);
    sink += out.size();
  });

  std::printf("AttributeChangeCompressor on %zu events (10%% removals, %u symbols), best of %d\n", batch.size(),
              Symbols, repetitions);
  std::printf("  plain copy of the vector:  %8.2f ms\n", copySeconds * 1e3);
  std::printf("  compress:                  %8.2f ms  (%.1f ns per event, %zu records kept)\n", compressSeconds * 1e3,
              compressSeconds * 1e9 / double(batch.size()), out.size());
  std::printf("  ratio compress/copy:       %8.2f\n", compressSeconds / copySeconds);
  return sink == 0 ? 1 : 0;
}
