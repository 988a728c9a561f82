#pragma once

#include "bastion/ThreadSafety.hpp"

#include <pthread.h>

namespace Bastion
{
  /// A reader/writer lock: any number of readers, or one writer. Not recursive: a thread that
  /// holds it in either mode must not take it again (a second read lock may wait behind a writer
  /// that waits for the first). Not copyable; lock and unlock from the same thread.
  ///
  /// Members it protects are declared BASTION_GUARDED_BY(it); reading them needs it shared,
  /// writing them needs it exclusive, and a clang build checks both.
  class BASTION_CAPABILITY("mutex") SharedMutex
  {
  public:
    SharedMutex();
    ~SharedMutex();
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    // Inline for the same reason as Mutex's: the read path takes this for every lookup.
    /// Blocks until the calling thread holds the lock alone.
    void lock() BASTION_ACQUIRE()
    {
      if (int rc = pthread_rwlock_wrlock(&m_lock))
        fail(rc, "lock");
    }
    void unlock() BASTION_RELEASE()
    {
      if (int rc = pthread_rwlock_unlock(&m_lock))
        fail(rc, "unlock");
    }
    /// Blocks until the calling thread holds the lock shared with other readers.
    void lockShared() BASTION_ACQUIRE_SHARED()
    {
      if (int rc = pthread_rwlock_rdlock(&m_lock))
        fail(rc, "lockShared");
    }
    void unlockShared() BASTION_RELEASE_SHARED()
    {
      if (int rc = pthread_rwlock_unlock(&m_lock))
        fail(rc, "unlockShared");
    }

  private:
    [[noreturn]] static void fail(int rc, const char* what);

    pthread_rwlock_t m_lock;
  };
}
