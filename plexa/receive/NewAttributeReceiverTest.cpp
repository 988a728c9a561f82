#include "plexa/receive/NewAttributeReceiver.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/AttributeAlias.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/bundle/WireBytesTest.hpp"
#include "plexa/receive/SessionTestSupport.hpp"
#include "plexa/session/SessionFormat.hpp"

#include <gtest/gtest.h>

#include <cstring>

using namespace Plexa;
using PlexaTest::bitsOf;
using PlexaTest::BundleBytes;

namespace
{
  using Float = Carafe::AttributeT<float>;
  using Text = Carafe::AttributeT<QString>;

  constexpr uint32_t FloatId = 3;
  constexpr uint32_t StringId = 35;
  constexpr uint32_t NewType = 11;


  /// One AttributeNew record of a float with a value.
  BundleBytes& floatRecord(BundleBytes& b, uint32_t symbol, float value)
  {
    return b.words({symbol, FloatId, 4, 1, bitsOf(value)});
  }

  float floatAt(Carafe::Node& node, const QByteArray& name)
  {
    auto* f = dynamic_cast<Float*>(node.attribute(name));
    return f ? f->value() : -1.f;
  }
}

TEST(NewAttributeReceiverTest, CreatesTheMissingNodesAndTheAttributeWithItsValueAsDefault)
{
  RemoteNode node(nullptr, "root");
  PlexaTest::SessionSide side(node);
  side.added.setCreateMissingAttributes(true);
  side.define(7, "a/b/c");
  BundleBytes b(NewType, 5);
  side.feed(side.added, floatRecord(b, 7, 2.5f).bundle());

  auto* a = dynamic_cast<Carafe::Node*>(node.attribute("a"));
  ASSERT_NE(a, nullptr);
  auto* ab = dynamic_cast<Carafe::Node*>(a->attribute("b"));
  ASSERT_NE(ab, nullptr);
  auto* c = dynamic_cast<Float*>(ab->attribute("c"));
  ASSERT_NE(c, nullptr);
  EXPECT_EQ(c->value(), 2.5f);
  PlexaSessionAttribute* session = side.storage.findByReadSymbol(7);
  ASSERT_NE(session, nullptr);
  EXPECT_FALSE(session->existedLocally);
  EXPECT_EQ(session->receivedSequence, 5u);
  EXPECT_EQ(session->peerTypeId, FloatId);
  EXPECT_EQ(session->symbol, node.symbolRegistry().lookup("a/b/c"));
  // The watcher knows the new attribute at once.
  EXPECT_EQ(node.attributeCache().find(session->symbol), c);

  // A later update goes through the installed deserializer.
  side.feed(side.updates, BundleBytes(12, 6).words({7, bitsOf(4.5f)}).bundle());
  EXPECT_EQ(c->value(), 4.5f);
  EXPECT_EQ(session->receivedSequence, 6u);
}

TEST(NewAttributeReceiverTest, WithoutCreationTheRecordGetsADummyAndUpdatesAreReadPast)
{
  RemoteNode node(nullptr, "root");
  auto* kept = new Float();
  node.addAttribute("kept", kept);
  node.update();
  PlexaTest::SessionSide side(node);
  side.define(7, "a/b/c");
  side.define(8, "kept");
  BundleBytes b(NewType);
  floatRecord(b, 7, 2.5f);
  floatRecord(b, 8, 1.25f);
  side.feed(side.added, b.bundle());
  EXPECT_EQ(node.attribute("a"), nullptr);
  EXPECT_EQ(kept->value(), 1.25f);

  // The missing attribute's value is read past, so the record behind it still lands.
  side.feed(side.updates, BundleBytes(12).words({7, bitsOf(3.f), 8, bitsOf(6.f)}).bundle());
  EXPECT_EQ(node.attribute("a"), nullptr);
  EXPECT_EQ(kept->value(), 6.f);
}

