#include "bastion/TimeStamp.hpp"

#include <ctime>

namespace Bastion
{
  TimeStamp TimeStamp::getTime()
  {
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    // (ns << 24) / 1e9 without overflow: ns < 1e9 < 2^30, shifted stays below 2^54.
    return TimeStamp((int64_t(ts.tv_sec) << FractionBits) + ((int64_t(ts.tv_nsec) << FractionBits) / 1000000000));
  }
}
