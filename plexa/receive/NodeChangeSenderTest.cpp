#include "plexa/receive/NodeChangeSender.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/bundle/BundleOutput.hpp"
#include "plexa/receive/SessionTestSupport.hpp"

#include <gtest/gtest.h>

using namespace Plexa;
using PlexaTest::BundleBytes;

namespace
{
  using Int = Carafe::AttributeT<int>;
  constexpr uint32_t IntId = 9;
  // Types the test dispatcher hands out, in the order the sender asks.
  constexpr uint32_t SymbolType = 10;
  constexpr uint32_t NewType = 11;
  constexpr uint32_t UpdateType = 12;
  constexpr uint32_t RemoveType = 13;
  constexpr uint32_t EventType = 14;

  /// An attribute of a class the type registry cannot serialize.
  class Unknown : public Carafe::Attribute
  {
  public:
    void touch() { fireChanged(); }
  };

  /// A published tree of int attributes and the sender made over it afterwards, as at the start
  /// of a session; `pass()` runs one send pass.
  struct SenderSide
  {
    explicit SenderSide(std::initializer_list<std::pair<const char*, int>> attributes)
    {
      for (const auto& a : attributes)
        add(a.first, a.second);
      node.update();
      session = std::make_unique<PlexaTest::SessionSide>(node);
    }
    Int* add(const char* name, int value)
    {
      auto* attribute = new Int();
      attribute->setValue(value);
      node.addAttribute(name, attribute);
      return ints[name] = attribute;
    }
    std::vector<QByteArray> pass()
    {
      std::vector<Bundle> bundles;
      BundleOutput out(&bundles, &sequence, 0);
      node.update();
      session->sender.writeUpdates(out);
      std::vector<QByteArray> bytes;
      for (const Bundle& b : bundles)
        bytes.push_back(b.data());
      return bytes;
    }
    uint32_t symbol(const char* path) { return node.symbolRegistry().lookup(path); }

    RemoteNode node{nullptr, "root"};
    std::map<QByteArray, Int*> ints;
    std::unique_ptr<PlexaTest::SessionSide> session;
    uint32_t sequence = 1;
  };
}

TEST(NodeChangeSenderTest, TheFirstPassAnnouncesTheTreeAndInitializedEvenWhenEmpty)
{
  SenderSide empty({});
  const uint32_t init = empty.node.symbolRegistry().lookupOrDefine("initialized");
  std::vector<QByteArray> expected = {
      BundleBytes(SymbolType, 1).words({init}).blob("initialized"),
      BundleBytes(EventType, 2).words({init, 0}),
  };
  EXPECT_EQ(empty.pass(), expected);
  // Nothing happened since: nothing at all, "initialized" included.
  EXPECT_TRUE(empty.pass().empty());

  SenderSide s({{"b", 1}, {"c", 2}});
  s.session->sender.sendInitialValues();
  const uint32_t b = s.symbol("b"), c = s.symbol("c"), i2 = s.node.symbolRegistry().lookupOrDefine("initialized");
  expected = {
      BundleBytes(SymbolType, 1).words({b}).blob("b").words({c}).blob("c").words({i2}).blob("initialized"),
      BundleBytes(NewType, 2).words({b, IntId, 4, 1, 1, c, IntId, 4, 1, 2}),
      BundleBytes(EventType, 3).words({i2, 0}),
  };
  EXPECT_EQ(s.pass(), expected);
  EXPECT_EQ(s.session->storage.findBySymbol(b)->lastSentSequence, 2u);
}

TEST(NodeChangeSenderTest, ConsecutiveChangesOfOneKindShareABundleAndSymbolsGoOnce)
{
  SenderSide s({{"b", 1}, {"c", 2}, {"d", 3}});
  s.session->sender.sendInitialValues();
  s.pass();

  // [Added a, Changed b, Changed c, Removed d]
  s.add("a", 4);
  s.node.update();
  s.ints["b"]->setValue(10);
  s.ints["c"]->setValue(20);
  const uint32_t a = s.symbol("a"), b = s.symbol("b"), c = s.symbol("c"), d = s.symbol("d");
  s.node.removeAttribute("d");
  std::vector<QByteArray> expected = {
      BundleBytes(SymbolType, 4).words({a}).blob("a"),
      BundleBytes(NewType, 5).words({a, IntId, 4, 1, 4}),
      BundleBytes(UpdateType, 6).words({b, 10, c, 20}),
      BundleBytes(RemoveType, 7).words({d}),
  };
  EXPECT_EQ(s.pass(), expected);
  EXPECT_EQ(s.session->storage.findBySymbol(d)->lastSentSequence, 0u);
  EXPECT_EQ(s.session->storage.findBySymbol(b)->lastSentSequence, 6u);

  // [Changed a, Added e, Changed c]: the kind changes twice, so three bundles.
  s.ints["a"]->setValue(5);
  s.add("e", 6);
  s.node.update();
  s.ints["c"]->setValue(30);
  const uint32_t e = s.symbol("e");
  expected = {
      BundleBytes(SymbolType, 8).words({e}).blob("e"),
      BundleBytes(UpdateType, 9).words({a, 5}),
      BundleBytes(NewType, 10).words({e, IntId, 4, 1, 6}),
      BundleBytes(UpdateType, 11).words({c, 30}),
  };
  EXPECT_EQ(s.pass(), expected);

  // Added again after its removal: already announced, and it carries its value.
  s.add("d", 7);
  expected = {BundleBytes(NewType, 12).words({d, IntId, 4, 1, 7})};
  EXPECT_EQ(s.pass(), expected);
}