TEST(NewAttributeReceiverTest, AnUnknownSymbolSkipsOnlyItsRecordValueIncluded)
{
  RemoteNode node(nullptr, "root");
  PlexaTest::SessionSide side(node);
  side.added.setCreateMissingAttributes(true);
  side.define(1, "x");
  side.define(2, "y");
  Bastion::LogCapture log;
  // The unknown record carries a string value of 5 bytes: its count, then 8 padded bytes.
  BundleBytes b(NewType);
  b.words({99, StringId, 0, 1}).blob("hello");
  floatRecord(b, 1, 1.f);
  floatRecord(b, 2, 2.f);
  side.feed(side.added, b.bundle());
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error,
                           "NewAttributeReceiver::handleBundle # Unknown symbol 99 at message index 0. Will ignore the "
                           "bundle"));
  EXPECT_EQ(floatAt(node, "x"), 1.f);
  EXPECT_EQ(floatAt(node, "y"), 2.f);

  // The same in the middle of a bundle names index 1.
  log.clear();
  BundleBytes c(NewType);
  floatRecord(c, 1, 3.f);
  c.words({98, FloatId, 4, 1, bitsOf(0.f)});
  floatRecord(c, 2, 4.f);
  side.feed(side.added, c.bundle());
  EXPECT_TRUE(log.contains("NewAttributeReceiver::handleBundle # Unknown symbol 98 at message index 1. Will ignore the "
                           "bundle"));
  EXPECT_EQ(floatAt(node, "x"), 3.f);
  EXPECT_EQ(floatAt(node, "y"), 4.f);

  // A flood of them (as every record of a path that a cap refused is) logs a bounded number of
  // lines per session, and the records behind it still land.
  log.clear();
  BundleBytes flood(NewType);
  for (uint32_t symbol = 1000; symbol < 3000; ++symbol)
    flood.words({symbol, FloatId, 4, 1, bitsOf(0.f)});
  floatRecord(flood, 1, 5.f);
  side.feed(side.added, flood.bundle());
  side.feed(side.added, flood.bundle());
  EXPECT_EQ(log.countContaining("Unknown symbol"), MaxRecordLogLines - 2);
  EXPECT_EQ(log.countContaining("NewAttributeReceiver::handleBundle # 20 bad records logged in this session "
                                "(MaxRecordLogLines); further ones are not logged"),
            1);
  EXPECT_EQ(floatAt(node, "x"), 5.f);
}

TEST(NewAttributeReceiverTest, TheNodeWalkFollowsAliasesAndRefusesNonNodesAndEmptyNames)
{
  RemoteNode node(nullptr, "root");
  auto* real = new Carafe::Node(&node, "real");
  auto* alias = new Carafe::AttributeAlias();
  node.addAttribute("via", alias);
  alias->setAttribute(real);
  node.addAttribute("leaf", new Float());
  node.update();
  PlexaTest::SessionSide side(node);
  side.added.setCreateMissingAttributes(true);
  side.define(1, "via/v");
  side.define(2, "leaf/x");
  side.define(3, "a//b");
  side.define(4, "/top");
  side.define(5, "trailing/");
  Bastion::LogCapture log;
  BundleBytes b(NewType);
  for (uint32_t symbol = 1; symbol <= 5; ++symbol)
    floatRecord(b, symbol, float(symbol));
  side.feed(side.added, b.bundle());

  EXPECT_EQ(floatAt(*real, "v"), 1.f);
  EXPECT_EQ(node.attribute("v"), nullptr);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "NewAttributeReceiver::createOrFindAttribute # Found an existing "
                                                     "attribute where a node was expected"));
  EXPECT_TRUE(log.contains("NewAttributeReceiver::handleBundle # Failed to create target node at path leaf/x"));
  EXPECT_TRUE(log.contains("NewAttributeReceiver::handleBundle # Failed to create target node at path a//b"));
  EXPECT_TRUE(log.contains("NewAttributeReceiver::handleBundle # Failed to create target node at path /top"));
  EXPECT_TRUE(log.contains("NewAttributeReceiver::handleBundle # Failed to create target node at path trailing/"));
  // No nameless node anywhere; "a" and "trailing" exist only as the walk made them.
  for (Carafe::Attribute* child : node.attributes())
    EXPECT_FALSE(child->name().isEmpty());
  if (auto* a = dynamic_cast<Carafe::Node*>(node.attribute("a"))) {
    EXPECT_EQ(a->attributeCount(), 0);
  }
  // Every failed record still reads later updates past.
  for (uint32_t symbol = 2; symbol <= 5; ++symbol) {
    PlexaSessionAttribute* session = side.storage.findByReadSymbol(symbol);
    ASSERT_NE(session, nullptr);
    ASSERT_TRUE(bool(session->deserializer));
  }
  side.feed(side.updates, BundleBytes(12).words({3, 0, 1, bitsOf(7.f)}).bundle());
  EXPECT_EQ(floatAt(*real, "v"), 7.f);
}

