// Two peers in two processes over 127.0.0.1, Plexa next to Qt Remote Objects doing the same work in
// the same run, and a plain TCP ping-pong as the floor of a round trip:
//   (a) fan-out: 10,000 float attributes, all changed every round, 200 rounds, one update (send
//       pass) per round; values applied per second on the far side, wire bytes per value;
//   (b) round trip: one attribute changed, the far side's listener changes another in answer;
//       median and 99th percentile of 10,000;
//   (c) initial snapshot: 100,000 float attributes mirrored, from connect to identical.
// The program starts itself again (`--child <role> <port> <quick>`) as the far side of each run.
// Wire bytes are the TCP payload bytes the far side's socket received (TCP_INFO), headers
// excluded. `--quick` runs fewer rounds, round trips and a smaller snapshot.

#include "BenchReport.hpp"
#include "ChildProcess.hpp"

#include "carafe/AttributeT.hpp"
#include "plexa/app/Peer.hpp"
#include "plexa/remote/AttributeWalk.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <QCoreApplication>
#include <QTimer>

#ifdef PLEXA_BENCH_QTRO
#include "PropertyBlock.hpp"
#include "ReplicaListener.hpp"

#include <QMetaMethod>
#include <QRemoteObjectDynamicReplica>
#include <QRemoteObjectHost>
#include <QRemoteObjectNode>
#include <QUrl>
#endif

#include <arpa/inet.h>
#include <dirent.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

namespace
{
  using Clock = std::chrono::steady_clock;

  /// Nanoseconds on the monotonic clock, which both processes share.
  int64_t nowNs()
  {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
  }

  struct Settings
  {
    int fanoutValues = 10000;
    int rounds = 200;
    int roundTrips = 10000;
    int warmup = 500;
    int snapshotAttributes = 100000;

    static Settings make(bool quick)
    {
      Settings s;
      if (quick) {
        s.rounds = 20;
        s.roundTrips = 2000;
        s.warmup = 200;
        s.snapshotAttributes = 20000;
      }
      return s;
    }
  };

  /// Per attribute and round, a value that differs from the round before (exact in a float).
  float fanoutValue(int round, int index)
  {
    return float(round * 3 + index % 5 + 1);
  }

  float snapshotValue(int index)
  {
    return float(index % 1000) + 0.25f;
  }

  /// Payload bytes received so far on every TCP socket of this process.
  uint64_t tcpBytesReceived()
  {
    uint64_t total = 0;
    DIR* dir = ::opendir("/proc/self/fd");
    if (!dir)
      return 0;
    while (dirent* entry = ::readdir(dir)) {
      const int fd = std::atoi(entry->d_name);
      if (fd <= STDERR_FILENO)
        continue;
      tcp_info info{};
      socklen_t len = sizeof(info);
      if (::getsockopt(fd, IPPROTO_TCP, TCP_INFO, &info, &len) == 0 &&
          len >= offsetof(tcp_info, tcpi_bytes_received) + sizeof(info.tcpi_bytes_received))
        total += info.tcpi_bytes_received;
    }
    ::closedir(dir);
    return total;
  }

  /// Puts every thread of this process (and the threads they start later) on `cpu`, or back on
  /// every CPU for -1.
  void pinProcess(int cpu)
  {
    cpu_set_t set;
    CPU_ZERO(&set);
    const long cpus = ::sysconf(_SC_NPROCESSORS_ONLN);
    for (long c = 0; c < cpus; ++c)
      if (cpu < 0 || c == cpu)
        CPU_SET(int(c), &set);
    DIR* dir = ::opendir("/proc/self/task");
    if (!dir)
      return;
    while (dirent* entry = ::readdir(dir)) {
      const pid_t tid = pid_t(std::atoi(entry->d_name));
      if (tid > 0)
        ::sched_setaffinity(tid, sizeof(set), &set);
    }
    ::closedir(dir);
  }

  /// The child's result lines: words separated by blanks.
  void say(const std::string& line)
  {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
  }

  std::vector<std::string> words(const std::string& line)
  {
    std::istringstream in(line);
    std::vector<std::string> out;
    for (std::string w; in >> w;)
      out.push_back(w);
    return out;
  }

  struct Latency
  {
    double medianUs = NAN;
    double p99Us = NAN;
  };

  Latency latencyOf(std::vector<int64_t> samplesNs)
  {
    Latency l;
    if (samplesNs.empty())
      return l;
    std::sort(samplesNs.begin(), samplesNs.end());
    l.medianUs = double(samplesNs[samplesNs.size() / 2]) / 1000.0;
    l.p99Us = double(samplesNs[std::min(samplesNs.size() - 1, samplesNs.size() * 99 / 100)]) / 1000.0;
    return l;
  }

  struct Fanout
  {
    double valuesPerSecond = NAN;
    double bytesPerValue = NAN;
    bool ok = false;
  };

  /// One snapshot run: the far side's time from connect to identical, and each side's CPU time
  /// and memory growth (resident bytes) over the run.
  struct Snapshot
  {
    double ms = NAN;
    bool ok = false;
    double farCpuMs = NAN;
    double farBytes = NAN;
    double nearCpuMs = NAN;
    double nearBytes = NAN;
  };

