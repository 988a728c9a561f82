#include "bastion/Thread.hpp"

#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

#include <pthread.h>

#include <chrono>
#include <exception>
#include <system_error>
#include <thread>

namespace Bastion
{
  // Shared between the object and its running body, so that a body whose object was destroyed
  // on its own thread (detached) can still record its end.
  class Thread::D
  {
  public:
    explicit D(const char* n)
        : name(n ? n : "")
    {
    }

    // constant after construction
    const QByteArray name;

    Mutex mutex;
    Condition ended;
    bool running BASTION_GUARDED_BY(mutex) = false;
    std::thread thread BASTION_GUARDED_BY(mutex);
  };

  Thread::Thread(const char* name)
      : m_d(std::make_shared<D>(name))
  {
  }

  Thread::~Thread()
  {
    Guard g(m_d->mutex);
    if (!m_d->thread.joinable())
      return;
    if (m_d->thread.get_id() == std::this_thread::get_id()) {
      m_d->thread.detach();
      return;
    }
    while (m_d->running)
      m_d->ended.wait(m_d->mutex, -1);
    m_d->thread.join();
  }

  bool Thread::run()
  {
    Guard g(m_d->mutex);
    if (m_d->running)
      return false;
    // The previous body has ended; its OS thread is finishing or finished.
    if (m_d->thread.joinable()) {
      if (m_d->thread.get_id() == std::this_thread::get_id())
        m_d->thread.detach();
      else
        m_d->thread.join();
    }
    m_d->running = true;
    try {
      std::shared_ptr<D> d = m_d;
      m_d->thread = std::thread([this, d] {
        // The OS keeps at most 15 bytes of a thread name.
        pthread_setname_np(pthread_self(), d->name.left(15).constData());
        try {
          childLoop();
        } catch (const std::exception& e) {
          error("Thread %s # uncaught exception: %s", d->name.constData(), e.what());
        } catch (...) {
          error("Thread %s # uncaught exception: %s", d->name.constData(), "unknown exception");
        }
        // Only the shared state from here on: the object may already be gone.
        Guard g(d->mutex);
        d->running = false;
        d->ended.wakeAll();
      });
    } catch (const std::system_error& e) {
      m_d->running = false;
      error("Thread %s # cannot start: %s", m_d->name.constData(), e.what());
      return false;
    }
    return true;
  }

  bool Thread::isRunning() const
  {
    Guard g(m_d->mutex);
    return m_d->running;
  }

  bool Thread::waitEnd(int timeoutMs)
  {
    using Clock = std::chrono::steady_clock;
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs < 0 ? 0 : timeoutMs);
    Guard g(m_d->mutex);
    if (m_d->thread.joinable() && m_d->thread.get_id() == std::this_thread::get_id())
      return !m_d->running;
    while (m_d->running) {
      int left = -1;
      if (timeoutMs >= 0) {
        auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (ms <= 0)
          return false;
        left = int(ms);
      }
      m_d->ended.wait(m_d->mutex, left);
    }
    if (m_d->thread.joinable())
      m_d->thread.join();
    return true;
  }

  const QByteArray& Thread::threadName() const
  {
    return m_d->name;
  }

  bool Thread::isCurrentThread() const
  {
    Guard g(m_d->mutex);
    return m_d->running && m_d->thread.get_id() == std::this_thread::get_id();
  }
}
