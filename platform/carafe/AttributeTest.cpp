#include "carafe/AttributeT.hpp"
#include "carafe/Node.hpp"

#include "bastion/LogCapture.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <vector>

using namespace Carafe;

TEST(Attribute, ChangeListenersRunInIdOrderOnlyWhenTheValueChanges)
{
  AttributeT<float> a;
  std::vector<int> calls;
  const long first = a.addListener([&] { calls.push_back(1); }, Attribute::RoleChanged);
  const long second = a.addListener([&] { calls.push_back(2); }, Attribute::RoleChanged);
  AttributeT<int> other;
  const long third = other.addListener([] {}, Attribute::RoleChanged);
  // One counter for the whole process.
  EXPECT_LT(first, second);
  EXPECT_LT(second, third);

  a.setValue(0.f); // equal to the default
  EXPECT_TRUE(calls.empty());
  a.setValue(2.5f);
  EXPECT_EQ(calls, (std::vector<int>{1, 2}));
  a.setValue(2.5f);
  EXPECT_EQ(calls.size(), 2u);

  EXPECT_TRUE(a.removeListener(first));
  EXPECT_FALSE(a.removeListener(first));
  EXPECT_FALSE(a.removeListener(third)); // belongs to another attribute
  a.setValue(3.f);
  EXPECT_EQ(calls, (std::vector<int>{1, 2, 2}));
  EXPECT_EQ(a.listenerCount(Attribute::RoleChanged), 1);
}

TEST(Attribute, BadListenersAreRefusedAndLogged)
{
  Bastion::LogCapture log;
  AttributeT<int> a;
  EXPECT_EQ(a.addListener([] {}, 3), -1);
  EXPECT_EQ(a.addListener(std::function<void()>(), Attribute::RoleChanged), -1);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Carafe: listener role 3 does not exist"));
  EXPECT_EQ(a.listenerCount(Attribute::RoleChanged), 0);
}

TEST(Attribute, ACallSeesTheTableAsItWasMinusRemovedListeners)
{
  AttributeT<int> a;
  std::vector<QByteArray> calls;
  long idA = -1, idB = -1, idC = -1;
  idA = a.addListener(
      [&] {
        calls.push_back("A");
        if (idC < 0)
          idC = a.addListener([&] { calls.push_back("C"); }, Attribute::RoleChanged);
        a.removeListener(idB);
        a.removeListener(idA); // itself
      },
      Attribute::RoleChanged);
  idB = a.addListener([&] { calls.push_back("B"); }, Attribute::RoleChanged);

  a.setValue(1);
  EXPECT_EQ(calls, (std::vector<QByteArray>{"A"})); // B removed before its turn, C added during the call
  a.setValue(2);
  EXPECT_EQ(calls, (std::vector<QByteArray>{"A", "C"}));
  EXPECT_EQ(a.listenerCount(Attribute::RoleChanged), 1);
}

TEST(Attribute, NestedChangesFromListenersEachRunTheCurrentTable)
{
  AttributeT<int> a;
  std::vector<int> seen;
  a.addListener(
      [&] {
        seen.push_back(a.value());
        if (a.value() < 3)
          a.setValue(a.value() + 1);
      },
      Attribute::RoleChanged);
  a.addListener([&] { seen.push_back(-a.value()); }, Attribute::RoleChanged);
  a.setValue(1);
  // Innermost change finishes first; every listener sees the value current at its call.
  EXPECT_EQ(seen, (std::vector<int>{1, 2, 3, -3, -3, -3}));
}

TEST(Attribute, AListenerMayDeleteItsAttribute)
{
  auto* a = new AttributeT<QString>;
  int later = 0;
  int deleted = 0;
  a->addListener([&] { delete a; }, Attribute::RoleChanged);
  a->addListener([&] { ++later; }, Attribute::RoleChanged);
  a->addListener([&] { ++deleted; }, Attribute::RoleDeleted);
  a->setValue("gone");
  EXPECT_EQ(deleted, 1);
  EXPECT_EQ(later, 0); // the attribute went away before its turn
}

TEST(Attribute, ListenerExceptionsReachTheCaller)
{
  AttributeT<int> a;
  a.addListener([] { throw std::bad_function_call(); }, Attribute::RoleChanged);
  EXPECT_THROW(a.setValue(1), std::bad_function_call);
  EXPECT_EQ(a.value(), 1);
  EXPECT_THROW(a.setValue(2), std::bad_function_call); // the table is still usable
}

TEST(Attribute, HighestLayerWinsAndLowerLayersClearTheOnesAbove)
{
  AttributeT<int> a(7);
  int changes = 0;
  a.addListener([&] { ++changes; }, Attribute::RoleChanged);
  EXPECT_EQ(a.value(), 7);
  EXPECT_EQ(a.topLayer(), Attribute::LayerDefault);

  a.setValue(5, Attribute::LayerReceived);
  EXPECT_EQ(a.value(), 5);
  EXPECT_EQ(a.topLayer(), Attribute::LayerReceived);

  a.setValue(6, Attribute::LayerApplication); // local change overrides the received one
  EXPECT_EQ(a.value(), 6);
  EXPECT_EQ(a.topLayer(), Attribute::LayerApplication);

  a.setValue(6, Attribute::LayerReceived); // same effective value: no call, but layer 2 is now set
  EXPECT_EQ(changes, 2);
  EXPECT_EQ(a.topLayer(), Attribute::LayerReceived);

  a.setValue(8, Attribute::LayerDefault); // clears 1 and 2
  EXPECT_EQ(a.value(), 8);
  EXPECT_EQ(a.topLayer(), Attribute::LayerDefault);
  EXPECT_EQ(changes, 3);

  a.setValue(9, Attribute::LayerReceived);
  a.setAsDefaults();
  EXPECT_EQ(changes, 4); // setAsDefaults calls nothing
  EXPECT_EQ(a.value(), 9);
  EXPECT_EQ(a.topLayer(), Attribute::LayerDefault);
  a.setValue(9, Attribute::LayerApplication);
  EXPECT_EQ(changes, 4);

  Bastion::LogCapture log;
  a.setValue(1, 3);
  EXPECT_EQ(a.value(), 9);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Carafe: value layer 3 does not exist"));
}

TEST(Attribute, DeletionListenersRunOnceWhileTheObjectIsWholeAndHosted)
{
  Node root;
  auto* a = new AttributeT<double>;
  root.addAttribute("a", a);
  a->setValue(1.5);
  int calls = 0;
  a->addListener(
      [&] {
        ++calls;
        auto* whole = dynamic_cast<AttributeT<double>*>(static_cast<Attribute*>(a));
        ASSERT_NE(whole, nullptr);
        EXPECT_EQ(whole->value(), 1.5);
        EXPECT_EQ(a->host(), &root); // the host has not heard yet
        EXPECT_EQ(root.attribute("a"), a);
        EXPECT_TRUE(a->isBeingDestroyed());
      },
      Attribute::RoleDeleted);
  a->addListener([&] { ADD_FAILURE() << "value listener called on deletion"; }, Attribute::RoleChanged);
  delete a;
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(root.attribute("a"), nullptr);
}