TEST(NodeChangeSenderTest, EventPayloadsArePaddedAndUnpublishedOrNodeChangesNeverLeave)
{
  SenderSide s({{"hidden", 1}, {"shown", 2}});
  s.node.setSyncFlags(RemoteNode::makeRegExp("hidden"), SyncFlags::None);
  new Carafe::Node(&s.node, "group");
  s.session->sender.sendInitialValues();
  s.pass();

  s.ints["hidden"]->setValue(5);
  s.ints["shown"]->setValue(6);
  s.node.removeAttribute("group");
  const uint32_t ev = s.node.symbolRegistry().lookupOrDefine("ev");
  s.session->sender.onEvent({ev, Bastion::BinaryData(QByteArray("hello"))});
  const std::vector<QByteArray> expected = {
      BundleBytes(SymbolType, 4).words({ev}).blob("ev"),
      BundleBytes(UpdateType, 5).words({s.symbol("shown"), 6}),
      BundleBytes(EventType, 6).words({ev, 5, 0x6c6c6568, 0x6f}),
  };
  EXPECT_EQ(s.pass(), expected);

  // A flag changed after a change was let through holds for the very next change.
  s.node.setSyncFlags(RemoteNode::makeRegExp("shown"), SyncFlags::None);
  s.ints["shown"]->setValue(7);
  EXPECT_TRUE(s.pass().empty());
  s.node.setSyncFlags(RemoteNode::makeRegExp("shown"), SyncFlags::Publish);
  s.ints["shown"]->setValue(8);
  EXPECT_EQ(s.pass(), std::vector<QByteArray>{BundleBytes(UpdateType, 7).words({s.symbol("shown"), 8})});
}

TEST(NodeChangeSenderTest, IgnoreRequestsAreUsedUpOnceAndReportedWhenDoubled)
{
  SenderSide s({{"x", 1}, {"y", 1}});
  s.session->sender.sendInitialValues();
  s.pass();
  const NodeWatcher::Event changed{NodeWatcher::AttributeChanged, s.symbol("x")};
  const NodeWatcher::Event other{NodeWatcher::AttributeChanged, s.symbol("y")};
  Bastion::LogCapture log;
  s.session->sender.ignoreOne(changed);
  s.session->sender.ignoreOne(other);
  s.session->sender.ignoreOne(changed);
  s.session->sender.ignoreOne(other);
  EXPECT_EQ(log.countContaining("NodeChangeSender::ignoreOne # Called for an already ignored symbol"), 2);
  s.ints["y"]->setValue(2); // swallowed
  s.ints["x"]->setValue(2); // swallowed
  s.ints["x"]->setValue(3); // sent
  s.ints["y"]->setValue(3); // sent
  EXPECT_FALSE(s.session->sender.stopIgnoring(changed));
  EXPECT_FALSE(s.session->sender.stopIgnoring(other));
  const std::vector<QByteArray> expected = {BundleBytes(UpdateType, 4).words({s.symbol("x"), 3, s.symbol("y"), 3})};
  EXPECT_EQ(s.pass(), expected);
  EXPECT_EQ(s.session->sender.messageType(NodeWatcher::NodeAdded), 0xFFFFFFFFu);
  EXPECT_TRUE(log.contains("NodeChangeSender::messageType # Found an invalid event type 3"));
}

TEST(NodeChangeSenderTest, AnAttributeReplacedByOneThatCannotBeSerializedSendsNoValues)
{
  SenderSide s({{"x", 1}});
  s.session->sender.sendInitialValues();
  s.pass();
  const uint32_t x = s.symbol("x");
  s.node.removeAttribute("x");
  auto* unknown = new Unknown();
  s.node.addAttribute("x", unknown);
  Bastion::LogCapture log;
  EXPECT_EQ(s.pass(), std::vector<QByteArray>{BundleBytes(RemoveType, 4).words({x})});
  EXPECT_TRUE(
      log.contains("NodeChangeSender::sendAdded # Found an attribute that we can't serialize at 'x'. Ignoring"));
  const PlexaSessionAttribute* session = s.session->storage.findBySymbol(x);
  EXPECT_FALSE(session->serializer);
  EXPECT_EQ(session->typeId, 0u);

  // Its changes are refused, never written by what served the removed attribute.
  unknown->touch();
  EXPECT_TRUE(s.pass().empty());
  EXPECT_TRUE(log.contains("NodeChangeSender::sendChanged # Found an attribute that we can't serialize at 'x'. "
                           "Ignoring"));
}
