// Two sessions wired to each other in one process: each send pass of one side is the bundle list
// the other side processes. Real trees on both sides, every registered type, and the byte stream
// checked for what the receivers rely on.

#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/app/PeerTestSupport.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/controller/Core.hpp"
#include "plexa/remote/AttributeWalk.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/session/SessionFormat.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <set>

using namespace Plexa;
using PlexaTest::attributeAt;

namespace
{
  using Int = Carafe::AttributeT<int>;

  BundleControllerParams params(bool createMissing, bool dropStale = false)
  {
    BundleControllerParams p;
    p.createMissingAttributes = createMissing;
    p.dropStaleValues = dropStale;
    // Outgoing work is driven by the test, pass by pass.
    p.enabled = false;
    return p;
  }

  struct LinkedSessions
  {
    void start(const BundleControllerParams& pa, const BundleControllerParams& pb)
    {
      ca = std::make_unique<Core>(a, pa);
      cb = std::make_unique<Core>(b, pb);
      ca->ensureIsInitialized();
      cb->ensureIsInitialized();
    }
    /// Both send passes first, then each side processes the other's: changes made on both sides
    /// before the call cross each other on the way.
    bool exchange()
    {
      a.update();
      const std::vector<Bundle> la = ca->collect();
      b.update();
      const std::vector<Bundle> lb = cb->collect();
      aToB.insert(aToB.end(), la.begin(), la.end());
      bToA.insert(bToA.end(), lb.begin(), lb.end());
      cb->process(la);
      ca->process(lb);
      return !la.empty() || !lb.empty();
    }
    /// Exchanges until neither side has anything to send; false if that takes over 10 passes
    /// (something is echoing).
    bool settle()
    {
      for (int i = 0; i < 10; ++i)
        if (!exchange())
          return true;
      return false;
    }

    RemoteNode a{nullptr, "a"};
    RemoteNode b{nullptr, "b"};
    std::unique_ptr<Core> ca;
    std::unique_ptr<Core> cb;
    std::vector<Bundle> aToB;
    std::vector<Bundle> bToA;
  };

  /// Reads the session bundles of `stream` as the receivers do and checks that every symbol a
  /// record uses was defined before, and that no symbol is defined twice. Returns the problems.
  std::vector<std::string> symbolProblems(const std::vector<Bundle>& stream, const Core& sender)
  {
    const auto& types = sender.outgoingTypes();
    const uint32_t symbolType = types.at(ModuleNames::SymbolRegistry);
    const uint32_t newType = types.at(ModuleNames::AttributeNew);
    const uint32_t updateType = types.at(ModuleNames::AttributeUpdate);
    const uint32_t removeType = types.at(ModuleNames::AttributeRemove);
    const uint32_t eventType = types.at(ModuleNames::OneWayEvent);
    std::set<uint32_t> defined;
    std::map<uint32_t, uint32_t> sizes;
    std::vector<std::string> problems;
    auto use = [&](uint32_t symbol, const char* what) {
      if (!defined.count(symbol))
        problems.push_back(std::string(what) + " uses undefined symbol " + std::to_string(symbol));
    };
    auto skip = [](BundleReaderCore& r, uint32_t size) { r.readBounded(size ? size : r.readValue<uint32_t>()); };
    for (const Bundle& bundle : stream) {
      const uint32_t type = bundle.header().messageType;
      BundleReaderCore r(bundle.data());
      while (type != HandshakeMessageType && !r.atEnd()) {
        const uint32_t symbol = r.readValue<uint32_t>();
        if (type == symbolType) {
          if (!defined.insert(symbol).second)
            problems.push_back("symbol " + std::to_string(symbol) + " defined twice");
          skip(r, 0);
        } else if (type == newType) {
          use(symbol, "AttributeNew");
          r.readValue<uint32_t>();
          sizes[symbol] = r.readValue<uint32_t>();
          if (r.readValue<uint32_t>() & 1)
            skip(r, sizes[symbol]);
        } else if (type == updateType) {
          use(symbol, "AttributeUpdate");
          skip(r, sizes[symbol]);
        } else if (type == removeType) {
          use(symbol, "AttributeRemove");
        } else if (type == eventType) {
          use(symbol, "OneWayEvent");
          skip(r, 0);
        } else {
          problems.push_back("unexpected message type " + std::to_string(type));
          break;
        }
      }
    }
    return problems;
  }
}

