#include "InspectorHub.hpp"

#include "AttributeJson.hpp"
#include "Inspector.hpp"
#include "MirrorNode.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Mutex.hpp"
#include "plexa/app/Peer.hpp"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <chrono>
#include <deque>
#include <map>

using Plexa::Cli::AttributeJson;
using Plexa::Cli::InspectorBrowser;
using Plexa::Cli::InspectorHub;

namespace
{
  /// A page: collects what its sender thread writes.
  class Page
  {
  public:
    Page(InspectorHub& hub)
        : hub(hub)
    {
      browser = hub.addBrowser([this](const QByteArray& message) {
        Bastion::Guard lock(m_mutex);
        m_messages.push_back(QJsonDocument::fromJson(message).object());
        m_arrived.wakeAll();
        return true;
      });
      if (browser)
        browser->start();
    }

    ~Page()
    {
      if (browser)
        hub.removeBrowser(browser);
    }

    /// The next message, or an empty object after two seconds.
    QJsonObject next()
    {
      Bastion::Guard lock(m_mutex);
      if (!m_arrived.waitFor(m_mutex, 2000, [this] { return !m_messages.empty(); }))
        return QJsonObject();
      const QJsonObject message = m_messages.front();
      m_messages.pop_front();
      return message;
    }

    /// True when nothing more arrives within 100 ms.
    bool quiet()
    {
      Bastion::Guard lock(m_mutex);
      return !m_arrived.waitFor(m_mutex, 100, [this] { return !m_messages.empty(); });
    }

    void send(const QByteArray& message) { hub.receive(*browser, message); }

    InspectorHub& hub;
    std::shared_ptr<InspectorBrowser> browser;

  private:
    Bastion::Mutex m_mutex;
    Bastion::Condition m_arrived;
    std::deque<QJsonObject> m_messages;
  };

  QJsonObject set(const QJsonArray& list)
  {
    QJsonObject byPath;
    for (const QJsonValue& item : list)
      byPath.insert(item.toArray().at(0).toString(), item.toArray().at(2));
    return byPath;
  }
}

