#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"
#include "plexa/net/ConnectionTestSupport.hpp"
#include "plexa/net/WriterThread.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>

using namespace PlexaTest;

using Connected = AcceptedConnection;

namespace
{
  /// Records the "data-written" events of a writer.
  struct Progress
  {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::pair<QByteArray, int>> chunks;

    void attach(Plexa::WriterThread* writer)
    {
      writer->eventAddListener("data-written", [this](Bastion::BinaryData& data) {
        QByteArray name;
        int32_t bytes = 0;
        EXPECT_TRUE(data.readString(name) && data.readInt32(bytes));
        std::lock_guard<std::mutex> lock(mutex);
        chunks.emplace_back(name, bytes);
        changed.notify_all();
      });
    }
    bool waitFor(size_t count)
    {
      std::unique_lock<std::mutex> lock(mutex);
      return changed.wait_for(lock, std::chrono::milliseconds(WaitMs), [&] { return chunks.size() >= count; });
    }
    std::vector<std::pair<QByteArray, int>> snapshot()
    {
      std::lock_guard<std::mutex> lock(mutex);
      return chunks;
    }
  };
}

TEST(WriterThread, EntriesAreWrittenInChunksWithProgress)
{
  Connected c(false);
  Progress progress;
  progress.attach(c.connection->writerThread());
  ASSERT_TRUE(c.start());
  QByteArray big(40000, '\0');
  for (int i = 0; i < big.size(); ++i)
    big[i] = char(i * 7);
  c.connection->writeBuffer(QList<QByteArray>{"head\n", big}, "part");
  c.connection->writeBuffer(QString("tail\n"), QByteArray());
  EXPECT_EQ(c.client().readLine(), "head");
  EXPECT_EQ(c.client().read(big.size()), big);
  EXPECT_EQ(c.client().readLine(), "tail");
  ASSERT_TRUE(progress.waitFor(5));
  const std::vector<std::pair<QByteArray, int>> expected{
    {"part", 5}, {"part", 16384}, {"part", 16384}, {"part", 7232}, {"", 5}};
  EXPECT_EQ(progress.snapshot(), expected);
}

TEST(WriterThread, BufferAccountingAndRemovalAcrossRestart)
{
  Connected c(false);
  Plexa::WriterThread* writer = c.connection->writerThread();
  // The writer is not running yet: everything stays queued and counted.
  c.connection->writeBufferData(QByteArray(100, 'a'), "plexa2");
  c.connection->writeBufferData("keep\n", "other");
  c.connection->writeBuffer(QList<QByteArray>{QByteArray(30, 'b'), QByteArray(20, 'c')}, "plexa2");
  EXPECT_EQ(c.connection->bufferedDataSize(), 155);
  std::atomic<int> drained{0};
  writer->addDrainListener(100, [&] { ++drained; });
  writer->removeFromBuffer("plexa");
  EXPECT_EQ(c.connection->bufferedDataSize(), 155);
  writer->removeFromBuffer("plexa2");
  EXPECT_EQ(c.connection->bufferedDataSize(), 5);
  EXPECT_EQ(drained.load(), 1);

  // Started with data still queued: the count drains to 0 exactly, never below.
  ASSERT_TRUE(c.start());
  EXPECT_EQ(c.client().readLine(), "keep");
  ASSERT_TRUE(writer->waitForDrain(1, WaitMs));
  EXPECT_EQ(c.connection->bufferedDataSize(), 0);
  c.connection->writeBufferData("more\n", "x");
  EXPECT_EQ(c.client().readLine(), "more");
  ASSERT_TRUE(writer->waitForDrain(1, WaitMs));
  EXPECT_EQ(c.connection->bufferedDataSize(), 0);
}