  /// CPU time of this process (all threads), in milliseconds.
  double processCpuMs()
  {
    timespec ts;
    ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) * 1e3 + double(ts.tv_nsec) / 1e6;
  }

  /// Resident bytes of this process.
  double residentBytes()
  {
    long pages = 0;
    long resident = 0;
    if (FILE* f = std::fopen("/proc/self/statm", "r")) {
      if (std::fscanf(f, "%ld %ld", &pages, &resident) != 2)
        resident = 0;
      std::fclose(f);
    }
    return double(resident) * double(::sysconf(_SC_PAGESIZE));
  }

  /// What the near side measures around one snapshot run: CPU from the far side's start, memory
  /// from before its tree was built.
  struct NearSide
  {
    double rss0 = residentBytes();
    double cpu0 = NAN;
    void started() { cpu0 = processCpuMs(); }
    Snapshot finish(Snapshot s) const
    {
      s.nearCpuMs = processCpuMs() - cpu0;
      s.nearBytes = residentBytes() - rss0;
      return s;
    }
  };

  /// The far side's "done <ms> <ok> <cpu ms> <bytes>" line, from its start to identical.
  std::string snapshotDone(int64_t start, double cpu0, double rss0, bool ok)
  {
    return "done " + std::to_string(double(nowNs() - start) / 1e6) + " " + (ok ? "1" : "0") + " " +
           std::to_string(processCpuMs() - cpu0) + " " + std::to_string(residentBytes() - rss0);
  }

  using Samples = std::vector<int64_t>;

  /// What every run needs: this program's path (to start the far side) and the sizes.
  struct Run
  {
    std::string self;
    Settings settings;
    bool quick = false;
    /// `--only <name>`: fanout, roundtrip or snapshot alone (empty: all of them).
    std::string only;
    /// The CPU the far side's process runs on (-1: any).
    int childCpu = -1;

    std::vector<std::string> childArgs(const char* role, int port) const
    {
      return {"--child", role, std::to_string(port), quick ? "1" : "0", std::to_string(childCpu)};
    }
  };

  /// The far side's "done <endNs> <count> <bytes> <ok>" of a fan-out, against this side's start.
  Fanout fanoutFrom(const std::string& line, int64_t startNs, long long expected)
  {
    Fanout f;
    const std::vector<std::string> w = words(line);
    if (w.size() != 5 || w[0] != "done")
      return f;
    const long long count = std::atoll(w[2].c_str());
    const double seconds = double(std::atoll(w[1].c_str()) - startNs) / 1e9;
    f.ok = count == expected && w[4] == "1";
    if (count > 0 && seconds > 0) {
      f.valuesPerSecond = double(count) / seconds;
      f.bytesPerValue = double(std::atoll(w[3].c_str())) / double(count);
    }
    return f;
  }

  /// The far side's `snapshotDone` line.
  Snapshot snapshotFrom(const std::string& line)
  {
    Snapshot r;
    const std::vector<std::string> w = words(line);
    if (w.size() == 5 && w[0] == "done") {
      r.ms = std::atof(w[1].c_str());
      r.ok = w[2] == "1";
      r.farCpuMs = std::atof(w[3].c_str());
      r.farBytes = std::atof(w[4].c_str());
    }
    return r;
  }

  // ---- Plain TCP ping-pong ----------------------------------------------------------------------

  bool sendAll(int fd, const char* p, size_t n)
  {
    while (n > 0) {
      const ssize_t k = ::send(fd, p, n, MSG_NOSIGNAL);
      if (k <= 0)
        return false;
      p += k;
      n -= size_t(k);
    }
    return true;
  }

  bool recvAll(int fd, char* p, size_t n)
  {
    while (n > 0) {
      const ssize_t k = ::recv(fd, p, n, 0);
      if (k <= 0)
        return false;
      p += k;
      n -= size_t(k);
    }
    return true;
  }

  /// No Nagle delay, and no read waits longer than 10 seconds.
  void tune(int fd)
  {
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    timeval timeout{10, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
  }

  sockaddr_in loopback(int port)
  {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(uint16_t(port));
    return addr;
  }

  /// `count` round trips after the warm-up; empty when the run failed.
  Samples pingPong(const Run& run, int count)
  {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(0);
    socklen_t len = sizeof(addr);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
      ::close(listener);
      return {};
    }
    ChildProcess child(run.self, run.childArgs("pingpong", ntohs(addr.sin_port)));
    pollfd p{listener, POLLIN, 0};
    const int fd = child.running() && ::poll(&p, 1, 10000) > 0 ? ::accept(listener, nullptr, nullptr) : -1;
    ::close(listener);
    if (fd < 0)
      return {};
    tune(fd);
    Samples samples;
    char buffer[8] = {};
    for (int i = 0; i < run.settings.warmup + count; ++i) {
      std::memcpy(buffer, &i, sizeof(i));
      const int64_t t0 = nowNs();
      if (!sendAll(fd, buffer, 8) || !recvAll(fd, buffer, 8))
        break;
      if (i >= run.settings.warmup)
        samples.push_back(nowNs() - t0);
    }
    ::close(fd);
    if (int(samples.size()) != count)
      samples.clear();
    return samples;
  }

  int pingPongChild(int port)
  {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = loopback(port);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
      return 1;
    tune(fd);
    char buffer[8];
    while (recvAll(fd, buffer, 8) && sendAll(fd, buffer, 8)) {
    }
    ::close(fd);
    return 0;
  }

