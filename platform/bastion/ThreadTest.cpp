#include "bastion/Thread.hpp"
#include "bastion/LogCapture.hpp"
#include "bastion/TestGate.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

using namespace Bastion;

namespace
{
  /// Each run waits for its own gate, so the test decides when a body ends.
  class GatedThread : public Thread
  {
  public:
    explicit GatedThread(const char* name = "Gated")
        : Thread(name)
    {
    }
    ~GatedThread() override
    {
      release();
      waitEnd();
    }

    void release() { gate->raise(); }

    std::shared_ptr<TestGate> gate = std::make_shared<TestGate>();
    TestGate entered;
    std::atomic<int> runs{0};
    std::atomic<bool> sawItself{false};
    const char* throwText = nullptr;

  protected:
    void childLoop() override
    {
      ++runs;
      sawItself = isCurrentThread();
      entered.raise();
      if (throwText)
        throw std::runtime_error(throwText);
      std::shared_ptr<TestGate> mine = gate;
      mine->wait(1, 10000);
    }
  };
}

TEST(Thread, RunsOnceAtATimeAndRestartsAfterTheBodyEnded)
{
  GatedThread t("Restartable");
  EXPECT_EQ(t.threadName(), QByteArray("Restartable"));
  EXPECT_FALSE(t.isRunning());
  EXPECT_TRUE(t.waitEnd(0));

  ASSERT_TRUE(t.run());
  ASSERT_TRUE(t.entered.wait());
  EXPECT_TRUE(t.isRunning());
  EXPECT_TRUE(t.sawItself);
  EXPECT_FALSE(t.isCurrentThread());
  EXPECT_FALSE(t.run());
  EXPECT_FALSE(t.waitEnd(20));
  t.release();
  ASSERT_TRUE(t.waitEnd(5000));
  EXPECT_FALSE(t.isRunning());
  EXPECT_EQ(t.runs, 1);

  t.gate = std::make_shared<TestGate>();
  ASSERT_TRUE(t.run());
  t.release();
  ASSERT_TRUE(t.waitEnd(5000));
  EXPECT_EQ(t.runs, 2);
  // Restarting right after the end, without waitEnd, joins the old OS thread itself.
  ASSERT_TRUE(t.run());
  ASSERT_TRUE(t.waitEnd(5000));
  EXPECT_EQ(t.runs, 3);
}

TEST(Thread, UncaughtExceptionIsLoggedAndEndsOnlyThatRun)
{
  LogCapture log;
  GatedThread t("Thrower");
  t.throwText = "broken body";
  ASSERT_TRUE(t.run());
  ASSERT_TRUE(t.waitEnd(5000));
  EXPECT_TRUE(log.contains(LogLevel::Error, "Thread Thrower # uncaught exception: broken body"));
  t.throwText = nullptr;
  ASSERT_TRUE(t.run());
  ASSERT_TRUE(t.entered.wait());
  t.release();
  EXPECT_TRUE(t.waitEnd(5000));
  EXPECT_EQ(t.runs, 2);
}

namespace
{
  /// After a possible self-deletion the body only touches test-owned state.
  class Detached : public Thread
  {
  public:
    Detached(std::atomic<int>& done, TestGate& go, bool selfDelete)
        : Thread("Detached")
        , m_done(done)
        , m_go(go)
        , m_selfDelete(selfDelete)
    {
    }
    ~Detached() override
    {
      if (!m_selfDelete)
        waitEnd();
    }

  protected:
    void childLoop() override
    {
      std::atomic<int>& done = m_done;
      TestGate& go = m_go;
      if (m_selfDelete)
        delete this;
      go.wait(1, 5000);
      ++done;
    }

  private:
    std::atomic<int>& m_done;
    TestGate& m_go;
    const bool m_selfDelete;
  };
}

TEST(Thread, DestructorJoinsOrDetachesOnItsOwnThread)
{
  std::atomic<int> done{0};
  TestGate go;
  // Destroyed elsewhere: the destructor waits for the body.
  auto* joined = new Detached(done, go, false);
  ASSERT_TRUE(joined->run());
  go.raise();
  delete joined;
  EXPECT_EQ(done, 1);

  // Destroyed by its own body: the thread is detached and the body carries on.
  TestGate go2;
  auto* self = new Detached(done, go2, true);
  ASSERT_TRUE(self->run());
  go2.raise();
  EXPECT_TRUE(waitUntil([&] { return done == 2; }));
}
