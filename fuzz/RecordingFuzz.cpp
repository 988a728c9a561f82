// Feeds arbitrary bytes to the recording reader as a file: open, read every record, play each into
// a tree, and build the tree at a time in the middle from the nearest snapshot. Nothing a file holds
// may crash, hang or trip a sanitizer; damaged records end the reading or are skipped.

#include "plexa/record/RecordingPlayer.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdint>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static const QString fileName = QDir::temp().filePath(QString("RecordingFuzz-%1.plexrec").arg(::getpid()));
  static const bool quiet = [] {
    Bastion::setLogLevel(Bastion::LogLevel::Error);
    return true;
  }();
  (void)quiet;
  {
    QFile file(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
      return 0;
    file.write(reinterpret_cast<const char*>(data), qint64(size));
  }
  Plexa::Recording recording;
  if (!recording.open(fileName))
    return 0;
  Plexa::RemoteNode tree(nullptr, "tree");
  Plexa::RecordingPlayer player(tree);
  int64_t events = 0;
  player.setEventCallback([&](const QByteArray&, Bastion::BinaryData& payload) { events += payload.size(); });
  Plexa::Recording::Record record;
  int64_t last = 0;
  while (recording.next(record)) {
    player.apply(record);
    last = record.timeNs;
  }
  Plexa::RemoteNode at(nullptr, "tree");
  Plexa::RecordingPlayer atPlayer(at);
  atPlayer.playUntil(recording, last / 2);
  return 0;
}