TEST(InspectorHub, PagesGetASnapshotThenOnlyTheLatestValueOncePerAcknowledgement)
{
  InspectorHub hub(false);
  hub.setAttribute("light/intensity", "float", 0.5);
  hub.setAttribute("light/on", "bool", true);
  hub.setAttribute("name", "string", "key");
  Page page(hub);
  ASSERT_TRUE(page.browser);

  const QJsonObject snapshot = page.next();
  EXPECT_EQ(snapshot.value("op"), "batch");
  EXPECT_EQ(snapshot.value("snapshot"), true);
  EXPECT_EQ(set(snapshot.value("set").toArray()),
            (QJsonObject{{"light/intensity", 0.5}, {"light/on", true}, {"name", "key"}}));

  // Until the page acknowledges, changes wait and the latest value of each wins.
  for (int i = 1; i <= 100; ++i)
    hub.setAttribute("light/intensity", "float", i);
  hub.remove("light");
  hub.setAttribute("added", "int", 7);
  EXPECT_TRUE(page.quiet());

  page.send(R"({"op":"ack"})");
  const QJsonObject batch = page.next();
  EXPECT_EQ(batch.value("snapshot"), false);
  EXPECT_EQ(set(batch.value("set").toArray()), (QJsonObject{{"added", 7}}));
  EXPECT_EQ(batch.value("del").toArray(), (QJsonArray{"light/intensity", "light/on"}));
  EXPECT_EQ(hub.attributeCount(), 2);
  EXPECT_TRUE(page.quiet());

  // A search pattern of the sync flags' kind sends the matching part of the tree afresh.
  hub.setAttribute("a/b/c", "int", 1);
  page.send(R"({"op":"ack"})");
  page.next();
  page.send(R"({"op":"filter","pattern":"a/**"})");
  page.send(R"({"op":"ack"})");
  const QJsonObject filtered = page.next();
  EXPECT_EQ(filtered.value("snapshot"), true);
  EXPECT_EQ(set(filtered.value("set").toArray()), (QJsonObject{{"a/b/c", 1}}));
  hub.setAttribute("name", "string", "other");
  page.send(R"({"op":"ack"})");
  EXPECT_TRUE(page.quiet());
}

TEST(InspectorHub, EventsPagesAndEditsAreBounded)
{
  InspectorHub hub(false);
  Page page(hub);
  EXPECT_EQ(page.next().value("snapshot"), true);
  for (int i = 0; i < InspectorHub::MaxLoggedEvents + 10; ++i)
    hub.addEvent(QString("e%1").arg(i), 4, QJsonArray{i}, true, i == 0);
  // A payload too large to show is logged by name and size.
  hub.addEvent("big", 10000, QJsonArray{QString(InspectorHub::MaxLoggedItemBytes, 'x')}, true, true);
  EXPECT_EQ(hub.loggedEventCount(), InspectorHub::MaxLoggedEvents);
  page.send(R"({"op":"ack"})");
  const QJsonObject batch = page.next();
  const QJsonArray events = batch.value("events").toArray();
  ASSERT_EQ(events.size(), InspectorHub::MaxLoggedEvents);
  EXPECT_EQ(batch.value("droppedEvents"), 11);
  EXPECT_EQ(events.at(0).toObject().value("name"), "e11");
  EXPECT_EQ(events.last().toObject().value("sliced"), true);
  EXPECT_FALSE(events.last().toObject().contains("items"));
  EXPECT_GT(events.last().toObject().value("itemsOmitted").toInt(), InspectorHub::MaxLoggedItemBytes);

  // Edits wait for the application thread up to a limit; the page hears about the rest.
  int wakes = 0;
  hub.setEditCallback([&wakes] { ++wakes; });
  for (int i = 0; i < InspectorHub::MaxPendingEdits + 1; ++i)
    page.send(QString(R"({"op":"set","id":%1,"path":"x","text":"1"})").arg(i).toUtf8());
  EXPECT_EQ(wakes, InspectorHub::MaxPendingEdits);
  const QJsonObject refused = page.next();
  EXPECT_EQ(refused.value("op"), "result");
  EXPECT_EQ(refused.value("id"), InspectorHub::MaxPendingEdits);
  EXPECT_EQ(refused.value("error"),
            QString("x: %1 edits are already waiting; try again").arg(InspectorHub::MaxPendingEdits));
  const std::vector<InspectorHub::Edit> edits = hub.takeEdits();
  ASSERT_EQ(int(edits.size()), InspectorHub::MaxPendingEdits);
  hub.answer(edits.front(), QString());
  const QJsonObject answer = page.next();
  EXPECT_EQ(answer.value("id"), 0);
  EXPECT_TRUE(answer.value("error").isNull());

  std::vector<std::unique_ptr<Page>> more;
  for (int i = 1; i < InspectorHub::MaxBrowsers; ++i)
    more.push_back(std::make_unique<Page>(hub));
  EXPECT_FALSE(Page(hub).browser);
}

TEST(InspectorHub, GarbageFromAPageGetsAnErrorAndNothingElse)
{
  InspectorHub hub(true);
  Page page(hub);
  page.next();
  const auto error = [&page](const QByteArray& message) {
    page.send(message);
    const QJsonObject reply = page.next();
    return reply.value("op") == "error" ? reply.value("message").toString() : reply.value("error").toString();
  };
  EXPECT_TRUE(error("{\"op\":").startsWith("not JSON: "));
  EXPECT_EQ(error("[1,2]"), "expected a JSON object");
  EXPECT_TRUE(error(QByteArray("\0\xff\xfe", 3)).startsWith("not JSON: "));
  EXPECT_EQ(error(R"({"op":"drop tables"})"), "unknown request 'drop tables'");
  EXPECT_EQ(error(R"({"op":"set","id":1,"path":5})"), "an edit needs a path and a text");
  EXPECT_EQ(error(R"({"op":"set","id":2,"path":"a","text":"1"})"), "a: the inspector is read-only (--read-only)");
  EXPECT_TRUE(hub.takeEdits().empty());
  // An oversized message closes the page's connection.
  EXPECT_FALSE(hub.receive(*page.browser, QByteArray(InspectorHub::MaxBrowserMessageBytes + 1, '{')));
  EXPECT_EQ(page.next().value("message"), "message of 65537 bytes refused (at most 65536)");
  EXPECT_TRUE(hub.receive(*page.browser, R"({"op":"filter","pattern":"[(*"})"));
  EXPECT_EQ(error(R"({"op":"filter","pattern":"*********"})"),
            "search pattern refused: at most 256 characters and 8 '*'");
}

TEST(Inspector, PostsTheTreeAndItsChangesAndAppliesThePagesEdits)
{
  Plexa::Cli::MirrorNode tree("tree");
  ASSERT_TRUE(tree.addDeepAttribute("light/intensity", AttributeJson::create("float", 0.5, nullptr)));
  ASSERT_TRUE(tree.addDeepAttribute("count", AttributeJson::create("int", 3, nullptr)));
  Plexa::Peer peer(tree);
  InspectorHub hub(false);
  Plexa::Cli::Inspector inspector(tree, peer, hub, Plexa::Cli::Inspector::Server, "127.0.0.1:1");
  Page page(hub);
  const QJsonObject snapshot = page.next();
  EXPECT_EQ(set(snapshot.value("set").toArray()), (QJsonObject{{"light/intensity", 0.5}, {"count", 3}}));
  EXPECT_EQ(snapshot.value("status").toObject().value("state"), "waiting for peers");

  // Edits: a good value, the error plexa set gives for a bad one, a path gone, a removal.
  page.send(R"({"op":"set","id":1,"path":"count","text":"4"})");
  page.send(R"({"op":"set","id":2,"path":"count","text":"abc"})");
  page.send(R"({"op":"set","id":3,"path":"gone","text":"1"})");
  page.send(R"({"op":"remove","id":4,"path":"light"})");
  peer.update();
  inspector.update();
  std::map<int, QJsonValue> errors;
  for (int i = 0; i < 4; ++i) {
    const QJsonObject result = page.next();
    errors[result.value("id").toInt()] = result.value("error");
  }
  EXPECT_EQ(errors, (std::map<int, QJsonValue>{{1, QJsonValue()},
                                               {2, "count: 'abc' is not a int value (illegal number)"},
                                               {3, "gone: no such attribute (removed meanwhile?)"},
                                               {4, QJsonValue()}}));
  // The peer's events, decoded; plexa set's own requests are left out.
  Bastion::BinaryData payload;
  payload.writeInt32(7);
  payload.writeString("x");
  tree.handleRemoteEvent("ping", payload, 1);
  Bastion::BinaryData request;
  tree.handleRemoteEvent("plexa.sync", request, 1);
  peer.update();
  inspector.update();
  page.send(R"({"op":"ack"})");
  const QJsonObject batch = page.next();
  EXPECT_EQ(set(batch.value("set").toArray()), (QJsonObject{{"count", 4}}));
  EXPECT_EQ(batch.value("del").toArray(), (QJsonArray{"light/intensity"}));
  const QJsonArray events = batch.value("events").toArray();
  ASSERT_EQ(events.size(), 1);
  EXPECT_EQ(events.at(0).toObject().value("name"), "ping");
  EXPECT_EQ(events.at(0).toObject().value("bytes"), payload.size());
  EXPECT_EQ(events.at(0).toObject().value("items"), (QJsonArray{7, "x"}));
  EXPECT_EQ(events.at(0).toObject().value("sliced"), false);
}
