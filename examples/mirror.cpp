// Publishes a small tree from one peer, mirrors it in a second peer over loopback, and reacts when
// the mirrored value changes. Both peers live in this one process for brevity; in an application
// they sit in two programs, each running the same loop.

#include "carafe/AttributeT.hpp"
#include "plexa/app/Peer.hpp"
#include "plexa/app/Version.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <QElapsedTimer>

#include <cstdio>

int main()
{
  // The publishing side: a tree under a RemoteNode, and a Peer listening on a free loopback port.
  Plexa::RemoteNode scene(nullptr, "scene");
  auto* intensity = new Carafe::AttributeT<float>(0.5f);
  scene.addDeepAttribute("light/intensity", intensity);
  Plexa::Peer server(scene);
  QString error;
  if (!server.listen("127.0.0.1", 0, &error)) {
    std::fprintf(stderr, "mirror: %s\n", qPrintable(error));
    return 1;
  }

  // The mirroring side: an empty RemoteNode that the peer fills in.
  Plexa::RemoteNode mirror(nullptr, "scene");
  float seen = -1;
  mirror.onChangeImpl(Plexa::RemoteNode::makeRegExp("light/intensity"), [&](Carafe::Attribute* attribute) {
    if (auto* value = dynamic_cast<Carafe::AttributeT<float>*>(attribute)) {
      seen = value->value();
      std::printf("mirror: light/intensity is now %g\n", double(seen));
    }
  });
  Plexa::Peer client(mirror);
  client.connectTo("127.0.0.1", server.listeningPort());

  // Both loops; once the first value arrived, change it on the publishing side.
  QElapsedTimer clock;
  clock.start();
  bool changed = false;
  while (clock.elapsed() < 10000 && seen != 0.75f) {
    server.waitAndUpdate(5);
    client.waitAndUpdate(5);
    if (!changed && seen == 0.5f) {
      intensity->setValue(0.75f);
      changed = true;
    }
  }
  if (seen != 0.75f) {
    std::fprintf(stderr, "mirror: the change did not arrive\n");
    return 1;
  }
  std::printf("mirror: done (Plexa %s)\n", qPrintable(Plexa::version()));
  return 0;
}
