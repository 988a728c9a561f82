#include "plexa/files/ServerBase.hpp"
#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/LogCapture.hpp"
#include "bastion/PlatformUtils.hpp"
#include "plexa/net/ConnectionTestSupport.hpp"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <thread>

using namespace PlexaTest;

namespace
{
  /// A server whose factory makes recording connections and which records its hooks.
  class TestServer : public Plexa::ServerBase
  {
  public:
    ~TestServer() override
    {
      stop(true);
      closeConnections();
    }

    struct Removal
    {
      std::shared_ptr<Plexa::ConnectionThread> connection;
      bool threadEnded = false;
      bool listed = false;
    };

    bool waitFor(const std::function<bool()>& predicate, int timeoutMs = WaitMs)
    {
      Bastion::Guard lock(m_mutex);
      return m_changed.waitFor(m_mutex, timeoutMs, predicate);
    }
    std::vector<Removal> removals()
    {
      Bastion::Guard lock(m_mutex);
      return m_removals;
    }
    int connectedCount()
    {
      Bastion::Guard lock(m_mutex);
      return m_connected;
    }
    int disconnectedCount()
    {
      Bastion::Guard lock(m_mutex);
      return m_disconnected;
    }
    int created()
    {
      Bastion::Guard lock(m_mutex);
      return m_created;
    }
    /// Runs in the factory, on the server's thread, before the connection is handed back.
    std::function<void()> onCreate;

  protected:
    std::shared_ptr<Plexa::ConnectionThread> createConnection(Bastion::TCPSocket* socket) override
    {
      auto connection = std::make_shared<RecordingConnection>(socket, true);
      connection->setHandshakeTimeout(2000);
      if (onCreate)
        onCreate();
      Bastion::Guard lock(m_mutex);
      ++m_created;
      m_changed.wakeAll();
      return connection;
    }
    void removedInstance(std::shared_ptr<Plexa::ConnectionThread> connection) override
    {
      Removal removal;
      removal.connection = connection;
      removal.threadEnded = !connection->isRunning();
      const auto listed = instances();
      removal.listed = std::find(listed.begin(), listed.end(), connection) != listed.end();
      Bastion::Guard lock(m_mutex);
      m_removals.push_back(removal);
      m_changed.wakeAll();
    }
    void connected(std::shared_ptr<Plexa::ConnectionThread>) override
    {
      Bastion::Guard lock(m_mutex);
      ++m_connected;
      m_changed.wakeAll();
    }
    void disconnected(std::shared_ptr<Plexa::ConnectionThread>) override
    {
      Bastion::Guard lock(m_mutex);
      ++m_disconnected;
      m_changed.wakeAll();
    }

  private:
    Bastion::Mutex m_mutex{true};
    Bastion::Condition m_changed;
    std::vector<Removal> m_removals;
    int m_connected = 0;
    int m_disconnected = 0;
    int m_created = 0;
  };

  /// Starts `server` on an ephemeral port of 127.0.0.1 and returns the port (0 on failure).
  int startOnFreePort(TestServer& server)
  {
    server.run("127.0.0.1", 0);
    return server.waitForBind() == 0 ? server.localPort() : 0;
  }

  std::shared_ptr<RecordingConnection> client(int port)
  {
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    connection->connectToHost("127.0.0.1", port);
    return connection;
  }
}

TEST(ServerBase, BusyPortIsBoundOnceFreeAndStopEndsTheWait)
{
  Bastion::LogCapture log;
  std::atomic<int> firewallCalls{0};
  Bastion::PlatformUtils::setFirewallHook([&](int, const QString& rule) {
    EXPECT_EQ(rule, "plexa-test");
    ++firewallCalls;
    return true;
  });
  Listener blocker;
  ASSERT_TRUE(blocker.isOpen());
  const int port = blocker.port();
  {
    TestServer server;
    server.setAutoFirewallRules(true, "plexa-test");
    server.run("127.0.0.1", port);
    EXPECT_EQ(server.waitForBind(), EADDRINUSE);
    EXPECT_FALSE(server.waitEnd(300));
    EXPECT_EQ(firewallCalls.load(), 1);
    // A second run changes nothing while the thread runs.
    server.run("127.0.0.1", port + 1);
    blocker.close();
    const QByteArray listening = "Listening 127.0.0.1:" + QByteArray::number(port);
    for (int i = 0; i < 80 && !log.contains(Bastion::LogLevel::Info, listening); ++i)
      server.waitEnd(100);
    EXPECT_TRUE(log.contains(Bastion::LogLevel::Info, listening));
    EXPECT_EQ(server.waitForBind(), 0);
    EXPECT_EQ(server.localPort(), port);
    EXPECT_EQ(firewallCalls.load(), 2);
    server.stop(false);
    EXPECT_TRUE(server.waitEnd(1000));
  }
  {
    Listener busy;
    TestServer server;
    server.run("127.0.0.1", busy.port());
    EXPECT_FALSE(server.waitEnd(200));
    server.stop(false);
    EXPECT_TRUE(server.waitEnd(1000));
    EXPECT_EQ(log.countContaining("Listening"), 1);
    // Without retrying, the one failed attempt is reported and ends the thread.
    server.setRetryBind(false);
    server.run("127.0.0.1", busy.port());
    EXPECT_EQ(server.waitForBind(), EADDRINUSE);
    EXPECT_TRUE(server.waitEnd(1000));
    EXPECT_FALSE(server.isServing());
  }
  Bastion::PlatformUtils::setFirewallHook(nullptr);
}