TEST(NewAttributeReceiverTest, ApplyingToAnExistingAttributeIsNotEchoedButALocalChangeIs)
{
  RemoteNode node(nullptr, "root");
  auto* speed = new Float();
  node.addAttribute("speed", speed);
  node.update();
  PlexaTest::SessionSide side(node);
  side.sender.sendInitialValues();
  side.sender.collapseChanges();
  ASSERT_EQ(side.sender.changes().size(), 1u); // the initial addition

  side.define(4, "speed");
  BundleBytes b(NewType, 3);
  side.feed(side.added, floatRecord(b, 4, 8.f).bundle());
  EXPECT_EQ(speed->value(), 8.f);
  PlexaSessionAttribute* session = side.storage.findByReadSymbol(4);
  ASSERT_NE(session, nullptr);
  EXPECT_TRUE(session->existedLocally);
  side.feed(side.updates, BundleBytes(12, 4).words({4, bitsOf(9.f)}).bundle());
  EXPECT_EQ(speed->value(), 9.f);
  side.sender.collapseChanges();
  EXPECT_TRUE(side.sender.changes().empty());

  speed->setValue(10.f);
  side.sender.collapseChanges();
  ASSERT_EQ(side.sender.changes().size(), 1u);
  EXPECT_EQ(side.sender.changes()[0].type, NodeWatcher::AttributeChanged);
}

TEST(NewAttributeReceiverTest, CreationCapRefusesBeyondItAndReportsIt)
{
  RemoteNode node(nullptr, "root");
  PlexaTest::SessionSide side(node);
  side.added.setCreateMissingAttributes(true);
  side.added.setMaxCreated(3);
  BundleBytes b(NewType);
  for (uint32_t i = 1; i <= 5; ++i) {
    side.define(i, "n" + QByteArray::number(i) + "/v");
    floatRecord(b, i, 1.f);
  }
  Bastion::LogCapture log;
  side.feed(side.added, b.bundle());
  EXPECT_TRUE(side.added.limitExceeded());
  EXPECT_EQ(side.added.createdCount(), 3); // n1, n1/v, n2 (n2/v would be the fourth)
  EXPECT_EQ(log.countContaining("created nodes and attributes reached"), 1);
  EXPECT_EQ(floatAt(*dynamic_cast<Carafe::Node*>(node.attribute("n1")), "v"), 1.f);
  EXPECT_EQ(node.attribute("n3"), nullptr);
}

TEST(NewAttributeReceiverTest, PathsOverTheLengthOrDepthLimitAreRefusedWithOneLineEachAndCreateNothing)
{
  RemoteNode node(nullptr, "root");
  PlexaTest::SessionSide side(node);
  side.added.setCreateMissingAttributes(true);
  side.symbols.setMaxPathLength(8);
  side.symbols.setMaxPathDepth(3);
  Bastion::LogCapture log;
  side.feed(side.symbols, BundleBytes(10)
                              .words({1})
                              .blob("a/b/c")
                              .words({2})
                              .blob("a/b/c/d")
                              .words({3})
                              .blob("abcdefgh")
                              .words({4})
                              .blob("abcdefghi")
                              .words({5})
                              .blob("a/b/c/d/e")
                              .words({6})
                              .blob(QByteArray(100000, 'x'))
                              .words({7})
                              .blob("/")
                              .bundle());
  EXPECT_EQ(log.texts(),
            (std::vector<QByteArray>{
                "SymbolRegistryReceiver::handleBundle # Refused the peer's symbol 2: its path of 4 levels is "
                "over the limit of 3 levels (further paths over it are refused silently)",
                "SymbolRegistryReceiver::handleBundle # Refused the peer's symbol 4: its path of 9 bytes is "
                "over the limit of 8 bytes (further paths over it are refused silently)"}));
  EXPECT_EQ(side.received.count(), 3);
  EXPECT_EQ(side.received.lookup("a/b/c"), 1u);
  EXPECT_EQ(side.received.lookup("abcdefgh"), 3u);
  EXPECT_EQ(side.received.lookup("/"), 7u);
  EXPECT_FALSE(side.symbols.limitExceeded());

  // The peer's records for a refused symbol create nothing.
  BundleBytes b(NewType);
  floatRecord(b, 2, 1.f);
  floatRecord(b, 6, 1.f);
  side.feed(side.added, b.bundle());
  EXPECT_EQ(node.attribute("a"), nullptr);
  EXPECT_EQ(side.added.createdCount(), 0);
}