TEST(SessionDataPathTest, AppliedValuesAreNotEchoedAndStaleOnesAreDroppedOnlyWhenAsked)
{
  for (const bool dropStale : {false, true}) {
    LinkedSessions s;
    auto* xa = new Int();
    auto* xb = new Int();
    s.a.addAttribute("x", xa);
    s.b.addAttribute("x", xb);
    s.start(params(false, dropStale), params(false, dropStale));
    ASSERT_TRUE(s.settle());
    xa->setValue(5);
    ASSERT_TRUE(s.exchange());
    EXPECT_EQ(xb->value(), 5);
    // Applying it on b sent nothing back.
    const size_t before = s.bToA.size();
    EXPECT_FALSE(s.exchange());
    EXPECT_EQ(s.bToA.size(), before);

    // Both change before either saw the other's value.
    xa->setValue(1);
    xb->setValue(2);
    s.exchange();
    if (dropStale) {
      EXPECT_EQ(xa->value(), 1);
      EXPECT_EQ(xb->value(), 2);
    } else {
      EXPECT_EQ(xa->value(), 2);
      EXPECT_EQ(xb->value(), 1);
    }
    // A change made after seeing the peer's value is never stale.
    xb->setValue(3);
    ASSERT_TRUE(s.settle());
    EXPECT_EQ(xa->value(), 3);
  }
}

TEST(SessionDataPathTest, EventsSlicedEventsAndInitializedArriveAndIdAttributesStayHome)
{
  LinkedSessions s;
  auto* n = new Carafe::Node(&s.a, "n");
  n->addAttribute("id", new Int());
  n->addAttribute("v", new Int());
  s.a.addAttribute("id", new Int());
  int initialized = 0;
  std::vector<QByteArray> hello;
  std::vector<QByteArray> big;
  s.b.eventAddListener("initialized", [&](Bastion::BinaryData&) { ++initialized; });
  s.b.eventAddListener("hello", [&](Bastion::BinaryData& d) { hello.push_back(d.toByteArray()); });
  s.b.eventAddListener("big", [&](Bastion::BinaryData& d) { big.push_back(d.toByteArray()); });
  s.start(params(true), params(true));
  ASSERT_TRUE(s.settle());
  EXPECT_EQ(initialized, 1);
  EXPECT_EQ(s.ca->peerInitializedCount(), 1);
  EXPECT_EQ(s.cb->peerInitializedCount(), 1);
  EXPECT_NE(attributeAt<Int>(s.b, "n/v"), nullptr);
  EXPECT_EQ(attributeAt<Int>(s.b, "n/id"), nullptr);
  EXPECT_EQ(s.b.attribute("id"), nullptr);

  Bastion::BinaryData small;
  small.writeString("there");
  const QByteArray smallBytes = small.toByteArray();
  s.a.eventProcess("hello", small);
  Bastion::BinaryData large;
  QByteArray blob(20000, '\0');
  for (int i = 0; i < blob.size(); ++i)
    blob[i] = char(i * 31);
  large.writeBlob(blob);
  const QByteArray largeBytes = large.toByteArray();
  s.a.eventProcessSlice("big", large, 1500);
  ASSERT_TRUE(s.settle());
  EXPECT_EQ(hello, std::vector<QByteArray>{smallBytes});
  EXPECT_EQ(big, std::vector<QByteArray>{largeBytes});
  EXPECT_EQ(initialized, 1);
  EXPECT_EQ(symbolProblems(s.aToB, *s.ca), std::vector<std::string>());
}

