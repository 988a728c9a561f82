#include "bastion/Mutex.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Bastion
{
  namespace
  {
    // A failing pthread call on a mutex means a broken invariant (unlock of a mutex not held,
    // destruction while locked); carrying on would corrupt whatever the mutex protects.
    void check(int rc, const char* what)
    {
      if (rc != 0) {
        std::fprintf(stderr, "Bastion::Mutex # %s failed: %s\n", what, std::strerror(rc));
        std::abort();
      }
    }
  }

  Mutex::Mutex(bool recursive)
      : m_recursive(recursive)
  {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    check(pthread_mutex_init(&m_mutex, &attr), "init");
    pthread_mutexattr_destroy(&attr);
  }

  Mutex::~Mutex()
  {
    pthread_mutex_destroy(&m_mutex);
  }

  void Mutex::lock()
  {
    check(pthread_mutex_lock(&m_mutex), "lock");
  }

  void Mutex::unlock()
  {
    check(pthread_mutex_unlock(&m_mutex), "unlock");
  }

  bool Mutex::tryLock()
  {
    int rc = pthread_mutex_trylock(&m_mutex);
    if (rc == EBUSY)
      return false;
    check(rc, "trylock");
    return true;
  }
}
