#include "carafe/Node.hpp"
#include "carafe/AttributeAlias.hpp"
#include "carafe/AttributeT.hpp"
#include "carafe/ListenerHolder.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <thread>

using namespace Carafe;

namespace
{
  /// Records "<event> <name>" for "attribute-added"/"attribute-removed" of `node`.
  void recordTreeEvents(Node& node, const QByteArray& label, std::vector<QByteArray>& log)
  {
    for (const char* eventName : {"attribute-added", "attribute-removed"})
      node.eventAddListener(eventName, [&log, label, event = QByteArray(eventName)](Bastion::BinaryData& data) {
        QByteArray name;
        EXPECT_TRUE(data.readString(name));
        log.push_back(label + " " + event + " " + name);
      });
  }
}

TEST(Node, ChildrenAreKeptInOrderAndFoundByName)
{
  std::vector<QByteArray> log; // outlives the root, whose listeners hear its children deleted
  Node root;
  recordTreeEvents(root, "root", log);

  auto* a = new AttributeT<int>;
  auto* b = new AttributeT<float>;
  EXPECT_TRUE(root.addAttribute("a", a));
  EXPECT_TRUE(root.addAttribute("b", b));
  auto* n = new Node(&root, "n");
  EXPECT_EQ(a->name(), "a");
  EXPECT_EQ(a->host(), &root);
  EXPECT_EQ(n->host(), &root);
  EXPECT_EQ(root.attribute("b"), b);
  EXPECT_EQ(root.attribute("missing"), nullptr);
  EXPECT_EQ(root.attributes(), (std::vector<Attribute*>{a, b, n}));
  EXPECT_EQ(log,
            (std::vector<QByteArray>{"root attribute-added a", "root attribute-added b", "root attribute-added n"}));

  // Refusals change nothing and leave the object with the caller.
  AttributeT<int> spare;
  EXPECT_FALSE(root.addAttribute("a", &spare));   // name taken
  EXPECT_FALSE(root.addAttribute("", &spare));    // empty name
  EXPECT_FALSE(root.addAttribute("x", nullptr));  // null
  EXPECT_FALSE(n->addAttribute("a", a));          // already hosted
  EXPECT_FALSE(root.addAttribute("self", &root)); // itself
  EXPECT_FALSE(n->addAttribute("up", &root));     // its own ancestor
  EXPECT_EQ(spare.host(), nullptr);
  EXPECT_EQ(root.attributeCount(), 3);
  EXPECT_EQ(log.size(), 3u);

  log.clear();
  Attribute* taken = root.takeAttribute("b");
  EXPECT_EQ(taken, b);
  EXPECT_EQ(b->host(), nullptr);
  EXPECT_EQ(b->name(), "b");
  EXPECT_EQ(root.attribute("b"), nullptr);
  EXPECT_EQ(root.takeAttribute("b"), nullptr);
  EXPECT_TRUE(n->addAttribute("b", b)); // a taken attribute may be added again
  EXPECT_TRUE(root.removeAttribute("a"));
  EXPECT_FALSE(root.removeAttribute("a"));
  EXPECT_EQ(root.attributes(), (std::vector<Attribute*>{n}));
  EXPECT_EQ(log, (std::vector<QByteArray>{"root attribute-removed b", "root attribute-removed a"}));

  // The name is free again, and the new child goes to the end.
  auto* a2 = new AttributeT<int>;
  EXPECT_TRUE(root.addAttribute("a", a2));
  EXPECT_EQ(root.attributes(), (std::vector<Attribute*>{n, a2}));

  Bastion::LogCapture capture;
  Node orphan(&root, "a"); // name taken: stays unhosted
  EXPECT_EQ(orphan.host(), nullptr);
  EXPECT_TRUE(capture.contains(Bastion::LogLevel::Error, "Carafe: node \"a\" could not be added to its host"));
}

TEST(Node, SetAsDefaultsReachesEveryDescendant)
{
  Node root;
  auto* n = new Node(&root, "n");
  auto* a = new AttributeT<int>;
  n->addAttribute("a", a);
  a->setValue(4, Attribute::LayerReceived);
  root.setAsDefaults();
  EXPECT_EQ(a->topLayer(), Attribute::LayerDefault);
  EXPECT_EQ(a->value(), 4);
}

TEST(Node, AVeryDeepChainIsSetAsDefaultsAndDeletedWithoutOverflowingTheStack)
{
  // Built from the bottom up: adding a child under a deep node walks the node's hosts.
  auto* leaf = new AttributeT<int>;
  leaf->setValue(3, Attribute::LayerReceived);
  std::vector<QByteArray> log;
  leaf->addListener([&] { log.push_back("leaf deleted"); }, Attribute::RoleDeleted);
  auto* top = new Node;
  top->addAttribute("v", leaf);
  recordTreeEvents(*top, "bottom", log);
  for (int i = 0; i < 200000; ++i) {
    auto* up = new Node;
    up->addAttribute("n", top);
    top = up;
  }
  top->addListener([&] { log.push_back("top deleted"); }, Attribute::RoleDeleted);
  Node root;
  root.addAttribute("chain", top);
  root.setAsDefaults();
  EXPECT_EQ(leaf->topLayer(), Attribute::LayerDefault);
  EXPECT_EQ(leaf->value(), 3);
  EXPECT_TRUE(root.removeAttribute("chain"));
  EXPECT_EQ(log, (std::vector<QByteArray>{"top deleted", "leaf deleted", "bottom attribute-removed v"}));
  EXPECT_EQ(root.attributeCount(), 0);
}