#ifdef PLEXA_BENCH_PEER
  // ---- Plexa -----------------------------------------------------------------------------------

  using FloatAttribute = Carafe::AttributeT<float>;

  /// "g<group>/v<index>", 100 attributes per group node.
  QByteArray floatPath(int index)
  {
    return QByteArray("g") + QByteArray::number(index / 100).rightJustified(4, '0') + "/v" +
           QByteArray::number(index % 100).rightJustified(2, '0');
  }

  /// The index of a `floatPath`, or -1.
  int floatIndex(const QByteArray& path)
  {
    const int slash = path.indexOf('/');
    if (slash < 2 || path[0] != 'g' || path.size() < slash + 3 || path[slash + 1] != 'v')
      return -1;
    bool ok1 = false;
    bool ok2 = false;
    const int group = path.mid(1, slash - 1).toInt(&ok1);
    const int index = path.mid(slash + 2).toInt(&ok2);
    return ok1 && ok2 && index < 100 ? group * 100 + index : -1;
  }

  std::vector<FloatAttribute*> buildFloats(Plexa::RemoteNode& root, int count, float (*value)(int))
  {
    std::vector<FloatAttribute*> attributes;
    for (int i = 0; i < count; ++i) {
      auto* a = new FloatAttribute(0.0f);
      if (!root.addDeepAttribute(floatPath(i), a)) {
        delete a;
        std::abort();
      }
      if (value)
        a->setValue(value(i));
      attributes.push_back(a);
    }
    return attributes;
  }

  /// The float attributes of `floatPath` form under `root`, by index (null where missing).
  std::vector<FloatAttribute*> findFloats(Plexa::RemoteNode& root, int count)
  {
    std::vector<FloatAttribute*> found(size_t(count), nullptr);
    Plexa::walkAttributesWithPath(root, [&](Carafe::Attribute& a, const QByteArray& path) {
      const int i = floatIndex(path);
      if (i >= 0 && i < count)
        found[size_t(i)] = dynamic_cast<FloatAttribute*>(&a);
    });
    return found;
  }

  bool allFound(const std::vector<FloatAttribute*>& attributes)
  {
    return std::all_of(attributes.begin(), attributes.end(), [](FloatAttribute* a) { return a != nullptr; });
  }

  /// Runs the peer's update loop until `done()` or `seconds` passed.
  bool updateUntil(Plexa::Peer& peer, const std::function<bool()>& done, double seconds)
  {
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
      if (Clock::now() > deadline)
        return false;
      peer.waitAndUpdate(20);
    }
    return true;
  }

  /// Counts the watcher's attribute additions under `root`: a cheap "may be complete" test before
  /// the whole tree is walked.
  struct AdditionCounter
  {
    long long added = 0;
    explicit AdditionCounter(Plexa::RemoteNode& root)
    {
      root.addAttributeChangeListener([this](const Plexa::NodeWatcher::Event& e) {
        if (e.type == Plexa::NodeWatcher::AttributeAdded)
          ++added;
      });
    }
  };

  /// Waits until the far side mirrors `count` floats of `floatPath` form; empty on timeout.
  std::vector<FloatAttribute*> waitForFloats(Plexa::Peer& peer, Plexa::RemoteNode& root, AdditionCounter& counter,
                                             int count, double seconds)
  {
    std::vector<FloatAttribute*> found;
    long long walkedAt = -1;
    updateUntil(
        peer,
        [&] {
          if (counter.added < count || counter.added == walkedAt)
            return false;
          walkedAt = counter.added;
          found = findFloats(root, count);
          return allFound(found);
        },
        seconds);
    if (!allFound(found))
      found.clear();
    return found;
  }

  Plexa::PeerOptions mirrorOptions()
  {
    Plexa::PeerOptions options;
    options.createMissingAttributes = true;
    return options;
  }

  void plexaPump(Plexa::Peer& peer)
  {
    peer.waitAndUpdate(5);
  }

  Fanout plexaFanout(const Run& run)
  {
    const Settings& s = run.settings;
    Plexa::RemoteNode root(nullptr, "bench");
    const std::vector<FloatAttribute*> values = buildFloats(root, s.fanoutValues, nullptr);
    Plexa::Peer peer(root);
    if (!peer.listen("127.0.0.1", 0))
      return {};
    ChildProcess child(run.self, run.childArgs("plexa-fanout", peer.listeningPort()));
    std::string line;
    if (!child.readLine(line, 30, [&] { plexaPump(peer); }) || line != "ready")
      return {};
    const int64_t start = nowNs();
    for (int round = 0; round < s.rounds; ++round) {
      for (int i = 0; i < s.fanoutValues; ++i)
        values[size_t(i)]->setValue(fanoutValue(round, i));
      peer.update();
    }
    if (!child.readLine(line, 60, [&] { plexaPump(peer); }))
      return {};
    return fanoutFrom(line, start, (long long)s.rounds * s.fanoutValues);
  }

  Samples plexaRoundTrip(const Run& run, int count)
  {
    Plexa::RemoteNode root(nullptr, "bench");
    auto* ping = new FloatAttribute(0.0f);
    auto* pong = new FloatAttribute(0.0f);
    root.addAttribute("ping", ping);
    root.addAttribute("pong", pong);
    Plexa::Peer peer(root);
    if (!peer.listen("127.0.0.1", 0))
      return {};
    ChildProcess child(run.self, run.childArgs("plexa-roundtrip", peer.listeningPort()));
    std::string line;
    if (!child.readLine(line, 30, [&] { plexaPump(peer); }) || line != "ready")
      return {};
    Samples samples;
    for (int i = 0; i < run.settings.warmup + count; ++i) {
      const float v = float(i + 1);
      const int64_t t0 = nowNs();
      ping->setValue(v);
      peer.update();
      if (!updateUntil(
              peer, [&] { return pong->value() == v; }, 10))
        return {};
      if (i >= run.settings.warmup)
        samples.push_back(nowNs() - t0);
    }
    return samples;
  }

  Snapshot plexaSnapshot(const Run& run)
  {
    NearSide near;
    Plexa::RemoteNode root(nullptr, "bench");
    buildFloats(root, run.settings.snapshotAttributes, snapshotValue);
    Plexa::Peer peer(root);
    if (!peer.listen("127.0.0.1", 0))
      return {};
    // A running application's tree is described by its update loop as it is built; do that here
    // before the far side starts, as Qt Remote Objects' sources are complete before its replica
    // starts, so the time measured is the mirroring alone.
    peer.update();
    near.started();
    ChildProcess child(run.self, run.childArgs("plexa-snapshot", peer.listeningPort()));
    std::string line;
    if (!child.readLine(line, 60, [&] { plexaPump(peer); }))
      return {};
    return near.finish(snapshotFrom(line));
  }

  int plexaFanoutChild(int port, const Settings& s)
  {
    Plexa::RemoteNode root(nullptr, "bench");
    AdditionCounter counter(root);
    Plexa::Peer peer(root, mirrorOptions());
    peer.connectTo("127.0.0.1", port);
    const std::vector<FloatAttribute*> values = waitForFloats(peer, root, counter, s.fanoutValues, 30);
    if (values.empty())
      return 1;
    const long long expected = (long long)s.rounds * s.fanoutValues;
    long long applied = 0;
    int64_t end = 0;
    for (FloatAttribute* a : values)
      a->addListener(
          [&] {
            if (++applied == expected)
              end = nowNs();
          },
          Carafe::Attribute::RoleChanged);
    const uint64_t bytes = tcpBytesReceived();
    say("ready");
    updateUntil(
        peer, [&] { return applied >= expected; }, 60);
    if (end == 0)
      end = nowNs();
    const uint64_t received = tcpBytesReceived() - bytes;
    bool ok = true;
    for (int i = 0; i < s.fanoutValues; ++i)
      ok = ok && values[size_t(i)]->value() == fanoutValue(s.rounds - 1, i);
    say("done " + std::to_string(end) + " " + std::to_string(applied) + " " + std::to_string(received) + " " +
        (ok ? "1" : "0"));
    return 0;
  }

  int plexaRoundTripChild(int port)
  {
    Plexa::RemoteNode root(nullptr, "bench");
    Plexa::Peer peer(root, mirrorOptions());
    peer.connectTo("127.0.0.1", port);
    FloatAttribute* ping = nullptr;
    FloatAttribute* pong = nullptr;
    if (!updateUntil(
            peer,
            [&] {
              ping = dynamic_cast<FloatAttribute*>(root.attribute("ping"));
              pong = dynamic_cast<FloatAttribute*>(root.attribute("pong"));
              return ping && pong;
            },
            30))
      return 1;
    ping->addListener([ping, pong] { pong->setValue(ping->value()); }, Carafe::Attribute::RoleChanged);
    say("ready");
    // Serves until the parent's connection goes away.
    updateUntil(
        peer, [&] { return peer.sessionCount() == 0; }, 120);
    return 0;
  }

  int plexaSnapshotChild(int port, const Settings& s)
  {
    const double rss0 = residentBytes();
    const double cpu0 = processCpuMs();
    Plexa::RemoteNode root(nullptr, "bench");
    AdditionCounter counter(root);
    const int64_t start = nowNs();
    Plexa::Peer peer(root, mirrorOptions());
    peer.connectTo("127.0.0.1", port);
    std::vector<FloatAttribute*> found;
    long long walkedAt = -1;
    const bool ok = updateUntil(
        peer,
        [&] {
          if (counter.added < s.snapshotAttributes || counter.added == walkedAt)
            return false;
          walkedAt = counter.added;
          found = findFloats(root, s.snapshotAttributes);
          for (int i = 0; i < s.snapshotAttributes; ++i)
            if (!found[size_t(i)] || found[size_t(i)]->value() != snapshotValue(i))
              return false;
          return true;
        },
        60);
    say(snapshotDone(start, cpu0, rss0, ok));
    return 0;
  }

