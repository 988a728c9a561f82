// Records a small tree while it changes, then reads the recording back: the tree as it was at a
// moment in the middle, and every change record by record.

#include "bastion/BinaryData.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/record/Recorder.hpp"
#include "plexa/record/RecordingPlayer.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <QTemporaryDir>

#include <cstdio>

int main()
{
  QTemporaryDir dir;
  const QString fileName = dir.filePath("session.plexrec");

  // The recorder follows the node's tree from `open` to `close`.
  Plexa::RemoteNode scene(nullptr, "scene");
  auto* intensity = new Carafe::AttributeT<float>(0.f);
  scene.addDeepAttribute("light/intensity", intensity);
  scene.processPendingAdditions();
  Plexa::Recorder recorder(scene);
  QString error;
  if (!recorder.open(fileName, &error)) {
    std::fprintf(stderr, "record: %s\n", qPrintable(error));
    return 1;
  }
  int64_t middle = 0;
  for (int i = 1; i <= 10; ++i) {
    intensity->setValue(i / 10.f);
    if (i == 5)
      middle = recorder.elapsedNs();
  }
  Bastion::BinaryData payload;
  payload.writeString("done");
  recorder.recordEvent("finished", payload);
  recorder.close();

  // The tree at the middle moment, played from the nearest snapshot.
  Plexa::Recording recording;
  if (!recording.open(fileName, &error)) {
    std::fprintf(stderr, "record: %s\n", qPrintable(error));
    return 1;
  }
  Plexa::RemoteNode tree(nullptr, "scene");
  Plexa::RecordingPlayer player(tree);
  int events = 0;
  player.setEventCallback([&](const QByteArray& name, Bastion::BinaryData&) { events += name == "finished"; });
  player.playUntil(recording, middle);
  auto* light = dynamic_cast<Carafe::Node*>(tree.attribute("light"));
  auto* played = light ? dynamic_cast<Carafe::AttributeT<float>*>(light->attribute("intensity")) : nullptr;
  std::printf("record: light/intensity was %g in the middle\n", played ? double(played->value()) : -1.0);
  const bool middleRight = played && played->value() == 0.5f;

  // The rest, record by record.
  Plexa::Recording::Record record;
  while (recording.next(record))
    player.apply(record);
  std::printf("record: and %g at the end; %d event; %s\n", played ? double(played->value()) : -1.0, events,
              recording.endedCleanly() ? "closed cleanly" : qPrintable(recording.stopReason()));
  return middleRight && played->value() == 1.f && events == 1 && recording.endedCleanly() ? 0 : 1;
}
