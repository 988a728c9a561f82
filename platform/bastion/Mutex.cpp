#include "bastion/Mutex.hpp"

#include "bastion/StringUtils.hpp"

#include <cerrno>
#include <cstdio>
#include <cstdlib>

namespace Bastion
{
  // A failing pthread call on a mutex means a broken invariant (unlock of a mutex not held,
  // destruction while locked); carrying on would corrupt whatever the mutex protects.
  void Mutex::fail(int rc, const char* what)
  {
    std::fprintf(stderr, "Bastion::Mutex # %s failed: %s\n", what, StringUtils::errorText(rc).constData());
    std::abort();
  }

  Mutex::Mutex(bool recursive)
      : m_recursive(recursive)
  {
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    if (int rc = pthread_mutex_init(&m_mutex, &attr))
      fail(rc, "init");
    pthread_mutexattr_destroy(&attr);
  }

  Mutex::~Mutex()
  {
    pthread_mutex_destroy(&m_mutex);
  }

  bool Mutex::tryLock()
  {
    int rc = pthread_mutex_trylock(&m_mutex);
    if (rc == EBUSY)
      return false;
    if (rc != 0)
      fail(rc, "trylock");
    return true;
  }
}
