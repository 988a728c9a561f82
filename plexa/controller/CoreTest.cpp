#include "plexa/controller/Core.hpp"

#include "bastion/LogCapture.hpp"
#include "plexa/bundle/BundleOutput.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleTestSupport.hpp"
#include "plexa/bundle/BundleWriter.hpp"
#include "plexa/session/BundleReceiver.hpp"
#include "plexa/session/BundleSender.hpp"
#include "plexa/session/HandshakeReceiver.hpp"
#include "plexa/session/HandshakeSender.hpp"

#include <gtest/gtest.h>

#include <stdexcept>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  /// Records what it was handed; throws on a payload word of 0xBAD.
  class RecordingReceiver : public BundleReceiver
  {
  public:
    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher&) override
    {
      EXPECT_EQ(reader.position, 16u);
      headers.push_back(header);
      payloads.push_back(reader.data->mid(16));
      if (!reader.atEnd() && reader.readValue<uint32_t>() == 0xBAD)
        throw std::out_of_range("receiver failed");
    }
    std::vector<BundleHeader> headers;
    std::vector<QByteArray> payloads;
  };

  /// Writes one bundle with the queued words per pass, under its module's type.
  class FakeSender : public BundleSender
  {
  public:
    FakeSender(const QByteArray& module, std::vector<QByteArray>* journal = nullptr)
        : BundleSender(module)
        , journal(journal)
    {
    }
    void prepareUpdates() override { note("prepare " + moduleName()); }
    void writeUpdates(BundleOutput& output) override
    {
      note("write " + moduleName());
      for (uint32_t w : words)
        writer.core().writeValue(w);
      words.clear();
      writer.close(messageType(), output);
    }
    void initialize(BundleDispatcher& dispatcher) override
    {
      typeAtInitialize = messageType();
      if (!extraModule.isEmpty())
        extraType = dispatcher.messageTypeFor(extraModule);
    }
    void note(const QByteArray& what)
    {
      if (journal)
        journal->push_back(what);
    }

    std::vector<QByteArray>* journal;
    BundleWriter writer;
    std::vector<uint32_t> words;
    uint32_t typeAtInitialize = 0xffffffff;
    QByteArray extraModule;
    uint32_t extraType = 0;
  };

  struct Reply
  {
    QString reply, command, module, description;
    bool operator==(const Reply& o) const
    {
      return reply == o.reply && command == o.command && module == o.module && description == o.description;
    }
  };
  std::ostream& operator<<(std::ostream& os, const Reply& r)
  {
    return os << r.reply.toStdString() << " " << r.command.toStdString() << " " << r.module.toStdString() << " "
              << r.description.toStdString();
  }

  /// The "ok"/"error" records of the core's next handshake bundle.
  std::vector<Reply> takeReplies(Core& core)
  {
    std::vector<Reply> replies;
    for (const Bundle& bundle : core.collect()) {
      if (bundle.header().messageType != 0)
        continue;
      BundleReaderCore reader(bundle.data());
      while (!reader.atEnd()) {
        const uint32_t end = reader.position + 4 + reader.readValue<uint32_t>();
        Reply r;
        reader.readString(r.reply, 1000);
        if (r.reply == "ok" || r.reply == "error") {
          reader.readString(r.command, 1000);
          reader.readString(r.module, 1000);
          EXPECT_EQ(reader.readValue<uint32_t>(), 1u);
          QString key;
          reader.readString(key, 1000);
          EXPECT_EQ(key, "description");
          reader.readString(r.description, 1000);
          replies.push_back(r);
        }
        reader.position = end;
      }
    }
    return replies;
  }

  /// Hands every bundle of `from`'s next pass to `to`, in order.
  std::vector<Bundle> deliver(Core& from, Core& to)
  {
    const std::vector<Bundle> bundles = from.collect();
    for (const Bundle& b : bundles)
      to.dispatchBundle(b);
    return bundles;
  }
}

