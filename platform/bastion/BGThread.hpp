#pragma once

#include "bastion/Condition.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/Thread.hpp"
#include "bastion/ThreadSafety.hpp"

#include <cstdint>
#include <memory>
#include <vector>

namespace Bastion
{
  class Task;

  /// A thread that runs the steps of tasks (see Task) until they finish.
  ///
  /// Among the tasks that are due, the next step goes to the highest priority, then the earliest
  /// due time, then the task added first. A task whose step neither finished nor rescheduled it is
  /// due again at once but queued behind every other due task, so it cannot starve them. An
  /// exception escaping a step finishes that task with a log line. Tasks run on this thread only
  /// (apart from Task::runNow).
  class BGThread : public Thread
  {
  public:
    /// The process-wide background thread, started on first use and joined at exit (tasks still
    /// unfinished then are dropped without running again).
    static BGThread& instance();

    /// A thread of its own (tests, or work that must not queue behind the shared one). Starts the
    /// thread; the destructor stops and joins it and drops unfinished tasks.
    explicit BGThread(const char* name = "BGThread");
    ~BGThread() override;

    /// Holds `task` until it is finished. Any thread. A null, finished or already added task is
    /// ignored (false).
    bool addTask(std::shared_ptr<Task> task);
    /// Drops `task` without running it again (a step in progress completes). False when unknown.
    bool removeTask(const std::shared_ptr<Task>& task);
    /// Tasks held (including finished ones not yet dropped).
    int taskCount() const;
    /// Makes the thread look at its tasks again (a due time moved earlier, a task finished).
    /// Any thread.
    void wake();

  protected:
    void childLoop() override;

  private:
    struct Entry
    {
      std::shared_ptr<Task> task;
      /// FIFO position among tasks of equal priority and due time.
      uint64_t order = 0;
      /// Set when the last step neither finished nor rescheduled: run after all other due tasks.
      bool requeued = false;
      /// The task's schedule count when it was requeued; a reschedule since then cancels it.
      uint64_t requeuedAt = 0;
    };

    /// The entry to run now, or -1 with `waitMs` set to the time until the next due task.
    int pickLocked(int& waitMs) BASTION_REQUIRES(m_mutex);
    void detachAll(std::vector<Entry>& entries);

    mutable Mutex m_mutex;
    Condition m_wake;
    std::vector<Entry> m_entries BASTION_GUARDED_BY(m_mutex);
    uint64_t m_nextOrder BASTION_GUARDED_BY(m_mutex) = 0;
    bool m_woken BASTION_GUARDED_BY(m_mutex) = false;
    bool m_stop BASTION_GUARDED_BY(m_mutex) = false;
  };
}
