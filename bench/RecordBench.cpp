// Recording a tree: values recorded per second from local changes and from a peer (a server
// process this program starts with --serve) over 127.0.0.1 (with the write buffer's peak, which bounds the recorder's
// memory), bytes per value on disk, reading the file back (records checked and handed out, then also applied to a tree)
// against a plain read of the same file in the same run, and finding the tree at a time in the
// middle through the snapshot index against reading up to it from the start.
//
// Local and reading times are this thread's CPU time (the machine is shared); the peer's rate is
// wall time, as it spans two processes and the connection's threads (this thread's CPU time is
// printed beside it).
//
// Usage: RecordBench [values]   (default 4,000,000 local values; half as many from the peer, in
// each of PLEXA_BENCH_RUNS runs)

#include "BenchReport.hpp"

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
#include <poll.h>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
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

  /// True when `fd` has a byte (or the end) to read now.
  bool readable(int fd)
  {
    pollfd p{fd, POLLIN, 0};
    return ::poll(&p, 1, 0) > 0;
  }

  /// The server process: prints its port, serves the tree until a byte comes on stdin, then sets
  /// `values` values round its floats as fast as the connection takes them, and last -1 on the
  /// first one; serves on until stdin ends.
  int serve(long values)
  {
    Bastion::setLogLevel(Bastion::LogLevel::Error);
    Plexa::RemoteNode node(nullptr, "scene");
    const std::vector<Float*> attributes = fill(node);
    Plexa::Peer server(node);
    if (!server.listen("127.0.0.1", 0))
      return 1;
    std::printf("%d\n", server.listeningPort());
    std::fflush(stdout);
    while (!readable(0))
      server.waitAndUpdate(5);
    char go;
    if (::read(0, &go, 1) != 1)
      return 0;
    const double cpuStart = cpuSeconds();
    for (long sent = 0; sent < values;) {
      for (int i = 0; i < Attributes && sent < values; ++i, ++sent)
        attributes[size_t(i)]->setValue(float(sent + 1)); // the attributes start at 0: every set is a change
      server.update();
    }
    attributes[0]->setValue(-1.f);
    server.update();
    // This thread's CPU seconds for the sending: the other side of the comparison.
    std::printf("%.6f\n", cpuSeconds() - cpuStart);
    std::fflush(stdout);
    while (!readable(0))
      server.waitAndUpdate(5);
    return 0;
  }

  struct PeerRun
  {
    long values = -1;
    double seconds = 0;
    double cpuSeconds = 0;
    double serverCpuSeconds = 0;
    int64_t peakBuffer = 0;
    int64_t fileBytes = 0;
  };

  /// Mirrors the tree of a server process (this program with --serve) and measures the changes
  /// that arrive from the start signal to the server's last value, recorded into `file` (when not
  /// empty) or only counted.
  PeerRun fromPeer(const char* program, long values, const QString& file)
  {
    PeerRun result;
    int toChild[2], fromChild[2];
    if (::pipe(toChild) != 0 || ::pipe(fromChild) != 0)
      return result;
    const std::string count = std::to_string(values);
    const pid_t pid = ::fork();
    if (pid == 0) {
      ::dup2(toChild[0], 0);
      ::dup2(fromChild[1], 1);
      ::close(toChild[1]);
      ::close(fromChild[0]);
      ::execl(program, program, "--serve", count.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(toChild[0]);
    ::close(fromChild[1]);
    auto readLine = [&] {
      char line[32] = {};
      for (size_t at = 0; at + 1 < sizeof(line) && ::read(fromChild[0], line + at, 1) == 1 && line[at] != '\n'; ++at) {
      }
      return std::string(line);
    };
    const int port = std::atoi(readLine().c_str());
    {
      Plexa::RemoteNode clientNode(nullptr, "scene");
      Plexa::Peer client(clientNode);
      client.connectTo("127.0.0.1", port);
      const auto deadline = Clock::now() + std::chrono::seconds(120);
      const QByteArray lastPath =
          "group" + QByteArray::number((Attributes - 1) / PerNode) + "/value" + QByteArray::number(PerNode - 1);
      auto attribute = [&](const QByteArray& path) {
        const uint32_t symbol = clientNode.symbolRegistry().lookup(path);
        return symbol ? dynamic_cast<Float*>(clientNode.attributeCache().find(symbol)) : nullptr;
      };
      while (port > 0 && !attribute(lastPath) && Clock::now() < deadline)
        client.waitAndUpdate(5);
      Float* first = attribute("group0/value0");
      if (first) {
        Plexa::Recorder recorder(clientNode);
        long changes = 0;
        if (!file.isEmpty())
          recorder.open(file);
        else
          clientNode.addAttributeChangeListener([&](const Plexa::NodeWatcher::Event&) { ++changes; });
        const double cpuStart = cpuSeconds();
        const auto start = Clock::now();
        auto lastFlush = start;
        if (::write(toChild[1], "g", 1) == 1) {
          while (first->value() != -1.f && Clock::now() < deadline) {
            client.waitAndUpdate(5);
            if (Clock::now() - lastFlush > std::chrono::milliseconds(250)) {
              recorder.flush(); // as plexa record does
              lastFlush = Clock::now();
            }
          }
        }
        result.seconds = secondsSince(start);
        result.cpuSeconds = cpuSeconds() - cpuStart;
        result.values = first->value() == -1.f ? (file.isEmpty() ? changes : long(recorder.valueCount())) : -1;
        recorder.close();
        result.peakBuffer = recorder.peakBufferBytes();
        if (result.values >= 0)
          result.serverCpuSeconds = std::atof(readLine().c_str());
        result.fileBytes = recorder.fileBytes();
      }
    }
    ::close(toChild[1]);
    ::close(fromChild[0]);
    ::waitpid(pid, nullptr, 0);
    if (result.values < 0)
      std::printf("the server process did not connect or send its values\n");
    return result;
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
  if (argc > 2 && std::string(argv[1]) == "--serve")
    return serve(std::atol(argv[2]));
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

  // From a peer: a server process changes floats as fast as it can, this process mirrors them,
  // once only counting the changes, once recording them. Wall time from the start signal to the
  // server's last value, and this thread's CPU time over the same span.
  const long peerValues = values / 2;
  std::vector<double> peerRates[2], peerCpuRates[2], serverCpuRates;
  int64_t peerPeak = 0;
  double peerBytesPerValue = 0;
  const int runs = BenchReport::runs();
  for (int run = 0; run < runs; ++run)
    for (bool record : {false, true}) {
      const PeerRun result = fromPeer(argv[0], peerValues, record ? dir.filePath("peer.plexrec") : QString());
      if (result.values < 0)
        return 1;
      peerRates[record].push_back(double(result.values) / result.seconds);
      peerCpuRates[record].push_back(double(result.values) / result.cpuSeconds);
      serverCpuRates.push_back(double(peerValues) / result.serverCpuSeconds);
      peerPeak = std::max(peerPeak, result.peakBuffer);
      if (record)
        peerBytesPerValue = double(result.fileBytes) / double(result.values);
    }
  const BenchReport::Stats peerPlain = BenchReport::stats(peerRates[0]);
  const BenchReport::Stats peerRecorded = BenchReport::stats(peerRates[1]);
  const BenchReport::Stats peerRecordedCpu = BenchReport::stats(peerCpuRates[1]);
  std::printf("%-40s %14.0f %10s  (CPU of this thread: %.0f/s; of the server's sending: %.0f/s)\n",
              "from a peer process, not recorded", peerPlain.median, "1.00", BenchReport::stats(peerCpuRates[0]).median,
              BenchReport::stats(serverCpuRates).median);
  std::printf("%-40s %14.0f %10.2f  (CPU of this thread: %.0f/s; %.1f bytes per value, peak buffer %lld bytes; "
              "medians of %d runs)\n",
              "from a peer process, recorded", peerRecorded.median, peerPlain.median / peerRecorded.median,
              peerRecordedCpu.median, peerBytesPerValue, (long long)peerPeak, runs);
  {
    BenchReport::Row row;
    row.what = "recording from a peer, values/s";
    row.figure = BenchReport::number(peerRecorded.median, "%.0f");
    row.baselineName = "not rec";
    row.baseline = BenchReport::number(peerPlain.median, "%.0f");
    row.ratio = BenchReport::number(peerRecorded.median / 2e6, "%.2fx");
    row.target = ">= 2,000,000 values/s";
    row.met = peerRecorded.median >= 2e6;
    row.spread = BenchReport::spread(peerRecorded, "%.0f");
    BenchReport::add(row);
  }
  {
    // The same runs per CPU second of the recording thread (receiving, applying and recording):
    // what one core of the recorder sustains, whatever else the shared machine runs.
    BenchReport::Row row;
    row.what = "recording from a peer, values/CPU-s";
    row.figure = BenchReport::number(peerRecordedCpu.median, "%.0f");
    row.baselineName = "not rec";
    row.baseline = BenchReport::number(BenchReport::stats(peerCpuRates[0]).median, "%.0f");
    row.ratio = BenchReport::number(peerRecordedCpu.median / 2e6, "%.2fx");
    row.target = ">= 2,000,000 values/s";
    row.met = peerRecordedCpu.median >= 2e6;
    row.spread = BenchReport::spread(peerRecordedCpu, "%.0f");
    BenchReport::add(row);
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
  {
    BenchReport::Row row;
    row.what = "reading a recording, MB/s";
    row.figure = BenchReport::number(bytes / readSeconds / 1e6, "%.0f");
    row.baselineName = "read()";
    row.baseline = BenchReport::number(bytes / plainSeconds / 1e6, "%.0f");
    row.ratio = BenchReport::number(readSeconds / plainSeconds, "%.2fx");
    // A disk gives a few hundred MB/s to a few GB/s; the plain read here comes from the page cache.
    row.target = ">= 2000 MB/s (disk)";
    row.met = bytes / readSeconds / 1e6 >= 2000;
    BenchReport::add(row);
  }
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
