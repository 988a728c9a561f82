#pragma once

#include "bastion/Mutex.hpp"
#include "bastion/SharedMutex.hpp"
#include "bastion/ThreadSafety.hpp"

namespace Bastion
{
  /// Holds a mutex for the lifetime of the guard. The mutex must outlive the guard.
  ///
  /// `unlock()` and `relock()` open a window without the mutex inside the guard's scope (to call
  /// out, or to wait on something else); the guard must hold the mutex again when it ends.
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

    void unlock() BASTION_RELEASE() { m_mutex.unlock(); }
    void relock() BASTION_ACQUIRE() { m_mutex.lock(); }

  private:
    Mutex& m_mutex;
  };

  /// Holds a SharedMutex alone (for writing) for the lifetime of the guard.
  class BASTION_SCOPED_CAPABILITY WriteGuard
  {
  public:
    explicit WriteGuard(SharedMutex& mutex) BASTION_ACQUIRE(mutex)
        : m_mutex(mutex)
    {
      m_mutex.lock();
    }
    ~WriteGuard() BASTION_RELEASE() { m_mutex.unlock(); }
    WriteGuard(const WriteGuard&) = delete;
    WriteGuard& operator=(const WriteGuard&) = delete;

  private:
    SharedMutex& m_mutex;
  };

  /// Holds a SharedMutex shared with other readers for the lifetime of the guard.
  class BASTION_SCOPED_CAPABILITY ReadGuard
  {
  public:
    explicit ReadGuard(SharedMutex& mutex) BASTION_ACQUIRE_SHARED(mutex)
        : m_mutex(mutex)
    {
      m_mutex.lockShared();
    }
    ~ReadGuard() BASTION_RELEASE() { m_mutex.unlockShared(); }
    ReadGuard(const ReadGuard&) = delete;
    ReadGuard& operator=(const ReadGuard&) = delete;

  private:
    SharedMutex& m_mutex;
  };
}
