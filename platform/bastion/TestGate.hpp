#pragma once

// Test helpers: a counting gate that one thread raises and others wait on with a deadline, and a
// bounded wait for a condition that nothing signals. The wait helpers of the tests, from the threads
// here up to the file transfer.

#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Mutex.hpp"

#include <chrono>
#include <functional>
#include <thread>

namespace Bastion
{
  class TestGate
  {
  public:
    void raise()
    {
      Guard g(m_mutex);
      ++m_count;
      m_cond.wakeAll();
    }

    int count()
    {
      Guard g(m_mutex);
      return m_count;
    }
    bool isOpen() { return count() > 0; }

    /// True once raised at least `count` times in all; false when `timeoutMs` passed first.
    bool wait(int count = 1, int timeoutMs = 10000)
    {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
      Guard g(m_mutex);
      while (m_count < count) {
        auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
        if (left <= 0)
          return false;
        m_cond.wait(m_mutex, int(left));
      }
      return true;
    }

  private:
    Mutex m_mutex;
    Condition m_cond;
    int m_count = 0;
  };

  /// Polls `done` until it holds; false when `timeoutMs` passed first. For state that no gate is
  /// raised for (a thread count, a flag of the code under test).
  inline bool waitUntil(const std::function<bool()>& done, int timeoutMs = 20000)
  {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
    while (!done()) {
      if (std::chrono::steady_clock::now() > deadline)
        return false;
      std::this_thread::yield();
    }
    return true;
  }
}
