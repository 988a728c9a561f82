#include "plexa/remote/RemoteNode.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"

#include <gtest/gtest.h>

#include <thread>

using Bastion::BinaryData;
using Plexa::NodeWatcher;
using Plexa::RemoteNode;
using Float = Carafe::AttributeT<float>;

namespace
{
  struct Sent
  {
    QByteArray name;
    QByteArray bytes;
  };

  // Records what the node sends to the peer, as (event name, payload bytes).
  struct Outbox
  {
    RemoteNode& node;
    std::vector<Sent> sent;
    long id;

    explicit Outbox(RemoteNode& n)
        : node(n)
    {
      id = node.addEventListener([this](const RemoteNode::Event& e) {
        QByteArray name;
        node.symbolRegistry().lookup(e.symbol, name);
        sent.push_back({name, e.data.toByteArray()});
      });
    }
    ~Outbox() { node.removeEventLIstener(id); }
  };

  Float* addFloat(Carafe::Node& node, const char* name)
  {
    auto* a = new Float;
    EXPECT_TRUE(node.addAttribute(name, a));
    return a;
  }
}

TEST(RemoteNodeTest, ApplicationEventsGoToThePeerAndPeerEventsAreHandledHere)
{
  RemoteNode node(nullptr, "remote");
  Outbox out(node);
  std::vector<QByteArray> handled;
  node.eventAddListener("ping", [&](BinaryData& d) {
    QString text;
    d.readString(text);
    handled.push_back(text.toUtf8());
    // Sent from inside the dispatch: a different pair, so it goes to the peer.
    BinaryData reply;
    reply.writeString("pong!");
    node.eventProcess("pong", reply);
    EXPECT_FALSE(node.handlingRemoteEvent("pong", reply));
  });

  BinaryData local;
  local.writeString("from-app");
  node.eventProcess("ping", local);
  EXPECT_TRUE(handled.empty());
  ASSERT_EQ(out.sent.size(), 1u);
  EXPECT_EQ(out.sent[0].name, "ping");
  EXPECT_EQ(out.sent[0].bytes, local.toByteArray());

  BinaryData remote;
  remote.writeString("from-peer");
  node.handleRemoteEvent("ping", remote, 3);
  EXPECT_EQ(handled, std::vector<QByteArray>{"from-peer"});
  ASSERT_EQ(out.sent.size(), 2u);
  EXPECT_EQ(out.sent[1].name, "pong");

  // The peer's sender started: the application hears "initialized"; nothing goes back.
  int initialized = 0;
  node.eventAddListener("initialized", [&](BinaryData&) { ++initialized; });
  BinaryData empty;
  node.handleRemoteEvent("initialized", empty, 0);
  EXPECT_EQ(initialized, 1);
  EXPECT_EQ(out.sent.size(), 2u);
}

TEST(RemoteNodeTest, EventListenersMayChangeTheTableWhileCalled)
{
  RemoteNode node(nullptr, "remote");
  int first = 0, added = 0;
  long firstId = -1;
  firstId = node.addEventListener([&](const RemoteNode::Event&) {
    ++first;
    node.removeEventLIstener(firstId);
    node.addEventListener([&](const RemoteNode::Event&) { ++added; });
  });
  BinaryData d;
  node.eventProcess("e", d);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(added, 0);
  node.eventProcess("e", d);
  EXPECT_EQ(first, 1);
  EXPECT_EQ(added, 1);
}

