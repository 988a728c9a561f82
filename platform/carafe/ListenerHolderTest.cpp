#include "carafe/ListenerHolder.hpp"
#include "carafe/AttributeT.hpp"
#include "carafe/Node.hpp"

#include "bastion/BinaryData.hpp"

#include <gtest/gtest.h>

using namespace Carafe;

TEST(ListenerHolder, RemovesItsListenersPerObjectOrAll)
{
  Node node;
  auto* a = new AttributeT<int>;
  auto* b = new AttributeT<int>;
  node.addAttribute("a", a);
  node.addAttribute("b", b);
  int aCalls = 0, bCalls = 0, nodeCalls = 0, foreign = 0;
  a->addListener([&] { ++foreign; }, Attribute::RoleChanged); // not the holder's

  auto* holder = new ListenerHolder;
  EXPECT_GE(holder->add(
                a, [&] { ++aCalls; }, Attribute::RoleChanged),
            0);
  holder->add(
      a, [&] { ++aCalls; }, Attribute::RoleChanged);
  holder->add(
      b, [&] { ++bCalls; }, Attribute::RoleChanged);
  holder->add(
      &node, [&] { ++nodeCalls; }, Attribute::RoleDeleted);
  holder->addBd(
      &node, "attribute-added", [&](Bastion::BinaryData&) { ++nodeCalls; }, 1);
  EXPECT_EQ(holder->add(
                nullptr, [] {}, Attribute::RoleChanged),
            -1);
  EXPECT_EQ(holder->add(
                a, [] {}, 7),
            -1);
  EXPECT_EQ(holder->objectCount(), 3);

  a->setValue(1);
  EXPECT_EQ(aCalls, 2);
  holder->removeListeners(a);
  a->setValue(2);
  EXPECT_EQ(aCalls, 2);
  EXPECT_EQ(foreign, 2);

  holder->removeListeners(&node); // value and event listeners of the node
  node.addAttribute("c", new AttributeT<int>);
  EXPECT_EQ(nodeCalls, 0);

  b->setValue(1);
  EXPECT_EQ(bCalls, 1);
  delete holder; // removes the rest
  b->setValue(2);
  EXPECT_EQ(bCalls, 1);
  EXPECT_EQ(b->listenerCount(Attribute::RoleChanged), 0);
}

TEST(ListenerHolder, ForgetsObjectsDeletedMeanwhile)
{
  ListenerHolder holder;
  int deleted = 0;
  {
    Node node;
    auto* a = new AttributeT<float>;
    node.addAttribute("a", a);
    holder.add(
        a, [&] { ++deleted; }, Attribute::RoleDeleted);
    holder.addBd(
        &node, "attribute-removed", [&](Bastion::BinaryData&) { ADD_FAILURE(); }, 1);
    holder.add(
        &node, [&] { ++deleted; }, Attribute::RoleDeleted);
  }
  // The node's deletion listener ran; then the holder took its listeners off, so the node's
  // "attribute-removed" for its child never reached the holder's listener.
  EXPECT_EQ(deleted, 2);
  EXPECT_EQ(holder.objectCount(), 0);
  holder.clear();
}

TEST(ListenerHolder, MayBeDestroyedByOneOfItsListeners)
{
  AttributeT<int> a;
  auto* holder = new ListenerHolder;
  int later = 0;
  holder->add(
      &a, [&] { delete holder; }, Attribute::RoleChanged);
  holder->add(
      &a, [&] { ++later; }, Attribute::RoleChanged);
  a.setValue(1);
  EXPECT_EQ(later, 0);
  EXPECT_EQ(a.listenerCount(Attribute::RoleChanged), 0);
}
