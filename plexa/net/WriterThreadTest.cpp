#include "plexa/net/WriterThread.hpp"
#include "bastion/BinaryData.hpp"
#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/LogCapture.hpp"
#include "bastion/TestGate.hpp"
#include "plexa/net/ConnectionTestSupport.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>

using namespace PlexaTest;

using Connected = AcceptedConnection;

namespace
{
  /// Records the "data-written" events of a writer.
  struct Progress
  {
    Bastion::Mutex mutex;
    Bastion::Condition changed;
    std::vector<std::pair<QByteArray, int>> chunks;

    void attach(Plexa::WriterThread* writer)
    {
      writer->eventAddListener("data-written", [this](Bastion::BinaryData& data) {
        QByteArray name;
        int32_t bytes = 0;
        EXPECT_TRUE(data.readString(name) && data.readInt32(bytes));
        Bastion::Guard lock(mutex);
        chunks.emplace_back(name, bytes);
        changed.wakeAll();
      });
    }
    bool waitFor(size_t count)
    {
      Bastion::Guard lock(mutex);
      return changed.waitFor(mutex, WaitMs, [&] { return chunks.size() >= count; });
    }
    std::vector<std::pair<QByteArray, int>> snapshot()
    {
      Bastion::Guard lock(mutex);
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
  EXPECT_TRUE(writer->waitForWritten(WaitMs));
  EXPECT_EQ(c.client().readLine(), "more");
  ASSERT_TRUE(writer->waitForDrain(1, WaitMs));
  EXPECT_EQ(c.connection->bufferedDataSize(), 0);
}

TEST(WriterThread, NamedTasksReplaceEachOtherAndRunInNameOrder)
{
  Connected c(false);
  Bastion::Mutex mutex;
  std::vector<QString> ran;
  auto record = [&](const QString& what) {
    return [&, what] {
      Bastion::Guard lock(mutex);
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
  Bastion::Guard lock(mutex);
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
  for (int i = 0; i < 50 && c.connection->disconnectedCount() == 0; ++i) {
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
  // Taken from the queue, but not written: a flush waits for it, and learns when it failed.
  EXPECT_FALSE(c.connection->writerThread()->waitForWritten(100));
  EXPECT_FALSE(c.connection->writerThread()->waitForWritten(-1));
  EXPECT_TRUE(c.connection->waitDisconnected(1, 20000));
  EXPECT_TRUE(c.connection->writerThread()->waitEnd(WaitMs));
  EXPECT_EQ(errors.load(), 1);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Debug, "WriterThread::childLoop # Write error"));
}

// The keep-alive runs from the handshake on: a peer that never answers a ping, not even the
// first, is dropped after the ping timeout; one that answers stays, however short the timeout.
TEST(WriterThread, PingTimeoutFromTheHandshakeOn)
{
  Bastion::LogCapture log;
  Connected silent(true);
  Connected answering(true);
  Connected quiet(false);
  for (Connected* c : {&silent, &answering, &quiet}) {
    c->connection->setPingTimeout(1.0);
    ASSERT_TRUE(c->start());
  }
  EXPECT_EQ(answering.client().readLine(), "ping initialized");
  answering.client().write("pong initialized\n");
  // Answered pings keep it up well past the timeout.
  for (int i = 0; i < 3; ++i) {
    ASSERT_EQ(answering.client().readLine(), "ping");
    answering.client().write("pong\n");
  }
  EXPECT_TRUE(answering.connection->isConnected());

  EXPECT_EQ(silent.client().readLine(), "ping initialized");
  EXPECT_EQ(silent.client().readLine(), "ping");
  ASSERT_TRUE(silent.connection->waitDisconnected());
  const QByteArray expected =
      QByteArray("127.0.0.1:") + QByteArray::number(silent.connection->remotePort()) + ": Ping timeout, disconnecting";
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, expected));
  // The connection without pings wrote nothing and is still up after the same silence.
  EXPECT_TRUE(quiet.connection->isConnected());
  quiet.connection->queue("still here\n");
  EXPECT_EQ(quiet.client().readLine(), "still here");
  EXPECT_EQ(log.countContaining("Ping timeout"), 1);
}

// A producer's callback or listener that throws is logged; the writer goes on taking entries.
TEST(WriterThread, ThrowingCallbacksDoNotJamTheWriter)
{
  Bastion::LogCapture log;
  Connected c(false);
  Plexa::WriterThread* writer = c.connection->writerThread();
  const QByteArray big(Plexa::NetFormat::WriteChunkBytes + 1, 'x');
  // Called when an entry of `big` is taken: over one chunk, so the writer thread takes it.
  writer->addDrainListener(big.size(), [] { throw std::runtime_error("drain callback"); });
  std::atomic<int> progressCalls{0};
  writer->eventAddListener("data-written", [&](Bastion::BinaryData&) {
    if (progressCalls++ == 0)
      throw std::runtime_error("progress listener");
  });
  ASSERT_TRUE(c.start());
  c.connection->writeBufferData(big + "\n", QByteArray());
  EXPECT_EQ(c.client().readLine(), big);
  c.connection->writeBufferData(big + "\n", QByteArray());
  c.connection->writeBufferData("after\n", QByteArray());
  EXPECT_EQ(c.client().readLine(), big);
  EXPECT_EQ(c.client().readLine(), "after");
  EXPECT_TRUE(c.connection->isConnected());
  EXPECT_EQ(log.countContaining("WriterThread # A drain listener failed: drain callback"), 2);
  EXPECT_EQ(log.countContaining("WriterThread # A \"data-written\" listener failed: progress listener"), 1);
}

namespace
{
  /// One test message: "<name> <seq> <len> <len letters>\n", split into a head and a body part so
  /// that a message cut or interleaved anywhere fails the check on the reading side.
  QList<QByteArray> message(const QByteArray& name, int seq, int length)
  {
    QByteArray body(length, Qt::Uninitialized);
    for (int i = 0; i < length; ++i)
      body[i] = char('a' + (seq + i) % 26);
    body.append('\n');
    return {name + ' ' + QByteArray::number(seq) + ' ' + QByteArray::number(length) + ' ', body};
  }

