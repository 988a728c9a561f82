// plexa record, replay, and dump and watch reading a recording, run as child processes against a
// peer served by this process (which sends events and sliced events no command sends).

#include "CliTestSupport.hpp"

#include "plexa/app/PeerTestSupport.hpp"
#include "plexa/record/RecordFormat.hpp"
#include "plexa/record/Recording.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/BinaryData.hpp"
#include "carafe/AttributeT.hpp"

#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

#include <memory>

using namespace PlexaTest;

namespace
{
  /// True once the recording (as far as it is written) holds an event named `name`.
  bool recordingHasEvent(const QString& fileName, const QByteArray& name)
  {
    Plexa::Recording recording;
    if (!recording.open(fileName))
      return false;
    Plexa::Recording::Record record;
    while (recording.next(record))
      if (record.kind == Plexa::RecordFormat::Event && record.body->mid(16, name.size()) == name)
        return true;
    return false;
  }

  /// The lines of `watch --json` without their time, the connection lines left out.
  QStringList changeLines(const QString& output)
  {
    QStringList lines;
    for (const QString& line : output.split('\n', Qt::SkipEmptyParts)) {
      QJsonObject object = QJsonDocument::fromJson(line.toUtf8()).object();
      if (object.isEmpty() || object.value("kind") == "connected" || object.value("kind") == "disconnected")
        continue;
      object.remove("time");
      lines << QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
    }
    return lines;
  }
}

TEST(RecordEndToEnd, ARecordingDumpsWatchesAndReplaysAsTheLivePeer)
{
  QTemporaryDir home, work;
  Plexa::RemoteNode scene(nullptr, "scene");
  auto* all = new Carafe::Node(&scene, "all");
  for (uint32_t id : Plexa::TypeRegistry().registeredTypeIds())
    all->addAttribute("t" + QByteArray::number(id), sampleAttribute(id));
  auto* count = new Carafe::AttributeT<int>(0);
  scene.addAttribute("count", count);
  Plexa::Peer server(scene);
  ASSERT_TRUE(server.listen("127.0.0.1", 0));
  const QString address = QString("127.0.0.1:%1").arg(server.listeningPort());
  // Runs the program to its end, serving the tree meanwhile.
  int status = -1;
  auto run = [&](const QStringList& arguments) {
    std::unique_ptr<Program> p(new Program(home, arguments));
    while ((status = p->finish(1)) == -1 && p->running())
      server.waitAndUpdate(5);
    return p;
  };
  const QString before = run({"dump", address})->out();
  ASSERT_EQ(status, 0);

  const QString file = work.filePath("session.plexrec");
  Program recorder(home, {"record", address, file});
  ASSERT_TRUE(pumpUntil(
      {&server}, [&] { return QFileInfo(file).size() > 0; }, WaitMs));
  for (int i = 1; i <= 50; ++i) {
    count->setValue(i);
    server.waitAndUpdate(1);
  }
  all->removeAttribute("t3");
  scene.addDeepAttribute("later/name", new Carafe::AttributeT<QString>("late"));
  Bastion::BinaryData small, large, last;
  small.writeString("there");
  QByteArray blob(100000, '\0');
  for (int i = 0; i < blob.size(); ++i)
    blob[i] = char(i * 31 + i / 977);
  large.writeBlob(blob);
  scene.eventProcess("hello", small);
  scene.eventProcessSlice("big", large, 4000);
  scene.eventProcess("last", last);
  ASSERT_TRUE(pumpUntil(
      {&server}, [&] { return recordingHasEvent(file, "last"); }, WaitMs));
  recorder.interrupt();
  EXPECT_EQ(recorder.finish(), 0);
  EXPECT_TRUE(recorder.err().startsWith("recorded 51 values and 3 events in ")) << recorder.err().toStdString();

  // The recording's tree is the live one, at the end and at the start, in both forms.
  EXPECT_EQ(run({"dump", file})->out(), run({"dump", address})->out());
  EXPECT_EQ(run({"dump", file, "--json"})->out(), run({"dump", address, "--json"})->out());
  EXPECT_EQ(run({"dump", file, "--at", "0"})->out(), before);
  EXPECT_EQ(status, 0);

  // A cut copy reads to its last whole record and says where it stopped.
  QFile whole(file);
  ASSERT_TRUE(whole.open(QIODevice::ReadOnly));
  const QString cut = work.filePath("cut.plexrec");
  QFile cutFile(cut);
  ASSERT_TRUE(cutFile.open(QIODevice::WriteOnly));
  cutFile.write(whole.readAll().chopped(5));
  cutFile.close();
  auto cutDump = run({"dump", cut});
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(cutDump->err().startsWith("plexa dump: warning: " + cut + ": record cut at byte "))
      << cutDump->err().toStdString();

  // Watching the file and watching its replay print the same changes and events.
  auto recorded = run({"watch", file, "--json"});
  EXPECT_EQ(status, 0) << recorded->err().toStdString();
  const QStringList fromFile = changeLines(recorded->out());
  EXPECT_EQ(fromFile.filter("\"kind\":\"changed\",\"path\":\"count\"").size(), 50);
  EXPECT_EQ(fromFile.filter("\"kind\":\"event\",\"name\":\"big\"").size(), 1);
  Program replay(home, {"replay", file, "--listen", "127.0.0.1:0", "--as-fast-as-possible"});
  const QString port = replay.waitForLine("^listening on 127\\.0\\.0\\.1:(\\d+)$");
  ASSERT_FALSE(port.isEmpty()) << replay.err().toStdString();
  Program watcher(home, {"watch", "127.0.0.1:" + port, "--json"});
  ASSERT_FALSE(watcher.waitForLine("\"name\":\"last\"").isEmpty()) << watcher.out().toStdString();
  watcher.interrupt();
  EXPECT_EQ(watcher.finish(), 0);
  EXPECT_EQ(changeLines(watcher.out()), fromFile);
  replay.interrupt();
  EXPECT_EQ(replay.finish(), 0);
}
