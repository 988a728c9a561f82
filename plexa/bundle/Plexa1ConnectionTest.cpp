#include "plexa/bundle/Plexa1Connection.hpp"
#include "plexa/bundle/BundleStream.hpp"

#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/LogCapture.hpp"
#include "plexa/bundle/BundleTestSupport.hpp"
#include "plexa/net/ConnectionTestSupport.hpp"

#include <gtest/gtest.h>


using namespace Plexa;
using namespace PlexaTest;

namespace
{
  /// Records every scheduled list; tests wait for them with a deadline.
  class RecordingScheduler : public BundleListScheduler
  {
  public:
    void scheduleProcess(const std::vector<Bundle>& bundles) override
    {
      Bastion::Guard lock(m_mutex);
      m_lists.push_back(bundles);
      m_changed.wakeAll();
    }
    bool waitForLists(size_t count)
    {
      Bastion::Guard lock(m_mutex);
      return m_changed.waitFor(m_mutex, WaitMs, [&] { return m_lists.size() >= count; });
    }
    std::vector<std::vector<Bundle>> lists() const
    {
      Bastion::Guard lock(m_mutex);
      return m_lists;
    }

  private:
    mutable Bastion::Mutex m_mutex;
    Bastion::Condition m_changed;
    std::vector<std::vector<Bundle>> m_lists;
  };

  /// Every line goes to processPlexa2 first, as an application's command handler does.
  void receiveBlocks(RecordingConnection& connection, std::shared_ptr<RecordingScheduler> scheduler)
  {
    connection.setHandler(
        [scheduler](RecordingConnection& c, const QString& line) { return processPlexa2(scheduler, c, line); });
  }


  /// A server-role connection that reads bundle blocks, and the raw client in front of it.
  struct RawToReceiver
  {
    Listener listener;
    SocketPair pair;
    std::shared_ptr<RecordingConnection> receiver;
    std::shared_ptr<RecordingScheduler> scheduler = std::make_shared<RecordingScheduler>();

    RawToReceiver()
    {
      pair = connectPair(listener);
      receiver = std::make_shared<RecordingConnection>(pair.accepted, true);
      receiver->setUsePing(false);
      receiveBlocks(*receiver, scheduler);
    }
    bool start()
    {
      receiver->Bastion::Thread::run();
      return pair.client->clientHandshake() && receiver->waitConnected();
    }
    RawSocket& client() { return *pair.client; }
  };
}

TEST(Plexa1ConnectionTest, ListsArriveWholeAndInOrderOverLoopback)
{
  Listener listener;
  ASSERT_TRUE(listener.isOpen());
  auto sender = std::make_shared<RecordingConnection>(nullptr, false);
  sender->setUsePing(false);
  Plexa1Connection connection(sender);

  const std::vector<Bundle> first{BundleBytes(0, 1).bytes("abcd"), BundleBytes(1, 2).bytes(""),
                                  BundleBytes(2, 3).bytes("12345678")};
  const std::vector<Bundle> second{BundleBytes(1, 4).bytes(QByteArray(3 * BundleReadChunkBytes + 20, 'q'))};
  std::vector<Bundle> third;
  for (uint32_t i = 0; i < 50; ++i)
    third.push_back(BundleBytes(i % 3, 5 + i).bytes(QByteArray(int(4 * (i % 7)), char('a' + i % 26))));

  // Queued before the connection exists: kept until it is up, and not dropped as too old a peer.
  connection.send(first);
  connection.send({});
  sender->connectToHost("127.0.0.1", listener.port());
  auto receiver = std::make_shared<RecordingConnection>(listener.accept(), true);
  receiver->setUsePing(false);
  auto scheduler = std::make_shared<RecordingScheduler>();
  receiveBlocks(*receiver, scheduler);
  receiver->Bastion::Thread::run();
  ASSERT_TRUE(sender->waitConnected());
  connection.send(second);
  connection.send(third);

  ASSERT_TRUE(scheduler->waitForLists(3));
  const auto lists = scheduler->lists();
  ASSERT_EQ(lists.size(), 3u);
  EXPECT_EQ(lists[0], first);
  EXPECT_EQ(lists[1], second);
  EXPECT_EQ(lists[2], third);
  EXPECT_EQ(lists[0][1].size(), 16);
  EXPECT_TRUE(receiver->isConnected());
  // processPlexa2 consumed every block line.
  ASSERT_TRUE(receiver->waitForLines(3));
  EXPECT_EQ(receiver->lines().size(), 3u);
  sender->shutdown();
  receiver->shutdown();
}

