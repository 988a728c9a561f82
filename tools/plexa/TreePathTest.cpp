#include "TreePath.hpp"

#include "carafe/AttributeT.hpp"
#include "carafe/Node.hpp"

#include <gtest/gtest.h>

using namespace Plexa::Cli;

TEST(TreePath, WalksAVeryDeepTreeInOrderWithEmptyNodes)
{
  // root: a, n/n/.../n/v (200,000 nodes, built from the bottom up), e (empty)
  constexpr int Depth = 200000;
  auto* top = new Carafe::Node;
  top->addAttribute("v", new Carafe::AttributeT<int>);
  for (int i = 1; i < Depth; ++i) {
    auto* up = new Carafe::Node;
    up->addAttribute("n", top);
    top = up;
  }
  Carafe::Node root;
  root.addAttribute("a", new Carafe::AttributeT<int>);
  root.addAttribute("n", top);
  new Carafe::Node(&root, "e");

  std::vector<QString> seen;
  TreePath::walk(
      root, [&](const Carafe::Attribute&, const QString& path) { seen.push_back(path); },
      [&](const QString& path) { seen.push_back(path + "/"); });
  EXPECT_EQ(seen, (std::vector<QString>{"a", QString("n/").repeated(Depth) + "v", "e/"}));
  EXPECT_EQ(TreePath::countAttributes(root), 2);
}
