#include "bastion/Task.hpp"

#include "bastion/BGThread.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

#include <exception>

namespace Bastion
{
  Task::Task(double priority)
      : m_priority(priority)
      , m_due(TimeStamp::getTime().value())
  {
  }

  Task::~Task() = default;

  void Task::scheduleFromNowSecs(double seconds)
  {
    m_due.store((TimeStamp::getTime() + TimeStamp::createSeconds(seconds)).value(), std::memory_order_release);
    m_scheduleCount.fetch_add(1, std::memory_order_acq_rel);
    Guard g(m_hostMutex);
    if (m_host)
      m_host->wake();
  }

  TimeStamp Task::scheduled() const
  {
    return TimeStamp::fromValue(m_due.load(std::memory_order_acquire));
  }

  void Task::setFinished()
  {
    m_finished.store(true, std::memory_order_release);
    Guard g(m_hostMutex);
    if (m_host)
      m_host->wake();
  }

  void Task::runNow()
  {
    runStep("Task::runNow");
  }

  bool Task::runStep(const char* who)
  {
    Guard g(m_runMutex);
    if (isFinished())
      return false;
    try {
      doTask();
    } catch (const std::exception& e) {
      error("%s # uncaught exception in a task, task finished: %s", who, e.what());
      setFinished();
    } catch (...) {
      error("%s # uncaught exception in a task, task finished: %s", who, "unknown exception");
      setFinished();
    }
    return true;
  }
}