TEST(ServerBase, DisconnectedConnectionIsRetiredAfterItsThreadEnded)
{
  TestServer server;
  const int port = startOnFreePort(server);
  ASSERT_NE(port, 0);
  auto first = client(port);
  auto second = client(port);
  ASSERT_TRUE(first->waitConnected());
  ASSERT_TRUE(second->waitConnected());
  ASSERT_TRUE(server.waitFor([&] { return server.connectedCount() == 2; }));
  EXPECT_EQ(server.instances().size(), 2u);

  first->shutdown();
  ASSERT_TRUE(server.waitFor([&] { return server.removals().size() == 1; }));
  const auto removal = server.removals()[0];
  EXPECT_TRUE(removal.threadEnded);
  EXPECT_FALSE(removal.listed);
  EXPECT_EQ(server.disconnectedCount(), 1);
  EXPECT_EQ(server.instances().size(), 1u);
  EXPECT_TRUE(second->isConnected());
}

TEST(ServerBase, FailedHandshakeIsRetiredToo)
{
  Bastion::LogCapture log;
  TestServer server;
  const int port = startOnFreePort(server);
  ASSERT_NE(port, 0);
  {
    auto* socket = new Bastion::TCPSocket();
    ASSERT_EQ(socket->open("127.0.0.1", port), 0);
    RawSocket peer(socket);
    peer.readLine();
    peer.read(64);
    peer.write("GET / HTTP/1.0\n");
    EXPECT_EQ(peer.readLine(), "Wrong username or password");
  }
  // Such a connection never says "disconnected"; the server still lets it go.
  ASSERT_TRUE(server.waitFor([&] { return server.removals().size() == 1; }));
  EXPECT_TRUE(server.removals()[0].threadEnded);
  EXPECT_TRUE(server.instances().empty());
  EXPECT_EQ(server.disconnectedCount(), 0);
  EXPECT_EQ(log.countContaining("Handshake failed, closing connection"), 1);
}

TEST(ServerBase, StopAndCloseConnections)
{
  TestServer server;
  const int port = startOnFreePort(server);
  ASSERT_NE(port, 0);
  auto peer = client(port);
  peer->setReconnect(false);
  ASSERT_TRUE(peer->waitConnected());
  ASSERT_TRUE(server.waitFor([&] { return server.connectedCount() == 1; }));

  server.closeConnections();
  EXPECT_EQ(server.instances().size(), 1u);
  server.stop(false);
  EXPECT_TRUE(server.waitEnd(1000));
  EXPECT_TRUE(peer->isConnected());
  ASSERT_EQ(server.instances().size(), 1u);
  // Held from here: once stopped, the server may retire the connection at any moment.
  const auto connection = server.instances()[0];
  EXPECT_TRUE(connection->isConnected());

  server.stop(true);
  EXPECT_TRUE(connection->waitEnd(WaitMs));
  server.closeConnections();
  EXPECT_TRUE(server.instances().empty());
  EXPECT_TRUE(peer->waitDisconnected());
}

TEST(ServerBase, ConnectionAcceptedWhileStoppingIsStopped)
{
  TestServer server;
  const int port = startOnFreePort(server);
  ASSERT_NE(port, 0);
  // The stop comes while the accepted socket is being set up.
  server.onCreate = [&] { server.stop(true); };
  auto* socket = new Bastion::TCPSocket();
  ASSERT_EQ(socket->open("127.0.0.1", port), 0);
  RawSocket peer(socket);
  ASSERT_TRUE(server.waitFor([&] { return server.created() == 1; }));
  EXPECT_TRUE(server.waitEnd(WaitMs));
  // Closed without a word: no handshake was started.
  EXPECT_TRUE(peer.readLine().isNull());
  EXPECT_TRUE(server.instances().empty());
}

namespace
{
  double processCpuSeconds()
  {
    timespec t{};
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &t);
    return double(t.tv_sec) + double(t.tv_nsec) / 1e9;
  }
}

// Out of descriptors, a pending connection cannot be accepted and the next poll returns at once:
// the loop pauses instead of spinning, and takes the connection once descriptors are free again.
TEST(ServerBase, FailedAcceptBacksOff)
{
  Bastion::LogCapture log;
  TestServer server;
  const int port = startOnFreePort(server);
  ASSERT_NE(port, 0);
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  rlimit low = saved;
  low.rlim_cur = std::min<rlim_t>(saved.rlim_cur, 256);
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<int> fillers;
  for (int fd; (fd = ::open("/dev/null", O_RDONLY | O_CLOEXEC)) >= 0;)
    fillers.push_back(fd);
  // The client takes the last free descriptor; the server has none left for accepting.
  if (!fillers.empty()) {
    ::close(fillers.back());
    fillers.pop_back();
  }
  const int client = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(uint16_t(port));
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  const bool connected = client >= 0 && ::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0;
  // Not a synchronisation: the server's CPU time is measured over a fixed stretch of time.
  const double cpuBefore = processCpuSeconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  const double cpu = processCpuSeconds() - cpuBefore;
  for (int fd : fillers)
    ::close(fd);
  setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_TRUE(connected) << fillers.size() << " descriptors filled";
  EXPECT_LT(cpu, 0.1);
  EXPECT_EQ(log.countContaining("ServerBase # Cannot accept a connection (Too many open files)"), 1);
  EXPECT_TRUE(server.waitFor([&] { return server.created() == 1; }));
  EXPECT_EQ(log.countContaining("ServerBase # Accepting connections again after"), 1);
  ::close(client);
}
