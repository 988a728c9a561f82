#include "bastion/BGThread.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Task.hpp"
#include "bastion/TimeStamp.hpp"

#include <algorithm>
#include <cmath>

namespace Bastion
{
  namespace
  {
    /// Upper bound of one idle wait, so that a clock oddity can never park the thread for good.
    constexpr int MaxIdleWaitMs = 60000;
  }

  BGThread& BGThread::instance()
  {
    static BGThread thread("BGThread");
    return thread;
  }

  BGThread::BGThread(const char* name)
      : Thread(name)
  {
    run();
  }

  BGThread::~BGThread()
  {
    m_mutex.lock();
    m_stop = true;
    m_wake.wakeAll();
    m_mutex.unlock();
    waitEnd();
    std::vector<Entry> entries;
    m_mutex.lock();
    entries.swap(m_entries);
    m_mutex.unlock();
    detachAll(entries);
  }

  bool BGThread::addTask(std::shared_ptr<Task> task)
  {
    if (!task || task->isFinished())
      return false;
    // Lock order: a task's host mutex, then this thread's mutex (scheduleFromNowSecs wakes us
    // holding the former).
    Guard hostGuard(task->m_hostMutex);
    if (task->m_host)
      return false;
    Guard g(m_mutex);
    if (m_stop)
      return false;
    task->m_host = this;
    Entry e;
    e.task = std::move(task);
    e.order = m_nextOrder++;
    m_entries.push_back(std::move(e));
    m_woken = true;
    m_wake.wakeOne();
    return true;
  }

  bool BGThread::removeTask(const std::shared_ptr<Task>& task)
  {
    std::vector<Entry> removed;
    {
      Guard g(m_mutex);
      auto it = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& e) { return e.task == task; });
      if (it == m_entries.end())
        return false;
      removed.push_back(std::move(*it));
      m_entries.erase(it);
    }
    detachAll(removed);
    return true;
  }

  int BGThread::taskCount() const
  {
    Guard g(m_mutex);
    return int(m_entries.size());
  }

  void BGThread::wake()
  {
    Guard g(m_mutex);
    m_woken = true;
    m_wake.wakeOne();
  }

  void BGThread::detachAll(std::vector<Entry>& entries)
  {
    for (Entry& e : entries) {
      Guard g(e.task->m_hostMutex);
      if (e.task->m_host == this)
        e.task->m_host = nullptr;
    }
    // Tasks may be destroyed here, outside every lock of ours.
    entries.clear();
  }

  int BGThread::pickLocked(int& waitMs)
  {
    const int64_t now = TimeStamp::getTime().value();
    int best = -1;
    bool bestRequeued = false;
    int64_t nextDue = INT64_MAX;
    for (int i = 0; i < int(m_entries.size()); ++i) {
      const Entry& e = m_entries[size_t(i)];
      const int64_t due = e.task->m_due.load(std::memory_order_acquire);
      if (due > now) {
        nextDue = std::min(nextDue, due);
        continue;
      }
      // A step that rescheduled its task since it was requeued competes normally again.
      const bool requeued = e.requeued && e.task->m_scheduleCount.load(std::memory_order_acquire) == e.requeuedAt;
      if (best < 0) {
        best = i;
        bestRequeued = requeued;
        continue;
      }
      const Entry& b = m_entries[size_t(best)];
      bool better;
      if (requeued != bestRequeued) {
        better = !requeued;
      } else if (requeued) {
        better = e.order < b.order;
      } else if (e.task->priority() != b.task->priority()) {
        better = e.task->priority() > b.task->priority();
      } else {
        const int64_t bestDue = b.task->m_due.load(std::memory_order_acquire);
        better = due != bestDue ? due < bestDue : e.order < b.order;
      }
      if (better) {
        best = i;
        bestRequeued = requeued;
      }
    }
    if (best >= 0 || nextDue == INT64_MAX) {
      waitMs = m_entries.empty() ? -1 : MaxIdleWaitMs;
      return best;
    }
    const double ms = std::ceil(TimeStamp::fromValue(nextDue - now).secondsD() * 1000.0);
    waitMs = int(std::min(ms, double(MaxIdleWaitMs)));
    return best;
  }

  void BGThread::childLoop()
  {
    std::vector<Entry> dropped;
    m_mutex.lock();
    while (!m_stop) {
      for (auto it = m_entries.begin(); it != m_entries.end();) {
        if (it->task->isFinished()) {
          dropped.push_back(std::move(*it));
          it = m_entries.erase(it);
        } else {
          ++it;
        }
      }
      if (!dropped.empty()) {
        m_mutex.unlock();
        detachAll(dropped);
        m_mutex.lock();
        continue;
      }
      int waitMs = -1;
      const int index = pickLocked(waitMs);
      if (index < 0) {
        if (!m_woken)
          m_wake.wait(m_mutex, waitMs);
        m_woken = false;
        continue;
      }
      std::shared_ptr<Task> task = m_entries[size_t(index)].task;
      const uint64_t scheduleCount = task->m_scheduleCount.load(std::memory_order_acquire);
      m_mutex.unlock();
      task->runStep(threadName().constData());
      m_mutex.lock();
      auto it = std::find_if(m_entries.begin(), m_entries.end(), [&](const Entry& e) { return e.task == task; });
      if (it != m_entries.end()) {
        const uint64_t now = task->m_scheduleCount.load(std::memory_order_acquire);
        it->requeued = now == scheduleCount;
        it->requeuedAt = now;
        if (it->requeued)
          it->order = m_nextOrder++;
      }
      // The last reference may be ours: let it go outside the lock.
      m_mutex.unlock();
      task.reset();
      m_mutex.lock();
    }
    m_mutex.unlock();
  }
}