#endif
  // ---- Qt Remote Objects -----------------------------------------------------------------------

#ifdef PLEXA_BENCH_QTRO
  /// Runs Qt's event loop until `done()` or `seconds` passed.
  bool qtUntil(const std::function<bool()>& done, double seconds)
  {
    // Wakes the loop now and then, so that the deadline is checked while nothing happens.
    QTimer kick;
    kick.start(10);
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    while (!done()) {
      if (Clock::now() > deadline)
        return false;
      QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
    }
    return true;
  }

  void qtPump()
  {
    QCoreApplication::processEvents(QEventLoop::AllEvents, 5);
    qtUntil([] { return false; }, 0.005);
  }

  QUrl qtUrl(int port)
  {
    return QUrl(QString("tcp://127.0.0.1:%1").arg(port));
  }

  QByteArray propertyName(int i)
  {
    return QByteArray("p") + QByteArray::number(i).rightJustified(2, '0');
  }

  /// A host on a free loopback port; 0 when the port cannot be read back.
  int qtListen(QRemoteObjectHost& host)
  {
    if (!host.setHostUrl(qtUrl(0)))
      return 0;
    return host.hostUrl().port(0);
  }

  /// The names `qtBlocks` remotes `values` properties under.
  QStringList qtBlockNames(int values, const char* prefix)
  {
    QStringList names;
    for (int b = 0; b * PropertyBlock::Size < values; ++b)
      names << QString(prefix) + QString::number(b);
    return names;
  }

  /// Blocks of 100 properties, remoted as "<prefix><n>".
  std::vector<std::unique_ptr<PropertyBlock>> qtBlocks(QRemoteObjectHost& host, int values, const char* prefix,
                                                       float (*value)(int))
  {
    std::vector<std::unique_ptr<PropertyBlock>> blocks;
    const QStringList names = qtBlockNames(values, prefix);
    for (int b = 0; b < names.size(); ++b) {
      blocks.push_back(std::make_unique<PropertyBlock>());
      if (value)
        for (int i = 0; i < PropertyBlock::Size; ++i)
          blocks.back()->setValue(i, value(b * PropertyBlock::Size + i));
      host.enableRemoting(blocks.back().get(), names[b]);
    }
    return blocks;
  }

  /// Dynamic replicas of `names`, once all are initialised; empty on timeout.
  std::vector<std::unique_ptr<QRemoteObjectDynamicReplica>> qtReplicas(QRemoteObjectNode& node,
                                                                       const QStringList& names, double seconds)
  {
    std::vector<std::unique_ptr<QRemoteObjectDynamicReplica>> replicas;
    for (const QString& name : names)
      replicas.emplace_back(node.acquireDynamic(name));
    const bool ok = qtUntil(
        [&] { return std::all_of(replicas.begin(), replicas.end(), [](const auto& r) { return r->isInitialized(); }); },
        seconds);
    if (!ok)
      replicas.clear();
    return replicas;
  }

  bool qtConnect(QObject* replica, const QByteArray& signal, QObject* receiver, const char* slot)
  {
    const QMetaObject* meta = replica->metaObject();
    const int index = meta->indexOfSignal(signal.constData());
    const int slotIndex = receiver->metaObject()->indexOfSlot(slot);
    return index >= 0 && slotIndex >= 0 &&
           QObject::connect(replica, meta->method(index), receiver, receiver->metaObject()->method(slotIndex));
  }

  Fanout qtroFanout(const Run& run)
  {
    const Settings& s = run.settings;
    QRemoteObjectHost host;
    const int port = qtListen(host);
    const auto blocks = qtBlocks(host, s.fanoutValues, "f", nullptr);
    ChildProcess child(run.self, run.childArgs("qtro-fanout", port));
    std::string line;
    if (!port || !child.readLine(line, 30, qtPump) || line != "ready")
      return {};
    const int64_t start = nowNs();
    for (int round = 0; round < s.rounds; ++round) {
      for (size_t b = 0; b < blocks.size(); ++b)
        for (int i = 0; i < PropertyBlock::Size; ++i)
          blocks[b]->setValue(i, fanoutValue(round, int(b) * PropertyBlock::Size + i));
      // One pass of the event loop per round, where the host's socket writes.
      QCoreApplication::processEvents();
    }
    if (!child.readLine(line, 60, qtPump))
      return {};
    return fanoutFrom(line, start, (long long)s.rounds * s.fanoutValues);
  }

  Samples qtroRoundTrip(const Run& run, int count)
  {
    QRemoteObjectHost host;
    const int port = qtListen(host);
    PropertyBlock block;
    host.enableRemoting(&block, "rt");
    ChildProcess child(run.self, run.childArgs("qtro-roundtrip", port));
    std::string line;
    if (!port || !child.readLine(line, 30, qtPump) || line != "ready")
      return {};
    Samples samples;
    for (int i = 0; i < run.settings.warmup + count; ++i) {
      const float v = float(i + 1);
      const int64_t t0 = nowNs();
      block.setValue(0, v);
      if (!qtUntil([&] { return block.value(1) == v; }, 10))
        return {};
      if (i >= run.settings.warmup)
        samples.push_back(nowNs() - t0);
    }
    return samples;
  }

  Snapshot qtroSnapshot(const Run& run)
  {
    NearSide near;
    QRemoteObjectHost host;
    const int port = qtListen(host);
    const auto blocks = qtBlocks(host, run.settings.snapshotAttributes, "s", snapshotValue);
    near.started();
    ChildProcess child(run.self, run.childArgs("qtro-snapshot", port));
    std::string line;
    if (!port || !child.readLine(line, 60, qtPump))
      return {};
    return near.finish(snapshotFrom(line));
  }

  int qtroFanoutChild(int port, const Settings& s)
  {
    QRemoteObjectNode node;
    node.connectToNode(qtUrl(port));
    auto replicas = qtReplicas(node, qtBlockNames(s.fanoutValues, "f"), 30);
    if (replicas.empty())
      return 1;
    ReplicaListener listener;
    listener.target = (long long)s.rounds * s.fanoutValues;
    int64_t end = 0;
    listener.onTarget = [&end] { end = nowNs(); };
    for (const auto& replica : replicas)
      for (int i = 0; i < PropertyBlock::Size; ++i)
        if (!qtConnect(replica.get(), propertyName(i) + "Changed(float)", &listener, "countChange()"))
          return 1;
    const uint64_t bytes = tcpBytesReceived();
    say("ready");
    qtUntil([&] { return listener.count >= listener.target; }, 60);
    if (end == 0)
      end = nowNs();
    const uint64_t received = tcpBytesReceived() - bytes;
    bool ok = true;
    for (size_t b = 0; b < replicas.size(); ++b)
      for (int i = 0; i < PropertyBlock::Size; ++i)
        ok = ok && replicas[b]->property(propertyName(i).constData()).toFloat() ==
                       fanoutValue(s.rounds - 1, int(b) * PropertyBlock::Size + i);
    say("done " + std::to_string(end) + " " + std::to_string(listener.count) + " " + std::to_string(received) + " " +
        (ok ? "1" : "0"));
    return 0;
  }

  int qtroRoundTripChild(int port)
  {
    QRemoteObjectNode node;
    node.connectToNode(qtUrl(port));
    auto replicas = qtReplicas(node, {"rt"}, 30);
    if (replicas.empty())
      return 1;
    ReplicaListener listener;
    listener.answerReplica = replicas[0].get();
    listener.answerProperty = "p01";
    if (!qtConnect(replicas[0].get(), "p00Changed(float)", &listener, "answer(float)"))
      return 1;
    say("ready");
    // Serves until the parent ends it.
    qtUntil([] { return false; }, 120);
    return 0;
  }

  int qtroSnapshotChild(int port, const Settings& s)
  {
    const double rss0 = residentBytes();
    const double cpu0 = processCpuMs();
    const int64_t start = nowNs();
    QRemoteObjectNode node;
    node.connectToNode(qtUrl(port));
    const auto replicas = qtReplicas(node, qtBlockNames(s.snapshotAttributes, "s"), 60);
    bool ok = !replicas.empty();
    for (size_t b = 0; ok && b < replicas.size(); ++b)
      for (int i = 0; i < PropertyBlock::Size; ++i)
        ok = ok && replicas[b]->property(propertyName(i).constData()).toFloat() ==
                       snapshotValue(int(b) * PropertyBlock::Size + i);
    say(snapshotDone(start, cpu0, rss0, ok));
    return 0;
  }