TEST(Node, DeletionTellsEveryoneInOrderWhileObjectsAreWhole)
{
  // root -> n -> {a, b}; aliases x -> n and y -> a; a holder listening on n and a.
  Node root;
  auto* n = new Node(&root, "n");
  auto* a = new AttributeT<int>;
  auto* b = new AttributeT<int>;
  n->addAttribute("a", a);
  n->addAttribute("b", b);
  auto* x = new AttributeAlias;
  auto* y = new AttributeAlias;
  root.addAttribute("x", x);
  root.addAttribute("y", y);
  x->setAttribute(n);
  y->setAttribute(a);

  std::vector<QByteArray> log;
  const long rootListener = root.eventAddListener("attribute-removed", [&](Bastion::BinaryData& data) {
    QByteArray name;
    data.readString(name);
    log.push_back("root removed " + name);
    // The removed node is still inspectable: its full type, its children, aliases still on it.
    Node* removed = dynamic_cast<Node*>(static_cast<Attribute*>(n));
    ASSERT_NE(removed, nullptr);
    EXPECT_EQ(removed->attributeCount(), 2);
    EXPECT_EQ(x->attribute(), n);
  });
  recordTreeEvents(*n, "n", log);
  n->addListener([&] { log.push_back("n deleted"); }, Attribute::RoleDeleted);
  a->addListener([&] { log.push_back("a deleted"); }, Attribute::RoleDeleted);
  b->addListener([&] { log.push_back("b deleted"); }, Attribute::RoleDeleted);
  x->addListener([&] { log.push_back(x->attribute() ? "x retargeted" : "x untargeted"); }, Attribute::RoleChanged);
  y->addListener([&] { log.push_back(y->attribute() ? "y retargeted" : "y untargeted"); }, Attribute::RoleChanged);

  {
    ListenerHolder holder;
    holder.addBd(
        n, "attribute-removed", [&](Bastion::BinaryData&) { log.push_back("holder heard"); }, 1);
    holder.add(
        a, [&] { log.push_back("holder a deleted"); }, Attribute::RoleDeleted);
    EXPECT_EQ(holder.objectCount(), 2);
    EXPECT_TRUE(root.removeAttribute("n"));
    EXPECT_EQ(holder.objectCount(), 0);
  } // the holder goes after the objects: it must not touch them

  EXPECT_EQ(log, (std::vector<QByteArray>{"n deleted", "root removed n", "x untargeted",
                                          // children, last first, each through the same steps
                                          "b deleted", "n attribute-removed b", "a deleted", "holder a deleted",
                                          "n attribute-removed a", "y untargeted"}));
  EXPECT_TRUE(root.eventRemoveListener(rootListener));
}

TEST(Node, DeletingAnyPartOfATreeInAnyOrderLeavesNothingDangling)
{
  // Every order of deleting the root, a node, an alias and a holder that point into each other.
  std::vector<int> steps{0, 1, 2, 3}; // delete root, node, alias, holder
  do {
    auto* root = new Node;
    auto* n = new Node(root, "n");
    auto* a = new AttributeT<QString>;
    n->addAttribute("a", a);
    auto* alias = new AttributeAlias;
    alias->setAttribute(a);
    auto* holder = new ListenerHolder;
    int calls = 0;
    holder->add(
        a, [&] { ++calls; }, Attribute::RoleChanged);
    holder->add(
        alias, [&] { ++calls; }, Attribute::RoleChanged);
    holder->addBd(
        n, "attribute-removed", [&](Bastion::BinaryData&) { ++calls; }, 1);
    holder->addBd(
        root, "attribute-removed", [&](Bastion::BinaryData&) { ++calls; }, 1);
    a->setValue("x");
    EXPECT_EQ(calls, 2);

    bool rootGone = false, nGone = false;
    for (int step : steps) {
      switch (step) {
      case 0:
        delete root;
        rootGone = nGone = true;
        break;
      case 1:
        if (!nGone)
          delete n;
        nGone = true;
        break;
      case 2:
        delete alias;
        alias = nullptr;
        break;
      case 3:
        delete holder;
        holder = nullptr;
        break;
      }
      if (!nGone)
        a->setValue(QString::number(calls));
    }
    EXPECT_TRUE(rootGone);
  } while (std::next_permutation(steps.begin(), steps.end()));
}

TEST(Node, AfterUpdateFunctionsRunOnceInOrderAtTheNextServicing)
{
  std::vector<int> ran;
  Node::invokeAfterUpdate([&] {
    ran.push_back(1);
    Node::invokeAfterUpdate([&] { ran.push_back(3); }); // waits a cycle
  });
  Node::invokeAfterUpdate([&] { ran.push_back(2); });
  EXPECT_TRUE(ran.empty());
  Node::processAfterUpdate();
  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
  Node::processAfterUpdate();
  EXPECT_EQ(ran, (std::vector<int>{1, 2, 3}));
  Node::processAfterUpdate();
  EXPECT_EQ(ran.size(), 3u);

  // Queued from other threads.
  std::atomic<int> count{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&] {
      for (int i = 0; i < 100; ++i)
        Node::invokeAfterUpdate([&] { ++count; });
    });
  for (auto& t : threads)
    t.join();
  Node::processAfterUpdate();
  EXPECT_EQ(count.load(), 400);

  // A throwing function leaves the rest of its batch for the next servicing.
  Node::invokeAfterUpdate([] { throw std::runtime_error("boom"); });
  Node::invokeAfterUpdate([&] { ran.push_back(4); });
  EXPECT_THROW(Node::processAfterUpdate(), std::runtime_error);
  Node::processAfterUpdate();
  EXPECT_EQ(ran.back(), 4);
}