TEST(WriterThread, NamedTasksReplaceEachOtherAndRunInNameOrder)
{
  Connected c(false);
  std::mutex mutex;
  std::vector<QString> ran;
  auto record = [&](const QString& what) {
    return [&, what] {
      std::lock_guard<std::mutex> lock(mutex);
      ran.push_back(what);
    };
  };
  Plexa::WriterThread* writer = c.connection->writerThread();
  writer->update("b", record("b1"));
  writer->update("b", record("b2"));
  writer->update("a", record("a"));
  writer->update("c", [] { throw std::runtime_error("task failure"); });
  Bastion::LogCapture log;
  ASSERT_TRUE(c.start());
  // A task queued after the others runs after them; its side effect is visible to the peer.
  writer->update("z", [&] { c.connection->puts("tasks done"); });
  EXPECT_EQ(c.client().readLine(), "tasks done");
  std::lock_guard<std::mutex> lock(mutex);
  EXPECT_EQ(ran, (std::vector<QString>{"a", "b2"}));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "WriterThread::childLoop # Task 'c' failed: task failure"));
}

TEST(WriterThread, WriteErrorEndsTheConnection)
{
  Bastion::LogCapture log;
  Connected c(false);
  std::atomic<int> errors{0};
  c.connection->writerThread()->eventAddListener("error", [&](Bastion::BinaryData&) { ++errors; });
  ASSERT_TRUE(c.start());
  // The peer vanishes; writing keeps failing until the writer notices.
  c.client().socket().close();
  for (int i = 0; i < 50 && c.connection->disconnectedCount() == 0; ++i)
  {
    c.connection->writeBufferData(QByteArray(1 << 16, 'x'), QByteArray());
    c.connection->waitDisconnected(1, 100);
  }
  EXPECT_TRUE(c.connection->waitDisconnected());
  EXPECT_TRUE(c.connection->waitEnd(WaitMs));
  EXPECT_FALSE(c.connection->isConnected());
}

TEST(WriterThread, StuckPeerMakesWriteTimeOut)
{
  Bastion::LogCapture log;
  Connected c(false);
  c.connection->setWriteTimeout(300);
  std::atomic<int> errors{0};
  c.connection->writerThread()->eventAddListener("error", [&](Bastion::BinaryData&) { ++errors; });
  ASSERT_TRUE(c.start());
  // The peer never reads: the kernel buffers fill and a write blocks, then times out.
  c.connection->writeBufferData(QByteArray(64 << 20, 'x'), QByteArray());
  EXPECT_TRUE(c.connection->waitDisconnected(1, 20000));
  EXPECT_TRUE(c.connection->writerThread()->waitEnd(WaitMs));
  EXPECT_EQ(errors.load(), 1);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Debug, "WriterThread::childLoop # Write error"));
}

TEST(WriterThread, PingTimeoutOnlyWhenPinging)
{
  Bastion::LogCapture log;
  Connected pinging(true);
  Connected quiet(false);
  pinging.connection->setPingTimeout(1.0);
  quiet.connection->setPingTimeout(1.0);
  ASSERT_TRUE(pinging.start());
  ASSERT_TRUE(quiet.start());
  // The peer answers the first ping, which turns the keep-alive on, then falls silent.
  EXPECT_EQ(pinging.client().readLine(), "ping initialized");
  pinging.client().write("pong initialized\n");
  ASSERT_TRUE(pinging.connection->waitFor([&] { return pinging.connection->pongs().size() == 1; }));
  // After 5 s of silence a ping jumps the queue; nobody answers; the connection ends.
  pinging.client().socket().setReadTimeout(9000);
  EXPECT_EQ(pinging.client().readLine(), "ping");
  ASSERT_TRUE(pinging.connection->waitDisconnected(1, 5000));
  const QByteArray expected = QByteArray("127.0.0.1:") + QByteArray::number(pinging.connection->remotePort()) +
                              ": Ping timeout, disconnecting";
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, expected));
  // The connection without pings wrote nothing and is still up after the same silence.
  EXPECT_TRUE(quiet.connection->isConnected());
  quiet.connection->queue("still here\n");
  EXPECT_EQ(quiet.client().readLine(), "still here");
}