#endif
}

namespace
{
  /// One framework's runs; null where it is not built.
  struct Side
  {
    Fanout (*fanout)(const Run&) = nullptr;
    Samples (*roundTrip)(const Run&, int) = nullptr;
    Snapshot (*snapshot)(const Run&) = nullptr;
  };

  /// A figure over the runs of one kind; NaN runs (failures) are left out, and any failure fails
  /// the figure.
  struct Figure
  {
    std::vector<double> values;
    bool failed = false;
    void add(double v, bool ok)
    {
      failed = failed || !ok;
      values.push_back(ok ? v : NAN);
    }
    BenchReport::Stats stats() const
    {
      BenchReport::Stats s = BenchReport::stats(values);
      if (failed)
        s.median = NAN;
      return s;
    }
  };

  /// Round trips of the three kinds with this side's process on `cpu` and the far side's on
  /// `childCpu`: on one CPU every hop is a switch between threads, across two CPUs every message
  /// wakes the other CPU. Left to the scheduler the placement, and with it the latency, changes
  /// from run to run (one pair lands on one CPU, the next on two), so each placement is fixed.
  /// Each run is a fresh pair of processes per kind, the kinds in turns so that machine noise
  /// falls on them alike; the figures are the medians of the runs' medians and 99th percentiles.
  struct RoundTrips
  {
    int cpu = -1;
    int childCpu = -1;
    Figure floorMedian, plexaMedian, qtroMedian;
    Figure floorP99, plexaP99, qtroP99;
  };

