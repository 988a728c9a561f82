// Two peer programs (PeerProcess.cpp), each in a process of its own, keeping one tree in sync over
// 127.0.0.1. The assertions stay here; the programs only answer queries.

#include "bastion/BinaryData.hpp"

#include <QCryptographicHash>
#include <QProcess>
#include <QStringList>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>

namespace
{
  using Clock = std::chrono::steady_clock;
  constexpr int WaitMs = 15000;

  /// One peer program: commands go to its input, its lines are collected.
  class PeerProgram
  {
  public:
    /// "listen" with port 0 picks a free port; `port()` tells which.
    PeerProgram(const QString& mode, int port)
    {
#ifdef PLEXA_PEER_PROCESS
      m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
      m_process.start(PLEXA_PEER_PROCESS, {mode, QString::number(port)});
      m_process.waitForStarted(WaitMs);
      QByteArray first;
      if (nextLine(first, [](const QByteArray&) { return true; }) && first.startsWith(mode == "listen" ? "listening " : "connecting "))
        m_port = first.mid(first.indexOf(' ') + 1).toInt();
#else
      (void)mode;
      (void)port;
#endif
    }
    ~PeerProgram() { end(); }

    int port() const { return m_port; }

    void send(const QByteArray& command)
    {
      m_process.write(command + '\n');
      m_process.waitForBytesWritten(WaitMs);
    }

    /// The first line (collected before or arriving within the deadline) that `match` accepts;
    /// earlier lines that it does not accept stay for later calls.
    bool nextLine(QByteArray& line, const std::function<bool(const QByteArray&)>& match, int timeoutMs = WaitMs)
    {
      const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
      for (;;) {
        while (m_process.canReadLine())
          m_lines.append(m_process.readLine().trimmed());
        for (int i = 0; i < m_lines.size(); ++i)
          if (match(m_lines[i])) {
            line = m_lines.takeAt(i);
            return true;
          }
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0 || m_process.state() == QProcess::NotRunning)
          return false;
        m_process.waitForReadyRead(int(std::min<long long>(left, 100)));
      }
    }

    /// The program's answer to "state": sessions, initialized sessions, initialized events,
    /// attribute count, tree digest.
    QList<QByteArray> state()
    {
      send("state");
      QByteArray line;
      if (!nextLine(line, [](const QByteArray& l) { return l.startsWith("state "); }))
        return {};
      return line.mid(6).split(' ');
    }

    QByteArray value(const QByteArray& path)
    {
      send("get " + path);
      QByteArray line;
      const QByteArray prefix = "value " + path + ' ';
      if (!nextLine(line, [&](const QByteArray& l) { return l.startsWith(prefix); }))
        return "<no answer>";
      return line.mid(prefix.size());
    }

    /// Closes the program's input, which ends it, and waits for its exit.
    void end()
    {
      if (m_process.state() == QProcess::NotRunning)
        return;
      m_process.closeWriteChannel();
      if (!m_process.waitForFinished(WaitMs)) {
        m_process.kill();
        m_process.waitForFinished(WaitMs);
      }
    }

  private:
    QProcess m_process;
    QList<QByteArray> m_lines;
    int m_port = 0;
  };

  /// Asks both programs for their state until both have one initialized session and the same
  /// tree of `attributes` attributes (any count when negative).
  bool waitInSync(PeerProgram& a, PeerProgram& b, int attributes, int timeoutMs = WaitMs)
  {
    const auto deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    while (Clock::now() < deadline) {
      const QList<QByteArray> sa = a.state(), sb = b.state();
      if (sa.size() == 5 && sb.size() == 5 && sa[0] == "1" && sa[1] == "1" && sb[0] == "1" && sb[1] == "1" &&
          sa[3] == sb[3] && sa[4] == sb[4] && (attributes < 0 || sa[3].toInt() == attributes))
        return true;
    }
    return false;
  }

  QByteArray md5Hex(const QByteArray& bytes)
  {
    return QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex();
  }
}

#ifndef PLEXA_PEER_PROCESS
#define SKIP_WITHOUT_PROGRAM() GTEST_SKIP() << "peer program not built"
#else
#define SKIP_WITHOUT_PROGRAM() (void)0
#endif

TEST(PeerProcessTest, TwoProcessesKeepATreeInSyncBothWays)
{
  SKIP_WITHOUT_PROGRAM();
  PeerProgram server("listen", 0);
  ASSERT_NE(server.port(), 0);
  server.send("set a/x int 5");
  server.send("set a/name text hello there");
  PeerProgram client("connect", server.port());
  client.send("set b/y float 1.5");
  client.send("set b/deep/er/z int -7");
  ASSERT_TRUE(waitInSync(server, client, 4));
  EXPECT_EQ(client.value("a/name"), QByteArray("hello there"));
  EXPECT_EQ(server.value("b/deep/er/z"), QByteArray("-7"));

  // Each side changes what the other made, and removes something.
  client.send("set a/x int 6");
  server.send("set b/y float 2.25");
  server.send("remove a/name");
  client.send("remove b/deep");
  ASSERT_TRUE(waitInSync(server, client, 2));
  EXPECT_EQ(server.value("a/x"), QByteArray("6"));
  EXPECT_EQ(client.value("b/y"), QByteArray("2.25"));
  EXPECT_EQ(server.value("b/deep/er/z"), QByteArray("-"));

  // Events both ways, one of them in slices; the peer's "initialized" was raised once on each side.
  client.send("watch hello");
  server.send("watch big");
  ASSERT_TRUE(waitInSync(server, client, 2));
  server.send("event hello from the server");
  client.send("slice big 200000 7000");
  Bastion::BinaryData small;
  small.writeString("from the server");
  QByteArray blob(200000, '\0');
  for (int i = 0; i < blob.size(); ++i)
    blob[i] = char(i * 13 + i / 251);
  Bastion::BinaryData large;
  large.writeBlob(blob);
  QByteArray line;
  ASSERT_TRUE(client.nextLine(line, [](const QByteArray& l) { return l.startsWith("event hello "); }));
  EXPECT_EQ(line, "event hello " + md5Hex(small.toByteArray()));
  ASSERT_TRUE(server.nextLine(line, [](const QByteArray& l) { return l.startsWith("event big "); }));
  EXPECT_EQ(line, "event big " + md5Hex(large.toByteArray()));
  EXPECT_EQ(server.state().value(2), QByteArray("1"));
  EXPECT_EQ(client.state().value(2), QByteArray("1"));
}

TEST(PeerProcessTest, AfterTheServerRestartsBothTreesAreTheSameAgain)
{
  SKIP_WITHOUT_PROGRAM();
  auto server = std::make_unique<PeerProgram>("listen", 0);
  const int port = server->port();
  ASSERT_NE(port, 0);
  server->send("set served int 1");
  PeerProgram client("connect", port);
  client.send("set mirrored/kept text from the client");
  ASSERT_TRUE(waitInSync(*server, client, 2));

  // A new server process on the same port, with a tree of its own; the client comes back by
  // itself and the two trees merge.
  server.reset();
  server = std::make_unique<PeerProgram>("listen", port);
  ASSERT_EQ(server->port(), port);
  server->send("set fresh float 0.5");
  server->send("set served int 2");
  ASSERT_TRUE(waitInSync(*server, client, 3));
  EXPECT_EQ(client.value("served"), QByteArray("2"));
  EXPECT_EQ(client.value("fresh"), QByteArray("0.5"));
  EXPECT_EQ(server->value("mirrored/kept"), QByteArray("from the client"));
  EXPECT_EQ(client.state().value(2), QByteArray("2"));
}
