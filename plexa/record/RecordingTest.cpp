// Recorder and Recording together: a tree with every type recorded and played back (whole and up
// to a time), and files cut or damaged anywhere in their last records.

#include "plexa/app/PeerTestSupport.hpp"
#include "plexa/app/Version.hpp"
#include "plexa/record/RecordFormat.hpp"
#include "plexa/record/Recorder.hpp"
#include "plexa/record/RecordingPlayer.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/LogCapture.hpp"
#include "carafe/AttributeT.hpp"
#include "plexa/files/FileTestSupport.hpp"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <limits>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  using Int = Carafe::AttributeT<int>;
  using Text = Carafe::AttributeT<QString>;

  struct Read
  {
    std::vector<int64_t> ends; // where each whole record ends
    bool opened = false;
    QString error;
  };

  Read readAll(const QString& fileName, Recording& recording)
  {
    Read result;
    result.opened = recording.open(fileName, &result.error);
    Recording::Record record;
    while (result.opened && recording.next(record))
      result.ends.push_back(record.offset + RecordFormat::FrameSize + record.body->size());
    return result;
  }
}

TEST(RecordingTest, EveryTypeChangeRemovalAndEventPlaysBackAndTheTreeAtEachTimeIsTheLiveOne)
{
  QTemporaryDir dir;
  const QString fileName = dir.filePath("session.plexrec");
  RemoteNode live(nullptr, "scene");
  auto* all = new Carafe::Node(&live, "all");
  for (uint32_t id : TypeRegistry().registeredTypeIds())
    all->addAttribute("t" + QByteArray::number(id), sampleAttribute(id));
  live.processPendingAdditions();

  RecorderOptions options;
  options.bufferBytes = 4096;
  options.batchBytes = 1024;
  options.snapshotBytes = 1000;
  options.snapshotSeconds = 0;
  Recorder recorder(live, options);
  ASSERT_TRUE(recorder.open(fileName));
  std::vector<std::pair<int64_t, TreeState>> states;
  auto mark = [&] { states.push_back({recorder.elapsedNs(), treeState(live)}); };
  mark();

  auto* count = new Int(0);
  live.addDeepAttribute("deep/er/count", count);
  live.processPendingAdditions();
  for (int i = 1; i <= 300; ++i) {
    count->setValue(i);
    if (i % 100 == 0)
      mark();
  }
  all->removeAttribute("t3");
  live.addDeepAttribute("name", new Text("first"));
  live.processPendingAdditions();
  mark();
  attributeAt<Text>(live, "name")->setValue("second");
  live.removeAttribute("all");
  mark();

  Bastion::BinaryData small, large;
  small.writeString("there");
  large.writeBlob(QByteArray(100000, 'x'));
  recorder.recordEvent("hello", small);
  recorder.recordEvent("big", large);
  recorder.close();
  EXPECT_TRUE(recorder.errorString().isEmpty());
  EXPECT_EQ(recorder.valueCount(), 303u); // 2 additions, 301 changes

  // Played whole: the live tree at the end and both events.
  Recording recording;
  ASSERT_TRUE(recording.open(fileName));
  EXPECT_EQ(recording.plexaVersion(), Plexa::version());
  RemoteNode played(nullptr, "scene");
  RecordingPlayer player(played);
  std::vector<std::pair<QByteArray, QByteArray>> events;
  player.setEventCallback([&](const QByteArray& name, Bastion::BinaryData& data) {
    events.push_back({name, data.toByteArray()});
  });
  // The periodic snapshots in between bring no news: the played tree changes as often as the live one.
  int changes = 0;
  played.addAttributeChangeListener(
      [&](const NodeWatcher::Event& e) { changes += e.type == NodeWatcher::AttributeChanged; });
  Recording::Record record;
  int64_t largest = 0;
  while (recording.next(record)) {
    EXPECT_TRUE(player.apply(record));
    if (record.kind != RecordFormat::Event)
      largest = std::max<int64_t>(largest, RecordFormat::FrameSize + record.body->size());
  }
  EXPECT_TRUE(recording.endedCleanly()) << recording.stopReason().toStdString();
  EXPECT_EQ(treeState(played), states.back().second);
  EXPECT_EQ(changes, 301);
  EXPECT_EQ(events, (std::vector<std::pair<QByteArray, QByteArray>>{{"hello", small.toByteArray()},
                                                                    {"big", large.toByteArray()}}));
  // The buffer stayed within its size plus one record (the events went through as one record each).
  EXPECT_LE(recorder.peakBufferBytes(),
            options.bufferBytes + options.batchBytes + std::max<int64_t>(largest, large.size() + 64));

  // The tree at each marked time, from the nearest snapshot: periodic ones were written.
  EXPECT_GT(recording.scanSnapshots().size(), 3u);
  for (const auto& state : states) {
    RemoteNode at(nullptr, "scene");
    RecordingPlayer atPlayer(at);
    atPlayer.playUntil(recording, state.first);
    EXPECT_EQ(treeState(at), state.second) << "at " << state.first << " ns";
  }
}

