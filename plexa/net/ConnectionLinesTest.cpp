#include "bastion/LogCapture.hpp"
#include "plexa/net/ConnectionTestSupport.hpp"
#include "plexa/net/MapBlock.hpp"
#include "plexa/net/WriterThread.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <stdexcept>

using namespace PlexaTest;

using Connected = AcceptedConnection;

TEST(ConnectionLines, LineBreakRunsAndZeroBytes)
{
  Connected c;
  ASSERT_TRUE(c.start());
  static const char breaks[] = "\r\n\r\nhello\r\n\n\nsecond\rthird\n";
  static const char zeros[] = "ab\0cd\n\0only zero\nlast\n";
  c.client().write(QByteArray(breaks, sizeof(breaks) - 1));
  c.client().write(QByteArray(zeros, sizeof(zeros) - 1));
  ASSERT_TRUE(c.connection->waitForLines(5));
  EXPECT_EQ(c.connection->lines(), (std::vector<QString>{"hello", "second", "third", "ab", "last"}));
  EXPECT_TRUE(c.connection->isConnected());
}

TEST(ConnectionLines, OverlongLineEndsOnlyThatConnection)
{
  Bastion::LogCapture log;
  Connected c;
  ASSERT_TRUE(c.start());
  c.client().write("fine\n");
  c.client().write(QByteArray(Plexa::NetFormat::MaxLineBytes + 1, 'x'));
  ASSERT_TRUE(c.connection->waitDisconnected());
  EXPECT_EQ(c.connection->lines(), std::vector<QString>{"fine"});
  EXPECT_EQ(log.countContaining("sent a line longer than 1048576 bytes, closing connection"), 1);
  EXPECT_TRUE(c.connection->waitEnd(WaitMs));
}

TEST(ConnectionLines, UnknownCommandIsLoggedAndConnectionStays)
{
  Bastion::LogCapture log;
  Connected c;
  ASSERT_TRUE(c.start());
  c.client().write("unknown\nnext\n");
  ASSERT_TRUE(c.connection->waitForLines(2));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Failed to parse command 'unknown'"));
  EXPECT_TRUE(c.connection->isConnected());
}

TEST(ConnectionLines, UnknownLinesAreLoggedShortAndRateLimited)
{
  Bastion::LogCapture log;
  Connected c;
  c.connection->setHandler([](RecordingConnection&, const QString& line) { return !line.startsWith("unknown"); });
  ASSERT_TRUE(c.start());
  QByteArray flood = "unknown" + QByteArray(Plexa::NetFormat::MaxLineBytes - 7, 'x') + "\n";
  for (int i = 0; i < 29; ++i)
    flood += "unknown " + QByteArray::number(i) + "\n";
  c.client().write(flood + "last\n");
  ASSERT_TRUE(c.connection->waitForLines(31));
  c.client().socket().close();
  ASSERT_TRUE(c.connection->waitEnd(WaitMs));
  // Ten lines of the kind per connection and window; the first one cut to a short prefix.
  const auto texts = log.texts();
  std::vector<QByteArray> logged;
  std::copy_if(texts.begin(), texts.end(), std::back_inserter(logged),
               [](const QByteArray& t) { return t.startsWith("Failed to parse command"); });
  ASSERT_EQ(logged.size(), size_t(Plexa::NetFormat::LogBurstLines));
  EXPECT_EQ(logged[0], "Failed to parse command 'unknown" + QByteArray(Plexa::NetFormat::LoggedTextChars - 7, 'x') +
                           "... (1048576 characters)'");
  EXPECT_EQ(logged[1], "Failed to parse command 'unknown 0'");
  EXPECT_TRUE(
      log.contains(Bastion::LogLevel::Warning, "127.0.0.1:" + QByteArray::number(c.connection->remotePort()) +
                                                   ": 20 more \"Failed to parse command\" lines were not logged"));
}

