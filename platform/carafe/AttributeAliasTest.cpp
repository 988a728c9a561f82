#include "carafe/AttributeAlias.hpp"
#include "carafe/AttributeT.hpp"
#include "carafe/Node.hpp"

#include <gtest/gtest.h>

#include <memory>

using namespace Carafe;

namespace
{
  int countChanges(Attribute& a, int& counter)
  {
    return int(a.addListener([&counter] { ++counter; }, Attribute::RoleChanged));
  }
}

TEST(AttributeAlias, ChainsPassTargetChangesAlong)
{
  AttributeT<float> value;
  AttributeAlias inner;
  AttributeAlias outer;
  int innerChanges = 0, outerChanges = 0;
  countChanges(inner, innerChanges);
  countChanges(outer, outerChanges);

  EXPECT_TRUE(outer.setAttribute(&inner));
  EXPECT_EQ(outerChanges, 1);
  EXPECT_TRUE(inner.setAttribute(&value));
  EXPECT_EQ(innerChanges, 1);
  EXPECT_EQ(outerChanges, 2); // the retarget of inner reaches outer
  EXPECT_EQ(outer.attribute(), &inner);
  EXPECT_EQ(outer.finalTarget(), &value);

  value.setValue(1.f);
  EXPECT_EQ(innerChanges, 2);
  EXPECT_EQ(outerChanges, 3);
  value.setValue(1.f);
  EXPECT_EQ(outerChanges, 3);

  // The same target again changes nothing.
  EXPECT_TRUE(inner.setAttribute(&value));
  EXPECT_EQ(innerChanges, 2);

  // Retargeting stops the old target's changes from arriving.
  AttributeT<int> other;
  EXPECT_TRUE(inner.setAttribute(&other));
  EXPECT_EQ(outerChanges, 4);
  value.setValue(2.f);
  EXPECT_EQ(outerChanges, 4);
  other.setValue(3);
  EXPECT_EQ(outerChanges, 5);

  EXPECT_TRUE(inner.setAttribute(nullptr));
  EXPECT_EQ(outer.finalTarget(), nullptr);
  EXPECT_EQ(outerChanges, 6);
  EXPECT_EQ(other.listenerCount(Attribute::RoleChanged), 0);
}

TEST(AttributeAlias, CyclesAreRefused)
{
  AttributeAlias a, b, c;
  int aChanges = 0;
  countChanges(a, aChanges);
  EXPECT_FALSE(a.setAttribute(&a));
  EXPECT_TRUE(a.setAttribute(&b));
  EXPECT_TRUE(b.setAttribute(&c));
  EXPECT_FALSE(c.setAttribute(&a));
  EXPECT_FALSE(b.setAttribute(&a));
  EXPECT_EQ(c.attribute(), nullptr);
  EXPECT_EQ(b.attribute(), &c);
  EXPECT_EQ(aChanges, 2);
  // Not a cycle: two aliases on one target.
  AttributeT<int> t;
  EXPECT_TRUE(c.setAttribute(&t));
  AttributeAlias d;
  EXPECT_TRUE(d.setAttribute(&t));
  t.setValue(1);
  EXPECT_EQ(aChanges, 4);
}

TEST(AttributeAlias, DeletedTargetsLeaveTheAliasUntargeted)
{
  auto value = std::make_unique<AttributeT<int>>();
  auto inner = std::make_unique<AttributeAlias>();
  AttributeAlias outer;
  inner->setAttribute(value.get());
  outer.setAttribute(inner.get());

  int innerChanges = 0;
  Attribute* innerTargetSeen = value.get();
  inner->addListener(
      [&] {
        ++innerChanges;
        innerTargetSeen = inner->attribute();
      },
      Attribute::RoleChanged);
  int outerChanges = 0;
  countChanges(outer, outerChanges);

  value.reset();
  EXPECT_EQ(innerChanges, 1);
  EXPECT_EQ(innerTargetSeen, nullptr);
  EXPECT_EQ(outerChanges, 1); // passed along the chain
  EXPECT_EQ(outer.attribute(), inner.get());

  inner.reset(); // an alias in the middle of the chain goes away
  EXPECT_EQ(outer.attribute(), nullptr);
  EXPECT_EQ(outerChanges, 2);

  // An alias deleted before its target leaves nothing behind on the target.
  AttributeT<int> target;
  {
    AttributeAlias shortLived;
    shortLived.setAttribute(&target);
    EXPECT_EQ(target.listenerCount(Attribute::RoleChanged), 1);
  }
  EXPECT_EQ(target.listenerCount(Attribute::RoleChanged), 0);
  target.setValue(5);
}

TEST(AttributeAlias, TargetsNodesAndRefusesDyingObjects)
{
  Node root;
  auto* child = new Node(&root, "child");
  AttributeAlias alias;
  EXPECT_TRUE(alias.setAttribute(child));
  EXPECT_EQ(alias.asText(), "child");

  // While the child is being deleted (role 1), it may not become a target again.
  AttributeAlias late;
  bool accepted = true;
  child->addListener([&] { accepted = late.setAttribute(child); }, Attribute::RoleDeleted);
  int aliasChanges = 0;
  Attribute* seenTarget = child;
  alias.addListener(
      [&] {
        ++aliasChanges;
        seenTarget = alias.attribute();
      },
      Attribute::RoleChanged);
  EXPECT_TRUE(root.removeAttribute("child"));
  EXPECT_FALSE(accepted);
  EXPECT_EQ(late.attribute(), nullptr);
  EXPECT_EQ(aliasChanges, 1);
  EXPECT_EQ(seenTarget, nullptr);
  EXPECT_EQ(alias.asText(), "");
}
