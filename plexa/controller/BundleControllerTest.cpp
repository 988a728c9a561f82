#include "plexa/controller/BundleController.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/Connection.hpp"
#include "plexa/controller/Core.hpp"
#include "plexa/receive/NodeChangeSender.hpp"
#include "plexa/receive/SessionTestSupport.hpp"
#include "plexa/remote/AttributeWalk.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/session/BundleReceiver.hpp"
#include "plexa/session/BundleSender.hpp"
#include "plexa/session/SessionFormat.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <map>
#include <stdexcept>
#include <thread>

#include <pthread.h>

using namespace Plexa;
using Float = Carafe::AttributeT<float>;
using Double = Carafe::AttributeT<double>;
using Bool = Carafe::AttributeT<bool>;
using Vec2 = Carafe::AttributeT<Quiver::Vector2T<float>>;

namespace
{
  using PlexaTest::BundleBytes;
  using Link = PlexaTest::RecordingLink;

  /// What `link` sends, `peer` processes, as the connection thread would hand it over.
  void linkTo(Link& link, const std::shared_ptr<BundleController>& peer)
  {
    link.onSend = [weak = std::weak_ptr<BundleController>(peer)](const std::vector<Bundle>& bundles) {
      if (const auto other = weak.lock())
        other->scheduleProcess(bundles);
    };
  }

  /// Records the sequence of every bundle it gets; throws a standard exception for the payload
  /// word 0xBAD and an int for 0xDEAD.
  class ScriptedReceiver : public BundleReceiver
  {
  public:
    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher&) override
    {
      sequences.push_back(header.sequence);
      if (onBundle)
        onBundle();
      const uint32_t word = reader.readValue<uint32_t>();
      if (word == 0xBAD)
        throw std::out_of_range("boom");
      if (word == 0xDEAD)
        throw 42;
    }
    std::vector<uint32_t> sequences;
    std::function<void()> onBundle;
  };

  constexpr uint32_t ScriptedType = 9;

  Bundle makeBundle(uint32_t type, uint32_t sequence, uint32_t word)
  {
    return BundleBytes(type, sequence).words({word});
  }

  /// Serves `receiver` under ScriptedType in the controller's core.
  void installScripted(BundleController& controller, const std::shared_ptr<ScriptedReceiver>& receiver)
  {
    const auto core = controller.core();
    core->addReceiver("Test.Scripted", receiver);
    core->loadModule(ScriptedType, "Test.Scripted", {});
  }

  BundleControllerParams paramsWith(const std::shared_ptr<Link>& link, bool enabled = true)
  {
    BundleControllerParams params;
    params.connection = link;
    params.enabled = enabled;
    params.createMissingAttributes = true;
    return params;
  }

  /// Path -> value text of every attribute under `node`.
  std::map<QByteArray, QString> snapshot(RemoteNode& node)
  {
    std::map<QByteArray, QString> values;
    walkAttributesWithPath(
        node, [&](Carafe::Attribute& attribute, const QByteArray& path) { values[path] = attribute.asText(); });
    return values;
  }

  /// Runs update cycles until `done` holds; false after 50 cycles.
  bool pumpUntil(const std::function<bool()>& done)
  {
    for (int i = 0; i < 50; ++i) {
      BundleController::update();
      Carafe::Node::processAfterUpdate();
      if (done())
        return true;
    }
    return false;
  }

  template <typename A>
  A* add(Carafe::Node& node, const QByteArray& name)
  {
    auto* attribute = new A;
    EXPECT_TRUE(node.addAttribute(name, attribute));
    return attribute;
  }

  /// Runs `body` on a thread with a stack of `bytes` and waits for it: code that recurses once
  /// per level of a tree overflows it at a depth the test can afford to build.
  void onSmallStack(size_t bytes, const std::function<void()>& body)
  {
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, bytes);
    pthread_t thread;
    const auto run = [](void* arg) -> void* {
      (*static_cast<const std::function<void()>*>(arg))();
      return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, &attr, run, const_cast<std::function<void()>*>(&body)), 0);
    pthread_join(thread, nullptr);
    pthread_attr_destroy(&attr);
  }
}

