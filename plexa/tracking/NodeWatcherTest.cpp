#include "plexa/tracking/NodeWatcher.hpp"

#include "plexa/tracking/AttributeCache.hpp"

#include "bastion/LogCapture.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "carafe/AttributeAlias.hpp"
#include "carafe/AttributeT.hpp"
#include "carafe/Node.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <string>
#include <thread>

using Plexa::NodeWatcher;
using Float = Carafe::AttributeT<float>;

namespace
{
  const char* typeName(NodeWatcher::EventType t)
  {
    switch (t) {
    case NodeWatcher::AttributeAdded:
      return "AttributeAdded";
    case NodeWatcher::AttributeRemoved:
      return "AttributeRemoved";
    case NodeWatcher::AttributeChanged:
      return "AttributeChanged";
    case NodeWatcher::NodeAdded:
      return "NodeAdded";
    case NodeWatcher::NodeRemoved:
      return "NodeRemoved";
    }
    return "?";
  }

  // A watched tree whose events are recorded as "Type path" strings.
  struct Fixture
  {
    Bastion::SymbolRegistry registry;
    Plexa::AttributeCache cache;
    Carafe::Node root;
    std::unique_ptr<NodeWatcher> watcher;
    std::vector<std::string> events;

    Fixture()
        : watcher(std::make_unique<NodeWatcher>(registry, cache))
    {
      watcher->addListener([this](const NodeWatcher::Event& e) { events.push_back(describe(e)); });
    }

    std::string describe(const NodeWatcher::Event& e) const
    {
      QByteArray path;
      if (!registry.lookup(e.symbol, path))
        path = "<unknown>";
      return std::string(typeName(e.type)) + " " + path.toStdString();
    }

    std::vector<std::string> take()
    {
      std::vector<std::string> out;
      out.swap(events);
      return out;
    }

    uint32_t symbol(const char* path) const { return registry.lookup(QByteArray(path)); }

    template <typename T = Float>
    T* add(Carafe::Node& node, const char* name)
    {
      auto* a = new T();
      EXPECT_TRUE(node.addAttribute(name, a));
      return a;
    }
  };

  using Strings = std::vector<std::string>;
}

TEST(NodeWatcherTest, ReportsTheInitialContentsParentsFirst)
{
  Fixture f;
  Float* a = f.add(f.root, "a");
  auto* n = new Carafe::Node(&f.root, "n");
  Float* b = f.add(*n, "b");

  f.watcher->startWatching(f.root, true);
  EXPECT_EQ(f.take(), (Strings{"NodeAdded ", "AttributeAdded a", "NodeAdded n", "AttributeAdded n/b"}));
  EXPECT_EQ(f.cache.find(f.symbol("a")), a);
  EXPECT_EQ(f.cache.find(f.symbol("n/b")), b);
  EXPECT_EQ(f.cache.find(f.symbol("")), &f.root);
  EXPECT_TRUE(f.cache.isNode(f.symbol("n")));
  EXPECT_TRUE(f.cache.isNode(f.symbol("")));
  EXPECT_FALSE(f.cache.isNode(f.symbol("n/b")));

  b->setValue(2.0f);
  b->setValue(2.0f); // equal: no change
  a->setValue(1.0f);
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged n/b", "AttributeChanged a"}));

  Bastion::LogCapture log;
  Carafe::Node other;
  f.watcher->startWatching(other, true);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "NodeWatcher can only watch one node at a time"));
  EXPECT_TRUE(f.take().empty());
}

TEST(NodeWatcherTest, QuietStartStillCachesAndListens)
{
  Fixture f;
  auto* n = new Carafe::Node(&f.root, "n");
  Float* b = f.add(*n, "b");
  f.watcher->startWatching(f.root, false);
  EXPECT_TRUE(f.take().empty());
  EXPECT_EQ(f.cache.find(f.symbol("n/b")), b);
  b->setValue(3.0f);
  f.add(*n, "c");
  f.watcher->update();
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged n/b", "AttributeAdded n/c"}));
}