TEST(ConnectionLines, ExceptionFromParseEndsConnectionNotProcess)
{
  Bastion::LogCapture log;
  Connected c;
  c.connection->setHandler([](RecordingConnection&, const QString& line) -> bool {
    if (line == "throw")
      throw std::length_error("vector");
    if (line == "throw other")
      throw 42;
    return true;
  });
  ASSERT_TRUE(c.start());
  c.client().write("throw\nnever\n");
  ASSERT_TRUE(c.connection->waitDisconnected());
  EXPECT_TRUE(c.connection->waitEnd(WaitMs));
  EXPECT_EQ(log.countContaining("closing connection: vector"), 1);

  Connected other;
  other.connection->setHandler([](RecordingConnection&, const QString&) -> bool { throw 42; });
  ASSERT_TRUE(other.start());
  other.client().write("anything\n");
  ASSERT_TRUE(other.connection->waitDisconnected());
  EXPECT_EQ(log.countContaining("Unknown exception while handling a command"), 1);
}

// Whatever hook throws, only that connection ends, and it ends whole: "disconnected" sent, the
// writer stopped, and a client goes on reconnecting.
TEST(ConnectionLines, HookExceptionsEndOnlyThatConnection)
{
  Bastion::LogCapture log;
  for (const QByteArray hook : {"connected", "listener", "pong", "disconnected"}) {
    Connected c;
    if (hook == "listener")
      c.connection->eventAddListener("connected", [](Bastion::BinaryData&) { throw std::runtime_error("listener"); });
    else
      c.connection->setThrowingHook(hook);
    ASSERT_TRUE(c.start()) << hook.constData();
    if (hook == "pong")
      c.client().write("pong\n");
    if (hook == "disconnected")
      c.client().socket().close();
    EXPECT_TRUE(c.connection->waitDisconnected()) << hook.constData();
    EXPECT_TRUE(c.connection->waitEnd(WaitMs)) << hook.constData();
    EXPECT_FALSE(c.connection->isConnected()) << hook.constData();
    EXPECT_FALSE(c.connection->writerThread()->isActive()) << hook.constData();
    EXPECT_EQ(log.countContaining(": " + hook), 1) << hook.constData();
  }

  // A client whose pong hook throws reconnects, and the new connection starts with no pong.
  Listener listener;
  auto client = std::make_shared<RecordingConnection>(nullptr, false);
  client->setThrowingHook("pong");
  client->connectToHost("127.0.0.1", listener.port());
  RawSocket first(listener.accept());
  ASSERT_TRUE(first.isValid() && first.serverHandshake());
  EXPECT_EQ(first.readLine(), "ping initialized");
  first.write("pong initialized\n");
  ASSERT_TRUE(client->waitDisconnected());
  RawSocket second(listener.accept());
  ASSERT_TRUE(second.isValid() && second.serverHandshake());
  ASSERT_TRUE(client->waitConnected(2));
  EXPECT_FALSE(client->pongReceived());
}

TEST(ConnectionLines, PingIsAnsweredAndPongReported)
{
  Connected c;
  ASSERT_TRUE(c.start());
  EXPECT_EQ(c.client().readLine(), "ping initialized");
  EXPECT_FALSE(c.connection->pongReceived());
  c.client().write("ping\nping 42 x\npingx\npong\npong 42\npongy\n");
  EXPECT_EQ(c.client().readLine(), "pong");
  EXPECT_EQ(c.client().readLine(), "pong 42 x");
  ASSERT_TRUE(c.connection->waitFor([&] { return c.connection->pongs().size() >= 2; }));
  EXPECT_EQ(c.connection->pongs(), (std::vector<QByteArray>{"", "42"}));
  EXPECT_TRUE(c.connection->pongReceived());
  ASSERT_TRUE(c.connection->waitForLines(2));
  EXPECT_EQ(c.connection->lines(), (std::vector<QString>{"pingx", "pongy"}));
}

TEST(ConnectionLines, WithoutPingKeepAliveLinesAreCommands)
{
  Connected c(false);
  ASSERT_TRUE(c.start());
  c.client().write("ping\npong 42\n");
  ASSERT_TRUE(c.connection->waitForLines(2));
  EXPECT_EQ(c.connection->lines(), (std::vector<QString>{"ping", "pong 42"}));
  EXPECT_TRUE(c.connection->pongs().empty());
  EXPECT_FALSE(c.connection->pongReceived());
  // Nothing was written to the peer: no "ping initialized", no answers.
  c.connection->queue("marker\n");
  EXPECT_EQ(c.client().readLine(), "marker");
}

