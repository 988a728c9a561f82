#include "plexa/receive/OneWayEventReceiver.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"
#include "plexa/receive/SessionTestSupport.hpp"

#include <gtest/gtest.h>

using namespace Plexa;
using PlexaTest::BundleBytes;

TEST(OneWayEventReceiverTest, EventsReachTheHandlerAfterTheirNamesWereDefined)
{
  RemoteNode node(nullptr, "root");
  PlexaTest::SessionSide side(node);
  // Symbol definitions, an empty path among them.
  side.feed(side.symbols, BundleBytes(10).words({5}).blob("ping").words({6}).blob("").words({7}).blob("pong").bundle());
  QByteArray name;
  ASSERT_TRUE(side.received.lookup(6, name));
  EXPECT_TRUE(name.isEmpty());

  std::vector<std::pair<QByteArray, QByteArray>> seen;
  Bastion::LogCapture log;
  const Bundle events = BundleBytes(14).words({5}).blob("abcde").words({9}).blob("xy").words({7}).blob("").bundle();
  // Without a handler every event is dropped without a word... except the unknown symbol.
  side.feed(side.events, events);
  EXPECT_EQ(log.countContaining("OneWayEventReceiver::handleBundle # Symbol 9 not found"), 1);

  side.events.setHandler([&](const QByteArray& n, Bastion::BinaryData& data) {
    EXPECT_TRUE(data.isLinked());
    seen.emplace_back(n, data.toByteArray());
  });
  side.feed(side.events, events);
  const std::vector<std::pair<QByteArray, QByteArray>> expected = {{"ping", "abcde"}, {"pong", ""}};
  EXPECT_EQ(seen, expected);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "OneWayEventReceiver::handleBundle # Symbol 9 not found"));
}

TEST(OneWayEventReceiverTest, SymbolCapRefusesNewPathsButRedefinitions)
{
  RemoteNode node(nullptr, "root");
  PlexaTest::SessionSide side(node);
  side.symbols.setMaxSymbols(2);
  Bastion::LogCapture log;
  side.feed(side.symbols, BundleBytes(10).words({1}).blob("a").words({2}).blob("b").words({3}).blob("c").bundle());
  side.feed(side.symbols, BundleBytes(10).words({4}).blob("a").words({5}).blob("d").bundle());
  EXPECT_TRUE(side.symbols.limitExceeded());
  EXPECT_EQ(log.countContaining("Symbol limit of 2 reached"), 1);
  EXPECT_EQ(side.received.lookup("a"), 4u);
  EXPECT_EQ(side.received.lookup("c"), 0u);
  EXPECT_EQ(side.received.lookup("d"), 0u);
}