TEST(NodeWatcherTest, RuntimeAdditionsWaitForUpdateOrTheirFirstChange)
{
  Fixture f;
  f.watcher->startWatching(f.root, true);
  f.take();

  Float* c = f.add(f.root, "c");
  Float* d = f.add(f.root, "d");
  EXPECT_TRUE(f.take().empty());
  EXPECT_TRUE(f.watcher->isPendingUpdate(f.symbol("c")));
  EXPECT_EQ(f.cache.find(f.symbol("c")), c);

  // A change before the update reports the addition at once, then the change.
  d->setValue(4.0f);
  EXPECT_EQ(f.take(), (Strings{"AttributeAdded d", "AttributeChanged d"}));
  EXPECT_FALSE(f.watcher->isPendingUpdate(f.symbol("d")));

  f.watcher->update();
  EXPECT_EQ(f.take(), (Strings{"AttributeAdded c"}));
  EXPECT_FALSE(f.watcher->isPendingUpdate(f.symbol("c")));
  f.watcher->update();
  EXPECT_TRUE(f.take().empty());

  // The temporary listeners are gone: one change, one event.
  c->setValue(1.0f);
  d->setValue(1.0f);
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged c", "AttributeChanged d"}));

  // A node added at run time is described with its contents at the update, in addition order.
  auto* n = new Carafe::Node;
  f.add(*n, "x");
  auto* m = new Carafe::Node(n, "m");
  f.add(*m, "y");
  Float* e = f.add(f.root, "e");
  ASSERT_TRUE(f.root.addAttribute("n", n));
  f.watcher->update();
  EXPECT_EQ(f.take(), (Strings{"AttributeAdded e", "NodeAdded n", "AttributeAdded n/x", "NodeAdded n/m",
                               "AttributeAdded n/m/y"}));
  e->setValue(1.0f);
  f.add(*m, "z");
  f.watcher->update();
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged e", "AttributeAdded n/m/z"}));
}

TEST(NodeWatcherTest, AdditionsRemovedBeforeTheUpdateReportTheirWholeLife)
{
  Fixture f;
  f.watcher->startWatching(f.root, true);
  f.take();

  f.add(f.root, "a");
  auto* n = new Carafe::Node(&f.root, "n");
  f.add(*n, "inner");
  ASSERT_TRUE(f.root.removeAttribute("a"));
  EXPECT_EQ(f.take(), (Strings{"AttributeAdded a", "AttributeRemoved a"}));
  ASSERT_TRUE(f.root.removeAttribute("n"));
  EXPECT_EQ(f.take(), (Strings{"NodeAdded n", "NodeRemoved n"}));
  EXPECT_EQ(f.cache.find(f.symbol("a")), nullptr);
  EXPECT_EQ(f.cache.find(f.symbol("n")), nullptr);
  EXPECT_FALSE(f.cache.isNode(f.symbol("n")));
  f.watcher->update();
  EXPECT_TRUE(f.take().empty());

  // Detached (not deleted) before the update: the same, and the object is free of listeners.
  Float* t = f.add(f.root, "t");
  std::unique_ptr<Carafe::Attribute> taken(f.root.takeAttribute("t"));
  EXPECT_EQ(f.take(), (Strings{"AttributeAdded t", "AttributeRemoved t"}));
  EXPECT_EQ(t->listenerCount(Carafe::Attribute::RoleChanged), 0);
}

TEST(NodeWatcherTest, RemovalsReportChildrenBeforeTheirNode)
{
  Fixture f;
  auto* n = new Carafe::Node(&f.root, "n");
  f.add(*n, "a");
  auto* m = new Carafe::Node(n, "m");
  f.add(*m, "b");
  Float* keep = f.add(f.root, "keep");
  f.watcher->startWatching(f.root, true);
  f.take();

  ASSERT_TRUE(f.root.removeAttribute("n"));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved n/a", "AttributeRemoved n/m/b", "NodeRemoved n/m", "NodeRemoved n"}));
  for (const char* p : {"n", "n/a", "n/m", "n/m/b"})
    EXPECT_EQ(f.cache.find(f.symbol(p)), nullptr) << p;

  // Detaching keeps the object alive but silent.
  std::unique_ptr<Carafe::Attribute> taken(f.root.takeAttribute("keep"));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved keep"}));
  keep->setValue(5.0f);
  EXPECT_TRUE(f.take().empty());
}

TEST(NodeWatcherTest, DeletingTheRootTearsDownItsContents)
{
  Fixture f;
  auto* root = new Carafe::Node;
  f.add(*root, "a");
  auto* n = new Carafe::Node(root, "n");
  f.add(*n, "b");
  f.watcher->startWatching(*root, true);
  f.take();
  delete root;
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved a", "AttributeRemoved n/b", "NodeRemoved n", "NodeRemoved "}));
  EXPECT_EQ(f.cache.find(f.symbol("n/b")), nullptr);
  f.watcher.reset(); // nothing left to touch
}