TEST(ConnectionLines, QueuedBeforeConnectArrivesInOrder)
{
  Connected c(false);
  c.connection->queue("first\n");
  c.connection->queue("second\n");
  ASSERT_TRUE(c.start());
  c.connection->queue("third\n");
  EXPECT_EQ(c.client().readLine(), "first");
  EXPECT_EQ(c.client().readLine(), "second");
  EXPECT_EQ(c.client().readLine(), "third");
}

namespace
{
  const QMap<QString, QString> SampleMap{{"b", "two"}, {"a%1", "one %2"}, {"empty", ""}, {"ü", "日本"}};
}

TEST(ConnectionMaps, NewFormBetweenTwoConnections)
{
  Listener listener;
  auto client = std::make_shared<RecordingConnection>(nullptr, false);
  client->connectToHost("127.0.0.1", listener.port());
  auto server = std::make_shared<RecordingConnection>(listener.accept(), true);
  server->setHandler(readMapBlock);
  server->Bastion::Thread::run();
  ASSERT_TRUE(client->waitConnected());
  ASSERT_TRUE(server->waitConnected());
  client->writeMapBuffer("map", SampleMap);
  client->writeMapBuffer("map", {});
  client->queue("after\n");
  ASSERT_TRUE(server->waitForLines(3));
  ASSERT_EQ(server->maps().size(), 2u);
  EXPECT_EQ(server->maps()[0], SampleMap);
  EXPECT_TRUE(server->maps()[1].isEmpty());
  EXPECT_EQ(server->lines().back(), "after");
}

TEST(ConnectionMaps, OldFormWithOldPeer)
{
  Connected c(false);
  c.connection->setHandler(readMapBlock);
  ASSERT_TRUE(c.start(QByteArray()));
  // What the connection sends to an old peer: lines, line breaks inside texts removed.
  c.connection->writeMapBuffer("map", {{"k\ney", "va\r\nlue"}, {"x", "y"}});
  EXPECT_EQ(c.client().readLine(), "map 2");
  EXPECT_EQ(c.client().readLine(), "key");
  EXPECT_EQ(c.client().readLine(), "value");
  EXPECT_EQ(c.client().readLine(), "x");
  EXPECT_EQ(c.client().readLine(), "y");
  // And what it reads from one.
  c.client().write("map 2\nalpha\n1\nbeta\n2\nmap 0\nafter\n");
  ASSERT_TRUE(c.connection->waitForLines(3));
  ASSERT_EQ(c.connection->maps().size(), 2u);
  EXPECT_EQ(c.connection->maps()[0], (QMap<QString, QString>{{"alpha", "1"}, {"beta", "2"}}));
  EXPECT_TRUE(c.connection->maps()[1].isEmpty());
  EXPECT_EQ(c.connection->lines()[2], "after");
  EXPECT_EQ(Plexa::MapBlock::encode("map", {}, false), QByteArray("map 0\n"));
}

TEST(ConnectionMaps, ImpossibleBlockSizeEndsConnection)
{
  Bastion::LogCapture log;
  const QByteArray sizeItems[] = {
      QByteArray::fromHex("01000000ffffff7f"), // 2 GiB - 1
      QByteArray::fromHex("0100000004000000"), // smaller than the size item itself
      QByteArray::fromHex("05000000ffffff7f"), // not an int32 item
  };
  for (const QByteArray& sizeItem : sizeItems) {
    Connected c(false);
    c.connection->setHandler(readMapBlock);
    ASSERT_TRUE(c.start());
    c.client().write("map 1\n" + sizeItem);
    ASSERT_TRUE(c.connection->waitDisconnected()) << sizeItem.toHex().constData();
    EXPECT_TRUE(c.connection->maps().size() == 1 && c.connection->maps()[0].isEmpty());
  }
  EXPECT_EQ(log.countContaining("announced a map block of"), 3);
  EXPECT_EQ(log.countContaining("bytes (allowed: 8 to 67108864), closing connection"), 3);
}