TEST(RemoteNodeTest, LargeEventsTravelInSlicesAndAreReassembledInAnyOrder)
{
  RemoteNode sender(nullptr, "a");
  Outbox out(sender);
  BinaryData payload(QByteArray("0123456789"));
  sender.eventProcessSlice("big", payload, 4);
  ASSERT_EQ(out.sent.size(), 4u);
  EXPECT_EQ(out.sent[0].name, "event-slice-begin");
  BinaryData begin(out.sent[0].bytes);
  int32_t sliceId = -1, sliceSize = 0;
  int64_t total = 0;
  QByteArray name;
  ASSERT_TRUE(begin.readInt32(sliceId) && begin.readString(name) && begin.readInt32(sliceSize) &&
              begin.readInt64(total));
  EXPECT_EQ(name, "big");
  EXPECT_EQ(sliceSize, 4);
  EXPECT_EQ(total, 10);
  const std::vector<QByteArray> parts = {"0123", "4567", "89"};
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(out.sent[size_t(i) + 1].name, "event-slice");
    BinaryData s(out.sent[size_t(i) + 1].bytes);
    int32_t id = -1, index = -1;
    QByteArray blob;
    ASSERT_TRUE(s.readInt32(id) && s.readInt32(index) && s.readBlob(blob));
    EXPECT_EQ(id, sliceId);
    EXPECT_EQ(index, i);
    EXPECT_EQ(blob, parts[size_t(i)]);
  }

  RemoteNode receiver(nullptr, "b");
  Outbox echo(receiver);
  std::vector<QByteArray> delivered;
  std::vector<bool> sliced;
  receiver.eventAddListener("big", [&](BinaryData& d) {
    delivered.push_back(d.toByteArray());
    sliced.push_back(receiver.handlingSlicedEvent());
  });
  const auto deliver = [&](size_t k) {
    BinaryData d(out.sent[k].bytes);
    receiver.handleRemoteEvent(out.sent[k].name, d, 1);
  };
  deliver(0);
  deliver(3);
  deliver(1);
  EXPECT_TRUE(delivered.empty());
  EXPECT_GT(receiver.slicedEventBytes(), 10);
  deliver(2);
  EXPECT_EQ(delivered, std::vector<QByteArray>{"0123456789"});
  // Listeners can tell an event put together from slices from a plain one.
  BinaryData plain(QByteArray("x"));
  receiver.handleRemoteEvent("big", plain, 1);
  EXPECT_EQ(sliced, (std::vector<bool>{true, false}));
  EXPECT_FALSE(receiver.handlingSlicedEvent());
  delivered.pop_back();
  EXPECT_EQ(receiver.pendingSlicedEvents(), 0);
  EXPECT_TRUE(echo.sent.empty()); // handled here, not sent back

  // An empty payload or a slice size of 0 sends the plain event.
  out.sent.clear();
  BinaryData none;
  sender.eventProcessSlice("small", none, 4);
  sender.eventProcessSlice("big", payload, 0);
  ASSERT_EQ(out.sent.size(), 2u);
  EXPECT_EQ(out.sent[0].name, "small");
  EXPECT_EQ(out.sent[1].name, "big");
  EXPECT_EQ(out.sent[1].bytes, "0123456789");

  // Slice ids are unique per process.
  out.sent.clear();
  sender.eventProcessSlice("big", payload, 100);
  ASSERT_EQ(out.sent.size(), 2u);
  BinaryData again(out.sent[0].bytes);
  int32_t nextId = -1;
  ASSERT_TRUE(again.readInt32(nextId));
  EXPECT_NE(nextId, sliceId);
}

TEST(RemoteNodeTest, PeerEventsWithTheNodesOwnNamesAreRefused)
{
  // Declared before the node: its own "destroyed" and removals at the end reach the listeners.
  int heard = 0;
  std::vector<NodeWatcher::Event> changes;
  RemoteNode node(nullptr, "remote");
  Float* speed = addFloat(node, "speed");
  node.update();
  const std::vector<QByteArray> reserved = {"attribute-added", "attribute-removed", "destroyed"};
  for (const QByteArray& name : reserved)
    node.eventAddListener(name, [&](BinaryData&) { ++heard; });
  node.addAttributeChangeListener([&](const NodeWatcher::Event& e) { changes.push_back(e); });

  Bastion::LogCapture log;
  RemoteNode peer(nullptr, "peer");
  Outbox out(peer);
  for (const QByteArray& name : reserved) {
    BinaryData plain;
    plain.writeString("speed");
    node.handleRemoteEvent(name, plain, 1);
    BinaryData sliced(plain.toByteArray());
    peer.eventProcessSlice(name, sliced, 2);
  }
  for (const Sent& sent : out.sent) {
    BinaryData d(sent.bytes);
    node.handleRemoteEvent(sent.name, d, 1);
  }
  EXPECT_EQ(heard, 0);
  for (const QByteArray& name : reserved)
    EXPECT_EQ(log.countContaining("RemoteNode::handleRemoteEvent # Refused an event from the peer with the reserved "
                                  "name '" +
                                  name + "'"),
              2);
  EXPECT_EQ(node.pendingSlicedEvents(), 0);

  // The watcher still follows the attribute.
  speed->setValue(4.f);
  ASSERT_EQ(changes.size(), 1u);
  EXPECT_EQ(changes[0].type, NodeWatcher::AttributeChanged);
}

