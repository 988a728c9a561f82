#include "bastion/BGThread.hpp"
#include "bastion/FunctionTask.hpp"
#include "bastion/LogCapture.hpp"
#include "bastion/Task.hpp"
#include "bastion/TestGate.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

using namespace Bastion;

namespace
{
  /// Records task names in the order their steps ran.
  class Journal
  {
  public:
    void add(const QByteArray& name)
    {
      Guard g(m_mutex);
      m_names.push_back(name);
      m_changed.wakeAll();
    }

    /// Waits (bounded) until `count` entries exist; returns them.
    std::vector<QByteArray> waitFor(size_t count, int timeoutMs = 5000)
    {
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
      Guard g(m_mutex);
      while (m_names.size() < count && std::chrono::steady_clock::now() < deadline)
        m_changed.wait(m_mutex, 20);
      return m_names;
    }

  private:
    Mutex m_mutex;
    Condition m_changed;
    std::vector<QByteArray> m_names;
  };

  std::shared_ptr<FunctionTask> recording(Journal& journal, const char* name, double priority = 1.0)
  {
    return std::make_shared<FunctionTask>([&journal, name] { journal.add(name); }, priority);
  }

  /// A one-shot task that holds the thread until released, so others can queue up behind it.
  struct Blocker
  {
    TestGate entered;
    TestGate release;
    std::shared_ptr<FunctionTask> task = std::make_shared<FunctionTask>(
        [this] {
          entered.raise();
          release.wait(1, 10000);
        },
        100.0);
  };

  /// Opens a gate when destroyed: the thread has let go of the task.
  class Watched : public Task
  {
  public:
    Watched(TestGate& gone, std::function<void(Watched&)> step, double priority = 1.0)
        : Task(priority)
        , m_gone(gone)
        , m_step(std::move(step))
    {
    }
    ~Watched() override { m_gone.raise(); }
    void doTask() override
    {
      ++steps;
      m_step(*this);
    }
    std::atomic<int> steps{0};

  private:
    TestGate& m_gone;
    std::function<void(Watched&)> m_step;
  };
}

TEST(BGThread, DueTasksRunByPriorityThenDueTimeThenFifoAndWakeOnReschedule)
{
  BGThread bg("OrderTest");
  Journal journal;
  Blocker blocker;
  ASSERT_TRUE(bg.addTask(blocker.task));
  ASSERT_TRUE(blocker.entered.wait());

  auto a = recording(journal, "a");
  auto b = recording(journal, "b", 2.0);
  auto c = recording(journal, "c");
  auto d = recording(journal, "d");
  d->scheduleFromNowSecs(-1.0);
  auto later = recording(journal, "later", 50.0);
  later->scheduleFromNowSecs(60.0);
  for (auto& t : {a, b, c, d, later})
    ASSERT_TRUE(bg.addTask(t));
  EXPECT_FALSE(bg.addTask(a));
  EXPECT_FALSE(bg.addTask(nullptr));
  blocker.release.raise();

  const std::vector<QByteArray> expected{"b", "d", "a", "c"};
  EXPECT_EQ(journal.waitFor(4), expected);
  // Made due from this thread, the sleeping task runs without waiting out its minute.
  later->scheduleFromNowSecs(0);
  EXPECT_EQ(journal.waitFor(5).size(), 5u);
  EXPECT_EQ(journal.waitFor(5).back(), QByteArray("later"));
}

TEST(BGThread, TaskThatNeverReschedulesCannotStarveOthersAndReschedulingWaits)
{
  BGThread bg("StarveTest");
  TestGate spinnerGone;
  auto spinner = std::make_shared<Watched>(
      spinnerGone, [](Watched&) {}, 10.0);
  ASSERT_TRUE(bg.addTask(spinner));
  Journal journal;
  for (const char* name : {"x", "y", "z"})
    ASSERT_TRUE(bg.addTask(recording(journal, name)));
  EXPECT_EQ(journal.waitFor(3).size(), 3u);
  EXPECT_GT(spinner->steps, 0);

  // A task that reschedules itself runs no earlier than asked, next to the spinner.
  TestGate pacedGone;
  std::vector<TimeStamp> times;
  auto paced = std::make_shared<Watched>(pacedGone, [&times](Watched& self) {
    times.push_back(TimeStamp::getTime());
    if (times.size() == 3)
      self.setFinished();
    else
      self.scheduleFromNowSecs(0.03);
  });
  ASSERT_TRUE(bg.addTask(paced));
  paced.reset();
  ASSERT_TRUE(pacedGone.wait());
  ASSERT_EQ(times.size(), 3u);
  EXPECT_GE((times[1] - times[0]).secondsD(), 0.029);
  EXPECT_GE((times[2] - times[1]).secondsD(), 0.029);

  spinner->setFinished();
  const int steps = spinner->steps;
  spinner.reset();
  ASSERT_TRUE(spinnerGone.wait());
  EXPECT_GE(steps, 3);
  EXPECT_EQ(bg.taskCount(), 0);
}