TEST(CoreTest, UnknownTypeWarnsOnceAndIsAcknowledged)
{
  Core core;
  Bastion::LogCapture log;
  core.dispatchBundle(BundleBytes(7, 4).words({1}));
  core.dispatchBundle(BundleBytes(7, 5));
  core.dispatchBundle(BundleBytes(7, 6).words({2, 3}));
  EXPECT_EQ(log.texts(), std::vector<QByteArray>{"BundleDispatcher::dispatchBundle # Unknown bundle type 7"});
  EXPECT_EQ(log.lines().at(0).first, Bastion::LogLevel::Warning);
  EXPECT_EQ(core.lastDispatched(), 6u);
  ASSERT_EQ(core.receivers().count(7), 1u);
  EXPECT_EQ(core.receivers().at(7), nullptr);
  // Acknowledged goes out with the next pass.
  const std::vector<Bundle> out = core.collect();
  ASSERT_EQ(out.size(), 1u);
  EXPECT_EQ(out[0].header().acknowledged, 6u);
}

TEST(CoreTest, LoadModuleAnswersEveryOutcome)
{
  Core core;
  core.collect(); // the info record
  auto registered = std::make_shared<RecordingReceiver>();
  core.addReceiver("R", registered);
  int created = 0;
  std::vector<QMap<QString, QString>> reloads;
  core.addModuleFactory(
      "M",
      [&](const QMap<QString, QString>&) {
        ++created;
        return std::make_shared<RecordingReceiver>();
      },
      [&](BundleReceiver&, const QMap<QString, QString>& p) { reloads.push_back(p); });
  core.addModuleFactory("Throws", [](const QMap<QString, QString>&) -> std::shared_ptr<BundleReceiver> {
    throw std::invalid_argument("bad parameters");
  });

  const QString lm = "load-module";
  core.loadModule(0, "M", {});
  core.loadModule(3, "M", {});
  core.loadModule(3, "M", {{"k", "v"}});
  core.loadModule(4, "M", {});
  core.loadModule(3, "R", {});
  core.loadModule(5, "Nope", {});
  core.loadModule(6, "Throws", {});
  core.loadModule(7, "R", {});
  core.loadModule(0, "Corvanta.Plexa.Handshake", {});
  EXPECT_EQ(takeReplies(core), (std::vector<Reply>{
                                   {"error", lm, "M", "Not implemented"},
                                   {"ok", lm, "M", "Module loaded successfully"},
                                   {"ok", lm, "M", "Module reloaded successfully"},
                                   {"error", lm, "M", "Tried to reload module with different message type"},
                                   {"error", lm, "R", "Message type already in use"},
                                   {"error", lm, "Nope", "Module not found"},
                                   {"error", lm, "Throws", "bad parameters"},
                                   {"ok", lm, "R", "Module loaded successfully"},
                                   {"ok", lm, "Corvanta.Plexa.Handshake", "Module reloaded successfully"},
                               }));
  EXPECT_EQ(created, 1);
  ASSERT_EQ(reloads.size(), 1u);
  EXPECT_EQ(reloads[0].value("k"), "v");
  EXPECT_EQ(core.receivers().at(7), registered);
  EXPECT_EQ(core.receivers().count(5), 0u);
  ASSERT_EQ(core.modules().size(), 3u);
  EXPECT_EQ(core.modules()[1].name, "M");
  EXPECT_EQ(core.modules()[1].messageType, 3u);
  EXPECT_EQ(core.modules()[2].receiver, registered);
}

TEST(CoreTest, ReloadFailureIsAnsweredWithItsText)
{
  Core core;
  core.collect();
  core.addModuleFactory(
      "M", [](const QMap<QString, QString>&) { return std::make_shared<RecordingReceiver>(); },
      [](BundleReceiver&, const QMap<QString, QString>&) { throw std::runtime_error("cannot reload"); });
  core.loadModule(2, "M", {});
  core.loadModule(2, "M", {});
  EXPECT_EQ(takeReplies(core), (std::vector<Reply>{{"ok", "load-module", "M", "Module loaded successfully"},
                                                   {"error", "load-module", "M", "cannot reload"}}));
}