TEST(RecordingTest, ACutOrDamagedFileReadsUpToItsLastWholeRecordAndSaysWhere)
{
  QTemporaryDir dir;
  const QString fileName = dir.filePath("whole.plexrec");
  RemoteNode live(nullptr, "scene");
  live.addDeepAttribute("a/b", new Int(1));
  live.processPendingAdditions();
  {
    Recorder recorder(live);
    ASSERT_TRUE(recorder.open(fileName));
    for (int i = 2; i < 6; ++i)
      attributeAt<Int>(live, "a/b")->setValue(i);
    Bastion::BinaryData payload;
    payload.writeString("x");
    recorder.recordEvent("ping", payload);
  }
  // A split recording: the first part names the next, which starts with the tree as it was.
  const QString secondName = dir.filePath("second.plexrec");
  {
    Recorder recorder(live);
    ASSERT_TRUE(recorder.open(dir.filePath("first.plexrec")));
    attributeAt<Int>(live, "a/b")->setValue(10);
    ASSERT_TRUE(recorder.split(secondName));
    attributeAt<Int>(live, "a/b")->setValue(11);
  }
  Recording first;
  readAll(dir.filePath("first.plexrec"), first);
  EXPECT_TRUE(first.endedCleanly());
  EXPECT_EQ(first.nextFile(), secondName);
  Recording second;
  ASSERT_TRUE(second.open(secondName));
  RemoteNode fromSecond(nullptr, "scene");
  RecordingPlayer(fromSecond).playUntil(second, std::numeric_limits<int64_t>::max());
  EXPECT_EQ(treeState(fromSecond), treeState(live));

  const QByteArray bytes = readFile(fileName);
  Recording whole;
  const Read all = readAll(fileName, whole);
  ASSERT_TRUE(all.opened);
  ASSERT_GE(all.ends.size(), 4u); // snapshot, the changes in one or more batches, event, end
  EXPECT_EQ(all.ends.back(), bytes.size());
  EXPECT_TRUE(whole.endedCleanly());

  const QString cutName = dir.filePath("cut.plexrec");
  for (int64_t cut = all.ends[all.ends.size() - 4]; cut < bytes.size(); ++cut) {
    ASSERT_TRUE(writeFile(cutName, bytes.left(int(cut))));
    Recording recording;
    const Read read = readAll(cutName, recording);
    ASSERT_TRUE(read.opened) << read.error.toStdString();
    const auto wholeRecords = std::upper_bound(all.ends.begin(), all.ends.end(), cut) - all.ends.begin();
    ASSERT_EQ(int64_t(read.ends.size()), int64_t(wholeRecords)) << "cut at " << cut;
    EXPECT_EQ(recording.stoppedAt(), read.ends.back());
    EXPECT_FALSE(recording.endedCleanly());
    const bool atBoundary = read.ends.back() == cut;
    EXPECT_TRUE(recording.stopReason().contains(atBoundary ? "without the end record" : "record cut at byte"))
        << recording.stopReason().toStdString();
  }

  // A changed byte in the third record: the first two are read, and the reader says why it stopped.
  QByteArray damaged = bytes;
  damaged[int(all.ends[1] + 13)] = char(damaged[int(all.ends[1] + 13)] ^ 0x40);
  ASSERT_TRUE(writeFile(cutName, damaged));
  Recording recording;
  EXPECT_EQ(readAll(cutName, recording).ends.size(), 2u);
  EXPECT_EQ(recording.stopReason(), QString("damaged record at byte %1 (checksum mismatch)").arg(all.ends[1]));
  // A batch whose checksum matches but whose first item claims more bytes than the body holds: the
  // player skips the batch with a warning and goes on.
  {
    QByteArray hostile = bytes;
    const int frame = int(all.ends[0]);
    const uint32_t length = uint32_t(RecordFormat::MaxRecordBytes) | RecordFormat::Changed;
    std::memcpy(hostile.data() + frame + 8 + RecordFormat::BodyHeaderSize, &length, 4);
    const uint32_t bodySize = *reinterpret_cast<const uint32_t*>(hostile.constData() + frame);
    const uint32_t sum = RecordFormat::checksum(hostile.constData() + frame + 8, bodySize);
    std::memcpy(hostile.data() + frame + 4, &sum, 4);
    ASSERT_TRUE(writeFile(cutName, hostile));
    Bastion::LogCapture log(Bastion::LogLevel::Warning);
    RemoteNode played(nullptr, "scene");
    RecordingPlayer player(played);
    ASSERT_TRUE(recording.open(cutName));
    int failed = 0;
    for (Recording::Record record; recording.next(record);)
      failed += !player.apply(record);
    EXPECT_EQ(failed, 1);
    EXPECT_EQ(log.texts(), std::vector<QByteArray>{QString("RecordingPlayer # batch record at byte %1 skipped: "
                                                           "damaged record")
                                                       .arg(frame)
                                                       .toUtf8()});
  }

  // Without a whole header there is nothing to read.
  const int64_t headerEnd = whole.firstRecordOffset();
  for (int64_t cut : {int64_t(0), int64_t(7), headerEnd - 1}) {
    ASSERT_TRUE(writeFile(cutName, bytes.left(int(cut))));
    const Read read = readAll(cutName, recording);
    EXPECT_FALSE(read.opened);
    EXPECT_FALSE(read.error.isEmpty());
  }
  // A change as a record of its own, as version 1 files hold them, still applies.
  {
    RemoteNode played(nullptr, "scene");
    RecordingPlayer player(played);
    ASSERT_TRUE(whole.seek(whole.firstRecordOffset()));
    Recording::Record record;
    ASSERT_TRUE(whole.next(record) && player.apply(record));
    QByteArray body;
    BundleWriterCore writer(body);
    writer.writeValue(uint32_t(RecordFormat::Changed));
    writer.writeValue(int64_t(1));
    writer.writeValue(live.symbolRegistry().lookup("a/b"));
    const uint32_t block = writer.beginBlock();
    writer.writeValue(int32_t(42));
    writer.endBlock(block);
    record.kind = RecordFormat::Changed;
    record.body = &body;
    EXPECT_TRUE(player.apply(record));
    EXPECT_EQ(attributeAt<Int>(played, "a/b")->value(), 42);
  }
  // A player creates no more objects than its cap, and says so once.
  {
    Bastion::LogCapture log;
    RemoteNode capped(nullptr, "scene");
    RecordingPlayer player(capped);
    player.setMaxCreated(1);
    ASSERT_TRUE(whole.seek(whole.firstRecordOffset()));
    Recording::Record record;
    while (whole.next(record))
      player.apply(record);
    EXPECT_EQ(player.createdCount(), 1);
    EXPECT_TRUE(treeState(capped).empty());
    EXPECT_EQ(log.texts(),
              std::vector<QByteArray>{
                  "RecordingPlayer # a/b not created: the recording has more than 1 attributes and nodes"});
  }

  // A full disk: the recorder says so and stops.
  {
    Recorder full(live);
    QString error;
    EXPECT_FALSE(full.open("/dev/full", &error));
    EXPECT_EQ(error, "cannot write /dev/full: No space left on device");
  }

  QByteArray newer = bytes;
  newer[8] = 3;
  ASSERT_TRUE(writeFile(cutName, newer));
  const Read read = readAll(cutName, recording);
  EXPECT_TRUE(read.error.endsWith("recording format version 3, this program reads up to 2"))
      << read.error.toStdString();
}