TEST(RemoteNodeTest, PathListenersRunOncePerUpdate)
{
  RemoteNode node(nullptr, "remote");
  auto* n = new Carafe::Node(&node, "n");
  Float* a = addFloat(*n, "a");
  addFloat(node, "top");
  std::vector<std::pair<QByteArray, Carafe::Attribute*>> calls;
  node.onChangeImpl(RemoteNode::makeRegExp("n/*"), [&](Carafe::Attribute* attr) {
    calls.push_back({attr ? attr->name() : "null", attr});
  });
  EXPECT_TRUE(calls.empty()); // runs on the update pass
  node.update();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].second, a);
  node.update();
  EXPECT_EQ(calls.size(), 1u);

  for (int i = 1; i <= 5; ++i)
    a->setValue(float(i));
  node.update();
  EXPECT_EQ(calls.size(), 2u);

  // An attribute added later whose path matches gets the listener; one not matching does not.
  Float* b = addFloat(*n, "b");
  auto* deeper = new Carafe::Node(n, "m");
  Float* c = addFloat(*deeper, "c");
  node.update();
  ASSERT_EQ(calls.size(), 3u);
  EXPECT_EQ(calls[2].second, b);
  b->setValue(1.0f);
  a->setValue(9.0f);
  c->setValue(1.0f);
  node.update();
  ASSERT_EQ(calls.size(), 5u);
  EXPECT_EQ(calls[3].second, b); // first-change order
  EXPECT_EQ(calls[4].second, a);

  // A change followed by a removal is not notified.
  b->setValue(2.0f);
  ASSERT_TRUE(n->removeAttribute("b"));
  node.update();
  EXPECT_EQ(calls.size(), 5u);

  // Re-added under the same path: still one call per update.
  Float* b2 = addFloat(*n, "b");
  node.update();
  b2->setValue(3.0f);
  node.update();
  ASSERT_EQ(calls.size(), 7u);
  EXPECT_EQ(calls[5].second, b2);
  EXPECT_EQ(calls[6].second, b2);
}

TEST(RemoteNodeTest, SyncFlagsApplyToPresentAndFutureAttributes)
{
  RemoteNode node(nullptr, "remote");
  Plexa::SyncFlags& flags = node.syncFlags();
  addFloat(node, "id");
  auto* n = new Carafe::Node(&node, "n");
  addFloat(*n, "id");
  addFloat(*n, "identity");
  addFloat(*n, "x");
  node.update();
  auto sym = [&](const char* p) { return node.symbolRegistry().lookup(QByteArray(p)); };
  EXPECT_EQ(flags.getFlags(sym("id")), 0u);
  EXPECT_EQ(flags.getFlags(sym("n/id")), 0u);
  EXPECT_EQ(flags.getFlags(sym("n/identity")), 1u);

  // Made after the attribute exists: applies at once.
  node.setSyncFlags(RemoteNode::makeRegExp("n/*"), 4);
  EXPECT_EQ(flags.getFlags(sym("n/x")), 4u);
  EXPECT_EQ(flags.getFlags(sym("n/id")), 4u);
  // Made before: applies when the attribute is reported; later settings win.
  node.setSyncFlags(RemoteNode::makeRegExp("n/y*"), 0);
  addFloat(*n, "yes");
  node.update();
  EXPECT_EQ(flags.getFlags(sym("n/yes")), 0u);
  addFloat(*n, "id2");
  node.update();
  EXPECT_EQ(flags.getFlags(sym("n/id2")), 4u);
}

TEST(RemoteNodeTest, WildcardsBecomeAnchoredExpressions)
{
  const auto match = [](const char* pattern, const char* path) {
    return RemoteNode::makeRegExp(pattern).match(QString::fromUtf8(path)).hasMatch();
  };
  EXPECT_TRUE(match("a/*/b", "a/x/b"));
  EXPECT_FALSE(match("a/*/b", "a/x/y/b"));
  EXPECT_FALSE(match("a/*/b", "a//b"));
  EXPECT_TRUE(match("a/**", "a/x/y/b"));
  EXPECT_FALSE(match("a/**", "a/"));
  EXPECT_TRUE(match("a.b/*", "a.b/c"));
  EXPECT_FALSE(match("a.b/*", "axb/c"));
  EXPECT_FALSE(match("a.b/*", "a.b/c/d"));
  EXPECT_FALSE(match("a.b/*", "xa.b/c"));
  EXPECT_TRUE(match("**", "x"));
  EXPECT_TRUE(match("**", "x/y/z"));
  EXPECT_FALSE(match("**", ""));
  EXPECT_TRUE(match("(x)[1]", "(x)[1]"));
  EXPECT_FALSE(match("A", "a"));
  // A peer's path may hold any character: a final newline is not the end, "**" spans lines.
  EXPECT_FALSE(match("a", "a\n"));
  EXPECT_TRUE(match("a/**", "a/x\ny"));
  EXPECT_TRUE(match("a/*", "a/x\ny"));
  EXPECT_TRUE(match("a\\b/*", "a\\b/c"));
  EXPECT_TRUE(match("\xc3\xa9t\xc3\xa9/*", "\xc3\xa9t\xc3\xa9/x"));
  EXPECT_TRUE(match("a/*", "a/\xed\xa0\x80\xff"));
}