TEST(CoreTest, NullEntryFromAnEarlierUnknownTypeDoesNotBlockALoad)
{
  Core core;
  core.collect();
  auto receiver = std::make_shared<RecordingReceiver>();
  core.addReceiver("M", receiver);
  Bastion::LogCapture log;
  core.dispatchBundle(BundleBytes(2, 1).words({10}));
  core.loadModule(2, "M", {});
  core.dispatchBundle(BundleBytes(2, 2).words({20}));
  EXPECT_EQ(takeReplies(core), (std::vector<Reply>{{"ok", "load-module", "M", "Module loaded successfully"}}));
  ASSERT_EQ(receiver->payloads.size(), 1u);
  EXPECT_EQ(receiver->payloads[0], QByteArray("\x14\0\0\0", 4));
  EXPECT_EQ(receiver->headers[0].sequence, 2u);
}

TEST(CoreTest, TwoCoresAgreeOnTypesWithinOneBlock)
{
  Core a;
  Core b;
  auto symbols = std::make_shared<FakeSender>("Corvanta.Plexa.SymbolRegistry");
  auto events = std::make_shared<FakeSender>("Corvanta.Plexa.OneWayEvent");
  a.addSender(symbols);
  a.addSender(events);
  auto symbolReceiver = std::make_shared<RecordingReceiver>();
  auto eventReceiver = std::make_shared<RecordingReceiver>();
  b.addReceiver("Corvanta.Plexa.SymbolRegistry", symbolReceiver);
  b.addReceiver("Corvanta.Plexa.OneWayEvent", eventReceiver);
  symbols->words = {11};
  events->words = {22, 23};

  Bastion::LogCapture log;
  const std::vector<Bundle> sent = deliver(a, b);
  ASSERT_EQ(sent.size(), 3u);
  EXPECT_EQ(sent[0].header().messageType, 0u);
  EXPECT_EQ(sent[1].header().messageType, 1u);
  EXPECT_EQ(sent[2].header().messageType, 2u);
  for (uint32_t i = 0; i < 3; ++i) {
    EXPECT_EQ(sent[i].header().sequence, i + 1);
    EXPECT_EQ(sent[i].header().acknowledged, 0u);
  }
  ASSERT_EQ(symbolReceiver->payloads.size(), 1u);
  EXPECT_EQ(symbolReceiver->headers[0].messageType, 1u);
  ASSERT_EQ(eventReceiver->payloads.size(), 1u);
  EXPECT_EQ(eventReceiver->payloads[0].size(), 8);
  EXPECT_EQ(b.lastDispatched(), 3u);

  // B answers "ok" twice (after its own info); A logs nothing.
  const std::vector<Bundle> answers = deliver(b, a);
  ASSERT_EQ(answers.size(), 1u);
  EXPECT_EQ(answers[0].header().sequence, 1u);
  EXPECT_EQ(answers[0].header().acknowledged, 3u);
  EXPECT_EQ(a.lastDispatched(), 1u);
  EXPECT_EQ(a.handshakeReceiver().peerInfo().value("application"), "Plexa");
  EXPECT_TRUE(log.texts().empty());

  // Later passes: no handshake bundle, types already known.
  symbols->words = {12};
  const std::vector<Bundle> later = deliver(a, b);
  ASSERT_EQ(later.size(), 1u);
  EXPECT_EQ(later[0].header().sequence, 4u);
  EXPECT_EQ(later[0].header().acknowledged, 1u);
  EXPECT_EQ(symbolReceiver->payloads.size(), 2u);
}