TEST(BundleControllerTest, ProcessInitialisesAndSendsThisSidesChangesBeforeDispatching)
{
  RemoteNode node(nullptr, "root");
  auto link = std::make_shared<Link>();
  const auto controller = BundleController::create(node, paramsWith(link));
  const auto core = controller->core();

  // An empty list only builds the session: nothing is sent although the core is enabled.
  controller->scheduleProcess({});
  EXPECT_FALSE(core->isInitialized());
  core->runTasks();
  EXPECT_TRUE(core->isInitialized());
  EXPECT_TRUE(link->passes.empty());

  auto receiver = std::make_shared<ScriptedReceiver>();
  installScripted(*controller, receiver);
  size_t passesAtDispatch = 0;
  receiver->onBundle = [&] { passesAtDispatch = link->passes.size(); };
  controller->scheduleProcess({makeBundle(ScriptedType, 1, 0)});
  core->runTasks();
  EXPECT_EQ(receiver->sequences, std::vector<uint32_t>({1}));
  EXPECT_EQ(passesAtDispatch, 1u);
  EXPECT_EQ(link->passes.size(), 1u);
}

TEST(BundleControllerTest, AFailingBundleIsLoggedWithItsTypeAndTheNextOneIsStillDispatched)
{
  RemoteNode node(nullptr, "root");
  const auto controller = BundleController::create(node, paramsWith(nullptr));
  auto receiver = std::make_shared<ScriptedReceiver>();
  controller->ensureIsInitialized();
  installScripted(*controller, receiver);

  Bastion::LogCapture log;
  // Shorter than a header: the header itself cannot be read.
  const Bundle truncated(QByteArray("\0\0\0\0\x05\0\0\0", 8));
  controller->scheduleProcess(
      {makeBundle(ScriptedType, 1, 0xBAD), makeBundle(ScriptedType, 2, 0), truncated, makeBundle(ScriptedType, 3, 7)});
  BundleController::update();
  EXPECT_EQ(receiver->sequences, std::vector<uint32_t>({1, 2, 3}));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning,
                           "BundleController::process # Failed to process bundle of type type 9: boom"));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "BundleController::process # Failed to process bundle of "
                                                       "type type 5: BundleReader::read # tried to read past the end"));
  EXPECT_EQ(controller->core()->lastDispatched(), 3u);

  // Anything that is not a standard exception is not the controller's to swallow.
  EXPECT_THROW(controller->process({makeBundle(ScriptedType, 4, 0xDEAD), makeBundle(ScriptedType, 5, 0)}), int);
  EXPECT_EQ(receiver->sequences.back(), 4u);
}

TEST(BundleControllerTest, SetEnabledTakesEffectAfterTheTasksQueuedBeforeIt)
{
  RemoteNode node(nullptr, "root");
  auto link = std::make_shared<Link>();
  const auto controller = BundleController::create(node, paramsWith(link));
  const auto core = controller->core();
  BundleController::update();
  ASSERT_EQ(link->passes.size(), 1u);
  // Something for the next send pass: a module request of the handshake sender.
  const auto request = [](const QByteArray& module) { return [module](Core& c) { c.messageTypeFor(module); }; };

  controller->addTask(request("Test.One"));
  controller->scheduleProcess({makeBundle(77, 1, 0)});
  controller->addTask(request("Test.Two"));
  controller->setEnabled(false);
  EXPECT_TRUE(core->isEnabled());
  BundleController::update();
  // The received list sent the first request out; the second would have gone in the update's
  // own outgoing work, which the disabled core no longer does.
  EXPECT_FALSE(core->isEnabled());
  EXPECT_EQ(link->passes.size(), 2u);
  BundleController::update();
  EXPECT_EQ(link->passes.size(), 2u);

  // Incoming bundles are still dispatched while disabled.
  auto receiver = std::make_shared<ScriptedReceiver>();
  installScripted(*controller, receiver);
  controller->scheduleProcess({makeBundle(ScriptedType, 2, 0)});
  BundleController::update();
  EXPECT_EQ(receiver->sequences, std::vector<uint32_t>({2}));
  EXPECT_EQ(core->lastDispatched(), 2u);
  EXPECT_EQ(link->passes.size(), 2u);

  controller->setEnabled(true);
  BundleController::update();
  EXPECT_EQ(link->passes.size(), 3u);
}

