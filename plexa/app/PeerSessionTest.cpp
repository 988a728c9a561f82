// A session's hand-over of received lists, its gate on sending, and the link that starts and ends
// sessions on a connection, without any socket: the connection is never started, so whatever is
// sent stays in its writer's queue where the test can see it. Last, what a file connection reports
// of the downloads it books, over 127.0.0.1.

#include "plexa/app/PeerSession.hpp"
#include "plexa/app/FileSessionConnection.hpp"
#include "plexa/app/SessionHost.hpp"
#include "plexa/app/SessionLink.hpp"
#include "plexa/app/TrafficMeter.hpp"

#include "bastion/Guard.hpp"
#include "bastion/LogCapture.hpp"
#include "plexa/controller/BundleController.hpp"
#include "plexa/controller/Core.hpp"
#include "plexa/files/FileTransferTestSupport.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <vector>

using namespace Plexa;

namespace
{
  /// Records what sessions report. File events may come from several connection threads.
  class FakeHost : public SessionHost
  {
  public:
    void sessionStarted(const std::shared_ptr<PeerSession>& session) override
    {
      Bastion::Guard lock(mutex);
      started.push_back(session);
    }
    void retrying(double secondsLeft) override { retries.push_back(secondsLeft); }
    void fileEvent(const FileEvent& event) override
    {
      {
        Bastion::Guard lock(mutex);
        fileEvents.push_back(QString::number(event.kind) + ' ' + event.path);
      }
      fileSignal.raise();
    }
    void wake() override { ++wakes; }

    Bastion::Mutex mutex;
    std::vector<std::shared_ptr<PeerSession>> started;
    std::vector<double> retries;
    std::atomic<int> wakes{0};
    /// "<kind> <path>" of each file event.
    QStringList fileEvents;
    PlexaTest::Signal fileSignal;
  };

  /// A connection that is never started.
  class IdleConnection : public ConnectionThread
  {
  public:
    IdleConnection()
        : ConnectionThread(nullptr, false)
    {
    }
    ~IdleConnection() override { shutdown(); }

  protected:
    bool parse(QString) override { return false; }
  };

  /// A bundle of a type nobody handles: dispatching it only records its sequence.
  Bundle bundleNumbered(uint32_t sequence)
  {
    Bundle bundle;
    BundleHeader header;
    header.messageType = 77;
    header.sequence = sequence;
    bundle.setHeader(header);
    return bundle;
  }

  uint32_t lastDispatched(PeerSession& session)
  {
    return session.controller()->core()->lastDispatched();
  }
}

TEST(PeerSessionTest, ListsReceivedBeforeTheStartAreHandedOverInOrderAndNothingAfterTheEnd)
{
  Bastion::LogCapture log;
  RemoteNode node(nullptr, "scene");
  FakeHost host;
  const auto session = std::make_shared<PeerSession>(std::weak_ptr<ConnectionThread>(), "peer:1", host);
  session->scheduleProcess({bundleNumbered(3)});
  session->scheduleProcess({bundleNumbered(4), bundleNumbered(5)});
  EXPECT_EQ(host.wakes.load(), 2);
  EXPECT_EQ(session->controller(), nullptr);

  session->start(node, BundleControllerParams());
  ASSERT_NE(session->controller(), nullptr);
  BundleController::update();
  EXPECT_EQ(lastDispatched(*session), 5u);

  session->scheduleProcess({bundleNumbered(6)});
  BundleController::update();
  EXPECT_EQ(lastDispatched(*session), 6u);

  session->end();
  EXPECT_TRUE(session->hasEnded());
  session->scheduleProcess({bundleNumbered(7)});
  BundleController::update();
  EXPECT_EQ(lastDispatched(*session), 6u);

  // A second start changes nothing.
  const std::shared_ptr<BundleController> controller = session->controller();
  session->start(node, BundleControllerParams());
  EXPECT_EQ(session->controller(), controller);
  session->finish();
}

TEST(PeerSessionTest, ASessionThatEndedBeforeItsStartGetsNoController)
{
  RemoteNode node(nullptr, "scene");
  FakeHost host;
  const auto session = std::make_shared<PeerSession>(std::weak_ptr<ConnectionThread>(), "peer:1", host);
  session->scheduleProcess({bundleNumbered(1)});
  session->end();
  const int controllers = BundleController::controllerCount();
  session->start(node, BundleControllerParams());
  EXPECT_EQ(session->controller(), nullptr);
  Carafe::Node::processAfterUpdate();
  EXPECT_LE(BundleController::controllerCount(), controllers);
}

TEST(PeerSessionTest, FinishReleasesTheControllerAndTheSessionItHoldsAsConnection)
{
  RemoteNode node(nullptr, "scene");
  FakeHost host;
  auto session = std::make_shared<PeerSession>(std::weak_ptr<ConnectionThread>(), "peer:1", host);
  session->start(node, BundleControllerParams());
  BundleController::update();
  const std::weak_ptr<BundleController> controller = session->controller();
  const std::weak_ptr<PeerSession> weakSession = session;
  ASSERT_FALSE(controller.expired());
  session->finish();
  EXPECT_TRUE(controller.expired());
  session.reset();
  EXPECT_TRUE(weakSession.expired());
}

