// Cost of setting a float attribute that has one change listener, against calling the same
// listener directly through a std::function, in the same run. Target: at most 3x.

#include "carafe/AttributeT.hpp"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>

namespace
{
  constexpr int Iterations = 2000000;
  constexpr int Rounds = 15;

  /// Best nanoseconds per operation over several rounds (the least disturbed one).
  template <typename F>
  double bestNsPerOp(F body)
  {
    double best = 1e30;
    for (int r = 0; r < Rounds; ++r) {
      const auto start = std::chrono::steady_clock::now();
      body();
      const auto end = std::chrono::steady_clock::now();
      best = std::min(best, std::chrono::duration<double, std::nano>(end - start).count() / Iterations);
    }
    return best;
  }
}

int main()
{
  long counter = 0;
  std::function<void()> listener = [&counter] { ++counter; };
  benchmark::DoNotOptimize(listener);

  const double direct = bestNsPerOp([&] {
    for (int i = 0; i < Iterations; ++i) {
      listener();
      benchmark::ClobberMemory();
    }
  });

  Carafe::AttributeT<float> attribute;
  attribute.addListener(listener, Carafe::Attribute::RoleChanged);
  const double set = bestNsPerOp([&] {
    for (int i = 0; i < Iterations; ++i) {
      attribute.setValue(float(i & 1)); // every set changes the value
      benchmark::ClobberMemory();
    }
  });

  const double equal = bestNsPerOp([&] {
    for (int i = 0; i < Iterations; ++i) {
      attribute.setValue(1.f);
      benchmark::ClobberMemory();
    }
  });

  Carafe::AttributeT<float> quiet;
  const double noListener = bestNsPerOp([&] {
    for (int i = 0; i < Iterations; ++i) {
      quiet.setValue(float(i & 1));
      benchmark::ClobberMemory();
    }
  });

  benchmark::DoNotOptimize(counter);
  std::printf("%-44s %10s %8s\n", "case", "ns/op", "ratio");
  std::printf("%-44s %10.2f %8.2f\n", "direct std::function call (baseline)", direct, 1.0);
  std::printf("%-44s %10.2f %8.2f\n", "setValue, one listener, value changes", set, set / direct);
  std::printf("%-44s %10.2f %8.2f\n", "setValue, equal value (no call)", equal, equal / direct);
  std::printf("%-44s %10.2f %8.2f\n", "setValue, no listener", noListener, noListener / direct);
  std::printf("target: setValue with one listener at most 3x the direct call -> %s\n",
              set / direct <= 3.0 ? "met" : "NOT MET");
  return 0;
}
