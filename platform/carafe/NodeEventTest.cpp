#include "carafe/Node.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/TestGate.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>

using namespace Carafe;

namespace
{
  /// A node that counts what arrives through eventProcess.
  class CountingNode : public Node
  {
  public:
    using Node::Node;
    ~CountingNode() override { beginDestruction(); }

    void eventProcess(const QByteArray& name, Bastion::BinaryData& data) override
    {
      ++received;
      int32_t v = 0;
      if (name == "in" && data.readInt32(v))
        sum += v;
      Node::eventProcess(name, data);
    }

    std::atomic<int> received{0};
    std::atomic<long> sum{0};
  };
}

TEST(NodeEvents, BeforeListenersRunFirstAndEachSeesThePayloadFromItsStart)
{
  Node node;
  node.eventAddOut("data-written");
  node.eventAddIn("write-error");
  EXPECT_EQ(node.eventsOut(), (std::vector<QByteArray>{"data-written"}));
  EXPECT_EQ(node.eventsIn(), (std::vector<QByteArray>{"write-error"}));

  std::vector<QByteArray> calls;
  auto record = [&](const QByteArray& who) {
    return [&calls, who](Bastion::BinaryData& data) {
      QString path;
      int32_t bytes = 0;
      EXPECT_TRUE(data.readString(path));
      EXPECT_TRUE(data.readInt32(bytes));
      calls.push_back(who + ":" + path.toUtf8() + ":" + QByteArray::number(bytes));
    };
  };
  node.eventAddListener("data-written", record("after1"));
  node.eventAddListener("data-written", record("before1"), Node::Before);
  node.eventAddListener("data-written", record("after2"), Node::After);
  node.eventAddListener("data-written", record("before2"), Node::Before);
  node.eventAddListener("other", record("other"));

  Bastion::BinaryData data;
  data.writeString(QString("f.txt"));
  data.writeInt32(12);
  node.eventSend("data-written", data);
  EXPECT_EQ(calls,
            (std::vector<QByteArray>{"before1:f.txt:12", "before2:f.txt:12", "after1:f.txt:12", "after2:f.txt:12"}));

  // Undeclared names work; a payload-less send gives an empty payload.
  bool connected = false;
  node.eventAddListener("connected", [&](Bastion::BinaryData& d) { connected = d.atEnd(); });
  node.eventSend("connected");
  EXPECT_TRUE(connected);

  EXPECT_EQ(node.eventAddListener("x", Node::EventCallback()), -1);
  EXPECT_EQ(node.eventAddListener(
                "x", [](Bastion::BinaryData&) {}, 2),
            -1);
  EXPECT_EQ(node.eventAddListener("x", nullptr, "y"), -1);
  EXPECT_FALSE(node.eventRemoveListener(-1));
}

TEST(NodeEvents, ListenersMayChangeTheTableWhileBeingCalled)
{
  Node node;
  std::vector<int> calls;
  long first = -1, second = -1;
  first = node.eventAddListener("e", [&](Bastion::BinaryData&) {
    calls.push_back(1);
    EXPECT_TRUE(node.eventRemoveListener(second));
    EXPECT_TRUE(node.eventRemoveListener(first));
    node.eventAddListener("e", [&](Bastion::BinaryData&) { calls.push_back(3); });
  });
  second = node.eventAddListener("e", [&](Bastion::BinaryData&) { calls.push_back(2); });
  node.eventSend("e");
  EXPECT_EQ(calls, (std::vector<int>{1}));
  node.eventSend("e");
  EXPECT_EQ(calls, (std::vector<int>{1, 3}));

  // A listener may delete the node it listens to.
  auto* doomed = new Node;
  int later = 0;
  doomed->eventAddListener("e", [&](Bastion::BinaryData&) { delete doomed; });
  doomed->eventAddListener("e", [&](Bastion::BinaryData&) { ++later; });
  doomed->eventSend("e");
  EXPECT_EQ(later, 0);
}

