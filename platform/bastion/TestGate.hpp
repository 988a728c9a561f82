#pragma once

// Test helper: a one-way gate that threads wait on with a deadline.

#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Mutex.hpp"

#include <chrono>

namespace Bastion
{
  class TestGate
  {
  public:
    void open()
    {
      Guard g(m_mutex);
      m_open = true;
      m_cond.wakeAll();
    }

    bool isOpen()
    {
      Guard g(m_mutex);
      return m_open;
    }

    /// True once the gate is open; false when `timeoutMs` passed first.
    bool wait(int timeoutMs = 5000)
    {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
      Guard g(m_mutex);
      while (!m_open) {
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
    bool m_open = false;
  };
}
