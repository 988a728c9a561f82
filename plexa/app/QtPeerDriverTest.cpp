// Two peers driven by one Qt event loop, with no timer of their own and no polling.

#include "plexa/app/QtPeerDriver.hpp"
#include "plexa/app/PeerTestSupport.hpp"

#include "carafe/AttributeT.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <QCoreApplication>
#include <QTimer>

#include <gtest/gtest.h>

using namespace Plexa;
using namespace PlexaTest;

TEST(QtPeerDriverTest, ChangesAndAdditionsCrossBetweenEventLoopDrivenPeers)
{
  int argc = 1;
  char name[] = "QtPeerDriverTest";
  char* argv[] = {name, nullptr};
  QCoreApplication app(argc, argv);

  RemoteNode serverNode(nullptr, "scene"), clientNode(nullptr, "scene");
  auto* value = new Carafe::AttributeT<int>(1);
  ASSERT_TRUE(serverNode.addAttribute("value", value));
  Peer server(serverNode), client(clientNode);
  QString error;
  ASSERT_TRUE(server.listen("127.0.0.1", 0, &error)) << error.toStdString();
  QtPeerDriver serverDriver(server), clientDriver(client);

  std::vector<QString> connections;
  QObject::connect(&clientDriver, &QtPeerDriver::connectionChanged, [&](const QString& address, bool connected) {
    connections.push_back((connected ? "+" : "-") + address);
  });
  // A fetch with no session fails at the update that its own wake-up runs.
  std::vector<std::pair<QString, FetchResult>> fetches;
  QObject::connect(&clientDriver, &QtPeerDriver::fetchFinished,
                   [&](const QString& path, FetchResult result) { fetches.emplace_back(path, result); });
  clientDriver.fetch("/nothing", 60000);

  // The steps run from the drivers' own updates: the tree arrives, a change on the server
  // follows it, and then an attribute the client adds goes the other way.
  int step = 0;
  QObject::connect(&clientDriver, &QtPeerDriver::updated, [&] {
    auto* mirrored = attributeAt<Carafe::AttributeT<int>>(clientNode, "value");
    if (step == 0 && mirrored && mirrored->value() == 1 && client.initializedSessionCount() == 1) {
      step = 1;
      value->setValue(2);
    } else if (step == 1 && mirrored && mirrored->value() == 2) {
      step = 2;
      ASSERT_TRUE(clientNode.addAttribute("added", new Carafe::AttributeT<int>(7)));
    }
  });
  QObject::connect(&serverDriver, &QtPeerDriver::updated, [&] {
    auto* added = attributeAt<Carafe::AttributeT<int>>(serverNode, "added");
    if (step == 2 && added && added->value() == 7) {
      step = 3;
      app.quit();
    }
  });
  bool timedOut = false;
  QTimer::singleShot(10000, &app, [&] {
    timedOut = true;
    app.quit();
  });
  client.connectTo("127.0.0.1", server.listeningPort());
  app.exec();

  EXPECT_FALSE(timedOut) << "stopped at step " << step;
  EXPECT_EQ(step, 3);
  EXPECT_EQ(connections, std::vector<QString>{QString("+127.0.0.1:%1").arg(server.listeningPort())});
  ASSERT_EQ(fetches.size(), 1u);
  EXPECT_EQ(fetches[0].first, "/nothing");
  EXPECT_EQ(fetches[0].second, FetchResult::Failed);
}
