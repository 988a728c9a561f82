#include "bastion/SharedMutex.hpp"

#include "bastion/StringUtils.hpp"

#include <cstdio>
#include <cstdlib>

namespace Bastion
{
  // As for Mutex: a failing call means a broken invariant, and carrying on would corrupt what the
  // lock protects.
  void SharedMutex::fail(int rc, const char* what)
  {
    std::fprintf(stderr, "Bastion::SharedMutex # %s failed: %s\n", what, StringUtils::errorText(rc).constData());
    std::abort();
  }

  SharedMutex::SharedMutex()
  {
    if (int rc = pthread_rwlock_init(&m_lock, nullptr))
      fail(rc, "init");
  }

  SharedMutex::~SharedMutex()
  {
    pthread_rwlock_destroy(&m_lock);
  }
}
