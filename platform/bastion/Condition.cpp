#include "bastion/Condition.hpp"

#include <cerrno>
#include <ctime>

namespace Bastion
{
  Condition::Condition()
  {
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    // The wall clock may jump; time limits are durations.
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_cond, &attr);
    pthread_condattr_destroy(&attr);
  }

  Condition::~Condition()
  {
    pthread_cond_destroy(&m_cond);
  }

  bool Condition::wait(Mutex& locked, int timeoutMs)
  {
    if (timeoutMs < 0) {
      pthread_cond_wait(&m_cond, &locked.m_mutex);
      return true;
    }
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += timeoutMs / 1000;
    deadline.tv_nsec += long(timeoutMs % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
      deadline.tv_sec += 1;
      deadline.tv_nsec -= 1000000000L;
    }
    return pthread_cond_timedwait(&m_cond, &locked.m_mutex, &deadline) != ETIMEDOUT;
  }

  void Condition::wakeOne()
  {
    pthread_cond_signal(&m_cond);
  }

  void Condition::wakeAll()
  {
    pthread_cond_broadcast(&m_cond);
  }
}