TEST(BGThread, RunNowWaitsForAStepInProgressAndSkipsFinishedTasks)
{
  BGThread bg("RunNowTest");
  TestGate gone;
  TestGate entered;
  TestGate release;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};
  auto task = std::make_shared<Watched>(gone, [&](Watched& self) {
    if (++inside > 1)
      overlapped = true;
    if (self.steps == 1) {
      entered.raise();
      release.wait(1, 10000);
    }
    --inside;
    self.scheduleFromNowSecs(60.0);
  });
  ASSERT_TRUE(bg.addTask(task));
  ASSERT_TRUE(entered.wait());
  std::thread caller([&] { task->runNow(); });
  release.raise();
  caller.join();
  EXPECT_FALSE(overlapped);
  EXPECT_EQ(task->steps, 2);

  task->setFinished();
  task->runNow();
  EXPECT_EQ(task->steps, 2);
  task.reset();
  EXPECT_TRUE(gone.wait());
}

TEST(BGThread, ExceptionFinishesTheTaskWithALogLineAndOthersGoOn)
{
  LogCapture log;
  BGThread bg("ThrowTest");
  TestGate gone;
  auto thrower = std::make_shared<Watched>(gone, [](Watched&) { throw std::runtime_error("bad step"); });
  ASSERT_TRUE(bg.addTask(thrower));
  thrower.reset();
  ASSERT_TRUE(gone.wait());
  EXPECT_TRUE(log.contains(LogLevel::Error, "ThrowTest # uncaught exception in a task, task finished: bad step"));
  Journal journal;
  ASSERT_TRUE(bg.addTask(recording(journal, "after")));
  EXPECT_EQ(journal.waitFor(1).size(), 1u);

  // The same on the caller's thread.
  TestGate gone2;
  auto direct = std::make_shared<Watched>(gone2, [](Watched&) { throw std::runtime_error("direct"); });
  direct->runNow();
  EXPECT_TRUE(direct->isFinished());
  EXPECT_TRUE(log.contains(LogLevel::Error, "Task::runNow # uncaught exception in a task, task finished: direct"));
}

TEST(BGThread, StoppingDropsUnfinishedTasksAndRemoveTaskForgetsOne)
{
  TestGate gone;
  TestGate removedGone;
  std::atomic<int> ran{0};
  {
    BGThread bg("DropTest");
    auto sleeper = std::make_shared<Watched>(gone, [&ran](Watched&) { ++ran; });
    sleeper->scheduleFromNowSecs(60.0);
    ASSERT_TRUE(bg.addTask(sleeper));
    auto removed = std::make_shared<Watched>(removedGone, [&ran](Watched&) { ++ran; });
    removed->scheduleFromNowSecs(60.0);
    ASSERT_TRUE(bg.addTask(removed));
    EXPECT_EQ(bg.taskCount(), 2);
    EXPECT_TRUE(bg.removeTask(removed));
    EXPECT_FALSE(bg.removeTask(removed));
    EXPECT_EQ(bg.taskCount(), 1);
    removed.reset();
    EXPECT_TRUE(removedGone.isOpen());
  }
  EXPECT_TRUE(gone.isOpen());
  EXPECT_EQ(ran, 0);
}

TEST(BGThread, SharedInstanceRunsOneShotTasks)
{
  BGThread& bg = BGThread::instance();
  EXPECT_EQ(&bg, &BGThread::instance());
  Journal journal;
  auto once = recording(journal, "once");
  ASSERT_TRUE(bg.addTask(once));
  EXPECT_EQ(journal.waitFor(1).size(), 1u);
  EXPECT_TRUE(waitUntil([&] { return once->isFinished(); }));
  once->runNow();
  EXPECT_EQ(journal.waitFor(1).size(), 1u);
}