  RoundTrips measureRoundTrips(const Run& base, const Side& plexaSide, const Side& qtroSide, int cpu, int childCpu,
                               int runs)
  {
    Run run = base;
    run.childCpu = childCpu;
    pinProcess(cpu);
    RoundTrips r;
    r.cpu = cpu;
    r.childCpu = childCpu;
    const int count = run.settings.roundTrips / runs;
    const auto take = [](Figure& median, Figure& p99, const Samples& samples) {
      const Latency l = latencyOf(samples);
      median.add(l.medianUs, !samples.empty());
      p99.add(l.p99Us, !samples.empty());
    };
    for (int t = 0; t < runs; ++t) {
      for (int k = 0; k < 3; ++k) {
        const int kind = (t + k) % 3;
        if (kind == 0)
          take(r.floorMedian, r.floorP99, pingPong(run, count));
        else if (kind == 1 && qtroSide.roundTrip)
          take(r.qtroMedian, r.qtroP99, qtroSide.roundTrip(run, count));
        else if (kind == 2 && plexaSide.roundTrip)
          take(r.plexaMedian, r.plexaP99, plexaSide.roundTrip(run, count));
      }
    }
    pinProcess(-1);
    return r;
  }

  std::string ratioText(double a, double b)
  {
    return a > 0 && b > 0 ? BenchReport::number(a / b, "%.2fx") : "-";
  }

