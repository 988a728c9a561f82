#pragma once

#include "bastion/Mutex.hpp"
#include "bastion/ThreadSafety.hpp"

namespace Bastion
{
  /// Holds a mutex for the lifetime of the guard. The mutex must outlive the guard.
  class BASTION_SCOPED_CAPABILITY Guard
  {
  public:
    explicit Guard(Mutex& mutex) BASTION_ACQUIRE(mutex)
        : m_mutex(mutex)
    {
      m_mutex.lock();
    }
    ~Guard() BASTION_RELEASE() { m_mutex.unlock(); }
    Guard(const Guard&) = delete;
    Guard& operator=(const Guard&) = delete;

  private:
    Mutex& m_mutex;
  };
}