TEST(BundleControllerTest, DestroyedNodeSkipsItsControllerAtOnceAndTheServicingRemovesIt)
{
  Carafe::Node::processAfterUpdate();
  const int before = BundleController::controllerCount();
  auto node = std::make_unique<RemoteNode>(nullptr, "doomed");
  add<Float>(*node, "speed");
  auto link = std::make_shared<Link>();
  auto controller = BundleController::create(*node, paramsWith(link));
  EXPECT_EQ(BundleController::controllerCount(), before + 1);
  BundleController::update();
  const size_t passes = link->passes.size();
  const std::weak_ptr<Core> weakCore = controller->core();

  // A task destroys the tree; the task behind it and the outgoing work must not touch it.
  bool laterTaskRan = false;
  controller->addTask([&](Core&) { node.reset(); });
  controller->addTask([&](Core&) { laterTaskRan = true; });
  BundleController::update();
  EXPECT_FALSE(laterTaskRan);
  // Queued before the servicing: dropped as well.
  controller->addTask([&](Core&) { laterTaskRan = true; });
  controller->scheduleProcess({makeBundle(77, 1, 0)});
  BundleController::update();
  EXPECT_FALSE(laterTaskRan);
  EXPECT_EQ(link->passes.size(), passes);
  EXPECT_EQ(BundleController::controllerCount(), before + 1);
  // Until the servicing the core is still there, but nothing it hands out may lead into the node.
  EXPECT_EQ(controller->symbolRegistrySend(), nullptr);
  EXPECT_NE(controller->symbolRegistryRecv(), nullptr);
  if (const auto core = controller->core())
    core->debugDump();

  Carafe::Node::processAfterUpdate();
  EXPECT_EQ(BundleController::controllerCount(), before);
  EXPECT_TRUE(weakCore.expired());
  EXPECT_EQ(controller->core(), nullptr);
  EXPECT_EQ(controller->symbolRegistryRecv(), nullptr);
  controller->addTask([&](Core&) { laterTaskRan = true; });
  controller->setEnabled(false);
  controller->debugDump();
  BundleController::update();
  EXPECT_FALSE(laterTaskRan);
  controller.reset();

  // A controller the application lets go leaves the list too, with its queued work.
  RemoteNode other(nullptr, "other");
  auto dropped = BundleController::create(other, paramsWith(nullptr));
  dropped->addTask([&](Core&) { laterTaskRan = true; });
  dropped.reset();
  BundleController::update();
  EXPECT_FALSE(laterTaskRan);
  Carafe::Node::processAfterUpdate();
  EXPECT_EQ(BundleController::controllerCount(), before);
}

TEST(BundleControllerTest, TasksQueuedFromOtherThreadsRunInTheirOrderOnTheUpdateThread)
{
  RemoteNode node(nullptr, "root");
  add<Float>(node, "speed");
  const auto controller = BundleController::create(node, paramsWith(std::make_shared<Link>()));
  constexpr int Threads = 4;
  constexpr int PerThread = 300;
  // Written only by tasks, which run on this thread.
  std::vector<std::vector<int>> seen(Threads);
  std::atomic<int> done{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < Threads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < PerThread; ++i) {
        controller->addTask([&seen, &done, t, i](Core&) {
          seen[t].push_back(i);
          ++done;
        });
        if (i % 10 == 0) {
          controller->scheduleProcess({makeBundle(77, uint32_t(i + 1), 0)});
          controller->setEnabled(i % 20 == 0);
        }
      }
    });
  }
  // A churn of short-lived controllers on another tree, created and dropped off this thread.
  RemoteNode spare(nullptr, "spare");
  std::atomic<bool> stop{false};
  std::thread churn([&] {
    while (!stop) {
      auto transient = BundleController::create(spare, paramsWith(nullptr));
      transient->scheduleProcess({});
    }
  });

  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
  while (done < Threads * PerThread && std::chrono::steady_clock::now() < deadline) {
    BundleController::update();
    Carafe::Node::processAfterUpdate();
  }
  for (auto& thread : threads)
    thread.join();
  stop = true;
  churn.join();
  BundleController::update();
  Carafe::Node::processAfterUpdate();

  ASSERT_EQ(done.load(), Threads * PerThread);
  for (int t = 0; t < Threads; ++t) {
    ASSERT_EQ(int(seen[t].size()), PerThread);
    for (int i = 0; i < PerThread; ++i)
      ASSERT_EQ(seen[t][size_t(i)], i);
  }
}