TEST(NodeWatcherTest, IgnoreRequestsAreUsedUpOnce)
{
  Fixture f;
  Float* a = f.add(f.root, "a");
  f.watcher->startWatching(f.root, true);
  f.take();
  const NodeWatcher::Event changed{NodeWatcher::AttributeChanged, f.symbol("a")};

  Bastion::LogCapture log;
  f.watcher->ignoreOne(changed);
  f.watcher->ignoreOne(changed);
  EXPECT_EQ(log.texts(),
            std::vector<QByteArray>{"NodeWatcher # called ignoreOne for an event that is already ignored"});
  a->setValue(1.0f);
  a->setValue(2.0f);
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged a"}));

  f.watcher->ignoreOne(changed);
  f.watcher->stopIgnoring(changed);
  a->setValue(3.0f);
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged a"}));

  {
    f.watcher->ignoreOne(changed);
    NodeWatcher::IgnoreGuard guard(*f.watcher, changed);
  }
  a->setValue(4.0f);
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged a"}));

  // An ignored addition is cached and watched, but its addition events are not reported.
  const uint32_t s = f.registry.lookupOrDefine("n");
  f.watcher->ignoreOne({NodeWatcher::AttributeAdded, s});
  auto* n = new Carafe::Node;
  f.add(*n, "b");
  ASSERT_TRUE(f.root.addAttribute("n", n));
  f.watcher->update();
  EXPECT_TRUE(f.take().empty());
  EXPECT_NE(f.cache.find(f.symbol("n/b")), nullptr);
  static_cast<Float*>(n->attribute("b"))->setValue(1.0f);
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged n/b"}));
  // The request was used: the next addition of that path is reported.
  ASSERT_TRUE(f.root.removeAttribute("n"));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved n/b", "NodeRemoved n"}));
  f.add(f.root, "n");
  f.watcher->update();
  EXPECT_EQ(f.take(), (Strings{"AttributeAdded n"}));
}

TEST(NodeWatcherTest, AliasesFollowTheirTargets)
{
  Fixture f;
  Float* t1 = f.add(f.root, "t1");
  auto* target = new Carafe::Node(&f.root, "target");
  f.add(*target, "x");
  auto* alias = f.add<Carafe::AttributeAlias>(f.root, "al");
  ASSERT_TRUE(alias->setAttribute(t1));
  auto* dangling = f.add<Carafe::AttributeAlias>(f.root, "none");
  f.watcher->startWatching(f.root, true);
  EXPECT_EQ(f.take(), (Strings{"NodeAdded ", "AttributeAdded t1", "NodeAdded target", "AttributeAdded target/x",
                               "AttributeAdded al"}));

  // A change of the target is a change of the alias too (the alias listened to it first).
  t1->setValue(1.0f);
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged al", "AttributeChanged t1"}));

  // Retargeted to a node: the attribute goes, the node and its contents come under the alias.
  ASSERT_TRUE(alias->setAttribute(target));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved al", "NodeAdded al", "AttributeAdded al/x"}));
  EXPECT_TRUE(f.cache.isNode(f.symbol("al")));

  // And back to a plain attribute: the node's contents go first.
  ASSERT_TRUE(alias->setAttribute(t1));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved al/x", "NodeRemoved al", "AttributeAdded al"}));
  EXPECT_FALSE(f.cache.isNode(f.symbol("al")));

  // The node itself is still watched under its own path, and no longer under the alias's.
  static_cast<Float*>(target->attribute("x"))->setValue(7.0f);
  f.add(*target, "y");
  f.watcher->update();
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged target/x", "AttributeAdded target/y"}));
  EXPECT_EQ(f.cache.find(f.symbol("al/x")), nullptr);

  // Removing an alias that points to a node leaves the node watched under its own path only.
  auto* nodeAlias = f.add<Carafe::AttributeAlias>(f.root, "nal");
  ASSERT_TRUE(nodeAlias->setAttribute(target));
  f.watcher->update();
  EXPECT_EQ(f.take(), (Strings{"NodeAdded nal", "AttributeAdded nal/x", "AttributeAdded nal/y"}));
  ASSERT_TRUE(f.root.removeAttribute("nal"));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved nal/x", "AttributeRemoved nal/y", "NodeRemoved nal"}));
  f.add(*target, "z");
  f.watcher->update();
  EXPECT_EQ(f.take(), (Strings{"AttributeAdded target/z"}));

  // An alias to nothing is never reported, neither when pointed somewhere and back nor removed.
  ASSERT_TRUE(dangling->setAttribute(t1));
  EXPECT_EQ(f.take(), (Strings{"AttributeAdded none"}));
  ASSERT_TRUE(dangling->setAttribute(nullptr));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved none"}));
  ASSERT_TRUE(f.root.removeAttribute("none"));
  EXPECT_TRUE(f.take().empty());

  // Removing a second alias to the plain attribute leaves the attribute (and the first alias)
  // reporting its changes.
  auto* second = f.add<Carafe::AttributeAlias>(f.root, "al2");
  ASSERT_TRUE(second->setAttribute(t1));
  f.watcher->update();
  f.take();
  ASSERT_TRUE(f.root.removeAttribute("al2"));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved al2"}));
  t1->setValue(2.0f);
  Strings changed = f.take();
  std::sort(changed.begin(), changed.end());
  EXPECT_EQ(changed, (Strings{"AttributeChanged al", "AttributeChanged t1"}));

  // Deleting the target empties the alias.
  ASSERT_TRUE(f.root.removeAttribute("t1"));
  EXPECT_EQ(f.take(), (Strings{"AttributeRemoved t1", "AttributeRemoved al"}));
  ASSERT_TRUE(f.root.removeAttribute("al"));
  EXPECT_TRUE(f.take().empty());
}