TEST(NewAttributeReceiverTest, TheTreeCapCountsWhatPeersCreatedAcrossSessionsUntilItLeaves)
{
  RemoteNode node(nullptr, "root");
  Bastion::LogCapture log;
  const auto announce = [&](PlexaTest::SessionSide& side, std::initializer_list<const char*> paths) {
    BundleBytes b(NewType);
    uint32_t symbol = 0;
    for (const char* path : paths) {
      side.define(++symbol, path);
      floatRecord(b, symbol, 1.f);
    }
    side.feed(side.added, b.bundle());
  };
  const auto session = [&](PlexaTest::SessionSide& side) {
    side.added.setCreateMissingAttributes(true);
    side.added.setMaxTreeCreated(4);
  };
  {
    PlexaTest::SessionSide first(node);
    session(first);
    announce(first, {"a/v", "b/v"});
    EXPECT_FALSE(first.added.limitExceeded());
  }
  EXPECT_EQ(node.createdForPeerCount(), 4);

  // A new session of a reconnecting peer starts its own count, but the tree is full.
  PlexaTest::SessionSide second(node);
  session(second);
  announce(second, {"c/v", "d/v", "e/v"});
  EXPECT_TRUE(second.added.limitExceeded());
  EXPECT_EQ(node.attribute("c"), nullptr);
  EXPECT_EQ(log.texts(),
            (std::vector<QByteArray>{
                "NewAttributeReceiver::handleBundle # Limit of 4 nodes and attributes created for peers in "
                "the tree reached; refusing to create more"}));

  // What leaves the tree (here a node with its attribute) makes room again.
  EXPECT_TRUE(node.removeAttribute("a"));
  EXPECT_EQ(node.createdForPeerCount(), 2);
  announce(second, {"c/v", "d/v"});
  EXPECT_EQ(floatAt(*dynamic_cast<Carafe::Node*>(node.attribute("c")), "v"), 1.f);
  EXPECT_EQ(node.attribute("d"), nullptr);
  EXPECT_EQ(node.createdForPeerCount(), 4);
  EXPECT_EQ(log.countContaining("Limit of 4 nodes"), 1);
}

TEST(NewAttributeReceiverTest, ATruncatedRecordThrowsTheReadersTextAndCreatesNothing)
{
  RemoteNode node(nullptr, "root");
  PlexaTest::SessionSide side(node);
  side.added.setCreateMissingAttributes(true);
  side.define(1, "x");
  // The value's count promises more bytes than there are.
  const Bundle cut = BundleBytes(NewType).words({1, StringId, 0, 1, 1000, 0x41414141}).bundle();
  EXPECT_EQ(PlexaTest::thrownText([&] { side.feed(side.added, cut); }),
            PlexaTest::outOfRange("BundleReader::read # tried to read past the end"));
  EXPECT_EQ(node.attribute("x"), nullptr);
  // The record that stayed behind reads past values instead of writing into a deleted attribute.
  PlexaSessionAttribute* session = side.storage.findByReadSymbol(1);
  ASSERT_NE(session, nullptr);
  side.feed(side.updates, BundleBytes(12).words({1}).blob("abc").bundle());
}