TEST(BundleControllerTest, SessionIsBuiltOnceInOrderAndAnnouncesTheTreeThatWasThere)
{
  RemoteNode node(nullptr, "root");
  add<Float>(node, "speed")->setValue(1.5f);
  auto link = std::make_shared<Link>();
  const auto controller = BundleController::create(node, paramsWith(link, false));
  const auto core = controller->core();
  ASSERT_TRUE(core);
  EXPECT_FALSE(core->isInitialized());
  EXPECT_EQ(core->attributeStorage(), nullptr);

  // The registries initialise the session first.
  Bastion::SymbolRegistry* received = controller->symbolRegistryRecv();
  ASSERT_NE(received, nullptr);
  EXPECT_TRUE(core->isInitialized());
  EXPECT_EQ(controller->symbolRegistrySend(), &node.symbolRegistry());
  EXPECT_NE(received, &node.symbolRegistry());
  EXPECT_NE(core->attributeStorage(), nullptr);
  EXPECT_FALSE(core->isEnabled());
  EXPECT_EQ(core->connection(), link);

  std::vector<QByteArray> names;
  for (const auto& entry : core->moduleReceivers())
    names.push_back(entry.first);
  const std::vector<QByteArray> expected = {ModuleNames::SymbolRegistry, ModuleNames::AttributeRemove,
                                            ModuleNames::AttributeNew, ModuleNames::AttributeUpdate,
                                            ModuleNames::OneWayEvent};
  EXPECT_EQ(names, expected);
  ASSERT_EQ(core->senders().size(), 2u);
  EXPECT_EQ(core->senders()[1].get(), core->changeSender());
  // The change sender was the first to ask for a type: its own module got the first number.
  EXPECT_EQ(core->changeSender()->messageType(), core->outgoingTypes().at(ModuleNames::SymbolRegistry));

  // A second initialisation changes nothing.
  AttributeStorage* storage = core->attributeStorage();
  controller->ensureIsInitialized();
  EXPECT_EQ(core->attributeStorage(), storage);
  EXPECT_EQ(core->moduleReceivers().size(), expected.size());

  // The attribute that existed before the session goes out in the first pass as an addition.
  core->sendUpdates();
  ASSERT_EQ(link->passes.size(), 1u);
  const uint32_t newType = core->outgoingTypes().at(ModuleNames::AttributeNew);
  int additions = 0;
  for (const Bundle& bundle : link->passes[0])
    additions += bundle.header().messageType == newType ? 1 : 0;
  EXPECT_EQ(additions, 1);
}

TEST(BundleControllerTest, TwoLinkedSessionsKeepTheirTreesInSync)
{
  RemoteNode a(nullptr, "a");
  RemoteNode b(nullptr, "b");
  Float* speed = add<Float>(a, "speed");
  speed->setValue(1.5f);
  auto* flags = new Carafe::Node(&a, "flags");
  add<Bool>(*flags, "visible")->setValue(true);
  add<Vec2>(a, "pos")->setValue(Quiver::Vector2T<float>(1, 2));
  add<Double>(b, "gain")->setValue(0.25);

  auto toB = std::make_shared<Link>();
  auto toA = std::make_shared<Link>();
  std::vector<QByteArray> bEvents;
  b.eventAddListener("hello", [&](Bastion::BinaryData& data) { bEvents.push_back(data.toByteArray()); });
  const auto ca = BundleController::create(a, paramsWith(toB));
  const auto cb = BundleController::create(b, paramsWith(toA));
  linkTo(*toB, cb);
  linkTo(*toA, ca);
  const auto inSync = [&] { return snapshot(a) == snapshot(b); };

  // The trees that existed before the session meet, and each side hears the other's start.
  ASSERT_TRUE(pumpUntil([&] { return inSync() && ca->peerInitialized() && cb->peerInitialized(); }));
  EXPECT_EQ(snapshot(a).size(), 4u);

  // Changes in both directions.
  speed->setValue(2.5f);
  static_cast<Double*>(a.attribute("gain"))->setValue(0.5);
  static_cast<Vec2*>(b.attribute("pos"))->setValue(Quiver::Vector2T<float>(3, 4));
  ASSERT_TRUE(pumpUntil([&] {
    return inSync() && static_cast<Float*>(b.attribute("speed"))->value() == 2.5f &&
           static_cast<Double*>(b.attribute("gain"))->value() == 0.5;
  }));
  EXPECT_EQ(static_cast<Vec2*>(a.attribute("pos"))->value(), Quiver::Vector2T<float>(3, 4));

  // Additions below new nodes, and removals.
  add<Double>(*new Carafe::Node(&b, "extra"), "depth")->setValue(7.0);
  ASSERT_TRUE(pumpUntil([&] { return inSync() && snapshot(a).count("extra/depth") == 1; }));
  a.removeAttribute("speed");
  ASSERT_TRUE(pumpUntil([&] { return inSync() && b.attribute("speed") == nullptr; }));

  // An event sent into one node arrives at the other's listeners.
  Bastion::BinaryData payload;
  payload.writeString("there");
  const QByteArray sent = payload.toByteArray();
  a.eventProcess("hello", payload);
  ASSERT_TRUE(pumpUntil([&] { return !bEvents.empty(); }));
  EXPECT_EQ(bEvents, std::vector<QByteArray>({sent}));
  EXPECT_FALSE(ca->limitExceeded());
  EXPECT_FALSE(cb->limitExceeded());
}

