// Two peers in one process over 127.0.0.1: sessions coming and going with their connections,
// reconnection, the connection cap, the wake-up of the update loop and the byte counters.

#include "plexa/app/Peer.hpp"
#include "plexa/app/PeerTestSupport.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <gtest/gtest.h>

#include <cerrno>
#include <chrono>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  using Clock = std::chrono::steady_clock;

  double millisecondsSince(Clock::time_point start)
  {
    return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
  }

  QString local(int port)
  {
    return QStringLiteral("127.0.0.1:%1").arg(port);
  }
}

TEST(PeerTest, ASessionBeginsWithEachConnectionAndEndsWithIt)
{
  RemoteNode serverNode(nullptr, "scene");
  RemoteNode clientNode(nullptr, "scene");
  Peer server(serverNode);
  Peer client(clientNode);
  ConnectionLog serverLog(server);
  ConnectionLog clientLog(client);
  std::vector<double> retries;
  client.setRetryCallback([&](double secondsLeft) { retries.push_back(secondsLeft); });

  QString error;
  ASSERT_TRUE(server.listen("127.0.0.1", 0, &error)) << error.toStdString();
  const int port = server.listeningPort();
  ASSERT_NE(port, 0);
  client.connectTo("127.0.0.1", port);
  ASSERT_TRUE(pumpUntil({&server, &client}, [&] { return server.sessionCount() == 1 && client.sessionCount() == 1; }));
  ASSERT_EQ(clientLog.events, std::vector<QString>{"+" + local(port)});
  ASSERT_EQ(serverLog.events.size(), 1u);
  EXPECT_TRUE(serverLog.events[0].startsWith("+127.0.0.1:"));

  // The server goes away: both sessions end, and the client keeps trying.
  server.stop();
  EXPECT_EQ(server.listeningPort(), 0);
  ASSERT_TRUE(pumpUntil({&server, &client},
                        [&] { return server.sessionCount() == 0 && client.sessionCount() == 0 && !retries.empty(); }));
  EXPECT_EQ(clientLog.events.back(), "-" + local(port));
  EXPECT_EQ(serverLog.events.back(), "-" + serverLog.events[0].mid(1));
  for (double secondsLeft : retries) {
    EXPECT_GT(secondsLeft, 0.0);
    EXPECT_LE(secondsLeft, 3.0);
  }

  // Back on the same port: the client is in again within its retry period, in a new session.
  ASSERT_TRUE(server.listen("127.0.0.1", port, &error)) << error.toStdString();
  ASSERT_TRUE(pumpUntil({&server, &client}, [&] { return server.sessionCount() == 1 && client.sessionCount() == 1; }));
  EXPECT_EQ(clientLog.events, (std::vector<QString>{"+" + local(port), "-" + local(port), "+" + local(port)}));
  EXPECT_EQ(serverLog.events.size(), 3u);

  // The client stops: the server's session ends, the client's too.
  client.stop();
  ASSERT_TRUE(pumpUntil({&server, &client}, [&] { return server.sessionCount() == 0 && client.sessionCount() == 0; }));
  EXPECT_EQ(clientLog.events.size(), 4u);
  EXPECT_EQ(serverLog.events.size(), 4u);
}

TEST(PeerTest, ListeningOnABusyAddressFailsWithAReason)
{
  RemoteNode node(nullptr, "scene");
  Peer first(node);
  ASSERT_TRUE(first.listen("127.0.0.1", 0));
  RemoteNode other(nullptr, "scene");
  Peer second(other);
  QString error;
  EXPECT_FALSE(second.listen("127.0.0.1", first.listeningPort(), &error));
  EXPECT_TRUE(error.endsWith(QString("%1: Address already in use").arg(first.listeningPort()))) << error.toStdString();
  EXPECT_EQ(second.listeningPort(), 0);
  ASSERT_TRUE(second.listen("127.0.0.1", 0, &error)) << error.toStdString();
  EXPECT_NE(second.listeningPort(), 0);
  EXPECT_FALSE(first.listen("127.0.0.1", 0, &error));
  EXPECT_FALSE(error.isEmpty());
}

namespace
{
  /// Connects to 127.0.0.1:`port` and waits (10 s at most) for the other end to close.
  bool closedByPeer(int port)
  {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const timeval limit{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char byte = 0;
    bool closed = false;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
      const ssize_t n = ::recv(fd, &byte, 1, 0);
      closed = n == 0 || (n < 0 && errno != EAGAIN && errno != EWOULDBLOCK);
    }
    ::close(fd);
    return closed;
  }
}