TEST(NodeWatcherTest, ListenersMayChangeTheTableWhileCalled)
{
  Fixture f;
  Float* a = f.add(f.root, "a");
  f.watcher->startWatching(f.root, false);
  int late = 0, once = 0;
  long onceId = -1;
  long adder = f.watcher->addListener(
      [&](const NodeWatcher::Event&) { f.watcher->addListener([&](const NodeWatcher::Event&) { ++late; }); });
  onceId = f.watcher->addListener([&](const NodeWatcher::Event&) {
    ++once;
    f.watcher->removeListener(onceId);
  });
  a->setValue(1.0f);
  EXPECT_EQ(late, 0); // added during the dispatch: not called for it
  EXPECT_EQ(once, 1);
  f.watcher->removeListener(adder);
  f.watcher->removeListener(12345); // unknown: ignored
  a->setValue(2.0f);
  EXPECT_EQ(late, 1);
  EXPECT_EQ(once, 1);
  EXPECT_EQ(f.take(), (Strings{"AttributeChanged a", "AttributeChanged a"}));
}

TEST(NodeWatcherTest, DestroyingTheWatcherRemovesItsListeners)
{
  Fixture f;
  Float* a = f.add(f.root, "a");
  f.watcher->startWatching(f.root, true);
  Float* pending = f.add(f.root, "p");
  EXPECT_GT(a->listenerCount(Carafe::Attribute::RoleChanged), 0);
  EXPECT_GT(pending->listenerCount(Carafe::Attribute::RoleChanged), 0);
  f.watcher.reset();
  EXPECT_EQ(a->listenerCount(Carafe::Attribute::RoleChanged), 0);
  EXPECT_EQ(pending->listenerCount(Carafe::Attribute::RoleChanged), 0);
  EXPECT_EQ(f.root.listenerCount(Carafe::Attribute::RoleDeleted), 0);
  a->setValue(1.0f);
  f.add(f.root, "later");
}

TEST(NodeWatcherTest, DispatchesFromSeveralThreadsWhileListenersComeAndGo)
{
  Fixture f;
  Float* a = f.add(f.root, "a");
  Float* b = f.add(f.root, "b");
  f.watcher->startWatching(f.root, false);
  f.watcher->removeListener(0); // the fixture's recorder is not thread-safe
  std::atomic<int> seen{0};
  f.watcher->addListener([&](const NodeWatcher::Event&) { seen.fetch_add(1); });

  constexpr int Sets = 20000;
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    while (!stop.load()) {
      const long id = f.watcher->addListener([](const NodeWatcher::Event&) {});
      f.watcher->ignoreOne({NodeWatcher::NodeAdded, 999});
      f.watcher->stopIgnoring({NodeWatcher::NodeAdded, 999});
      f.watcher->removeListener(id);
    }
  });
  std::thread other([&] {
    for (int i = 1; i <= Sets; ++i)
      b->setValue(float(i));
  });
  for (int i = 1; i <= Sets; ++i)
    a->setValue(float(i));
  other.join();
  stop.store(true);
  churn.join();
  EXPECT_EQ(seen.load(), 2 * Sets);
}
