// The node watcher on a tree of 100,000 float attributes under nested nodes: the time to start
// watching it (every attribute gets a symbol, a cache entry and a listener, and is reported), and
// the cost of one value change from the set to the watcher's listener, next to the same set on
// an identical tree nobody watches.
//
// Usage: NodeWatcherBench [rounds]   (default 20 rounds of 100,000 sets per tree)

#include "BenchReport.hpp"

#include "plexa/tracking/AttributeCache.hpp"
#include "plexa/tracking/NodeWatcher.hpp"

#include "bastion/SymbolRegistry.hpp"
#include "carafe/AttributeT.hpp"
#include "carafe/Node.hpp"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <vector>

namespace
{
  using Float = Carafe::AttributeT<float>;

  constexpr int Groups = 100;      // top-level nodes
  constexpr int SubGroups = 10;    // nodes inside each of them
  constexpr int PerSubGroup = 100; // attributes in each inner node

  // CPU time of this thread: the machine is shared, and other processes should not count.
  double cpuSeconds()
  {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
  }

  std::unique_ptr<Carafe::Node> buildTree(std::vector<Float*>& attributes)
  {
    auto root = std::make_unique<Carafe::Node>();
    for (int g = 0; g < Groups; ++g) {
      auto* group = new Carafe::Node(root.get(), "group" + QByteArray::number(g));
      for (int s = 0; s < SubGroups; ++s) {
        auto* sub = new Carafe::Node(group, "sub" + QByteArray::number(s));
        for (int a = 0; a < PerSubGroup; ++a) {
          auto* attribute = new Float;
          sub->addAttribute("value" + QByteArray::number(a), attribute);
          attributes.push_back(attribute);
        }
      }
    }
    return root;
  }

  // Sets every attribute to `value` (a new one each call, so every set is a change); returns
  // seconds per set.
  double timeSets(const std::vector<Float*>& attributes, float value)
  {
    const double start = cpuSeconds();
    for (Float* a : attributes)
      a->setValue(value);
    return (cpuSeconds() - start) / double(attributes.size());
  }
}

int main(int argc, char** argv)
{
  const int rounds = argc > 1 ? std::max(1, std::atoi(argv[1])) : 20;

  std::vector<Float*> bare, watched;
  auto bareTree = buildTree(bare);
  auto watchedTree = buildTree(watched);

  Bastion::SymbolRegistry registry;
  Plexa::AttributeCache cache;
  Plexa::NodeWatcher watcher(registry, cache);
  long events = 0;
  watcher.addListener([&](const Plexa::NodeWatcher::Event&) { ++events; });

  const double start = cpuSeconds();
  watcher.startWatching(*watchedTree, true);
  const double startSeconds = cpuSeconds() - start;
  const long startEvents = events;
  events = 0;

  // Warm both trees once, then alternate the measurements so that drift hits both alike. Each
  // run gives one cold and one warm figure per tree; the ratios are the runs' medians.
  timeSets(bare, 1.0f);
  timeSets(watched, 1.0f);
  events = 0;
  const std::vector<Float*> bareHot(bare.begin(), bare.begin() + 1000);
  const std::vector<Float*> watchedHot(watched.begin(), watched.begin() + 1000);
  const int runs = BenchReport::runs();
  const int hotRounds = rounds * 100;
  std::vector<double> bareCold, watchedCold, coldRatio, bareWarm, watchedWarm, warmRatio;
  long sweepEvents = 0;
  long hotEvents = 0;
  for (int run = 0; run < runs; ++run) {
    // The sweep over all attributes: cold caches.
    double bareTotal = 0, watchedTotal = 0;
    long before = events;
    for (int i = 0; i < rounds; ++i) {
      bareTotal += timeSets(bare, float(run * rounds + i + 2));
      watchedTotal += timeSets(watched, float(run * rounds + i + 2));
    }
    sweepEvents += events - before;
    bareCold.push_back(bareTotal / rounds * 1e9);
    watchedCold.push_back(watchedTotal / rounds * 1e9);
    coldRatio.push_back(watchedCold.back() / bareCold.back());
    // The same 1,000 attributes over and over: what a frame that touches a small part of a large
    // tree costs once that part is in the processor's caches.
    double bareHotTotal = 0, watchedHotTotal = 0;
    before = events;
    for (int i = 0; i < hotRounds; ++i) {
      bareHotTotal += timeSets(bareHot, float(run * hotRounds + i + 1e6f));
      watchedHotTotal += timeSets(watchedHot, float(run * hotRounds + i + 1e6f));
    }
    hotEvents += events - before;
    bareWarm.push_back(bareHotTotal / hotRounds * 1e9);
    watchedWarm.push_back(watchedHotTotal / hotRounds * 1e9);
    warmRatio.push_back(watchedWarm.back() / bareWarm.back());
  }
  const double bareSet = BenchReport::stats(bareCold).median;
  const double watchedSet = BenchReport::stats(watchedCold).median;
  const double bareHotSet = BenchReport::stats(bareWarm).median;
  const double watchedHotSet = BenchReport::stats(watchedWarm).median;

  std::printf("NodeWatcher on %zu float attributes (%d nodes)\n", watched.size(), 1 + Groups + Groups * SubGroups);
  std::printf("  startWatching(send=true):      %8.1f ms  (%.0f ns per attribute, %ld events)\n", startSeconds * 1e3,
              startSeconds * 1e9 / double(watched.size()), startEvents);
  std::printf("  medians of %d runs\n", runs);
  std::printf("  sweep over all attributes (%d rounds, cold caches):\n", rounds);
  std::printf("    bare attribute set:            %8.1f ns\n", bareSet);
  std::printf("    set reported to the listener:  %8.1f ns\n", watchedSet);
  std::printf("    ratio watched/bare:            %8.2f   (target <= 3)\n", BenchReport::stats(coldRatio).median);
  std::printf("  the same 1,000 attributes again and again (%d rounds, warm caches):\n", hotRounds);
  std::printf("    bare attribute set:            %8.1f ns\n", bareHotSet);
  std::printf("    set reported to the listener:  %8.1f ns\n", watchedHotSet);
  std::printf("    ratio watched/bare:            %8.2f   (target <= 3)\n", BenchReport::stats(warmRatio).median);
  const bool eventsOk = sweepEvents == long(runs) * long(rounds) * long(watched.size()) &&
                        hotEvents == long(runs) * long(hotRounds) * 1000;
  for (const bool cold : {true, false}) {
    const BenchReport::Stats ratio = BenchReport::stats(cold ? coldRatio : warmRatio);
    BenchReport::Row row;
    row.what = cold ? "watched set, cold caches, ns" : "watched set, warm caches, ns";
    row.figure = BenchReport::number(cold ? watchedSet : watchedHotSet, "%.1f");
    row.baselineName = "bare set";
    row.baseline = BenchReport::number(cold ? bareSet : bareHotSet, "%.1f");
    row.ratio = BenchReport::number(ratio.median, "%.2fx");
    row.target = "<= 3x bare set";
    row.met = eventsOk && ratio.median <= 3;
    row.spread = "ratio " + BenchReport::spread(ratio, "%.2f");
    BenchReport::add(row);
  }
  if (!eventsOk) {
    std::printf("  ERROR: expected %ld change events\n", long(runs) * long(rounds) * long(watched.size()));
    return 1;
  }
  return 0;
}
