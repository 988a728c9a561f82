// plexa record, replay, and dump and watch reading a recording, run as child processes against a
// peer served by this process (which sends events and sliced events no command sends).

#include "CliTestSupport.hpp"

#include "plexa/app/PeerTestSupport.hpp"
#include "plexa/record/RecordFormat.hpp"
#include "plexa/record/Recorder.hpp"
#include "plexa/record/Recording.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/BinaryData.hpp"
#include "carafe/AttributeT.hpp"

#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QThread>

#include <gtest/gtest.h>

#include <algorithm>
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

namespace
{
  /// A client of a replay, keeping every value of "count" it sees with the milliseconds since it
  /// connected.
  struct CountClient
  {
    explicit CountClient(const QString& port)
    {
      tree.addAttributeChangeListener([this](const Plexa::NodeWatcher::Event& e) {
        auto* count = dynamic_cast<Carafe::AttributeT<int>*>(tree.attributeCache().find(e.symbol));
        if (count && e.type != Plexa::NodeWatcher::AttributeRemoved)
          seen.push_back({count->value(), clock.elapsed()});
      });
      clock.start();
      peer.connectTo("127.0.0.1", quint16(port.toUInt()));
    }
    bool waitFor(size_t values)
    {
      return pumpUntil(
          {&peer}, [&] { return seen.size() >= values; }, WaitMs);
    }
    std::vector<int> values() const
    {
      std::vector<int> out;
      for (const auto& value : seen)
        out.push_back(value.first);
      return out;
    }
    Plexa::RemoteNode tree{nullptr, "scene"};
    Plexa::Peer peer{tree};
    QElapsedTimer clock;
    std::vector<std::pair<int, qint64>> seen;
  };
}