TEST(SessionDataPathTest, WithoutCreationTheFarTreeKeepsOnlyWhatItHad)
{
  LinkedSessions s;
  s.a.addAttribute("shared", new Int());
  s.a.addAttribute("only-a", new Int());
  auto* shared = new Int();
  s.b.addAttribute("shared", shared);
  s.start(params(false), params(false));
  ASSERT_TRUE(s.settle());
  EXPECT_EQ(s.b.attribute("only-a"), nullptr);
  attributeAt<Int>(s.a, "only-a")->setValue(4);
  attributeAt<Int>(s.a, "shared")->setValue(7);
  Bastion::LogCapture log;
  ASSERT_TRUE(s.settle());
  EXPECT_EQ(shared->value(), 7);
  EXPECT_EQ(s.b.attribute("only-a"), nullptr);
  EXPECT_TRUE(log.texts().empty());
}

TEST(SessionDataPathTest, ARemovalThatCrossesTheFarSidesAnnouncementStaysRemoved)
{
  LinkedSessions s;
  s.start(params(true), params(true));
  ASSERT_TRUE(s.settle());
  auto* o = new Carafe::Node(&s.a, "o");
  o->addAttribute("x", new Int());
  ASSERT_TRUE(s.exchange());
  ASSERT_NE(attributeAt<Int>(s.b, "o/x"), nullptr);
  // b announces the attribute it just made while a removes it: the two cross on the way.
  o->removeAttribute("x");
  ASSERT_TRUE(s.settle());
  EXPECT_EQ(attributeAt<Int>(s.a, "o/x"), nullptr);
  EXPECT_EQ(attributeAt<Int>(s.b, "o/x"), nullptr);
  // Added again later, it comes back on both sides.
  o->addAttribute("x", new Int());
  ASSERT_TRUE(s.settle());
  EXPECT_NE(attributeAt<Int>(s.b, "o/x"), nullptr);
}

TEST(SessionDataPathTest, WhatAnEarlierSessionCreatedGoesWhenItsOwnerRemovesItLater)
{
  LinkedSessions s;
  auto* kept = new Int();
  s.b.addAttribute("mine", kept); // b's own, announced by a as well
  s.a.addAttribute("mine", new Int());
  s.a.addAttribute("x", new Int());
  s.start(params(true), params(true));
  ASSERT_TRUE(s.settle());
  ASSERT_NE(s.b.attribute("x"), nullptr);

  // A new session over the same trees, as after a reconnect.
  s.start(params(true), params(true));
  ASSERT_TRUE(s.settle());
  s.a.removeAttribute("x");
  s.a.removeAttribute("mine");
  ASSERT_TRUE(s.settle());
  EXPECT_EQ(s.b.attribute("x"), nullptr);
  EXPECT_EQ(s.b.attribute("mine"), kept);
}

TEST(SessionDataPathTest, AChangeQueuedWhileThePeerReplacesTheAttributeIsNotWrittenThroughTheOldOne)
{
  LinkedSessions s;
  s.start(params(true), params(true));
  s.a.addAttribute("x", new Int());
  ASSERT_TRUE(s.settle());
  auto* created = attributeAt<Int>(s.b, "x");
  ASSERT_NE(created, nullptr);

  // b changes the x it made for a; before b sends, a's removal and new x arrive.
  created->setValue(5);
  s.a.removeAttribute("x");
  auto* again = new Int();
  again->setValue(2);
  s.a.addAttribute("x", again);
  s.a.update();
  s.cb->process(s.ca->collect());
  const size_t from = s.bToA.size();
  ASSERT_TRUE(s.settle());
  const uint32_t updateType = s.cb->outgoingTypes().at(ModuleNames::AttributeUpdate);
  for (size_t i = from; i < s.bToA.size(); ++i)
    EXPECT_NE(s.bToA[i].header().messageType, updateType);
  EXPECT_EQ(again->value(), 2);
  EXPECT_EQ(attributeAt<Int>(s.b, "x")->value(), 2);
}

