#pragma once

#include "bastion/Mutex.hpp"

#include <pthread.h>

#include <chrono>

namespace Bastion
{
  /// A condition variable for Bastion::Mutex, timed on the monotonic clock.
  /// Wake-ups may be spurious: callers re-check their predicate and recompute the time left.
  class Condition
  {
  public:
    Condition();
    ~Condition();
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    /// Releases `locked` (held by the caller), waits for a wake-up or `timeoutMs` milliseconds
    /// (negative: no limit), and takes `locked` again before returning. False on timeout.
    /// A recursive mutex must be held exactly once by the caller: only that one level is released
    /// during the wait, so a deeper hold would keep other threads out and the wake-up could never come.
    bool wait(Mutex& locked, int timeoutMs = -1) BASTION_REQUIRES(locked);
    /// Waits as `wait` does until `ready()` is true, for at most `timeoutMs` milliseconds in all,
    /// and returns `ready()`'s last answer. `ready` runs with `locked` held.
    template <typename Ready>
    bool waitFor(Mutex& locked, int timeoutMs, Ready ready) BASTION_REQUIRES(locked)
    {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
      while (!ready()) {
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0)
          return ready();
        wait(locked, int(left));
      }
      return true;
    }
    /// Wakes one waiting thread, if any. Callers usually hold the mutex the waiter uses.
    void wakeOne();
    void wakeAll();

  private:
    pthread_cond_t m_cond;
  };
}
