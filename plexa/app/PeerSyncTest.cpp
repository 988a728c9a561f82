// Two peers in one process over 127.0.0.1 keeping their trees in sync: every default type both
// ways, changes, removals, events, the peer's "initialized", reconnection, and the flooding caps.

#include "plexa/app/Peer.hpp"
#include "plexa/app/PeerTestSupport.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <gtest/gtest.h>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  using Int = Carafe::AttributeT<int>;
  using Text = Carafe::AttributeT<QString>;

  class PeerSyncTest : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      m_serverNode.eventAddListener("initialized", [this](Bastion::BinaryData&) { ++m_serverInitialized; });
      m_clientNode.eventAddListener("initialized", [this](Bastion::BinaryData&) { ++m_clientInitialized; });
    }

    void start(const PeerOptions& serverOptions = PeerOptions())
    {
      m_server.reset(new Peer(m_serverNode, serverOptions));
      m_client.reset(new Peer(m_clientNode));
      ASSERT_TRUE(m_server->listen("127.0.0.1", 0));
      m_port = m_server->listeningPort();
      m_client->connectTo("127.0.0.1", m_port);
    }

    bool pump(const std::function<bool()>& done, int timeoutMs = 15000)
    {
      return pumpUntil({m_server.get(), m_client.get()}, done, timeoutMs);
    }

    /// Both sessions are up, both peers' senders have started, and the trees are the same.
    bool inSync()
    {
      return m_server->initializedSessionCount() == 1 && m_client->initializedSessionCount() == 1 &&
             treeState(m_serverNode) == treeState(m_clientNode);
    }

    RemoteNode m_serverNode{nullptr, "scene"};
    RemoteNode m_clientNode{nullptr, "scene"};
    std::unique_ptr<Peer> m_server, m_client;
    int m_port = 0;
    int m_serverInitialized = 0;
    int m_clientInitialized = 0;
  };
}

TEST_F(PeerSyncTest, EveryDefaultTypeCrossesBothWaysChangesAndGoesAway)
{
  const std::vector<uint32_t> ids = TypeRegistry().registeredTypeIds();
  auto* there = new Carafe::Node(&m_serverNode, "there");
  for (uint32_t id : ids)
    there->addAttribute("t" + QByteArray::number(id), sampleAttribute(id));
  there->addAttribute("count", new Int(1));
  start();
  ASSERT_TRUE(pump([&] { return inSync(); }));
  EXPECT_EQ(treeState(m_clientNode).size(), ids.size() + 1);
  EXPECT_EQ(m_clientInitialized, 1);
  EXPECT_EQ(m_serverInitialized, 1);

  // Made on the connecting side while the session runs.
  auto* back = new Carafe::Node(&m_clientNode, "back");
  for (uint32_t id : ids)
    back->addAttribute("t" + QByteArray::number(id), sampleAttribute(id));
  back->addAttribute("name", new Text("first"));
  ASSERT_TRUE(pump([&] { return treeState(m_serverNode).size() == 2 * ids.size() + 2 && inSync(); }));

  // Each side changes what the other made.
  attributeAt<Int>(m_clientNode, "there/count")->setValue(42);
  attributeAt<Text>(m_serverNode, "back/name")->setValue("second");
  ASSERT_TRUE(pump([&] {
    return attributeAt<Int>(m_serverNode, "there/count")->value() == 42 &&
           attributeAt<Text>(m_clientNode, "back/name")->value() == "second" && inSync();
  }));

  // Removals travel too, and nothing comes back.
  m_serverNode.removeAttribute("there");
  m_clientNode.removeAttribute("back");
  ASSERT_TRUE(pump([&] { return treeState(m_serverNode).empty() && treeState(m_clientNode).empty(); }));
  for (int i = 0; i < 20; ++i) {
    m_server->waitAndUpdate(2);
    m_client->waitAndUpdate(2);
  }
  EXPECT_TRUE(treeState(m_serverNode).empty());
  EXPECT_TRUE(treeState(m_clientNode).empty());
  EXPECT_EQ(m_clientInitialized, 1);
}

TEST_F(PeerSyncTest, EventsAndSlicedEventsArriveWhole)
{
  start();
  ASSERT_TRUE(pump([&] { return inSync(); }));
  std::vector<QByteArray> atClient, atServer;
  m_clientNode.eventAddListener("hello", [&](Bastion::BinaryData& d) { atClient.push_back(d.toByteArray()); });
  m_serverNode.eventAddListener("big", [&](Bastion::BinaryData& d) { atServer.push_back(d.toByteArray()); });

  Bastion::BinaryData small;
  small.writeString("there");
  small.writeInt32(5);
  const QByteArray smallBytes = small.toByteArray();
  m_serverNode.eventProcess("hello", small);

  Bastion::BinaryData large;
  QByteArray blob(100000, '\0');
  for (int i = 0; i < blob.size(); ++i)
    blob[i] = char(i * 31 + i / 977);
  large.writeBlob(blob);
  const QByteArray largeBytes = large.toByteArray();
  m_clientNode.eventProcessSlice("big", large, 4000);

  ASSERT_TRUE(pump([&] { return !atClient.empty() && !atServer.empty(); }));
  EXPECT_EQ(atClient, std::vector<QByteArray>{smallBytes});
  EXPECT_EQ(atServer, std::vector<QByteArray>{largeBytes});
  EXPECT_EQ(m_serverNode.pendingSlicedEvents(), 0);
}