TEST(SessionDataPathTest, AnAttributeRemovedBeforeACutAndAddedAgainKeepsItsNewValueOnBothSides)
{
  for (const bool wholeNode : {false, true}) {
    SCOPED_TRACE(wholeNode ? "node removed" : "attribute removed");
    LinkedSessions s;
    s.start(params(true), params(true));
    ASSERT_TRUE(s.settle());
    auto* x = new Int();
    x->setValue(1);
    ASSERT_TRUE(s.a.addDeepAttribute("s/n/x", x));
    ASSERT_TRUE(s.settle());
    ASSERT_EQ(attributeAt<Int>(s.b, "s/n/x")->value(), 1);

    // a's removal is lost with the session, so b still has its copy when the next one starts.
    if (wholeNode)
      attributeAt<Carafe::Node>(s.a, "s")->removeAttribute("n");
    else
      attributeAt<Carafe::Node>(s.a, "s/n")->removeAttribute("x");
    s.a.update();
    s.ca->collect();
    s.start(params(true), params(true));
    // b sees a's tree (without x) before it announces its own, which brings x back with 1.
    s.a.update();
    s.cb->process(s.ca->collect());
    // a adds x again with a new value; its addition and b's announcement cross.
    auto* again = new Int();
    again->setValue(2);
    ASSERT_TRUE(s.a.addDeepAttribute("s/n/x", again));
    ASSERT_TRUE(s.settle());
    EXPECT_EQ(again->value(), 2);
    ASSERT_NE(attributeAt<Int>(s.b, "s/n/x"), nullptr);
    EXPECT_EQ(attributeAt<Int>(s.b, "s/n/x")->value(), 2);

    // The same crossing while a's new node is not reported yet: b's old value reaches the new x
    // first, and a changes it again before its next update.
    attributeAt<Carafe::Node>(s.a, "s")->removeAttribute("n");
    s.a.update();
    s.ca->collect();
    s.start(params(true), params(true));
    s.a.update();
    s.cb->process(s.ca->collect());
    s.b.update();
    const std::vector<Bundle> fromB = s.cb->collect();
    auto* third = new Int();
    third->setValue(3);
    ASSERT_TRUE(s.a.addDeepAttribute("s/n/x", third));
    s.ca->process(fromB);
    third->setValue(4);
    ASSERT_TRUE(s.settle());
    EXPECT_EQ(third->value(), 4);
    EXPECT_EQ(attributeAt<Int>(s.b, "s/n/x")->value(), 4);
  }
}

TEST(SessionDataPathTest, AnAttributeItsOwnerRemovesAgainAsSoonAsItComesBackGoesOnBothSides)
{
  for (const bool wholeNode : {false, true}) {
    SCOPED_TRACE(wholeNode ? "node removed" : "attribute removed");
    LinkedSessions s;
    s.start(params(true), params(true));
    ASSERT_TRUE(s.b.addDeepAttribute("s/n/x", new Int(1)));
    ASSERT_TRUE(s.settle());
    ASSERT_NE(attributeAt<Int>(s.a, "s/n/x"), nullptr);
    auto removeOnB = [&] {
      if (wholeNode)
        attributeAt<Carafe::Node>(s.b, "s")->removeAttribute("n");
      else
        attributeAt<Carafe::Node>(s.b, "s/n")->removeAttribute("x");
    };

    // b's removal is lost with the session; a's announcement in the next one brings x back to b,
    // which removes it again before its next pass.
    removeOnB();
    s.b.update();
    s.cb->collect();
    s.start(params(true), params(true));
    s.a.update();
    s.cb->process(s.ca->collect());
    ASSERT_NE(attributeAt<Int>(s.b, "s/n/x"), nullptr);
    removeOnB();
    ASSERT_TRUE(s.settle());
    EXPECT_EQ(attributeAt<Int>(s.b, "s/n/x"), nullptr);
    EXPECT_EQ(attributeAt<Int>(s.a, "s/n/x"), nullptr);
  }
}