TEST(CoreTest, RefusedModuleIsLoggedOnceAndItsBundlesDropped)
{
  Core a;
  Core b;
  auto sender = std::make_shared<FakeSender>("Corvanta.Plexa.AttributeNew");
  a.addSender(sender);
  sender->words = {1};
  Bastion::LogCapture log;
  deliver(a, b);
  deliver(b, a);
  sender->words = {2};
  deliver(a, b);
  EXPECT_EQ(log.texts(),
            (std::vector<QByteArray>{"BundleDispatcher::dispatchBundle # Unknown bundle type 1",
                                     "HandshakeReceiver::handleBundle # error, command: load-module, module: "
                                     "Corvanta.Plexa.AttributeNew, additional info: description: Module not found"}));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, log.texts().at(1)));
}

TEST(CoreTest, SendersAreRegisteredAndRunInOrder)
{
  Core core;
  std::vector<QByteArray> journal;
  auto first = std::make_shared<FakeSender>("X", &journal);
  first->extraModule = "Y";
  auto second = std::make_shared<FakeSender>("Y", &journal);
  core.addSender(first);
  core.addSender(second);
  EXPECT_EQ(first->typeAtInitialize, 1u);
  EXPECT_EQ(first->extraType, 2u);
  EXPECT_EQ(second->messageType(), 2u); // cached: no second request for "Y"
  EXPECT_EQ(core.outgoingTypes().size(), 2u);
  ASSERT_EQ(core.senders().size(), 3u);
  EXPECT_EQ(core.senders()[0].get(), &core.handshakeSender());

  first->words = {1};
  const std::vector<Bundle> out = core.collect();
  EXPECT_EQ(journal, (std::vector<QByteArray>{"prepare X", "prepare Y", "write X", "write Y"}));
  ASSERT_EQ(out.size(), 2u);
  EXPECT_EQ(out[0].header().messageType, 0u);
  EXPECT_EQ(out[1].header().messageType, 1u);
  EXPECT_EQ(core.sendCounter(), 3u);
  // The handshake bundle: info, then exactly two load-module requests.
  EXPECT_EQ(core.handshakeSender().nextMessageType(), 3u);
}

TEST(CoreTest, ThrowingReceiverStillAdvancesAcknowledged)
{
  Core core;
  auto receiver = std::make_shared<RecordingReceiver>();
  core.addReceiver("M", receiver);
  core.loadModule(1, "M", {});
  EXPECT_THROW(core.dispatchBundle(BundleBytes(1, 8).words({0xBAD})), std::out_of_range);
  EXPECT_EQ(core.lastDispatched(), 8u);
  core.dispatchBundle(BundleBytes(1, 9).words({1}));
  EXPECT_EQ(core.lastDispatched(), 9u);
  EXPECT_EQ(receiver->payloads.size(), 2u);

  // Shorter than a header: out of range, nothing dispatched.
  EXPECT_THROW(core.dispatchBundle(Bundle(QByteArray(15, '\1'))), std::out_of_range);
  EXPECT_EQ(core.lastDispatched(), 9u);
}

TEST(CoreTest, TasksBehindAThrowingTaskRunAtTheNextCallInOrder)
{
  Core core;
  std::vector<int> ran;
  core.addTask([&](Core&) { ran.push_back(1); });
  core.addTask([&](Core&) {
    ran.push_back(2);
    throw std::runtime_error("task failed");
  });
  core.addTask([&](Core& c) {
    ran.push_back(3);
    c.addTask([&](Core&) { ran.push_back(5); });
  });
  core.addTask([&](Core&) { ran.push_back(4); });
  EXPECT_THROW(core.runTasks(), std::runtime_error);
  EXPECT_EQ(ran, std::vector<int>({1, 2}));
  core.addTask([&](Core&) { ran.push_back(6); });
  core.runTasks();
  EXPECT_EQ(ran, std::vector<int>({1, 2, 3, 4, 6}));
  core.runTasks();
  EXPECT_EQ(ran, std::vector<int>({1, 2, 3, 4, 6, 5}));
}