TEST(RemoteNodeTest, AddDeepAttributeCreatesTheNodesOnTheWay)
{
  Bastion::LogCapture log;
  RemoteNode node(nullptr, "remote");
  auto* c = new Float;
  ASSERT_TRUE(node.addDeepAttribute("a/b/c", c));
  auto* a = dynamic_cast<Carafe::Node*>(node.attribute("a"));
  ASSERT_NE(a, nullptr);
  auto* b = dynamic_cast<Carafe::Node*>(a->attribute("b"));
  ASSERT_NE(b, nullptr);
  EXPECT_EQ(b->attribute("c"), c);
  ASSERT_TRUE(node.addNode("a/n", new Carafe::Node));
  EXPECT_NE(dynamic_cast<Carafe::Node*>(a->attribute("n")), nullptr);
  EXPECT_TRUE(log.texts().empty());

  std::unique_ptr<Float> d(new Float);
  EXPECT_FALSE(node.addDeepAttribute("a/b/c/d", d.get()));
  EXPECT_FALSE(node.addDeepAttribute("/x", d.get()));
  EXPECT_FALSE(node.addDeepAttribute("x", nullptr));
  EXPECT_FALSE(node.addDeepAttribute("a/b/c", d.get())); // name taken: refused by the node
  EXPECT_EQ(log.texts(),
            (std::vector<QByteArray>{"RemoteNode::addDeepAttribute # Failed to add attribute. An attribute already "
                                     "exists on the path where a node is expected.",
                                     "RemoteNode::addDeepAttribute # full name shouldn't start with '/': /x",
                                     "RemoteNode::addDeepAttribute # got a null attribute. Ignoring"}));
  EXPECT_EQ(d->host(), nullptr);
  EXPECT_EQ(b->attributeCount(), 1);
}

TEST(RemoteNodeTest, WatcherEventsReachTheAttributeChangeListeners)
{
  auto node = std::make_unique<RemoteNode>(nullptr, "remote");
  RemoteNode* raw = node.get();
  std::vector<std::pair<int, QByteArray>> seen;
  node->addAttributeChangeListener([&](const NodeWatcher::Event& e) {
    QByteArray path;
    raw->symbolRegistry().lookup(e.symbol, path);
    seen.push_back({int(e.type), path});
  });
  Float* a = addFloat(*node, "a");
  node->processPendingAdditions();
  const uint32_t s = node->symbolRegistry().lookup(QByteArray("a"));
  EXPECT_EQ(node->attributeCache().find(s), a);
  node->ignoreOne({NodeWatcher::AttributeChanged, s});
  a->setValue(1.0f);
  node->ignoreOne({NodeWatcher::AttributeChanged, s});
  node->stopIgnoring({NodeWatcher::AttributeChanged, s});
  a->setValue(2.0f);
  EXPECT_EQ(seen, (std::vector<std::pair<int, QByteArray>>{{NodeWatcher::AttributeAdded, "a"},
                                                           {NodeWatcher::AttributeChanged, "a"}}));

  // Destruction says "destroyed" first, then reports the contents as removed.
  seen.clear();
  int destroyed = 0;
  node->eventAddListener("destroyed", [&](BinaryData&) {
    ++destroyed;
    EXPECT_TRUE(seen.empty());
  });
  node.reset();
  EXPECT_EQ(destroyed, 1);
  EXPECT_EQ(seen, (std::vector<std::pair<int, QByteArray>>{{NodeWatcher::AttributeRemoved, "a"},
                                                           {NodeWatcher::NodeRemoved, ""}}));
}

TEST(RemoteNodeTest, EventsMayBeSentWhileListenersComeAndGo)
{
  RemoteNode node(nullptr, "remote");
  std::atomic<int> received{0};
  node.addEventListener([&](const RemoteNode::Event&) { received.fetch_add(1); });
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    while (!stop.load()) {
      const long id = node.addEventListener([](const RemoteNode::Event&) {});
      node.removeEventLIstener(id);
    }
  });
  for (int i = 0; i < 2000; ++i) {
    BinaryData d;
    d.writeInt32(i);
    node.eventProcess("tick", d);
  }
  stop.store(true);
  churn.join();
  EXPECT_EQ(received.load(), 2000);
}
