#pragma once

#include "bastion/ThreadSafety.hpp"

#include <pthread.h>

namespace Bastion
{
  class Condition;

  /// A mutual exclusion lock, plain or recursive. A recursive mutex may be locked again by the
  /// thread that holds it and is released after as many unlocks as locks.
  /// Not copyable; lock and unlock from the same thread.
  class BASTION_CAPABILITY("mutex") Mutex
  {
  public:
    explicit Mutex(bool recursive = false);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    /// Blocks until the calling thread holds the mutex.
    void lock() BASTION_ACQUIRE();
    void unlock() BASTION_RELEASE();
    /// Takes the mutex if that needs no wait (or the caller already holds a recursive one).
    bool tryLock() BASTION_TRY_ACQUIRE(true);

    bool isRecursive() const { return m_recursive; }

  private:
    friend class Condition;
    pthread_mutex_t m_mutex;
    const bool m_recursive;
  };
}
