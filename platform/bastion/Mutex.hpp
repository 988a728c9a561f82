#pragma once

#include "bastion/ThreadSafety.hpp"

#include <pthread.h>

namespace Bastion
{
  class Condition;

  /// A mutual exclusion lock, plain or recursive. A recursive mutex may be locked again by the
  /// thread that holds it and is released after as many unlocks as locks.
  /// Not copyable; lock and unlock from the same thread.
  ///
  /// Members it protects are declared BASTION_GUARDED_BY(it), functions called with it held
  /// BASTION_REQUIRES(it): a clang build checks both (see ThreadSafety.hpp).
  class BASTION_CAPABILITY("mutex") Mutex
  {
  public:
    explicit Mutex(bool recursive = false);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Inline: these sit on the read path and the change path, where a second call per lock
    // would show; a failure is rare and handled out of line.
    /// Blocks until the calling thread holds the mutex.
    void lock() BASTION_ACQUIRE()
    {
      if (int rc = pthread_mutex_lock(&m_mutex))
        fail(rc, "lock");
    }
    void unlock() BASTION_RELEASE()
    {
      if (int rc = pthread_mutex_unlock(&m_mutex))
        fail(rc, "unlock");
    }
    /// Takes the mutex if that needs no wait (or the caller already holds a recursive one).
    bool tryLock() BASTION_TRY_ACQUIRE(true);

    bool isRecursive() const { return m_recursive; }

  private:
    friend class Condition;
    [[noreturn]] static void fail(int rc, const char* what);

    pthread_mutex_t m_mutex;
    const bool m_recursive;
  };
}