TEST(RecordEndToEnd, ReplayKeepsTheOrderScalesTheSpacingAndPlaysATimeRangeInALoop)
{
  QTemporaryDir home, work;
  const QString file = work.filePath("timed.plexrec");
  // count goes 1, 2, 3, 4, 0.3 s apart.
  std::vector<double> at; // seconds since the start of the recording
  {
    Plexa::RemoteNode scene(nullptr, "scene");
    auto* count = new Carafe::AttributeT<int>(0);
    scene.addAttribute("count", count);
    Plexa::Recorder recorder(scene);
    ASSERT_TRUE(recorder.open(file));
    for (int i = 1; i <= 4; ++i) {
      QThread::msleep(300); // the recorded timing itself
      count->setValue(i);
      at.push_back(recorder.elapsedNs() / 1e9);
    }
  }
  auto replay = [&](const QStringList& options) {
    auto program = std::make_unique<Program>(home, QStringList{"replay", file, "--listen", "127.0.0.1:0"} + options);
    const QString port = program->waitForLine("^listening on 127\\.0\\.0\\.1:(\\d+)$");
    EXPECT_FALSE(port.isEmpty()) << program->err().toStdString();
    return std::make_pair(std::move(program), port);
  };
  auto span = [](const CountClient& client) { return client.seen.back().second - client.seen[1].second; };

  // Scaled by 8, the last change is due 0.15 s after the start (the tree arriving) and comes at
  // least that late; the changes 0.9 s apart come about 0.11 s apart. As fast as possible: at once.
  auto quick = replay({"--speed", "8"});
  CountClient scaled(quick.second);
  ASSERT_TRUE(scaled.waitFor(5));
  EXPECT_EQ(scaled.values(), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_GE(scaled.seen.back().second - scaled.seen.front().second, 100);
  EXPECT_LT(span(scaled), 600);
  auto fastest = replay({"--as-fast-as-possible"});
  CountClient fast(fastest.second);
  ASSERT_TRUE(fast.waitFor(5));
  EXPECT_EQ(fast.values(), (std::vector<int>{0, 1, 2, 3, 4}));
  EXPECT_LT(span(fast), 600);

  // From between 1 and 2 to between 3 and 4, over and over: the tree starts at 1, 2 and 3 follow,
  // 4 never comes, and each round starts at 1 again.
  auto range = replay({"--from", QString::number((at[0] + at[1]) / 2), "--to", QString::number((at[2] + at[3]) / 2),
                       "--loop", "--speed", "2"});
  CountClient looped(range.second);
  ASSERT_TRUE(pumpUntil(
      {&looped.peer},
      [&] {
        const std::vector<int> values = looped.values();
        return values.size() > 1 && std::count(values.begin() + 1, values.end(), 1) >= 2;
      },
      WaitMs));
  std::vector<int> rounds = looped.values();
  // Going back to the start of the range may pass through the tree's first value.
  rounds.erase(std::remove(rounds.begin() + 1, rounds.end(), 0), rounds.end());
  ASSERT_GE(rounds.size(), 7u);
  EXPECT_EQ(std::vector<int>(rounds.begin(), rounds.begin() + 7), (std::vector<int>{1, 2, 3, 1, 2, 3, 1}));
  EXPECT_EQ(std::count(rounds.begin(), rounds.end(), 4), 0);
  for (auto* program : {quick.first.get(), fastest.first.get(), range.first.get()}) {
    program->interrupt();
    EXPECT_EQ(program->finish(), 0);
  }
}

TEST(RecordEndToEnd, RecordEndsByItselfSplitsAndASplitOrGrowingRecordingReadsAsOne)
{
  QTemporaryDir home, work;
  Plexa::RemoteNode scene(nullptr, "scene");
  auto* count = new Carafe::AttributeT<int>(0);
  scene.addAttribute("count", count);
  Plexa::Peer server(scene);
  ASSERT_TRUE(server.listen("127.0.0.1", 0));
  const QString address = QString("127.0.0.1:%1").arg(server.listeningPort());
  int status = -1;
  auto finish = [&](Program& program) {
    EXPECT_TRUE(pumpUntil(
        {&server}, [&] { return (status = program.finish(1)) != -1 || !program.running(); }, WaitMs));
    return status;
  };
  auto endedCleanly = [](const QString& name) {
    Plexa::Recording recording;
    Plexa::Recording::Record record;
    bool opened = recording.open(name);
    while (opened && recording.next(record)) {
    }
    return opened && recording.endedCleanly();
  };

  // --for and --max-size end the recording by themselves, the file closed cleanly.
  const QString timed = work.filePath("timed.plexrec");
  Program forHalfASecond(home, {"record", address, timed, "--for", "0.5"});
  EXPECT_EQ(finish(forHalfASecond), 0);
  EXPECT_TRUE(forHalfASecond.err().endsWith("; --for reached\n")) << forHalfASecond.err().toStdString();
  EXPECT_TRUE(endedCleanly(timed));
  const QString sized = work.filePath("sized.plexrec");
  Program upTo3000(home, {"record", address, sized, "--max-size", "3000"});
  ASSERT_TRUE(pumpUntil(
      {&server}, [&] { return QFileInfo(sized).size() > 0; }, WaitMs));
  for (int i = 1; (status = upTo3000.finish(0)) == -1 && upTo3000.running() && i < 100000; ++i) {
    count->setValue(i);
    server.waitAndUpdate(1);
  }
  EXPECT_EQ(status, 0);
  EXPECT_TRUE(upTo3000.err().endsWith("; --max-size reached\n")) << upTo3000.err().toStdString();
  EXPECT_GE(QFileInfo(sized).size(), 3000);
  EXPECT_TRUE(endedCleanly(sized));

  // --split: a watcher following the first file sees every change once, through all the files,
  // while they are written; afterwards watch, dump and dump --at read the files as one.
  const QString split = work.filePath("split.plexrec");
  Program recorder(home, {"record", address, split, "--split", "600"});
  ASSERT_TRUE(pumpUntil(
      {&server}, [&] { return QFileInfo(split).size() > 0; }, WaitMs));
  Program follower(home, {"watch", split, "--follow", "--json"});
  const int first = count->value() + 1;
  for (int round = 0; round < 8; ++round) {
    for (int i = 0; i < 20; ++i) {
      count->setValue(count->value() + 1);
      server.waitAndUpdate(1);
    }
    const QString last = QString("\"value\":%1}").arg(count->value());
    ASSERT_TRUE(pumpUntil(
        {&server}, [&] { return !follower.waitForLine(last, 1).isEmpty() || follower.out().contains(last); }, WaitMs))
        << follower.out().toStdString();
  }
  recorder.interrupt();
  EXPECT_EQ(finish(recorder), 0);
  EXPECT_TRUE(QFileInfo::exists(work.filePath("split.2.plexrec"))) << recorder.err().toStdString();
  follower.interrupt();
  EXPECT_EQ(follower.finish(), 0);
  QStringList expected;
  for (int i = first; i <= count->value(); ++i)
    expected << QString("{\"kind\":\"changed\",\"path\":\"count\",\"type\":\"int\",\"value\":%1}").arg(i);
  EXPECT_EQ(changeLines(follower.out()).filter("changed"), expected);
  Program watch(home, {"watch", split, "--json"});
  EXPECT_EQ(finish(watch), 0);
  EXPECT_EQ(changeLines(watch.out()).filter("changed"), expected);
  Program dump(home, {"dump", split});
  EXPECT_EQ(finish(dump), 0);
  EXPECT_EQ(dump.out(), QString("count (int) = %1\n").arg(count->value()));
  EXPECT_EQ(dump.err(), "");
}

TEST(RecordEndToEnd, AFollowerOutlastsItsRecorderAndReadsOnWhenANewOneWritesTheFileAgain)
{
  QTemporaryDir home, work;
  const QString file = work.filePath("again.plexrec");
  Plexa::RemoteNode scene(nullptr, "scene");
  auto* count = new Carafe::AttributeT<int>(0);
  scene.addAttribute("count", count);
  auto recordOnce = [&](int value) {
    Plexa::Recorder recorder(scene);
    ASSERT_TRUE(recorder.open(file));
    count->setValue(value);
  };
  recordOnce(1);
  Program follower(home, {"watch", file, "--follow", "--json"});
  ASSERT_FALSE(follower.waitForLine("\"value\":1}").isEmpty()) << follower.err().toStdString();
  recordOnce(2);
  EXPECT_FALSE(follower.waitForLine("\"value\":2}").isEmpty()) << follower.err().toStdString();
  follower.interrupt();
  EXPECT_EQ(follower.finish(), 0);
}
