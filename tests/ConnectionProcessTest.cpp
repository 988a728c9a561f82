#include "bastion/LogCapture.hpp"
#include "plexa/net/ConnectionTestSupport.hpp"

#include <QProcess>

#include <gtest/gtest.h>

#include <memory>

using namespace PlexaTest;

namespace
{
  /// The peer program, running a listening server in a process of its own.
  class PeerProcess
  {
  public:
    explicit PeerProcess(int port, const QByteArray& key = QByteArray())
    {
#ifdef PLEXA_CONNECTION_PEER
      QStringList arguments{QString::number(port)};
      if (!key.isEmpty())
        arguments << QString::fromUtf8(key);
      m_process.setProcessChannelMode(QProcess::ForwardedErrorChannel);
      m_process.start(PLEXA_CONNECTION_PEER, arguments);
      if (!m_process.waitForStarted(WaitMs))
        return;
      while (!m_process.canReadLine() && m_process.waitForReadyRead(WaitMs)) {
      }
      const QByteArray line = m_process.readLine().trimmed();
      if (line.startsWith("listening "))
        m_port = line.mid(10).toInt();
#else
      (void)port;
      (void)key;
#endif
    }
    ~PeerProcess()
    {
      end();
    }

    int port() const
    {
      return m_port;
    }
    /// Closes the peer's input, which ends it, and waits for its exit.
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
    int m_port = 0;
  };

  bool hasLine(RecordingConnection& connection, const QString& text)
  {
    const auto lines = connection.lines();
    return std::find(lines.begin(), lines.end(), text) != lines.end();
  }
}

#ifndef PLEXA_CONNECTION_PEER
#define SKIP_WITHOUT_PEER() GTEST_SKIP() << "peer program not built"
#else
#define SKIP_WITHOUT_PEER() (void)0
#endif

TEST(ConnectionProcess, ExchangeLinesAndMapsAndStayAlive)
{
  SKIP_WITHOUT_PEER();
  PeerProcess peer(0);
  ASSERT_NE(peer.port(), 0);
  auto connection = std::make_shared<RecordingConnection>(nullptr, false);
  connection->setHandler(
      [](RecordingConnection& c, const QString& line) { return readMapBlock(c, line) || line.startsWith("echoed "); });
  connection->connectToHost("127.0.0.1", peer.port());
  ASSERT_TRUE(connection->waitConnected());
  EXPECT_EQ(connection->remoteVersionText(), "2.7.2");

  connection->queue("echo hello wörld\n");
  const QMap<QString, QString> map{{"alpha", "1"}, {"beta", "zwei"}, {"empty", ""}};
  connection->writeMapBuffer("map", map);
  ASSERT_TRUE(connection->waitFor([&] { return hasLine(*connection, "echoed hello wörld"); }));
  ASSERT_TRUE(connection->waitFor([&] { return connection->maps().size() == 1; }));
  EXPECT_EQ(connection->maps()[0], map);

  // Both sides answered "ping initialized", which turns their keep-alives on. Whichever side
  // is silent for 5 s first pings and the other answers (its own timer restarts on the ping), so
  // the silent connection carries keep-alive lines and does not drop.
  ASSERT_TRUE(connection->waitFor([&] { return !connection->pongs().empty(); }));
  EXPECT_EQ(connection->pongs().front(), "initialized");
  const uint64_t received = connection->rxBytes();
  EXPECT_FALSE(connection->waitDisconnected(1, 7000));
  EXPECT_GE(connection->rxBytes(), received + 5);
  EXPECT_TRUE(connection->isConnected());
  EXPECT_EQ(connection->disconnectedCount(), 0);
}

TEST(ConnectionProcess, WrongKeyIsRefused)
{
  SKIP_WITHOUT_PEER();
  Bastion::LogCapture log;
  PeerProcess peer(0, "another key");
  ASSERT_NE(peer.port(), 0);
  auto connection = std::make_shared<RecordingConnection>(nullptr, false);
  connection->setReconnect(false);
  connection->connectToHost("127.0.0.1", peer.port());
  EXPECT_TRUE(connection->waitEnd(WaitMs));
  EXPECT_EQ(connection->connectedCount(), 0);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Remote host sent handshake error: Wrong username or password"));
}

TEST(ConnectionProcess, ClientRetriesUntilServerAppearsAndReconnectsAfterRestart)
{
  SKIP_WITHOUT_PEER();
  int port = 0;
  {
    Listener probe;
    port = probe.port();
  }
  auto connection = std::make_shared<RecordingConnection>(nullptr, false);
  connection->connectToHost("127.0.0.1", port);
  // Nobody listens: attempts fail and the wait before the next one reports its progress.
  ASSERT_TRUE(connection->waitFor([&] { return connection->failedCount() >= 1 && !connection->retries().empty(); }));
  for (double left : connection->retries()) {
    EXPECT_GT(left, 0.0);
    EXPECT_LE(left, 3.0);
  }
  {
    PeerProcess peer(port);
    ASSERT_EQ(peer.port(), port);
    ASSERT_TRUE(connection->waitConnected(1, 8000));
    peer.end();
    ASSERT_TRUE(connection->waitDisconnected(1, WaitMs));
  }
  PeerProcess restarted(port);
  ASSERT_EQ(restarted.port(), port);
  ASSERT_TRUE(connection->waitConnected(2, 8000));
  connection->queue("echo again\n");
  EXPECT_TRUE(connection->waitFor([&] { return hasLine(*connection, "echoed again"); }));
}