TEST(BundleControllerTest, ADeepLocalTreeIsWatchedSentAndDeletedWhileThePeerRefusesItsDeepPaths)
{
  onSmallStack(256 * 1024, [] {
    Bastion::LogCapture log;
    RemoteNode a(nullptr, "a");
    RemoteNode b(nullptr, "b");
    // A chain of 4000 nodes named n, with "deep" at the bottom and "n/n/shallow" near the top;
    // built from the bottom up, since adding under a deep node walks the node's hosts.
    constexpr int Depth = 4000;
    auto* top = new Carafe::Node;
    add<Float>(*top, "deep")->setValue(1.f);
    for (int i = 1; i < Depth; ++i) {
      auto* up = new Carafe::Node;
      up->addAttribute("n", top);
      top = up;
      if (i == Depth - 2)
        add<Float>(*up, "shallow")->setValue(2.f);
    }
    a.addAttribute("n", top);
    a.update();
    a.setSyncFlags(RemoteNode::makeRegExp("**/deep"), SyncFlags::Publish);

    auto toB = std::make_shared<Link>();
    auto toA = std::make_shared<Link>();
    const auto ca = BundleController::create(a, paramsWith(toB));
    const auto cb = BundleController::create(b, paramsWith(toA));
    linkTo(*toB, cb);
    linkTo(*toA, ca);
    ASSERT_TRUE(pumpUntil([&] { return ca->peerInitialized() && cb->peerInitialized(); }));
    // The peer took the shallow attribute and refused the deep path, with one line and no nodes.
    const auto mirrored = snapshot(b);
    EXPECT_EQ(mirrored.size(), 1u);
    EXPECT_EQ(mirrored.count("n/n/shallow"), 1u);
    EXPECT_EQ(log.countContaining("SymbolRegistryReceiver::handleBundle # Refused the peer's symbol"), 1);
    EXPECT_EQ(log.countContaining("path of 8004 bytes is over the limit of 512 bytes"), 1);
    EXPECT_FALSE(cb->limitExceeded());

    EXPECT_TRUE(a.removeAttribute("n"));
    ASSERT_TRUE(pumpUntil([&] { return snapshot(b).empty(); }));
  });
}

TEST(BundleControllerTest, AFloodOfPathsStopsAtTheDefaultCapWithOneLineAndNothingMoreIsApplied)
{
  RemoteNode node(nullptr, "n");
  BundleControllerParams params;
  params.createMissingAttributes = true;
  const auto controller = BundleController::create(node, params);
  const auto core = controller->core();
  core->ensureIsInitialized();
  core->loadModule(20, ModuleNames::SymbolRegistry, {});
  core->loadModule(21, ModuleNames::AttributeNew, {});

  // Definitions of 10 paths more than the default cap, then records naming some of them.
  const uint32_t paths = uint32_t(BundleControllerParams::DefaultMaxSymbols) + 10;
  PlexaTest::BundleBytes definitions(20);
  for (uint32_t symbol = 1; symbol <= paths; ++symbol)
    definitions.words({symbol}).blob("p" + QByteArray::number(symbol));
  PlexaTest::BundleBytes records(21);
  for (uint32_t symbol : {1u, paths - 1, paths})
    records.words({symbol, 3, 4, 1, PlexaTest::bitsOf(1.f)});

  Bastion::LogCapture log;
  controller->scheduleProcess({definitions.bundle(), records.bundle()});
  BundleController::update();
  EXPECT_EQ(log.texts(),
            (std::vector<QByteArray>{
                "SymbolRegistryReceiver::handleBundle # Symbol limit of 250000 reached; refusing new paths"}));
  EXPECT_TRUE(controller->limitExceeded());
  EXPECT_EQ(controller->symbolRegistryRecv()->count(), BundleControllerParams::DefaultMaxSymbols);
  EXPECT_EQ(node.attributeCount(), 0);
}