  bool checkMessage(const QByteArray& line, QByteArray& name, int& seq)
  {
    const QList<QByteArray> words = line.split(' ');
    if (words.size() != 4)
      return false;
    bool seqOk = false, lengthOk = false;
    name = words[0];
    seq = words[1].toInt(&seqOk);
    const int length = words[2].toInt(&lengthOk);
    if (!seqOk || !lengthOk || words[3].size() != length)
      return false;
    for (int i = 0; i < length; ++i)
      if (words[3][i] != char('a' + (seq + i) % 26))
        return false;
    return true;
  }
}

// Several threads hand over small and large entries while the peer reads in bursts, so entries
// are written directly, cut short by a full socket, queued behind one another and finished by the
// writer thread, and meanwhile another thread keeps dropping its own entries: every message
// arrives whole, each thread's in order, and the progress events add up to what each name sent.
TEST(WriterThread, DirectAndQueuedWritesKeepEveryMessageWholeAndInOrder)
{
  Connected c(false);
  Progress progress;
  progress.attach(c.connection->writerThread());
  ASSERT_TRUE(c.start());
  Plexa::WriterThread* writer = c.connection->writerThread();

  constexpr int Threads = 4, PerThread = 400;
  std::atomic<bool> writing{true};
  std::vector<int64_t> sentBytes(Threads, 0);
  std::vector<std::thread> writers;
  for (int t = 0; t < Threads; ++t) {
    writers.emplace_back([&, t] {
      const QByteArray name = "w" + QByteArray::number(t);
      for (int seq = 0; seq < PerThread; ++seq) {
        // Mostly below a chunk, every 16th well above it.
        const int length = seq % 16 == 15 ? 40000 + seq : 1 + (seq * 997 + t * 131) % 9000;
        const QList<QByteArray> parts = message(name, seq, length);
        sentBytes[size_t(t)] += parts[0].size() + parts[1].size();
        writer->writeData(parts, name);
      }
    });
  }
  std::thread dropper([&] {
    for (int seq = 0; writing; ++seq) {
      writer->writeData(message("junk", seq, 1 + seq % 3000), "junk");
      if (seq % 3 == 0)
        writer->removeFromBuffer("junk");
    }
  });

  std::vector<int> next(Threads, 0);
  int done = 0, lines = 0;
  bool ok = true;
  while (ok && done < Threads) {
    const QByteArray line = c.client().readLine();
    QByteArray name;
    int seq = 0;
    ok = checkMessage(line, name, seq);
    EXPECT_TRUE(ok) << "cut or mixed message: " << line.left(80).constData();
    if (ok && name != "junk") {
      const int t = name.mid(1).toInt();
      ASSERT_TRUE(t >= 0 && t < Threads);
      EXPECT_EQ(seq, next[size_t(t)]) << name.constData();
      next[size_t(t)] = seq + 1;
      if (seq + 1 == PerThread)
        ++done;
    }
    // Read in bursts, so the socket fills up now and then.
    if (++lines % 300 == 0)
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  writing = false;
  for (std::thread& w : writers)
    w.join();
  dropper.join();
  ASSERT_TRUE(ok);

  // Every chunk of the named entries was reported, by whichever thread finished it.
  const auto reported = [&] {
    std::vector<int64_t> sums(Threads, 0);
    for (const auto& chunk : progress.snapshot())
      if (chunk.first.startsWith('w'))
        sums[size_t(chunk.first.mid(1).toInt())] += chunk.second;
    return sums;
  };
  Bastion::waitUntil([&] { return reported() == sentBytes; }, WaitMs);
  EXPECT_EQ(reported(), sentBytes);
}

// While the writer is idle a small entry goes out on the caller's thread; once the peer stops
// reading, the socket takes part of one, the writer thread finishes that one ahead of everything
// queued after it, and the stream stays whole and in order.
TEST(WriterThread, SmallEntryIsWrittenByTheCallerAndACutOneIsFinishedFirst)
{
  Connected c(false);
  std::atomic<int> onCaller{0}, elsewhere{0};
  const std::thread::id caller = std::this_thread::get_id();
  Plexa::WriterThread* writer = c.connection->writerThread();
  writer->eventAddListener(
      "data-written", [&](Bastion::BinaryData&) { ++(std::this_thread::get_id() == caller ? onCaller : elsewhere); });
  ASSERT_TRUE(c.start());
  // Returns once the writer is idle: a task runs only after the entry being written is done, and
  // taking the write mutex afterwards waits until the task (or the handshake) has let go of it.
  // Nothing else writes on this connection (no pings), so the next entry finds the writer idle.
  const auto settle = [&] {
    std::promise<void> ran;
    writer->update("settle", [&] { ran.set_value(); });
    ASSERT_EQ(ran.get_future().wait_for(std::chrono::milliseconds(WaitMs)), std::future_status::ready);
    Bastion::Guard guard(c.connection->writeMutex());
  };

  QByteArray name;
  int seq = -1;
  const int first = 20;
  for (int i = 0; i < first; ++i) {
    settle();
    writer->writeData(message("m", i, 100), "m");
    // Two parts, two events, both before writeData returns.
    EXPECT_EQ(onCaller.load(), 2 * (i + 1));
    ASSERT_TRUE(checkMessage(c.client().readLine(), name, seq));
    EXPECT_EQ(seq, i);
  }
  EXPECT_EQ(elsewhere.load(), 0);

  // The peer does not read: entries go out directly until one is cut short and the writer thread
  // takes over with its rest; everything after it waits in the queue. The socket's buffers are a
  // few MiB at most, so one of the first 64 MiB is cut however slowly this runs.
  int sent = first;
  for (int64_t bytes = 0; writer->bufferedDataSize() == 0 && elsewhere.load() == 0 && bytes < (64 << 20); ++sent) {
    const QList<QByteArray> parts = message("m", sent, 9000 + sent % 5000);
    bytes += parts[0].size() + parts[1].size();
    writer->writeData(parts, "m");
  }
  ASSERT_TRUE(writer->bufferedDataSize() > 0 || elsewhere.load() > 0) << "no entry was cut short";
  for (int i = 0; i < 40; ++i, ++sent)
    writer->writeData(message("m", sent, 9000 + sent % 5000), "m");
  EXPECT_GT(onCaller.load(), 2 * first);

  for (int expected = first; expected < sent; ++expected) {
    ASSERT_TRUE(checkMessage(c.client().readLine(), name, seq)) << "message " << expected;
    ASSERT_EQ(seq, expected);
  }
  settle();
  EXPECT_EQ(onCaller.load() + elsewhere.load(), 2 * sent);
  EXPECT_GT(elsewhere.load(), 0);
}
