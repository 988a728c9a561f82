#pragma once

#include "bastion/Mutex.hpp"
#include "bastion/TimeStamp.hpp"

#include <atomic>
#include <cstdint>

namespace Bastion
{
  class BGThread;

  /// A unit of background work, run step by step by a BGThread (see BGThread::addTask).
  ///
  /// A step (`doTask()`) ends in one of three ways: it calls `setFinished()` (never run again, the
  /// thread drops its reference), it calls `scheduleFromNowSecs(s)` (next step no earlier than
  /// now + s), or neither (next step as soon as possible, but behind every other due task).
  /// Steps of one task never overlap: the background thread and `runNow()` take the task's run mutex.
  class Task
  {
  public:
    /// Among due tasks, higher priorities run first.
    explicit Task(double priority = 1.0);
    virtual ~Task();
    Task(const Task&) = delete;
    Task& operator=(const Task&) = delete;

    /// One step of work.
    virtual void doTask() = 0;

    double priority() const { return m_priority; }

    /// The next step runs no earlier than now + `seconds`. Any thread; from outside a step it
    /// wakes the background thread, so `scheduleFromNowSecs(0)` makes a waiting task due at once.
    void scheduleFromNowSecs(double seconds);
    /// When the next step is due (TimeStamp::getTime() clock).
    TimeStamp scheduled() const;

    /// The task never runs again; its background thread drops it. Any thread.
    void setFinished();
    bool isFinished() const { return m_finished.load(std::memory_order_acquire); }

    /// Runs one step on the calling thread, waiting while another thread is inside a step of this
    /// task. Does nothing when the task is finished. An exception from the step is logged and
    /// finishes the task.
    void runNow();

  private:
    friend class BGThread;
    /// One step under the run mutex, with exception handling; false when it was not run (finished).
    bool runStep(const char* who);

    const double m_priority;
    Mutex m_runMutex;
    std::atomic<bool> m_finished{false};
    std::atomic<int64_t> m_due;
    /// Bumped by every scheduleFromNowSecs; tells the background thread whether a step rescheduled.
    std::atomic<uint64_t> m_scheduleCount{0};
    Mutex m_hostMutex;
    /// The thread that holds this task (wake-ups go there).
    BGThread* m_host BASTION_GUARDED_BY(m_hostMutex) = nullptr;
  };
}
