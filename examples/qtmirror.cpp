// The mirror example in a Qt application: the same two peers, driven by the event loop that
// QCoreApplication::exec() runs. Nothing polls: each Peer's update runs when it has work, and
// the connection callbacks arrive as Qt signals.

#include "carafe/AttributeT.hpp"
#include "plexa/app/Peer.hpp"
#include "plexa/app/QtPeerDriver.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <QCoreApplication>
#include <QTimer>

#include <cstdio>

int main(int argc, char** argv)
{
  QCoreApplication app(argc, argv);

  // The publishing side.
  Plexa::RemoteNode scene(nullptr, "scene");
  auto* intensity = new Carafe::AttributeT<float>(0.5f);
  scene.addDeepAttribute("light/intensity", intensity);
  Plexa::Peer server(scene);
  QString error;
  if (!server.listen("127.0.0.1", 0, &error)) {
    std::fprintf(stderr, "qtmirror: %s\n", qPrintable(error));
    return 1;
  }
  Plexa::QtPeerDriver serverDriver(server);

  // The mirroring side; once the first value arrived, change it on the publishing side.
  Plexa::RemoteNode mirror(nullptr, "scene");
  Plexa::Peer client(mirror);
  Plexa::QtPeerDriver clientDriver(client);
  QObject::connect(&clientDriver, &Plexa::QtPeerDriver::connectionChanged, [](const QString& address, bool connected) {
    std::printf("qtmirror: %s %s\n", connected ? "connected to" : "disconnected from", qPrintable(address));
  });
  mirror.onChangeImpl(Plexa::RemoteNode::makeRegExp("light/intensity"), [&](Carafe::Attribute* attribute) {
    auto* value = dynamic_cast<Carafe::AttributeT<float>*>(attribute);
    if (!value)
      return;
    std::printf("qtmirror: light/intensity is now %g\n", double(value->value()));
    if (value->value() == 0.5f)
      intensity->setValue(0.75f);
    else if (value->value() == 0.75f)
      app.exit(0);
  });
  client.connectTo("127.0.0.1", server.listeningPort());

  QTimer::singleShot(10000, &app, [&] {
    std::fprintf(stderr, "qtmirror: the change did not arrive\n");
    app.exit(1);
  });
  const int status = app.exec();
  if (status == 0)
    std::printf("qtmirror: done\n");
  return status;
}
