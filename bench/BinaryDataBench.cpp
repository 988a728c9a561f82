// Writes and reads one million items (alternating int32 and float) with BinaryData and compares
// the time per item with a memcpy of the same encoded bytes, measured in the same run.
//
// Usage: BinaryDataBench [items] [rounds]

#include "bastion/BinaryData.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace
{
  using Clock = std::chrono::steady_clock;

  double nsSince(Clock::time_point start)
  {
    return double(std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
  }

  /// Keeps the compiler from dropping work whose result is otherwise unused.
  volatile int64_t sink;

  struct Timings
  {
    double write = 1e300;
    double rewrite = 1e300;
    double read = 1e300;
    double copy = 1e300;
  };
}

int main(int argc, char** argv)
{
  const int items = argc > 1 ? std::max(2, std::atoi(argv[1])) : 1000000;
  const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 15;

  Timings best;
  std::vector<char> copyTarget;
  for (int round = 0; round < rounds; ++round) {
    // Write: a fresh buffer each round, growing as it goes. This includes the allocations and the
    // first touch of every new page, which the memcpy baseline (into a reused buffer) does not pay.
    auto start = Clock::now();
    Bastion::BinaryData out;
    for (int i = 0; i < items; i += 2) {
      out.writeInt32(i);
      out.writeFloat(float(i) * 0.5f);
    }
    best.write = std::min(best.write, nsSince(start));

    // Write again into the same object: clear() keeps the memory, so this is the encoding cost
    // without allocation and page faults (what a sender that reuses its buffer pays).
    out.clear();
    start = Clock::now();
    for (int i = 0; i < items; i += 2) {
      out.writeInt32(i);
      out.writeFloat(float(i) * 0.5f);
    }
    best.rewrite = std::min(best.rewrite, nsSince(start));

    // Read back from a linked view, as a receiver reads a payload in place.
    Bastion::BinaryData in;
    in.linkTo(out.data(), out.size());
    start = Clock::now();
    int64_t sum = 0;
    int32_t v = 0;
    float f = 0;
    for (int i = 0; i < items; i += 2) {
      if (!in.readInt32(v) || !in.readFloat(f)) {
        std::fprintf(stderr, "read failed at item %d\n", i);
        return 1;
      }
      sum += v + int64_t(f);
    }
    best.read = std::min(best.read, nsSince(start));
    sink = sum;

    // Baseline: copy the same encoded bytes.
    copyTarget.assign(size_t(out.size()), 0);
    start = Clock::now();
    std::memcpy(copyTarget.data(), out.data(), size_t(out.size()));
    best.copy = std::min(best.copy, nsSince(start));
    sink = copyTarget[size_t(round) % copyTarget.size()];
  }

  const double perItemWrite = best.write / items;
  const double perItemRewrite = best.rewrite / items;
  const double perItemRead = best.read / items;
  const double perItemCopy = best.copy / items;
  std::printf("BinaryData: %d items (int32 and float alternating, %d bytes), best of %d rounds\n", items, items * 8,
              rounds);
  std::printf("%-24s %10s %12s\n", "operation", "ns/item", "x memcpy");
  std::printf("%-24s %10.3f %12.1f\n", "write (growing buffer)", perItemWrite, perItemWrite / perItemCopy);
  std::printf("%-24s %10.3f %12.1f\n", "write (reused buffer)", perItemRewrite, perItemRewrite / perItemCopy);
  std::printf("%-24s %10.3f %12.1f\n", "read (linked view)", perItemRead, perItemRead / perItemCopy);
  std::printf("%-24s %10.3f %12.1f\n", "memcpy of the bytes", perItemCopy, 1.0);
  return 0;
}
