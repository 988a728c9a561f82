// Recording a tree: values recorded per second from local changes and from a peer over
// 127.0.0.1 (with the write buffer's peak, which bounds the recorder's memory), bytes per value
// on disk, reading the file back (records checked and handed out, then also applied to a tree)
// against a plain read of the same file in the same run, and finding the tree at a time in the
// middle through the snapshot index against reading up to it from the start.
//
// Local and reading times are this thread's CPU time (the machine is shared); the peer's rate is
// wall time, as it spans the connection's threads.
//
// Usage: RecordBench [values]   (default 4,000,000 local values; a quarter of them from the peer)

#include "plexa/app/Peer.hpp"
#include "plexa/record/Recorder.hpp"
#include "plexa/record/RecordingPlayer.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/Log.hpp"
#include "carafe/AttributeT.hpp"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <vector>

namespace
{
  using Float = Carafe::AttributeT<float>;
  using Clock = std::chrono::steady_clock;

  constexpr int Attributes = 10000;
  constexpr int PerNode = 100;

  double secondsSince(Clock::time_point start)
  {
    return std::chrono::duration<double>(Clock::now() - start).count();
  }

  // CPU time of this thread: the machine is shared, and other processes should not count.
  double cpuSeconds()
  {
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
  }

  std::vector<Float*> fill(Plexa::RemoteNode& node)
  {
    std::vector<Float*> attributes;
    for (int i = 0; i < Attributes; ++i) {
      auto* attribute = new Float(0.f);
      node.addDeepAttribute("group" + QByteArray::number(i / PerNode) + "/value" + QByteArray::number(i % PerNode),
                            attribute);
      attributes.push_back(attribute);
    }
    node.processPendingAdditions();
    return attributes;
  }

  /// Sets `values` values round the attributes; seconds taken.
  double setValues(const std::vector<Float*>& attributes, long values)
  {
    const double start = cpuSeconds();
    for (long i = 0; i < values; ++i)
      attributes[size_t(i % Attributes)]->setValue(float(i));
    return cpuSeconds() - start;
  }

  double plainRead(const QString& fileName, int64_t& bytes)
  {
    QFile file(fileName);
    file.open(QIODevice::ReadOnly);
    QByteArray chunk(1024 * 1024, '\0');
    const double start = cpuSeconds();
    bytes = 0;
    for (qint64 got; (got = file.read(chunk.data(), chunk.size())) > 0;)
      bytes += got;
    return cpuSeconds() - start;
  }
}

