#include "bastion/LogCapture.hpp"
#include "plexa/net/ConnectionTestSupport.hpp"

#include <gtest/gtest.h>

using namespace PlexaTest;
using Plexa::NetFormat::VersionLine;

using ServerSide = AcceptedConnection;

TEST(ConnectionHandshake, ServerAcceptsCurrentAndOldPeers)
{
  {
    ServerSide side;
    side.run();
    ASSERT_TRUE(side.client().clientHandshake("Orrery 2.0.4-corvanta\n"));
    ASSERT_TRUE(side.connection->waitConnected());
    EXPECT_EQ(side.connection->remoteUser(), "quill");
    EXPECT_EQ(side.connection->remoteVersionText(), "2.0.4-corvanta");
    EXPECT_TRUE(side.connection->isPlexa15Supported());
    EXPECT_TRUE(side.connection->isConnected());
    // A connection that pings announces itself right after the handshake.
    EXPECT_EQ(side.client().readLine(), "ping initialized");
  }
  {
    // An old peer sends its login as the first line and no version.
    ServerSide side;
    side.run();
    ASSERT_TRUE(side.client().clientHandshake(QByteArray()));
    ASSERT_TRUE(side.connection->waitConnected());
    EXPECT_EQ(side.connection->remoteVersionText(), "1.9.0");
    EXPECT_FALSE(side.connection->remoteVersion(1, 9, 1));
    EXPECT_FALSE(side.connection->isPlexa15Supported());
  }
}

TEST(ConnectionHandshake, ServerRefusesWrongKeyAndGarbage)
{
  Bastion::LogCapture log;
  {
    ServerSide side;
    side.run();
    ASSERT_TRUE(side.client().readLine() == VersionLine);
    const QByteArray challenge = side.client().read(64);
    side.client().write("Orrery 2.7.2\nquill\n" + expectedAnswer(challenge, "not the key"));
    EXPECT_EQ(side.client().readLine(), "Wrong username or password");
    EXPECT_TRUE(side.connection->waitEnd(WaitMs));
    EXPECT_TRUE(side.client().closedByPeer());
  }
  {
    // Right key, wrong login.
    ServerSide side;
    side.run();
    side.client().readLine();
    const QByteArray challenge = side.client().read(64);
    side.client().write("Orrery 2.7.2\nquil\n" + expectedAnswer(challenge, Plexa::SharedKey::current()));
    EXPECT_EQ(side.client().readLine(), "Wrong username or password");
    EXPECT_TRUE(side.connection->waitEnd(WaitMs));
  }
  {
    ServerSide side;
    side.run();
    side.client().readLine();
    side.client().read(64);
    side.client().write("SSH-2.0-OpenSSH\r\n");
    EXPECT_EQ(side.client().readLine(), "Wrong username or password");
    EXPECT_TRUE(side.connection->waitEnd(WaitMs));
  }
  EXPECT_EQ(log.countContaining("Handshake failed, closing connection"), 3);
}

TEST(ConnectionHandshake, EndlessOrSilentFirstLineIsBounded)
{
  Bastion::LogCapture log;
  {
    ServerSide side;
    side.run();
    side.client().readLine();
    side.client().read(64);
    // No line feed, ever: the handshake gives up at its line limit.
    side.client().write(QByteArray(Plexa::NetFormat::MaxHandshakeLineBytes + 10, 'A'));
    EXPECT_TRUE(side.connection->waitEnd(WaitMs));
    EXPECT_EQ(log.countContaining("sent a line longer than 4096 bytes, closing connection"), 1);
  }
  {
    ServerSide side;
    side.connection->setHandshakeTimeout(300);
    side.run();
    // The client says nothing at all.
    EXPECT_TRUE(side.connection->waitEnd(WaitMs));
    EXPECT_EQ(side.client().readLine(), VersionLine);
    EXPECT_EQ(side.client().read(64).size(), 64);
    EXPECT_TRUE(side.client().closedByPeer());
    EXPECT_EQ(side.connection->connectedCount(), 0);
  }
  {
    // A slow trickle does not extend the handshake's time limit.
    ServerSide side;
    side.connection->setHandshakeTimeout(400);
    side.run();
    side.client().readLine();
    side.client().read(64);
    const auto start = std::chrono::steady_clock::now();
    bool ended = false;
    while (!ended && std::chrono::steady_clock::now() - start < std::chrono::seconds(3)) {
      side.client().write("O");
      ended = side.connection->waitEnd(100);
    }
    EXPECT_TRUE(ended);
  }
  EXPECT_EQ(log.countContaining("Handshake failed, closing connection"), 3);
}

TEST(ConnectionHandshake, ClientSpeaksToNewAndOldServers)
{
  for (const QByteArray& version : {QByteArray("Orrery 2.7.2\n"), QByteArray("Orrery 1.9.0\n")}) {
    Listener listener;
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    connection->connectToHost("127.0.0.1", listener.port());
    RawSocket server(listener.accept());
    ASSERT_TRUE(server.isValid());
    // The raw server checks the version line (only sent to 1.9.1 and newer), login and answer.
    ASSERT_TRUE(server.serverHandshake(version)) << version.constData();
    ASSERT_TRUE(connection->waitConnected());
    EXPECT_EQ(connection->remoteVersionText(), QString::fromUtf8(version.trimmed().mid(7)));
    EXPECT_EQ(server.readLine(), "ping initialized");
    connection->stop();
  }
}