TEST(Plexa1ConnectionTest, BlockOnTheWireIsCountLineThenBundles)
{
  const std::vector<Bundle> bundles{BundleBytes(4, 9).bytes("wxyz"), BundleBytes(5, 10).bytes("")};
  const QList<QByteArray> parts = Plexa1Connection::blockParts(bundles);
  ASSERT_EQ(parts.size(), 3);
  EXPECT_EQ(parts[0], "plexa2 2\n");
  EXPECT_EQ(parts[1] + parts[2], concat(bundles));

  // Over a real connection to a raw peer: exactly those bytes, nothing between or after.
  Listener listener;
  auto sender = std::make_shared<RecordingConnection>(nullptr, false);
  sender->setUsePing(false);
  sender->connectToHost("127.0.0.1", listener.port());
  RawSocket peer(listener.accept());
  ASSERT_TRUE(peer.isValid());
  ASSERT_TRUE(peer.serverHandshake());
  ASSERT_TRUE(sender->waitConnected());
  Plexa1Connection(sender).send(bundles);
  sender->queue("marker\n");
  EXPECT_EQ(peer.readLine(), "plexa2 2");
  EXPECT_EQ(peer.read(concat(bundles).size()), concat(bundles));
  EXPECT_EQ(peer.readLine(), "marker");
  sender->shutdown();
}

TEST(Plexa1ConnectionTest, NothingGoesToAnOldPeerOrAGoneConnection)
{
  Listener listener;
  auto sender = std::make_shared<RecordingConnection>(nullptr, false);
  sender->setUsePing(false);
  sender->connectToHost("127.0.0.1", listener.port());
  RawSocket peer(listener.accept());
  ASSERT_TRUE(peer.isValid());
  ASSERT_TRUE(peer.serverHandshake("Orrery 2.1.9\n"));
  ASSERT_TRUE(sender->waitConnected());
  ASSERT_FALSE(sender->isPlexa15Supported());
  Plexa1Connection connection(sender);
  connection.send({BundleBytes(1, 1).bytes("abcd")});
  sender->queue("marker\n");
  EXPECT_EQ(peer.readLine(), "marker");
  sender->shutdown();

  std::weak_ptr<RecordingConnection> weak = sender;
  sender.reset();
  ASSERT_TRUE(weak.expired());
  connection.send({BundleBytes(1, 2).bytes("abcd")}); // silently nothing
}

TEST(Plexa1ConnectionTest, CutShortBlockSchedulesNothingAndEndsTheConnection)
{
  Bastion::LogCapture log;
  RawToReceiver r;
  ASSERT_TRUE(r.start());
  const std::vector<Bundle> two{BundleBytes(1, 1).bytes("aaaa"), BundleBytes(1, 2).bytes("bbbb")};
  r.client().write("plexa2 0\n");
  ASSERT_TRUE(r.scheduler->waitForLists(1));
  r.client().write("plexa2 3\n" + concat(two));
  r.client().socket().close();
  ASSERT_TRUE(r.receiver->waitDisconnected());
  const auto lists = r.scheduler->lists();
  ASSERT_EQ(lists.size(), 1u);
  EXPECT_TRUE(lists[0].empty());
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "processPlexa2 # Failed to read Bundle header"));
  EXPECT_FALSE(log.contains("Failed to parse command 'plexa2 3'"));
}

TEST(Plexa1ConnectionTest, UnholdableSizeEndsTheConnectionWithoutWaitingForBytes)
{
  Bastion::LogCapture log;
  RawToReceiver r;
  ASSERT_TRUE(r.start());
  Bundle huge;
  huge.setHeader(BundleHeader{0xfffffff0u, 1, 1, 0});
  r.client().write("plexa2 1\n" + huge.data() + "more");
  ASSERT_TRUE(r.receiver->waitDisconnected());
  EXPECT_TRUE(r.client().closedByPeer());
  EXPECT_TRUE(r.scheduler->lists().empty());
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "processPlexa2 # Failed to read Bundle"));
}

TEST(Plexa1ConnectionTest, OtherLinesAndBadCountsOnARealConnection)
{
  Bastion::LogCapture log;
  {
    RawToReceiver r;
    ASSERT_TRUE(r.start());
    r.client().write("plexa2 x\nplexa2  +1 \n" + BundleBytes(3, 1).bytes("abcd").bundle().data());
    ASSERT_TRUE(r.scheduler->waitForLists(1));
    EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Failed to parse command 'plexa2 x'"));
    EXPECT_EQ(r.scheduler->lists()[0], std::vector<Bundle>{BundleBytes(3, 1).bytes("abcd")});
    EXPECT_TRUE(r.receiver->isConnected());
  }
  {
    // A negative count leaves processPlexa2 as an exception: the connection thread ends this
    // connection only.
    RawToReceiver r;
    ASSERT_TRUE(r.start());
    r.client().write("plexa2 -1\n");
    ASSERT_TRUE(r.receiver->waitDisconnected());
    EXPECT_TRUE(r.scheduler->lists().empty());
  }
}