TEST_F(PeerSyncTest, AfterAReconnectBothTreesAreTheSameAndTheAcceptingSideWins)
{
  auto* shared = new Int(1);
  m_serverNode.addAttribute("shared", shared);
  m_serverNode.addAttribute("server-only", new Int(2));
  auto* mine = new Text("client");
  m_clientNode.addAttribute("mine", mine);
  start();
  ASSERT_TRUE(pump([&] { return inSync(); }));

  // The connection is cut; both sides go on changing their trees meanwhile.
  m_client->stop();
  ASSERT_TRUE(pump([&] { return m_server->sessionCount() == 0 && m_client->sessionCount() == 0; }));
  shared->setValue(10);
  m_serverNode.addAttribute("added-while-apart", new Int(3));
  attributeAt<Int>(m_clientNode, "shared")->setValue(99);
  m_clientNode.addAttribute("client-while-apart", new Int(4));
  m_client->connectTo("127.0.0.1", m_port);
  ASSERT_TRUE(pump([&] { return inSync(); }));
  EXPECT_EQ(attributeAt<Int>(m_clientNode, "shared")->value(), 10);
  EXPECT_NE(attributeAt<Int>(m_serverNode, "client-while-apart"), nullptr);
  EXPECT_NE(attributeAt<Int>(m_clientNode, "added-while-apart"), nullptr);
  EXPECT_EQ(m_clientInitialized, 2);

  // The server goes away and comes back on the same port; the client returns by itself.
  m_server->stop();
  ASSERT_TRUE(pump([&] { return m_client->sessionCount() == 0; }));
  mine->setValue("changed while the server was away");
  m_serverNode.removeAttribute("server-only");
  ASSERT_TRUE(m_server->listen("127.0.0.1", m_port));
  ASSERT_TRUE(pump([&] { return inSync(); }));
  // The client's change to its own attribute was made before it saw the server's tree again.
  EXPECT_EQ(attributeAt<Text>(m_serverNode, "mine")->value(), QString("client"));

  // Changes after the reconnection flow both ways as before.
  mine->setValue("after");
  shared->setValue(11);
  ASSERT_TRUE(pump([&] {
    return attributeAt<Text>(m_serverNode, "mine")->value() == "after" &&
           attributeAt<Int>(m_clientNode, "shared")->value() == 11 && inSync();
  }));
}

TEST_F(PeerSyncTest, ASessionOverAFloodingCapIsLoggedOnceAndDisconnected)
{
  Bastion::LogCapture log;
  for (int i = 0; i < 40; ++i)
    m_clientNode.addAttribute("a" + QByteArray::number(i), new Int(i));
  PeerOptions options;
  options.limits.maxCreatedNodes = 10;
  std::vector<QString> clientEvents;
  start(options);
  ConnectionLog clientLog(*m_client);
  const QByteArray line = "Peer::update # The session with 127.0.0.1:";
  ASSERT_TRUE(pump([&] { return log.countContaining(line) > 0; }));
  ASSERT_TRUE(pump([&] { return clientLog.events.size() >= 2; }));
  EXPECT_EQ(clientLog.events[0], "+127.0.0.1:" + QString::number(m_port));
  EXPECT_EQ(clientLog.events[1], "-127.0.0.1:" + QString::number(m_port));
  EXPECT_EQ(log.countContaining(line), 1);
  EXPECT_EQ(log.countContaining("went over a flooding limit (symbols 250000, session attributes 250000, created "
                                "nodes 10, in the tree 500000), disconnecting"),
            1);
  // What was applied before the cap stays.
  const TreeState server = treeState(m_serverNode);
  EXPECT_GE(server.size(), 1u);
  EXPECT_LE(server.size(), 10u);
}

TEST_F(PeerSyncTest, AReconnectingPeerCannotGrowTheTreePastTheTreeCap)
{
  Bastion::LogCapture log;
  for (int i = 0; i < 40; ++i)
    m_clientNode.addAttribute("a" + QByteArray::number(i), new Int(i));
  PeerOptions options;
  options.limits.maxCreatedNodes = 10;
  options.limits.maxTreeCreatedNodes = 15;
  start(options);
  // The first session stops at its own cap; the client comes back and its second session
  // meets the tree's.
  ASSERT_TRUE(pump([&] { return log.countContaining("Limit of 15 nodes and attributes created for peers") > 0; }));
  EXPECT_EQ(log.countContaining("Limit of 10 created nodes and attributes reached"), 1);
  EXPECT_EQ(treeState(m_serverNode).size(), 15u);
}