int main(int argc, char** argv)
{
  const long values = argc > 1 ? std::atol(argv[1]) : 4000000;
  Bastion::setLogLevel(Bastion::LogLevel::Error);
  QTemporaryDir dir;
  const QString fileName = dir.filePath("bench.plexrec");

  // Local changes: the same sets with and without a recorder on the node.
  double withoutSeconds, withSeconds;
  int64_t peak, fileBytes;
  {
    Plexa::RemoteNode node(nullptr, "scene");
    const std::vector<Float*> attributes = fill(node);
    withoutSeconds = setValues(attributes, values);
    // Snapshots every 16 MiB: several in the file, for finding the tree at a time below.
    Plexa::RecorderOptions options;
    options.snapshotBytes = 16 * 1024 * 1024;
    Plexa::Recorder recorder(node, options);
    recorder.open(fileName);
    withSeconds = setValues(attributes, values);
    recorder.close();
    peak = recorder.peakBufferBytes();
    fileBytes = recorder.fileBytes();
  }
  std::printf("%-40s %14s %10s\n", "case", "values/s", "ratio");
  std::printf("%-40s %14.0f %10s\n", "sets, watched, not recorded", values / withoutSeconds, "1.00");
  std::printf("%-40s %14.0f %10.2f\n", "sets, recorded", values / withSeconds, withSeconds / withoutSeconds);

  // From a peer: the server changes floats, the client mirrors them, once only counting the
  // changes, once recording them.
  const long peerValues = values / 4;
  for (bool record : {false, true}) {
    Plexa::RemoteNode serverNode(nullptr, "scene");
    Plexa::RemoteNode clientNode(nullptr, "scene");
    const std::vector<Float*> attributes = fill(serverNode);
    Plexa::Peer server(serverNode);
    Plexa::Peer client(clientNode);
    server.listen("127.0.0.1", 0);
    client.connectTo("127.0.0.1", server.listeningPort());
    const auto deadline = Clock::now() + std::chrono::seconds(60);
    const QByteArray lastPath =
        "group" + QByteArray::number((Attributes - 1) / PerNode) + "/value" + QByteArray::number(PerNode - 1);
    auto mirrored = [&] {
      const uint32_t symbol = clientNode.symbolRegistry().lookup(lastPath);
      return client.initializedSessionCount() > 0 && symbol != 0 && clientNode.attributeCache().find(symbol) != nullptr;
    };
    while (!mirrored()) {
      server.waitAndUpdate(2);
      client.waitAndUpdate(2);
      if (Clock::now() > deadline) {
        std::printf("the peers did not connect\n");
        return 1;
      }
    }
    Plexa::Recorder recorder(clientNode);
    long changes = 0;
    if (record)
      recorder.open(dir.filePath("peer.plexrec"));
    else
      clientNode.addAttributeChangeListener([&](const Plexa::NodeWatcher::Event&) { ++changes; });
    auto arrived = [&] { return record ? long(recorder.valueCount()) : changes; };
    const auto start = Clock::now();
    for (long sent = 0; sent < peerValues;) {
      for (int i = 0; i < Attributes && sent < peerValues; ++i, ++sent)
        attributes[size_t(i)]->setValue(float(sent + 1)); // the attributes start at 0: every set is a change
      server.update();
      client.update();
    }
    while (arrived() < peerValues && Clock::now() < deadline) {
      server.waitAndUpdate(1);
      client.waitAndUpdate(1);
    }
    const double seconds = secondsSince(start);
    static double unrecorded = 1;
    if (!record)
      unrecorded = seconds;
    std::printf("%-40s %14.0f %10.2f  (%ld of %ld values arrived%s)\n",
                record ? "from a peer, recorded" : "from a peer, not recorded", double(arrived()) / seconds,
                seconds / unrecorded, arrived(), peerValues,
                record ? qPrintable(QString(", peak buffer %1 bytes").arg(recorder.peakBufferBytes())) : "");
  }

  // Reading the local recording back.
  int64_t bytes = 0;
  plainRead(fileName, bytes); // into the page cache first
  const double plainSeconds = plainRead(fileName, bytes);
  Plexa::Recording recording;
  recording.open(fileName);
  Plexa::Recording::Record record;
  long records = 0;
  double start = cpuSeconds();
  while (recording.next(record))
    ++records;
  const double readSeconds = cpuSeconds() - start;
  Plexa::RemoteNode tree(nullptr, "scene");
  Plexa::RecordingPlayer player(tree);
  recording.seek(recording.firstRecordOffset());
  start = cpuSeconds();
  while (recording.next(record))
    player.apply(record);
  const double playSeconds = cpuSeconds() - start;
  std::printf("\n%-40s %14s %10s\n", "reading", "MB/s", "x plain");
  std::printf("%-40s %14.0f %10s\n", "plain read, 1 MiB chunks", bytes / plainSeconds / 1e6, "1.00");
  std::printf("%-40s %14.0f %10.2f\n", "records read and checked", bytes / readSeconds / 1e6,
              readSeconds / plainSeconds);
  std::printf("%-40s %14.0f %10.2f\n", "records applied to a tree", bytes / playSeconds / 1e6,
              playSeconds / plainSeconds);

  // The tree at a time in the middle: through the snapshot index (the last snapshot before it, at
  // most 16 MiB of records back), and by reading the records from the start up to it. Wall time:
  // both are mostly reading.
  Plexa::Recording finder;
  finder.open(fileName);
  long seen = 0;
  int64_t middle = 0;
  while (finder.next(record) && seen++ < records / 2)
    middle = record.timeNs;
  auto treeAt = [&](bool indexed) {
    const auto begin = Clock::now();
    Plexa::Recording reading;
    reading.open(fileName);
    Plexa::RemoteNode at(nullptr, "scene");
    Plexa::RecordingPlayer atPlayer(at);
    if (indexed) {
      atPlayer.playUntil(reading, middle);
    } else {
      Plexa::Recording::Record each;
      while (reading.next(each) && each.timeNs <= middle)
        atPlayer.apply(each);
    }
    return secondsSince(begin);
  };
  const double fromStart = treeAt(false);
  const double indexed = treeAt(true);
  std::printf("%-40s %14.1f %10.2f\n", "tree in the middle, from the start (ms)", fromStart * 1e3, 1.0);
  std::printf("%-40s %14.1f %10.2f\n", "tree in the middle, via the index (ms)", indexed * 1e3, indexed / fromStart);

  std::printf("\n%ld values in %ld records, %lld bytes: %.1f bytes per value; recorder's peak buffer %lld bytes\n",
              values, records, (long long)fileBytes, double(fileBytes) / double(values), (long long)peak);
  return 0;
}