  /// Prints one row of the table and hands it to the closing table of `./run bench`.
  void report(const char* what, const BenchReport::Stats& plexa, const BenchReport::Stats& baseline,
              const char* baselineName, const char* format, const std::string& target, bool met,
              const std::string& ratio)
  {
    BenchReport::Row row;
    row.what = what;
    row.figure = BenchReport::number(plexa.median, format);
    row.baselineName = baselineName;
    row.baseline = BenchReport::number(baseline.median, format);
    row.ratio = ratio;
    row.target = target;
    row.met = met && !std::isnan(plexa.median);
    row.spread = BenchReport::spread(plexa, format);
    std::printf("%-40s %12s %12s %9s   %-34s %-7s %s\n", what, row.figure.c_str(), row.baseline.c_str(), ratio.c_str(),
                target.c_str(), row.met ? "met" : "MISSED", row.spread.c_str());
    BenchReport::add(row);
  }

  int runAll(const Run& run)
  {
    const Settings& s = run.settings;
#ifdef PLEXA_BENCH_PEER
    const Side plexaSide{plexaFanout, plexaRoundTrip, plexaSnapshot};
#else
    const Side plexaSide;
#endif
#ifdef PLEXA_BENCH_QTRO
    const Side qtroSide{qtroFanout, qtroRoundTrip, qtroSnapshot};
    const char* qtroKind =
        "QObject sources with 100 float Q_PROPERTYs each (enableRemoting), dynamic replicas (acquireDynamic), "
        "tcp://; applied values counted by the replicas' notify signals";
#else
    const Side qtroSide;
    const char* qtroKind = "not built (Qt5RemoteObjects missing)";
#endif
    const int runs = BenchReport::runs();
    const auto wanted = [&run](const char* name) { return run.only.empty() || run.only == name; };
    std::vector<RoundTrips> placements;
    if (wanted("roundtrip")) {
      placements.push_back(measureRoundTrips(run, plexaSide, qtroSide, 0, 0, runs));
      if (::sysconf(_SC_NPROCESSORS_ONLN) >= 2)
        placements.push_back(measureRoundTrips(run, plexaSide, qtroSide, 0, 1, runs));
    }
    Figure plexaRate, qtroRate, plexaWire, qtroWire;
    for (int i = 0; wanted("fanout") && i < runs; ++i) {
      if (qtroSide.fanout) {
        const Fanout f = qtroSide.fanout(run);
        qtroRate.add(f.valuesPerSecond, f.ok);
        qtroWire.add(f.bytesPerValue, f.ok);
      }
      if (plexaSide.fanout) {
        const Fanout f = plexaSide.fanout(run);
        plexaRate.add(f.valuesPerSecond, f.ok);
        plexaWire.add(f.bytesPerValue, f.ok);
      }
    }
    Figure plexaSnap, qtroSnap, plexaFarCpu, plexaNearCpu, qtroFarCpu, qtroNearCpu;
    Snapshot plexaLast, qtroLast;
    for (int i = 0; wanted("snapshot") && i < runs; ++i) {
      if (qtroSide.snapshot) {
        qtroLast = qtroSide.snapshot(run);
        qtroSnap.add(qtroLast.ms, qtroLast.ok);
        qtroFarCpu.add(qtroLast.farCpuMs, qtroLast.ok);
        qtroNearCpu.add(qtroLast.nearCpuMs, qtroLast.ok);
      }
      if (plexaSide.snapshot) {
        plexaLast = plexaSide.snapshot(run);
        plexaSnap.add(plexaLast.ms, plexaLast.ok);
        plexaFarCpu.add(plexaLast.farCpuMs, plexaLast.ok);
        plexaNearCpu.add(plexaLast.nearCpuMs, plexaLast.ok);
      }
    }

    std::printf("EndToEndBench: two processes over 127.0.0.1%s, every figure the median of %d runs\n",
                run.quick ? " (--quick)" : "", runs);
    std::printf("  (a) %d floats x %d rounds, one update per round; (b) %d round trips in %d runs, %d warm-up each; "
                "(c) %d floats\n",
                s.fanoutValues, s.rounds, s.roundTrips, runs, s.warmup, s.snapshotAttributes);
    std::printf("  Plexa: plexa/app Peer, server and client, createMissingAttributes on the far side; "
                "applied values counted by attribute listeners\n");
    std::printf("  Qt Remote Objects %s: %s\n", QT_VERSION_STR, qtroKind);
    std::printf("  wire bytes: TCP payload received by the far side (TCP_INFO); (a) and (c) on any CPU, (b) with "
                "both processes on CPU 0 (1 CPU) and on CPUs 0 and 1 (2 CPUs)\n\n");
    std::printf("%-40s %12s %12s %9s   %-34s %-7s %s\n", "", "Plexa", "baseline", "ratio", "target", "", "spread");

    if (wanted("fanout")) {
      const BenchReport::Stats rate = plexaRate.stats();
      const BenchReport::Stats qrate = qtroRate.stats();
      report("(a) fan-out values/s (far side)", rate, qrate, "QtRO", "%.0f", ">= 8x QtRO",
             rate.median >= 8 * qrate.median, ratioText(rate.median, qrate.median));
      const BenchReport::Stats wire = plexaWire.stats();
      report("(a) wire bytes per value", wire, qtroWire.stats(), "QtRO", "%.2f", "<= 12", wire.median <= 12,
             ratioText(wire.median, qtroWire.stats().median));
    }
    for (const RoundTrips& rt : placements) {
      const bool one = rt.cpu == rt.childCpu;
      const BenchReport::Stats p = rt.plexaMedian.stats();
      const BenchReport::Stats q = rt.qtroMedian.stats();
      const BenchReport::Stats f = rt.floorMedian.stats();
      char what[64];
      std::snprintf(what, sizeof(what), "(b) round trip median us, %s", one ? "1 CPU" : "2 CPUs");
      report(what, p, q, "QtRO", "%.1f", "<= 0.9x QtRO", p.median <= 0.9 * q.median, ratioText(p.median, q.median));
      const BenchReport::Stats p99 = rt.plexaP99.stats();
      const BenchReport::Stats q99 = rt.qtroP99.stats();
      std::snprintf(what, sizeof(what), "(b) round trip p99 us, %s", one ? "1 CPU" : "2 CPUs");
      report(what, p99, q99, "QtRO", "%.1f", "<= 0.9x QtRO", p99.median <= 0.9 * q99.median,
             ratioText(p99.median, q99.median));
      std::printf("  TCP ping-pong 8 B, %s: median %.1f us, p99 %.1f us (the floor of (b))\n", one ? "1 CPU" : "2 CPUs",
                  f.median, rt.floorP99.stats().median);
    }
    if (wanted("snapshot")) {
      const BenchReport::Stats p = plexaSnap.stats();
      const BenchReport::Stats q = qtroSnap.stats();
      report("(c) snapshot, connect to identical, ms", p, q, "QtRO", "%.1f", "<= 0.5x QtRO", p.median <= 0.5 * q.median,
             ratioText(p.median, q.median));
      // CPU per attribute and side, against the aim of about 1 us on each side.
      const double n = s.snapshotAttributes;
      const auto perAttributeUs = [n](const Figure& f) {
        BenchReport::Stats st = f.stats();
        for (double* v : {&st.median, &st.min, &st.max})
          *v = *v * 1e3 / n;
        return st;
      };
      const BenchReport::Stats farCpu = perAttributeUs(plexaFarCpu);
      const BenchReport::Stats nearCpu = perAttributeUs(plexaNearCpu);
      report("(c) CPU us per attribute, receiving side", farCpu, perAttributeUs(qtroFarCpu), "QtRO", "%.2f",
             "about 1 us", farCpu.median <= 1.0, ratioText(farCpu.median, perAttributeUs(qtroFarCpu).median));
      report("(c) CPU us per attribute, sending side", nearCpu, perAttributeUs(qtroNearCpu), "QtRO", "%.2f",
             "about 1 us", nearCpu.median <= 1.0, ratioText(nearCpu.median, perAttributeUs(qtroNearCpu).median));
      // Memory is not timed: the last run's growth of resident bytes, per attribute.
      std::printf("  memory per attribute (resident growth of the last run): Plexa receiving %.0f B, sending %.0f B "
                  "(tree included); QtRO replica %.0f B, source %.0f B\n",
                  plexaLast.farBytes / n, plexaLast.nearBytes / n, qtroLast.farBytes / n, qtroLast.nearBytes / n);
    }
    return 0;
  }
}