TEST(PeerTest, AConnectionOverTheCapIsClosedAndGetsInOnceThereIsRoom)
{
  Bastion::LogCapture log;
  RemoteNode serverNode(nullptr, "scene");
  PeerOptions options;
  options.maxConnections = 1;
  Peer server(serverNode, options);
  ASSERT_TRUE(server.listen("127.0.0.1", 0));
  RemoteNode firstNode(nullptr, "scene"), secondNode(nullptr, "scene");
  Peer first(firstNode), second(secondNode);
  first.connectTo("127.0.0.1", server.listeningPort());
  ASSERT_TRUE(
      pumpUntil({&server, &first, &second}, [&] { return first.sessionCount() == 1 && server.sessionCount() == 1; }));
  second.connectTo("127.0.0.1", server.listeningPort());
  ASSERT_TRUE(pumpUntil({&server, &first, &second}, [&] {
    return log.countContaining("PeerServer::createConnection # 1 connections already, closing "
                               "the one from 127.0.0.1:") > 0;
  }));
  EXPECT_EQ(second.sessionCount(), 0);
  EXPECT_EQ(server.sessionCount(), 1);
  // More connections over the cap are closed without another line each.
  for (int i = 0; i < 3; ++i)
    EXPECT_TRUE(closedByPeer(server.listeningPort()));
  EXPECT_EQ(log.countContaining("connections already, closing the one from"), 1);

  first.stop();
  ASSERT_TRUE(pumpUntil({&server, &first, &second}, [&] { return second.sessionCount() == 1; }));
  ASSERT_TRUE(pumpUntil({&server, &first, &second}, [&] { return server.sessionCount() == 1; }));
}

TEST(PeerTest, WaitAndUpdateReturnsOnWorkAndOtherwiseWaits)
{
  RemoteNode node(nullptr, "scene");
  Peer peer(node);
  peer.waitAndUpdate(0);

  // A wake from another thread is never lost, whether it comes before the wait or during it.
  std::thread waker([&] { peer.wake(); });
  Clock::time_point start = Clock::now();
  peer.waitAndUpdate(20000);
  EXPECT_LT(millisecondsSince(start), 10000.0);
  waker.join();

  // A local addition, a change and an event each end the wait at once.
  auto* value = new Carafe::AttributeT<int>(1);
  ASSERT_TRUE(node.addAttribute("value", value));
  start = Clock::now();
  peer.waitAndUpdate(20000);
  EXPECT_LT(millisecondsSince(start), 10000.0);
  peer.waitAndUpdate(0);

  value->setValue(2);
  start = Clock::now();
  peer.waitAndUpdate(20000);
  EXPECT_LT(millisecondsSince(start), 10000.0);
  peer.waitAndUpdate(0);

  Bastion::BinaryData payload;
  payload.writeInt32(7);
  node.eventProcess("poke", payload);
  start = Clock::now();
  peer.waitAndUpdate(20000);
  EXPECT_LT(millisecondsSince(start), 10000.0);
  peer.waitAndUpdate(0);

  // Nothing to do: it waits out its time.
  start = Clock::now();
  peer.waitAndUpdate(300);
  EXPECT_GE(millisecondsSince(start), 250.0);
}

TEST(PeerTest, ByteCountersOfBothEndsAgree)
{
  RemoteNode serverNode(nullptr, "scene"), clientNode(nullptr, "scene");
  Peer server(serverNode), client(clientNode);
  EXPECT_EQ(server.txBytes(), 0u);
  ASSERT_TRUE(server.listen("127.0.0.1", 0));
  client.connectTo("127.0.0.1", server.listeningPort());
  ASSERT_TRUE(pumpUntil({&server, &client}, [&] { return server.sessionCount() == 1 && client.sessionCount() == 1; }));
  // The text handshake alone is well over 90 bytes each way.
  ASSERT_TRUE(pumpUntil({&server, &client}, [&] {
    return client.rxBytes() > 90 && client.rxBytes() == server.txBytes() && client.txBytes() == server.rxBytes();
  }));
  // Connections that are gone still count.
  const uint64_t sent = client.txBytes();
  client.stop();
  ASSERT_TRUE(pumpUntil({&server, &client}, [&] { return server.sessionCount() == 0; }));
  EXPECT_GE(client.txBytes(), sent);
  EXPECT_GE(server.rxBytes(), sent);
}