// Nobody listens at first: attempts fail and the wait before the next one reports what is left of
// it. A server that appears is found, and found again after it went away and came back on its port.
TEST(ConnectionHandshake, ClientRetriesUntilAServerListensAndAfterItWentAway)
{
  int port = 0;
  {
    Listener probe;
    port = probe.port();
  }
  auto connection = std::make_shared<RecordingConnection>(nullptr, false);
  connection->connectToHost("127.0.0.1", port);
  ASSERT_TRUE(connection->waitFor([&] { return connection->failedCount() >= 1 && !connection->retries().empty(); }));
  for (double left : connection->retries()) {
    EXPECT_GT(left, 0.0);
    EXPECT_LE(left, 3.0);
  }
  for (int round = 1; round <= 2; ++round) {
    Bastion::TCPServerSocket server;
    ASSERT_EQ(server.open("127.0.0.1", port, 4), 0);
    ASSERT_TRUE(server.isPendingConnection(8000 * 1000)) << "round " << round;
    RawSocket peer(server.accept());
    ASSERT_TRUE(peer.serverHandshake()) << "round " << round;
    ASSERT_TRUE(connection->waitConnected(round, 8000));
    EXPECT_EQ(peer.readLine(), "ping initialized");
    connection->queue(QStringLiteral("after %1\n").arg(round));
    EXPECT_EQ(peer.readLine(), "after " + QByteArray::number(round));
  }
}

TEST(ConnectionHandshake, ClientReportsBadServers)
{
  Bastion::LogCapture log;
  {
    Listener listener;
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    connection->setReconnect(false);
    connection->connectToHost("127.0.0.1", listener.port());
    RawSocket server(listener.accept());
    server.write("SSH-2.0-OpenSSH_9.2\r\n");
    EXPECT_TRUE(connection->waitEnd(WaitMs));
  }
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error,
                           "Unknown server version 'SSH-2.0-OpenSSH_9.2', expected \"Orrery (1|2).*.*\""));
  {
    Listener listener;
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    connection->setReconnect(false);
    connection->connectToHost("127.0.0.1", listener.port());
    RawSocket server(listener.accept());
    server.write("Orrery 2.7.2\n" + QByteArray(64, 'x'));
    server.readLine();
    server.readLine();
    server.read(16);
    server.write("Wrong username or password\n");
    EXPECT_TRUE(connection->waitEnd(WaitMs));
    EXPECT_EQ(connection->connectedCount(), 0);
  }
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Remote host sent handshake error: Wrong username or password"));
  EXPECT_EQ(log.countContaining("Handshake failed, closing connection"), 2);
}

TEST(ConnectionHandshake, VersionGating)
{
  RecordingConnection connection(nullptr, false);
  EXPECT_EQ(connection.remoteVersionText(), "");
  connection.setRemoteVersion(2, 0, 0, "");
  EXPECT_TRUE(connection.remoteVersion(1, 9, 1));
  EXPECT_FALSE(connection.remoteVersion(2, 0, 1));
  connection.setRemoteVersion(1, 9, 1, "");
  EXPECT_TRUE(connection.remoteVersion(1, 9, 1));
  connection.setRemoteVersion(1, 9, 0, "");
  EXPECT_FALSE(connection.remoteVersion(1, 9, 1));
  EXPECT_TRUE(connection.remoteVersion(1, 8, 99));

  struct Case
  {
    int major, minor, patch;
    const char* suffix;
    bool supported;
    const char* text;
  };
  const Case cases[] = {
      {2, 2, 0, "", true, "2.2.0"},
      {2, 1, 9, "", false, "2.1.9"},
      {2, 0, 4, "corvanta", true, "2.0.4-corvanta"},
      {2, 0, 4, "Vanta", false, "2.0.4-Vanta"},
      {2, 0, 4, "", false, "2.0.4"},
      {2, 0, 3, "vanta", false, "2.0.3-vanta"},
      {3, 0, 0, "", true, "3.0.0"},
  };
  for (const Case& c : cases) {
    connection.setRemoteVersion(c.major, c.minor, c.patch, c.suffix);
    EXPECT_EQ(connection.isPlexa15Supported(), c.supported) << c.text;
    EXPECT_EQ(connection.remoteVersionText(), c.text);
  }
}

TEST(ConnectionHandshake, SharedKeyIsBuiltInUntilReplaced)
{
  const QByteArray builtIn = Plexa::SharedKey::current();
  EXPECT_EQ(builtIn.size(), Plexa::NetFormat::SharedKeyBytes);
  EXPECT_NE(builtIn, QByteArray(Plexa::NetFormat::SharedKeyBytes, '\0'));

  const QByteArray challenge = Plexa::SharedKey::makeChallenge(&builtIn);
  EXPECT_EQ(challenge.size(), 64);
  EXPECT_NE(challenge, Plexa::SharedKey::makeChallenge(&builtIn));
  EXPECT_EQ(Plexa::SharedKey::answer(challenge, builtIn), expectedAnswer(challenge, builtIn));

  Plexa::ConnectionThread::setSharedKey("deployment");
  EXPECT_EQ(Plexa::SharedKey::current(), "deployment");
  Plexa::ConnectionThread::setSharedKey(QByteArray());
  EXPECT_EQ(Plexa::SharedKey::current(), builtIn);

  EXPECT_TRUE(Plexa::SharedKey::equalConstantTime("abc", "abc"));
  EXPECT_FALSE(Plexa::SharedKey::equalConstantTime("abc", "abd"));
  EXPECT_FALSE(Plexa::SharedKey::equalConstantTime("abc", "ab"));
}
