#include "plexa/remote/AttributeWalk.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/AttributeAlias.hpp"
#include "carafe/AttributeT.hpp"
#include "carafe/Node.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

using Float = Carafe::AttributeT<float>;

namespace
{
  // root: a, n/{b, n/{c}}, al -> n/n, none -> nothing
  struct Tree
  {
    Carafe::Node root;
    Carafe::Node* n;
    Carafe::Node* nn;

    Tree()
    {
      root.addAttribute("a", new Float);
      n = new Carafe::Node(&root, "n");
      n->addAttribute("b", new Float);
      nn = new Carafe::Node(n, "n");
      nn->addAttribute("c", new Float);
      auto* al = new Carafe::AttributeAlias;
      al->setAttribute(nn);
      root.addAttribute("al", al);
      root.addAttribute("none", new Carafe::AttributeAlias);
    }
  };
}

TEST(AttributeWalkTest, VisitsPlainAttributesWithTheirPaths)
{
  Tree t;
  std::vector<QByteArray> paths;
  Plexa::walkAttributesWithPath(t.root, [&](Carafe::Attribute& a, const QByteArray& path) {
    EXPECT_EQ(dynamic_cast<Carafe::Node*>(&a), nullptr);
    paths.push_back(path);
  });
  EXPECT_EQ(paths, (std::vector<QByteArray>{"a", "n/b", "n/n/c", "al/c"}));

  // An alias to an ancestor is a loop: the walk does not follow it (a node reached twice by
  // other ways still is walked twice).
  auto* up = new Carafe::AttributeAlias;
  up->setAttribute(t.n);
  t.nn->addAttribute("up", up);
  paths.clear();
  EXPECT_NO_THROW(Plexa::walkAttributesWithPath(t.root, [&](Carafe::Attribute&, const QByteArray& path) {
    paths.push_back(path);
    if (paths.size() > 100)
      throw std::runtime_error("the walk goes round a loop");
  }));
  EXPECT_EQ(paths, (std::vector<QByteArray>{"a", "n/b", "n/n/c", "al/c", "al/up/b"}));
}

TEST(AttributeWalkTest, TheSkipFilterAppliesToTheTopLevelOnly)
{
  Tree t;
  std::vector<QByteArray> names;
  const auto visit = [&](Carafe::Attribute& a) { names.push_back(a.name()); };
  Plexa::walkAttributes(t.root, visit, [](Carafe::Attribute& a) { return a.name() == "n"; });
  // The top-level n is skipped, and so is the alias (its target is named n too); the n inside
  // n is never filtered, but it is only reached through the skipped parent.
  EXPECT_EQ(names, (std::vector<QByteArray>{"a"}));

  names.clear();
  Plexa::walkAttributes(*t.n, visit, [](Carafe::Attribute& a) { return a.name() == "b"; });
  EXPECT_EQ(names, (std::vector<QByteArray>{"c"}));

  names.clear();
  Plexa::walkAttributes(t.root, visit, [](Carafe::Attribute& a) { return a.name() == "c"; });
  EXPECT_EQ(names, (std::vector<QByteArray>{"a", "b", "c", "c"}));

  names.clear();
  Plexa::walkAttributes(t.root, visit, nullptr);
  EXPECT_EQ(names.size(), 4u);
}

TEST(AttributeWalkTest, FindOrCreateNodeReusesCreatesAndRefuses)
{
  Bastion::LogCapture log;
  Tree t;
  QMap<QByteArray, Carafe::Node*> created;
  EXPECT_EQ(Plexa::findOrCreateNode({}, &t.root, &created, ""), &t.root);

  Carafe::Node* x = Plexa::findOrCreateNode({"n", "n", "x", "y"}, &t.root, &created, "");
  ASSERT_NE(x, nullptr);
  EXPECT_EQ(created.keys(), (QList<QByteArray>{"n/n/x", "n/n/x/y"}));
  EXPECT_EQ(created.value("n/n/x/y"), x);
  EXPECT_EQ(created.value("n/n/x"), t.nn->attribute("x"));
  EXPECT_EQ(x->host(), t.nn->attribute("x"));

  // Through an alias to a node, with a prefix and no map.
  EXPECT_EQ(Plexa::findOrCreateNode({"al", "x"}, &t.root, nullptr, "pre"), t.nn->attribute("x"));
  EXPECT_TRUE(log.texts().empty());

  EXPECT_EQ(Plexa::findOrCreateNode({"n", "b", "z"}, &t.root, &created, ""), nullptr);
  EXPECT_EQ(Plexa::findOrCreateNode({"a"}, &t.root, &created, "top"), nullptr);
  EXPECT_EQ(log.texts(), (std::vector<QByteArray>{"findOrCreateNode # 'n/b'' is not a node!",
                                                  "findOrCreateNode # 'top/a'' is not a node!"}));
  EXPECT_EQ(t.n->attribute("b")->host(), t.n);
  EXPECT_EQ(created.size(), 2);
}

TEST(AttributeWalkTest, AVeryDeepChainIsWalkedWithoutOverflowingTheStack)
{
  // Built from the bottom up (adding under a deep node walks the node's hosts); "n/" per level.
  constexpr int Depth = 200000;
  auto* top = new Carafe::Node;
  top->addAttribute("v", new Float);
  for (int i = 1; i < Depth; ++i) {
    auto* up = new Carafe::Node;
    up->addAttribute("n", top);
    top = up;
    if (i == Depth / 2)
      up->addAttribute("mid", new Float);
  }
  Carafe::Node root;
  root.addAttribute("n", top);

  std::vector<QByteArray> names;
  Plexa::walkAttributes(
      root, [&](Carafe::Attribute& a) { names.push_back(a.name()); }, nullptr);
  EXPECT_EQ(names, (std::vector<QByteArray>{"v", "mid"}));

  std::vector<QByteArray> paths;
  Plexa::walkAttributesWithPath(root, [&](Carafe::Attribute&, const QByteArray& path) { paths.push_back(path); });
  ASSERT_EQ(paths.size(), 2u);
  EXPECT_EQ(paths[0], QByteArray("n/").repeated(Depth) + "v");
  EXPECT_EQ(paths[1], QByteArray("n/").repeated(Depth / 2) + "mid");
}