TEST(NodeEvents, LinksForwardToTheTargetUntilEitherNodeGoes)
{
  auto* writer = new Node;
  auto* connection = new CountingNode;
  int heard = 0;
  connection->eventAddListener("write-error", [&](Bastion::BinaryData& data) {
    int32_t code = 0;
    EXPECT_TRUE(data.readInt32(code));
    heard += code;
  });
  const long link = writer->eventAddListener("error", connection, "write-error");
  ASSERT_GE(link, 0);

  Bastion::BinaryData data;
  data.writeInt32(5);
  writer->eventSend("error", data);
  EXPECT_EQ(heard, 5);
  EXPECT_EQ(connection->received.load(), 1);

  EXPECT_TRUE(writer->eventRemoveListener(link));
  writer->eventSend("error", data);
  EXPECT_EQ(heard, 5);

  writer->eventAddListener("error", connection, "write-error");
  delete connection; // the target goes first: the link is dropped
  writer->eventSend("error", data);
  EXPECT_EQ(heard, 5);
  writer->eventAddListener("other", writer, "x"); // prunes the dead link on the way

  auto* target = new CountingNode;
  auto* source = new Node;
  source->eventAddListener("out", target, "in");
  delete source; // the source goes first
  delete target;
  delete writer;
}

TEST(NodeEvents, RemovingAListenerWaitsForItsCallOnAnotherThread)
{
  Node node;
  Bastion::Mutex m;
  Bastion::Condition cv;
  bool inside = false;
  bool removeReturned = false;
  bool removedWhileRunning = false;
  const long id = node.eventAddListener("e", [&](Bastion::BinaryData&) {
    Bastion::Guard lock(m);
    inside = true;
    cv.wakeAll();
    // The remover must stay blocked while this call runs: give it a bounded chance to return early.
    removedWhileRunning = cv.waitFor(m, 200, [&] { return removeReturned; });
  });
  std::thread sender([&] { node.eventSend("e"); });
  {
    Bastion::Guard lock(m);
    ASSERT_TRUE(cv.waitFor(m, 20 * 1000, [&] { return inside; }));
  }
  EXPECT_TRUE(node.eventRemoveListener(id));
  {
    Bastion::Guard lock(m);
    removeReturned = true;
    cv.wakeAll();
  }
  sender.join();
  EXPECT_FALSE(removedWhileRunning);
}

TEST(NodeEvents, ManyThreadsSendWhileListenersComeAndGo)
{
  Node node;
  std::atomic<long> total{0};
  node.eventAddListener("tick", [&](Bastion::BinaryData& data) {
    int32_t v = 0;
    ASSERT_TRUE(data.readInt32(v));
    total += v;
  });
  std::atomic<bool> stop{false};
  std::vector<std::thread> senders;
  for (int t = 0; t < 3; ++t)
    senders.emplace_back([&] {
      for (int i = 0; i < 2000; ++i) {
        Bastion::BinaryData data;
        data.writeInt32(1);
        node.eventSend("tick", data);
      }
    });
  std::thread churn([&] {
    while (!stop) {
      std::atomic<int> calls{0};
      const long id = node.eventAddListener("tick", [&calls](Bastion::BinaryData&) { ++calls; });
      // `calls` goes out of scope right after the removal: the removal must have waited.
      node.eventRemoveListener(id);
    }
  });
  for (auto& t : senders)
    t.join();
  stop = true;
  churn.join();
  EXPECT_EQ(total.load(), 6000);
}

TEST(NodeEvents, ALinkTargetMayBeDeletedWhileAnotherThreadSends)
{
  Node source;
  auto* target = new CountingNode;
  source.eventAddListener("out", target, "in");
  std::atomic<bool> stop{false};
  std::atomic<int> sent{0};
  std::thread sender([&] {
    while (!stop) {
      Bastion::BinaryData data;
      data.writeInt32(1);
      source.eventSend("out", data);
      ++sent;
    }
  });
  ASSERT_TRUE(Bastion::waitUntil([&] { return target->received.load() >= 100; }));
  delete target; // waits for a delivery in progress, then no more arrive
  const int after = sent.load();
  ASSERT_TRUE(Bastion::waitUntil([&] { return sent.load() >= after + 100; }));
  stop = true;
  sender.join();
}