int main(int argc, char** argv)
{
  QCoreApplication app(argc, argv);
  const std::string self = QCoreApplication::applicationFilePath().toStdString();
  if (argc >= 6 && std::strcmp(argv[1], "--child") == 0) {
    pinProcess(std::atoi(argv[5]));
    const std::string role = argv[2];
    const int port = std::atoi(argv[3]);
    const Settings s = Settings::make(std::strcmp(argv[4], "1") == 0);
    if (role == "pingpong")
      return pingPongChild(port);
#ifdef PLEXA_BENCH_PEER
    if (role == "plexa-fanout")
      return plexaFanoutChild(port, s);
    if (role == "plexa-roundtrip")
      return plexaRoundTripChild(port);
    if (role == "plexa-snapshot")
      return plexaSnapshotChild(port, s);
#endif
#ifdef PLEXA_BENCH_QTRO
    if (role == "qtro-fanout")
      return qtroFanoutChild(port, s);
    if (role == "qtro-roundtrip")
      return qtroRoundTripChild(port);
    if (role == "qtro-snapshot")
      return qtroSnapshotChild(port, s);
#endif
    return 2;
  }
  bool quick = false;
  std::string only;
  for (int i = 1; i < argc; ++i) {
    quick = quick || std::strcmp(argv[i], "--quick") == 0;
    if (std::strcmp(argv[i], "--only") == 0 && i + 1 < argc)
      only = argv[++i];
  }
  Run run;
  run.only = only;
  run.self = self;
  run.quick = quick;
  run.settings = Settings::make(quick);
  return runAll(run);
}
