#include "plexa/receive/AttributeRemoveReceiver.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/receive/SessionTestSupport.hpp"

#include <gtest/gtest.h>

#include <cstring>

using namespace Plexa;
using PlexaTest::bitsOf;
using PlexaTest::BundleBytes;

namespace
{
  using Float = Carafe::AttributeT<float>;
  constexpr uint32_t FloatId = 3;
  constexpr uint32_t NewType = 11;
  constexpr uint32_t UpdateType = 12;
  constexpr uint32_t RemoveType = 13;

}

TEST(AttributeRemoveReceiverTest, CreatedAttributesGoLocalOnesStayAndBothReadLaterUpdatesPast)
{
  RemoteNode node(nullptr, "root");
  auto* local = new Float();
  node.addAttribute("local", local);
  node.update();
  PlexaTest::SessionSide side(node);
  side.added.setCreateMissingAttributes(true);
  side.define(1, "local");
  side.define(2, "remote");
  side.feed(side.added,
            BundleBytes(NewType).words({1, FloatId, 4, 1, bitsOf(1.f), 2, FloatId, 4, 1, bitsOf(2.f)}).bundle());
  ASSERT_NE(node.attribute("remote"), nullptr);
  side.sender.collapseChanges(); // the created attribute's addition; not under test here

  Bastion::LogCapture log;
  side.feed(side.removals, BundleBytes(RemoveType).words({1, 55, 2}).bundle());
  EXPECT_EQ(node.attribute("local"), local);
  EXPECT_EQ(node.attribute("remote"), nullptr);
  EXPECT_TRUE(log.contains("AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol 55"));
  // Deleting the created attribute is not sent back as this side's removal.
  side.sender.collapseChanges();
  EXPECT_TRUE(side.sender.changes().empty());
  for (uint32_t symbol : {1u, 2u}) {
    PlexaSessionAttribute* session = side.storage.findByReadSymbol(symbol);
    EXPECT_TRUE(session->removedByPeer);
    EXPECT_EQ(session->peerTypeId, 0u);
    EXPECT_EQ(session->peerSize, 4u);
  }
  // A local change of an attribute the peer removed is not sent to it.
  local->setValue(9.f);
  side.sender.collapseChanges();
  EXPECT_TRUE(side.sender.changes().empty());
  local->setValue(1.f);
  side.sender.collapseChanges();

  // Updates for both symbols are read past; the local attribute keeps its value.
  side.feed(side.updates, BundleBytes(UpdateType).words({1, bitsOf(5.f), 2, bitsOf(6.f)}).bundle());
  EXPECT_EQ(local->value(), 1.f);

  // A second removal of the deleted one finds nothing in the tree.
  log.clear();
  side.feed(side.removals, BundleBytes(RemoveType).words({2}).bundle());
  EXPECT_TRUE(log.contains("AttributeRemoveHandler::handleBundle # Attribute 2 already removed"));

  // Announced again, the attribute comes back with a working deserializer.
  side.feed(side.added, BundleBytes(NewType).words({2, FloatId, 4, 1, bitsOf(7.f)}).bundle());
  auto* again = dynamic_cast<Float*>(node.attribute("remote"));
  ASSERT_NE(again, nullptr);
  EXPECT_FALSE(side.storage.findByReadSymbol(2)->removedByPeer);
  side.feed(side.updates, BundleBytes(UpdateType).words({2, bitsOf(8.f)}).bundle());
  EXPECT_EQ(again->value(), 8.f);
}

TEST(AttributeRemoveReceiverTest, ALocalRemovalOfAnUnpublishedAttributeDropsItsDeserializer)
{
  // The peer announced "hidden", which this side has but does not publish. Deleting it here must
  // not leave the peer's updates writing into the deleted attribute.
  RemoteNode node(nullptr, "root");
  node.addAttribute("hidden", new Float());
  node.setSyncFlags(RemoteNode::makeRegExp("hidden"), SyncFlags::None);
  node.update();
  PlexaTest::SessionSide side(node);
  side.define(3, "hidden");
  side.feed(side.added, BundleBytes(NewType).words({3, FloatId, 4, 1, bitsOf(1.f)}).bundle());
  node.removeAttribute("hidden");
  side.feed(side.updates, BundleBytes(UpdateType).words({3, bitsOf(2.f)}).bundle());
  side.sender.collapseChanges();
  EXPECT_TRUE(side.sender.changes().empty());
  EXPECT_TRUE(side.storage.findByReadSymbol(3)->reAdded);
}

TEST(AttributeRemoveReceiverTest, ThePeersRemovalDeletesOnlyTheObjectCreatedForIt)
{
  RemoteNode node(nullptr, "root");
  PlexaTest::SessionSide a(node);
  PlexaTest::SessionSide b(node);
  for (PlexaTest::SessionSide* side : {&a, &b}) {
    side->added.setCreateMissingAttributes(true);
    side->define(2, "x");
  }
  const Bundle announce = BundleBytes(NewType).words({2, FloatId, 4, 1, bitsOf(1.f)}).bundle();
  const Bundle remove = BundleBytes(RemoveType).words({2}).bundle();

  // The application replaces what a's peer created; the peer's removal leaves the new one.
  a.feed(a.added, announce);
  ASSERT_NE(node.attribute("x"), nullptr);
  node.removeAttribute("x");
  auto* mine = new Float();
  node.addAttribute("x", mine);
  node.update();
  a.feed(a.removals, remove);
  EXPECT_EQ(node.attribute("x"), mine);
  node.removeAttribute("x");

  // a's peer creates x again and removes it; b's peer then creates its own x. A removal from a
  // sent again, or sent late after the application dropped a's x, leaves b's.
  a.feed(a.added, announce);
  a.feed(a.removals, remove);
  ASSERT_EQ(node.attribute("x"), nullptr);
  b.feed(b.added, announce);
  Carafe::Attribute* bs = node.attribute("x");
  ASSERT_NE(bs, nullptr);
  a.feed(a.removals, remove);
  EXPECT_EQ(node.attribute("x"), bs);
  b.feed(b.removals, remove);
  EXPECT_EQ(node.attribute("x"), nullptr);

  a.feed(a.added, announce);
  node.removeAttribute("x");
  b.feed(b.added, announce);
  bs = node.attribute("x");
  ASSERT_NE(bs, nullptr);
  a.feed(a.removals, remove);
  EXPECT_EQ(node.attribute("x"), bs);
}
