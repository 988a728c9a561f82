// Feeds arbitrary bytes to the recording reader as a file: open, read every record, play each into
// a tree, and build the tree at a time in the middle from the nearest snapshot. Each input is read
// twice: as it is, and with the checksums of its header and records made right, so that mutated
// record contents (batch items among them) reach the decoders instead of stopping at the checksum. Nothing a file holds
// may crash, hang or trip a sanitizer; damaged records end the reading or are skipped.

#include "plexa/record/RecordFormat.hpp"
#include "plexa/record/RecordingPlayer.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"

#include <QCoreApplication>
#include <QDir>
#include <QFile>

#include <cstdint>
#include <cstring>
#include <unistd.h>

namespace
{
  uint32_t wordAt(const QByteArray& bytes, int64_t at)
  {
    uint32_t value;
    std::memcpy(&value, bytes.constData() + at, 4);
    return value;
  }

  void putChecksum(QByteArray& bytes, int64_t bodyAt, uint32_t length, int64_t at)
  {
    const uint32_t sum = Plexa::RecordFormat::checksum(bytes.constData() + bodyAt, length);
    std::memcpy(bytes.data() + at, &sum, 4);
  }

  /// Makes the checksums of the header and of every frame that fits right.
  void fixChecksums(QByteArray& bytes)
  {
    const int64_t size = bytes.size();
    if (size < 16)
      return;
    const uint32_t header = wordAt(bytes, 12);
    if (16 + int64_t(header) + 4 > size)
      return;
    putChecksum(bytes, 16, header, 16 + header);
    for (int64_t at = 20 + header; at + 8 <= size;) {
      const uint32_t length = wordAt(bytes, at);
      if (length < 12 || at + 8 + length > size)
        return;
      putChecksum(bytes, at + 8, length, at + 4);
      at += 8 + length;
    }
  }

  void readRecording(const QString& fileName, const QByteArray& bytes)
  {
    {
      QFile file(fileName);
      if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return;
      file.write(bytes);
    }
    Plexa::Recording recording;
    if (!recording.open(fileName))
      return;
    Plexa::RemoteNode tree(nullptr, "tree");
    Plexa::RecordingPlayer player(tree);
    player.setMaxCreated(10000);
    int64_t events = 0;
    player.setEventCallback([&](const QByteArray&, Bastion::BinaryData& payload) { events += payload.size(); });
    // A replay runs its peer between the items of a batch: the tree's listeners run mid-batch.
    player.setItemCallback([&tree] { tree.update(); });
    Plexa::Recording::Record record;
    int64_t last = 0;
    while (recording.next(record)) {
      player.apply(record);
      last = record.timeNs;
    }
    Plexa::RemoteNode at(nullptr, "tree");
    Plexa::RecordingPlayer atPlayer(at);
    atPlayer.setMaxCreated(10000);
    atPlayer.playUntil(recording, last / 2);
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static const QString fileName = QDir::temp().filePath(QString("RecordingFuzz-%1.plexrec").arg(::getpid()));
  static const bool quiet = [] {
    Bastion::setLogLevel(Bastion::LogLevel::Error);
    return true;
  }();
  (void)quiet;
  QByteArray bytes(reinterpret_cast<const char*>(data), int(size));
  readRecording(fileName, bytes);
  fixChecksums(bytes);
  readRecording(fileName, bytes);
  return 0;
}
