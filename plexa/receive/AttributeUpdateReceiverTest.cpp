#include "plexa/receive/AttributeUpdateReceiver.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/receive/SessionTestSupport.hpp"

#include <gtest/gtest.h>

using namespace Plexa;
using PlexaTest::BundleBytes;

namespace
{
  using Int = Carafe::AttributeT<int>;
  using Text = Carafe::AttributeT<QString>;

  constexpr uint32_t IntId = 9;
  constexpr uint32_t StringId = 35;
  constexpr uint32_t NewType = 11;
  constexpr uint32_t UpdateType = 12;

  /// A side whose tree holds int attributes "a", "b", "c" and a string "s", announced by the peer
  /// as symbols 1, 2, 3 and 4.
  struct AnnouncedSide
  {
    AnnouncedSide()
    {
      for (const char* name : {"a", "b", "c"})
        node.addAttribute(name, ints[name] = new Int());
      node.addAttribute("s", text = new Text());
      node.update();
      side.define(1, "a");
      side.define(2, "b");
      side.define(3, "c");
      side.define(4, "s");
      side.feed(
          side.added,
          BundleBytes(NewType).words({1, IntId, 4, 0, 2, IntId, 4, 0, 3, IntId, 4, 0, 4, StringId, 0, 0}).bundle());
    }
    RemoteNode node{nullptr, "root"};
    PlexaTest::SessionSide side{node};
    std::map<QByteArray, Int*> ints;
    Text* text = nullptr;
  };
}

TEST(AttributeUpdateReceiverTest, AnUnknownSymbolEndsTheBundleAfterTheRecordsBeforeIt)
{
  AnnouncedSide s;
  Bastion::LogCapture log;
  s.side.feed(s.side.updates, BundleBytes(UpdateType, 9).words({1, 11, 77, 22, 3, 33}).bundle());
  EXPECT_EQ(s.ints["a"]->value(), 11);
  EXPECT_EQ(s.ints["c"]->value(), 0);
  EXPECT_EQ(log.countContaining("AttributeUpdateHandler::handleBundle # BUG: unknown attribute with symbol 77"), 1);
  EXPECT_EQ(s.side.storage.findByReadSymbol(1)->receivedSequence, 9u);
  EXPECT_EQ(s.side.storage.findByReadSymbol(3)->receivedSequence, 0u);
}

TEST(AttributeUpdateReceiverTest, StaleValuesAreDroppedOnlyWhenAskedAndOnlyWhileUnacknowledged)
{
  AnnouncedSide s;
  PlexaSessionAttribute* a = s.side.storage.findByReadSymbol(1);
  a->lastSentSequence = 5; // this side sent its own value of "a" in its bundle 5

  // Without dropping, the peer's value wins whatever it had seen.
  s.side.feed(s.side.updates, BundleBytes(UpdateType, 2, 4).words({1, 40, 2, 41}).bundle());
  EXPECT_EQ(s.ints["a"]->value(), 40);

  s.side.updates.setDropStaleValues(true);
  // Written before the peer had seen bundle 5: read past; the record behind it still applies.
  s.side.feed(s.side.updates, BundleBytes(UpdateType, 3, 4).words({1, 50, 2, 51}).bundle());
  EXPECT_EQ(s.ints["a"]->value(), 40);
  EXPECT_EQ(s.ints["b"]->value(), 51);
  EXPECT_EQ(a->receivedSequence, 3u);
  // Once the peer had seen it, its values apply again.
  s.side.feed(s.side.updates, BundleBytes(UpdateType, 4, 5).words({1, 60}).bundle());
  EXPECT_EQ(s.ints["a"]->value(), 60);
}

TEST(AttributeUpdateReceiverTest, AStaleEmptyStringTakesTheNextWordAsItsCount)
{
  // Peers follow a zero count on the stale path with a second count word. A stale empty string
  // from a peer that does not therefore swallows the next record's symbol as a count of 2 and
  // misreads the rest: the documented price of dropping stale values.
  AnnouncedSide s;
  s.side.updates.setDropStaleValues(true);
  PlexaSessionAttribute* text = s.side.storage.findByReadSymbol(4);
  text->lastSentSequence = 5;
  s.side.feed(s.side.updates, BundleBytes(UpdateType, 3, 4).words({4, 0, 2, 0x41414141, 1, 70}).bundle());
  EXPECT_EQ(s.ints["b"]->value(), 0);  // its record was eaten
  EXPECT_EQ(s.ints["a"]->value(), 70); // what followed lined up again by chance
  // Written the peer's way (zero, then the real count) it reads exactly one value.
  s.side.feed(s.side.updates, BundleBytes(UpdateType, 4, 4).words({4, 0, 0, 2, 80}).bundle());
  EXPECT_EQ(s.ints["b"]->value(), 80);
}