TEST(RecordingTest, TheEndRecordIndexesTheSnapshotsAndAGrowingOrSplitRecordingReadsOn)
{
  QTemporaryDir dir;
  const QString fileName = dir.filePath("indexed.plexrec");
  RemoteNode live(nullptr, "scene");
  auto* count = new Int(0);
  live.addDeepAttribute("a/count", count);
  live.processPendingAdditions();
  RecorderOptions options;
  options.snapshotBytes = 700;
  options.snapshotSeconds = 0;
  options.batchBytes = 512;
  std::vector<std::pair<int64_t, TreeState>> states;
  {
    Recorder recorder(live, options);
    ASSERT_TRUE(recorder.open(fileName));
    for (int i = 1; i <= 1000; ++i) {
      count->setValue(i);
      if (i % 250 == 0)
        states.push_back({recorder.elapsedNs(), treeState(live)});
    }
  }
  Recording recording;
  ASSERT_TRUE(recording.open(fileName));
  std::vector<Recording::SnapshotMark> index;
  QString next;
  ASSERT_TRUE(recording.readIndex(index, next));
  EXPECT_TRUE(next.isEmpty());
  // The changes went into batches: 12 bytes per int change (head word, symbol, value), one frame
  // and one time per batch.
  int64_t batchBytes = 0, batches = 0;
  for (Recording::Record record; recording.next(record);)
    if (record.kind == RecordFormat::Batch) {
      batchBytes += RecordFormat::FrameSize + record.body->size();
      ++batches;
    }
  EXPECT_EQ(batchBytes, 1000 * 12 + batches * (RecordFormat::FrameSize + RecordFormat::BodyHeaderSize));
  EXPECT_LE(batches, 1000 * 12 / 500 + 8);
  const std::vector<Recording::SnapshotMark> scanned = recording.scanSnapshots();
  ASSERT_GT(scanned.size(), 5u);
  ASSERT_EQ(index.size(), scanned.size());
  for (size_t i = 0; i < index.size(); ++i)
    EXPECT_TRUE(index[i].timeNs == scanned[i].timeNs && index[i].offset == scanned[i].offset) << "snapshot " << i;

  // A damaged record early on stops a reader that starts at the beginning; through the index the
  // tree at a later time is found as the whole file gives it. A cut copy has no index and is
  // scanned: the same trees.
  const QByteArray bytes = readFile(fileName);
  QByteArray damaged = bytes;
  damaged[int(scanned[1].offset + 13)] = char(damaged[int(scanned[1].offset + 13)] ^ 0x40);
  const QString damagedName = dir.filePath("damaged.plexrec");
  const QString cutName = dir.filePath("cut.plexrec");
  ASSERT_TRUE(writeFile(damagedName, damaged));
  ASSERT_TRUE(writeFile(cutName, bytes.left(int(bytes.size() - 4))));
  for (const auto& state : states) {
    for (const QString& name : {fileName, damagedName, cutName}) {
      Recording reading;
      ASSERT_TRUE(reading.open(name));
      RemoteNode at(nullptr, "scene");
      RecordingPlayer(at).playUntil(reading, state.first);
      EXPECT_EQ(treeState(at), state.second) << name.toStdString() << " at " << state.first << " ns";
    }
  }

  // A file still being written, here one cut in the middle of a record: it reads to the cut,
  // and on once the rest has come.
  const int64_t half = scanned[3].offset + 10;
  const QString growingName = dir.filePath("growing.plexrec");
  ASSERT_TRUE(writeFile(growingName, bytes.left(int(half))));
  Recording growing;
  ASSERT_TRUE(growing.open(growingName));
  Recording::Record record;
  int records = 0;
  while (growing.next(record))
    ++records;
  EXPECT_TRUE(growing.stopReason().startsWith("record cut at byte")) << growing.stopReason().toStdString();
  EXPECT_FALSE(growing.refresh());
  {
    QFile file(growingName);
    ASSERT_TRUE(file.open(QIODevice::Append));
    file.write(bytes.mid(int(half)));
  }
  EXPECT_TRUE(growing.refresh());
  int64_t lastEnd = 0;
  while (growing.next(record)) {
    ++records;
    lastEnd = record.offset + RecordFormat::FrameSize + record.body->size();
  }
  EXPECT_TRUE(growing.endedCleanly()) << growing.stopReason().toStdString();
  EXPECT_EQ(lastEnd, bytes.size());
  Recording whole;
  Read all = readAll(fileName, whole);
  EXPECT_EQ(records, int(all.ends.size()));

  // A split recording reads on from file to file, and the tree at a time is found from the file
  // it falls in. A file that names one already read as its next ends the reading.
  const QString a = dir.filePath("a.plexrec"), b = dir.filePath("b.plexrec"), c = dir.filePath("c.plexrec");
  std::vector<std::pair<int64_t, TreeState>> parts;
  {
    Recorder recorder(live, options);
    ASSERT_TRUE(recorder.open(a));
    for (const QString& name : {b, c}) {
      count->setValue(count->value() + 1);
      parts.push_back({recorder.elapsedNs(), treeState(live)});
      ASSERT_TRUE(recorder.split(name));
    }
    count->setValue(count->value() + 1);
    parts.push_back({recorder.elapsedNs(), treeState(live)});
  }
  const QStringList names{a, b, c};
  for (size_t i = 0; i < parts.size(); ++i) {
    Recording reading;
    ASSERT_TRUE(reading.open(a));
    RemoteNode at(nullptr, "scene");
    RecordingPlayer(at).playUntil(reading, parts[i].first);
    EXPECT_EQ(treeState(at), parts[i].second) << "part " << i;
    EXPECT_EQ(reading.fileName(), names[int(i)]);
  }
  ASSERT_TRUE(QFile::remove(c));
  ASSERT_TRUE(QFile::copy(b, c)); // c now names itself
  Recording looped;
  ASSERT_TRUE(looped.open(a));
  RemoteNode at(nullptr, "scene");
  RecordingPlayer(at).playUntil(looped, std::numeric_limits<int64_t>::max());
  EXPECT_EQ(looped.fileName(), c);
  while (looped.next(record)) {
  }
  QString error;
  EXPECT_FALSE(looped.openNextPart(&error));
  EXPECT_EQ(error, c + ": named as the next file of " + c + ", which came after it");
}