TEST(PeerSessionTest, BlocksOfAnEndedSessionNeverReachTheNextOne)
{
  RemoteNode node(nullptr, "scene");
  FakeHost host;
  const auto traffic = std::make_shared<TrafficMeter>();
  const auto connection = std::make_shared<IdleConnection>();
  SessionLink link(host, traffic, "127.0.0.1:1");
  link.attach(*connection);

  link.connected(*connection);
  ASSERT_EQ(host.started.size(), 1u);
  const std::shared_ptr<PeerSession> first = host.started[0];
  EXPECT_EQ(first->peerAddress(), QString("127.0.0.1:1"));
  EXPECT_EQ(first->connection(), connection);
  EXPECT_EQ(link.session(), first);

  // Not connected: what the session sends waits in the writer's queue, like a block queued just
  // before the connection dropped.
  first->send({bundleNumbered(1)});
  const int64_t oneBlock = connection->bufferedDataSize();
  EXPECT_GT(oneBlock, 16);
  connection->writeBufferData("other\n", "other");
  const int64_t withOther = connection->bufferedDataSize();

  link.disconnected(*connection);
  EXPECT_TRUE(first->hasEnded());
  EXPECT_EQ(link.session(), nullptr);
  EXPECT_EQ(connection->bufferedDataSize(), withOther - oneBlock);
  // The ended session's core may still produce a pass before the application thread lets it go.
  first->send({bundleNumbered(2)});
  EXPECT_EQ(connection->bufferedDataSize(), withOther - oneBlock);

  // A block that slipped in after the drop and before the end goes at the next connection.
  link.connected(*connection);
  ASSERT_EQ(host.started.size(), 2u);
  const std::shared_ptr<PeerSession> second = host.started[1];
  EXPECT_NE(second, first);
  EXPECT_FALSE(second->hasEnded());
  second->send({bundleNumbered(3)});
  connection->writeBuffer(QList<QByteArray>{"plexa2 1\n", bundleNumbered(9).data()}, "plexa2");
  link.connected(*connection);
  EXPECT_EQ(connection->bufferedDataSize(), withOther - oneBlock);

  link.detach(*connection);
  EXPECT_EQ(traffic->txBytes(), 0u);
}

TEST(PeerSessionTest, LinkHandsOnlyBundleBlocksToItsSession)
{
  FakeHost host;
  const auto connection = std::make_shared<IdleConnection>();
  SessionLink link(host, std::make_shared<TrafficMeter>(), "a:1");
  EXPECT_FALSE(link.parse(*connection, "plexa2 0"));
  link.connected(*connection);
  EXPECT_FALSE(link.parse(*connection, "hello"));
  EXPECT_FALSE(link.parse(*connection, "Plexa2 0"));
  const int wakes = host.wakes.load();
  EXPECT_TRUE(link.parse(*connection, "plexa2 0"));
  EXPECT_EQ(host.wakes.load(), wakes + 1);
  link.retrying(1.5);
  ASSERT_EQ(host.retries.size(), 1u);
  EXPECT_DOUBLE_EQ(host.retries[0], 1.5);
  link.disconnected(*connection);
}

TEST(PeerSessionTest, AFileConnectionReportsOnlyTheDownloadsItBooked)
{
  using namespace PlexaTest;
  Bastion::LogCapture log;
  QTemporaryDir root;
  AssetBase store(root.path());
  ASSERT_TRUE(store.waitForFileList(10000));
  FakeHost host;
  const auto traffic = std::make_shared<TrafficMeter>();
  Listener listener;
  std::vector<std::shared_ptr<RawPeer>> peers;
  std::vector<std::shared_ptr<FileSessionConnection>> connections;
  for (int i = 0; i < 2; ++i) {
    peers.push_back(std::make_shared<RawPeer>(nullptr, false));
    peers[i]->setReconnect(false);
    peers[i]->connectToHost("127.0.0.1", listener.port());
    Bastion::TCPSocket* socket = listener.accept();
    ASSERT_NE(socket, nullptr);
    connections.push_back(std::make_shared<FileSessionConnection>(socket, true, store, host, traffic, "peer"));
    connections[i]->run();
    ASSERT_TRUE(peers[i]->connectedSignal.wait());
  }
  const QByteArray info = "fileinfo 1 \"/x\" 1 " + md5Hex("x").toLatin1() + "\n";

  // Only what was asked for is booked.
  connections[0]->requestFileInfo("/x");
  ASSERT_TRUE(peers[0]->waitLines(1));
  peers[0]->send("fileinfo 1 \"/pushed\" 1 " + md5Hex("x").toLatin1() + "\n" + info);
  ASSERT_TRUE(host.fileSignal.wait(1));
  EXPECT_EQ(log.countContaining("'/pushed' was not asked for: refused"), 1);
  EXPECT_FALSE(store.isDownloading("/pushed"));

  // The other connection's announcement of the same file starts nothing, and says so.
  connections[1]->requestFileInfo("/x");
  ASSERT_TRUE(peers[1]->waitLines(1));
  peers[1]->send(info);
  ASSERT_TRUE(host.fileSignal.wait(2));
  {
    Bastion::Guard lock(host.mutex);
    EXPECT_EQ(host.fileEvents, QStringList({QString("%1 /x").arg(SessionHost::FileEvent::Booked),
                                            QString("%1 /x").arg(SessionHost::FileEvent::Refused)}));
  }
  peers.clear();
  for (const auto& connection : connections)
    connection->shutdown();
}