TEST(ConnectionMaps, TruncatedOrMalformedBlock)
{
  Bastion::LogCapture log;
  {
    // Fewer pairs in the block than announced: the pairs present are kept, the stream stays in step.
    Connected c(false);
    c.connection->setHandler(readMapBlock);
    ASSERT_TRUE(c.start());
    QByteArray block = Plexa::MapBlock::encode("map", {{"a", "1"}}, true);
    block.replace("map 1\n", "map 3\n");
    c.client().write(block + "after\n");
    ASSERT_TRUE(c.connection->waitForLines(2));
    EXPECT_EQ(c.connection->maps()[0], (QMap<QString, QString>{{"a", "1"}}));
    EXPECT_EQ(log.countContaining("malformed map block from"), 1);
    EXPECT_TRUE(c.connection->isConnected());
  }
  {
    // The connection closes inside the block.
    Connected c(false);
    c.connection->setHandler(readMapBlock);
    ASSERT_TRUE(c.start());
    c.client().write("map 1\n" + QByteArray::fromHex("0100000040000000") + "abc");
    c.client().socket().close();
    ASSERT_TRUE(c.connection->waitDisconnected());
    EXPECT_EQ(log.countContaining("ConnectionThread::readData # Read error ("), 1);
  }
  {
    Connected c(false);
    c.connection->setHandler(readMapBlock);
    ASSERT_TRUE(c.start());
    c.client().write("map 1\n" + QByteArray::fromHex("0100"));
    c.client().socket().close();
    ASSERT_TRUE(c.connection->waitDisconnected());
    EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "ConnectionThread::readMap # error while reading data"));
  }
}

TEST(ConnectionMaps, EncodingKeepsPercentTextsAndPatchesTheSize)
{
  const QByteArray block = Plexa::MapBlock::encode("n%1", SampleMap, true);
  ASSERT_TRUE(block.startsWith("n%1 4\n"));
  const QByteArray body = block.mid(6);
  int32_t size = 0;
  ASSERT_TRUE(Plexa::MapBlock::announcedSize(body.left(8), 1 << 20, size));
  EXPECT_EQ(size, body.size());
  QMap<QString, QString> decoded;
  EXPECT_TRUE(Plexa::MapBlock::decode(body, 4, decoded));
  EXPECT_EQ(decoded, SampleMap);
  EXPECT_FALSE(Plexa::MapBlock::announcedSize(body.left(8), size - 1, size));
  // Every truncation fails cleanly and keeps the pairs before it.
  for (int cut = 8; cut < body.size(); ++cut) {
    QMap<QString, QString> partial;
    EXPECT_FALSE(Plexa::MapBlock::decode(body.left(cut), 4, partial)) << cut;
    EXPECT_LT(partial.size(), 4);
  }
  EXPECT_EQ(Plexa::MapBlock::encode("m", {{"a%1", "%2"}}, false), QByteArray("m 1\na%1\n%2\n"));
}

TEST(ConnectionReads, ReadDataSkipAndTheirErrors)
{
  Bastion::LogCapture log;
  Connected c(false);
  QByteArray got;
  c.connection->setHandler([&](RecordingConnection& connection, const QString& line) {
    if (line == "data") {
      unsigned char buffer[5];
      const bool ok = connection.readData(buffer, 5) && connection.readData(buffer, 0);
      const QByteArray more = connection.readData(3);
      connection.skip(1000);
      got = (ok ? QByteArray(reinterpret_cast<char*>(buffer), 5) : QByteArray("failed")) + more;
      connection.notify();
      return true;
    }
    if (line == "short") {
      connection.readData(100);
      return true;
    }
    return true;
  });
  ASSERT_TRUE(c.start());
  c.client().write("data\n12345abc" + QByteArray(1000, 's') + "next\n");
  ASSERT_TRUE(c.connection->waitForLines(2));
  EXPECT_EQ(got, "12345abc");
  EXPECT_EQ(c.connection->lines()[1], "next");
  c.client().write("short\n0123456789");
  c.client().socket().close();
  ASSERT_TRUE(c.connection->waitDisconnected());
  EXPECT_TRUE(log.countContaining("expected 100 bytes, got 10 bytes") == 1);
}
