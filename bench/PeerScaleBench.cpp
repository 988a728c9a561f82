// One Plexa server process with many peers, over 127.0.0.1:
//   (a) fan-out: 64 clients mirror 10,000 floats that all change every round, next to Qt Remote
//       Objects with 64 client nodes holding dynamic replicas of the same sources, in the same run;
//       values applied per second over all clients, the slowest client's rate against the mean,
//       the server's CPU per million values applied, wire bytes per value;
//   (b) client to client through the server: a change on client A seen by client B, median and p99;
//   (c) 1,000 idle connections: the server's memory and threads per connection, and the time for
//       all of them to connect and mirror a 1,000-attribute tree;
//   (d) churn: connect, mirror a 100-attribute tree, disconnect, 10,000 times in a row; the
//       server's RSS and open descriptors before and after, every mirror complete.
// The clients run in child processes of this program (`--child <role> ...`), several clients per
// process, each client a Peer (or a Qt Remote Objects node) of its own; this process is the server.
// `--quick` runs smaller sizes; `--fanout` runs (a) alone.

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

#include <dirent.h>
#include <linux/tcp.h>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <numeric>
#include <sstream>
#include <string>
#include <vector>

namespace
{
  using Clock = std::chrono::steady_clock;
  using FloatAttribute = Carafe::AttributeT<float>;

  struct Settings
  {
    int clients = 64;
    int processes = 4;
    int values = 10000;
    int rounds = 30;
    int hubSamples = 2000;
    int idleConnections = 1000;
    int idleProcesses = 10;
    int idleAttributes = 1000;
    int churnCycles = 10000;
    int churnAttributes = 100;

    static Settings make(bool quick)
    {
      Settings s;
      if (quick) {
        s.rounds = 5;
        s.hubSamples = 300;
        s.idleConnections = 200;
        s.churnCycles = 500;
      }
      return s;
    }
  };

  int64_t nowNs()
  {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch()).count();
  }

  double cpuSeconds()
  {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  }

  /// A field of /proc/self/status ("VmRSS", "Threads"), as a number (kB for sizes).
  long statusField(const char* name)
  {
    std::ifstream in("/proc/self/status");
    const std::string prefix = std::string(name) + ":";
    for (std::string line; std::getline(in, line);)
      if (line.compare(0, prefix.size(), prefix) == 0)
        return std::atol(line.c_str() + prefix.size());
    return -1;
  }

  int openDescriptors()
  {
    int count = 0;
    if (DIR* dir = ::opendir("/proc/self/fd")) {
      while (dirent* entry = ::readdir(dir))
        count += entry->d_name[0] != '.' ? 1 : 0;
      ::closedir(dir);
    }
    return count - 1; // the directory's own descriptor
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

  /// Per attribute and round, a value that differs from the round before (exact in a float).
  float roundValue(int round, int index)
  {
    return float(round * 3 + index % 5 + 1);
  }

  // ---- Plexa -----------------------------------------------------------------------------------

  /// "g<group>/v<index>", 100 attributes per group node.
  QByteArray floatPath(int index)
  {
    return "g" + QByteArray::number(index / 100) + "/v" + QByteArray::number(index % 100);
  }

  std::vector<FloatAttribute*> buildFloats(Plexa::RemoteNode& root, int count)
  {
    std::vector<FloatAttribute*> attributes;
    for (int i = 0; i < count; ++i) {
      auto* a = new FloatAttribute(roundValue(-1, i));
      if (!root.addDeepAttribute(floatPath(i), a))
        std::abort();
      attributes.push_back(a);
    }
    return attributes;
  }

  /// The floats of `floatPath` form under `root` by index, or empty when one is missing.
  std::vector<FloatAttribute*> findFloats(Plexa::RemoteNode& root, int count)
  {
    std::vector<FloatAttribute*> found(size_t(count), nullptr);
    int seen = 0;
    Plexa::walkAttributesWithPath(root, [&](Carafe::Attribute& a, const QByteArray& path) {
      const int slash = path.indexOf('/');
      if (slash < 2 || path.size() < slash + 3)
        return;
      const int i = path.mid(1, slash - 1).toInt() * 100 + path.mid(slash + 2).toInt();
      if (i >= 0 && i < count && !found[size_t(i)]) {
        found[size_t(i)] = dynamic_cast<FloatAttribute*>(&a);
        seen += found[size_t(i)] ? 1 : 0;
      }
    });
    if (seen != count)
      found.clear();
    return found;
  }

  /// A client of a child process: its tree and its Peer.
  struct Client
  {
    explicit Client(int port)
        : peer(root)
    {
      peer.connectTo("127.0.0.1", port);
    }
    Plexa::RemoteNode root{nullptr, "bench"};
    Plexa::Peer peer;
    std::vector<FloatAttribute*> values;
    long long applied = 0;
    int64_t end = 0;
  };

  /// One turn of every client's update loop: the first waits up to `waitMs` for work.
  void pumpAll(std::vector<std::unique_ptr<Client>>& clients, int waitMs)
  {
    for (size_t i = 0; i < clients.size(); ++i)
      clients[i]->peer.waitAndUpdate(i == 0 ? waitMs : 0);
  }

  /// Runs `clients` until each mirrors `count` floats; false after `seconds`.
  bool mirrorAll(std::vector<std::unique_ptr<Client>>& clients, int count, double seconds)
  {
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    for (size_t next = 0; next < clients.size();) {
      if (Clock::now() > deadline)
        return false;
      pumpAll(clients, 2);
      // Walking the whole tree is dear: only the first client not yet complete is looked at.
      while (next < clients.size() && !(clients[next]->values = findFloats(clients[next]->root, count)).empty())
        ++next;
    }
    return true;
  }

  /// "<port> <clients> <values> <rounds>": mirrors, counts applied values per client, reports
  /// "done <bytes> <ok> <CPU seconds of the rounds> <end of each client>".
  int plexaFanoutChild(const std::vector<std::string>& args)
  {
    const int port = std::atoi(args[0].c_str());
    const int n = std::atoi(args[1].c_str());
    const int values = std::atoi(args[2].c_str());
    const int rounds = std::atoi(args[3].c_str());
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < n; ++i)
      clients.push_back(std::make_unique<Client>(port));
    if (!mirrorAll(clients, values, 120))
      return 1;
    const long long expected = (long long)values * rounds;
    for (auto& c : clients)
      for (FloatAttribute* a : c->values)
        a->addListener(
            [client = c.get(), expected] {
              if (++client->applied == expected)
                client->end = nowNs();
            },
            Carafe::Attribute::RoleChanged);
    const uint64_t bytes = tcpBytesReceived();
    const double cpu0 = cpuSeconds();
    say("ready");
    const auto deadline = Clock::now() + std::chrono::seconds(300);
    auto done = [&] { return std::all_of(clients.begin(), clients.end(), [](auto& c) { return c->end != 0; }); };
    while (!done() && Clock::now() < deadline)
      pumpAll(clients, 5);
    bool ok = true;
    for (auto& c : clients)
      for (int i = 0; i < values; ++i)
        ok = ok && c->values[size_t(i)]->value() == roundValue(rounds - 1, i);
    std::string line = "done " + std::to_string(tcpBytesReceived() - bytes) + (ok ? " 1 " : " 0 ") +
                       std::to_string(cpuSeconds() - cpu0);
    for (auto& c : clients)
      line += " " + std::to_string(c->end);
    say(line);
    return 0;
  }

  /// "<port> <samples>": clients A and B; A changes a value, B waits for it; "lat <ns>..." sorted.
  int plexaHubChild(const std::vector<std::string>& args)
  {
    const int port = std::atoi(args[0].c_str());
    const int samples = std::atoi(args[1].c_str());
    std::vector<std::unique_ptr<Client>> clients;
    clients.push_back(std::make_unique<Client>(port));
    clients.push_back(std::make_unique<Client>(port));
    Client& a = *clients[0];
    Client& b = *clients[1];
    auto* source = new FloatAttribute(0.0f);
    a.root.addAttribute("hub", source);
    FloatAttribute* seen = nullptr;
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    while (!(seen = dynamic_cast<FloatAttribute*>(b.root.attribute("hub"))) && Clock::now() < deadline)
      pumpAll(clients, 2);
    if (!seen)
      return 1;
    std::vector<int64_t> ns;
    for (int i = 1; i <= samples + 100; ++i) {
      const int64_t t0 = nowNs();
      source->setValue(float(i));
      a.peer.update();
      const auto limit = Clock::now() + std::chrono::seconds(10);
      while (seen->value() != float(i) && Clock::now() < limit)
        b.peer.waitAndUpdate(1);
      if (seen->value() != float(i))
        return 1;
      if (i > 100)
        ns.push_back(nowNs() - t0);
    }
    std::sort(ns.begin(), ns.end());
    say("lat " + std::to_string(ns[ns.size() / 2]) + " " + std::to_string(ns[ns.size() * 99 / 100]));
    return 0;
  }

  /// "<port> <clients> <attributes>": all mirror, "ready <rss kB> <threads>", then idle until ended.
  int plexaIdleChild(const std::vector<std::string>& args)
  {
    const int port = std::atoi(args[0].c_str());
    const int n = std::atoi(args[1].c_str());
    const int count = std::atoi(args[2].c_str());
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < n; ++i)
      clients.push_back(std::make_unique<Client>(port));
    if (!mirrorAll(clients, count, 300))
      return 1;
    say("ready " + std::to_string(statusField("VmRSS")) + " " + std::to_string(statusField("Threads")));
    for (;;)
      pumpAll(clients, 100);
  }

  /// "<port> <cycles> <attributes>": connect, mirror, disconnect, over and over; "done <complete>".
  int plexaChurnChild(const std::vector<std::string>& args)
  {
    const int port = std::atoi(args[0].c_str());
    const int cycles = std::atoi(args[1].c_str());
    const int count = std::atoi(args[2].c_str());
    int complete = 0;
    for (int i = 0; i < cycles; ++i) {
      std::vector<std::unique_ptr<Client>> one;
      one.push_back(std::make_unique<Client>(port));
      complete += mirrorAll(one, count, 30) ? 1 : 0;
    }
    say("done " + std::to_string(complete));
    return 0;
  }

  // ---- Qt Remote Objects -----------------------------------------------------------------------

#ifdef PLEXA_BENCH_QTRO
  bool qtUntil(const std::function<bool()>& done, double seconds)
  {
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
  }

  QUrl qtUrl(int port)
  {
    return QUrl(QString("tcp://127.0.0.1:%1").arg(port));
  }

  QStringList blockNames(int values)
  {
    QStringList names;
    for (int b = 0; b * PropertyBlock::Size < values; ++b)
      names << "f" + QString::number(b);
    return names;
  }

  /// "<port> <clients> <values> <rounds>", as `plexaFanoutChild`.
  int qtroFanoutChild(const std::vector<std::string>& args)
  {
    const int port = std::atoi(args[0].c_str());
    const int n = std::atoi(args[1].c_str());
    const int values = std::atoi(args[2].c_str());
    const int rounds = std::atoi(args[3].c_str());
    struct QtClient
    {
      QRemoteObjectNode node;
      std::vector<std::unique_ptr<QRemoteObjectDynamicReplica>> replicas;
      ReplicaListener listener;
      int64_t end = 0;
    };
    std::vector<std::unique_ptr<QtClient>> clients;
    const QStringList names = blockNames(values);
    for (int i = 0; i < n; ++i) {
      clients.push_back(std::make_unique<QtClient>());
      clients.back()->node.connectToNode(qtUrl(port));
      for (const QString& name : names)
        clients.back()->replicas.emplace_back(clients.back()->node.acquireDynamic(name));
    }
    if (!qtUntil(
            [&] {
              for (auto& c : clients)
                for (auto& r : c->replicas)
                  if (!r->isInitialized())
                    return false;
              return true;
            },
            120))
      return 1;
    for (auto& c : clients) {
      QtClient* client = c.get();
      client->listener.target = (long long)values * rounds;
      client->listener.onTarget = [client] { client->end = nowNs(); };
      for (auto& r : c->replicas)
        for (int i = 0; i < PropertyBlock::Size; ++i) {
          const QByteArray signal = "p" + QByteArray::number(i).rightJustified(2, '0') + "Changed(float)";
          const int index = r->metaObject()->indexOfSignal(signal.constData());
          const int slot = client->listener.metaObject()->indexOfSlot("countChange()");
          if (index < 0 || slot < 0 ||
              !QObject::connect(r.get(), r->metaObject()->method(index), &client->listener,
                                client->listener.metaObject()->method(slot)))
            return 1;
        }
    }
    const uint64_t bytes = tcpBytesReceived();
    const double cpu0 = cpuSeconds();
    say("ready");
    qtUntil([&] { return std::all_of(clients.begin(), clients.end(), [](auto& c) { return c->end != 0; }); }, 300);
    bool ok = true;
    for (auto& c : clients)
      for (size_t b = 0; b < c->replicas.size(); ++b)
        for (int i = 0; i < PropertyBlock::Size; ++i)
          ok = ok &&
               c->replicas[b]->property(("p" + QByteArray::number(i).rightJustified(2, '0')).constData()).toFloat() ==
                   roundValue(rounds - 1, int(b) * PropertyBlock::Size + i);
    std::string line = "done " + std::to_string(tcpBytesReceived() - bytes) + (ok ? " 1 " : " 0 ") +
                       std::to_string(cpuSeconds() - cpu0);
    for (auto& c : clients)
      line += " " + std::to_string(c->end);
    say(line);
    return 0;
  }
#endif

  // ---- The server's side -------------------------------------------------------------------------

  struct Run
  {
    std::string self;
    Settings s;
    bool fanoutOnly = false;
  };

  struct Fanout
  {
    bool ok = false;
    double total = NAN;   // values applied per second, all clients
    double slowest = NAN; // the slowest client's values per second
    double mean = NAN;    // the mean client's
    double cpuPerMillion = NAN;
    double clientCpuPerMillion = NAN; // all client processes together
    double bytesPerValue = NAN;
  };

  /// Starts `processes` children of `role` sharing `clients`, pumping `pump` while waiting for
  /// each one's "ready".
  std::vector<std::unique_ptr<ChildProcess>> startChildren(const Run& run, const char* role, int port, int clients,
                                                           int processes, const std::vector<std::string>& extra,
                                                           const std::function<void()>& pump,
                                                           std::vector<std::string>* readyLines = nullptr)
  {
    std::vector<std::unique_ptr<ChildProcess>> children;
    for (int p = 0; p < processes; ++p) {
      const int share = clients / processes + (p < clients % processes ? 1 : 0);
      std::vector<std::string> args{"--child", role, std::to_string(port), std::to_string(share)};
      args.insert(args.end(), extra.begin(), extra.end());
      children.push_back(std::make_unique<ChildProcess>(run.self, args));
    }
    for (auto& child : children) {
      std::string line;
      if (!child->readLine(line, 300, pump) || line.compare(0, 5, "ready") != 0)
        return {};
      if (readyLines)
        readyLines->push_back(line);
    }
    return children;
  }

  /// The children's "done" lines, summed up against `startNs` and the server's CPU since `cpu0`.
  Fanout collectFanout(std::vector<std::unique_ptr<ChildProcess>>& children, const Run& run, int64_t startNs,
                       double cpu0, const std::function<void()>& pump)
  {
    Fanout f;
    std::vector<double> rates;
    int64_t last = 0;
    uint64_t bytes = 0;
    double clientCpu = 0;
    bool ok = true;
    for (auto& child : children) {
      std::string line;
      if (!child->readLine(line, 300, pump))
        return f;
      const std::vector<std::string> w = words(line);
      if (w.size() < 4 || w[0] != "done")
        return f;
      bytes += std::stoull(w[1]);
      ok = ok && w[2] == "1";
      clientCpu += std::atof(w[3].c_str());
      for (size_t i = 4; i < w.size(); ++i) {
        const int64_t end = std::atoll(w[i].c_str());
        ok = ok && end > startNs;
        last = std::max(last, end);
        rates.push_back(double(run.s.values) * run.s.rounds / (double(end - startNs) / 1e9));
      }
    }
    const double cpu = cpuSeconds() - cpu0;
    const double values = double(run.s.values) * run.s.rounds * double(rates.size());
    f.ok = ok && int(rates.size()) == run.s.clients;
    f.total = values / (double(last - startNs) / 1e9);
    f.slowest = *std::min_element(rates.begin(), rates.end());
    f.mean = std::accumulate(rates.begin(), rates.end(), 0.0) / double(rates.size());
    f.cpuPerMillion = cpu / (values / 1e6);
    f.clientCpuPerMillion = clientCpu / (values / 1e6);
    f.bytesPerValue = double(bytes) / values;
    return f;
  }

  Fanout plexaFanout(const Run& run)
  {
    Plexa::RemoteNode root(nullptr, "bench");
    const std::vector<FloatAttribute*> values = buildFloats(root, run.s.values);
    Plexa::PeerOptions options;
    options.maxConnections = run.s.clients + 8;
    Plexa::Peer peer(root, options);
    if (!peer.listen("127.0.0.1", 0))
      return {};
    peer.update();
    auto pump = [&] { peer.waitAndUpdate(2); };
    auto children = startChildren(run, "plexa-fanout", peer.listeningPort(), run.s.clients, run.s.processes,
                                  {std::to_string(run.s.values), std::to_string(run.s.rounds)}, pump);
    if (children.empty())
      return {};
    const double cpu0 = cpuSeconds();
    const int64_t start = nowNs();
    for (int round = 0; round < run.s.rounds; ++round) {
      for (int i = 0; i < run.s.values; ++i)
        values[size_t(i)]->setValue(roundValue(round, i));
      // One round in flight: the next round waits until this one is in the sockets.
      peer.flush(60000);
    }
    return collectFanout(children, run, start, cpu0, pump);
  }

#ifdef PLEXA_BENCH_QTRO
  Fanout qtroFanout(const Run& run)
  {
    QRemoteObjectHost host;
    if (!host.setHostUrl(qtUrl(0)))
      return {};
    const int port = host.hostUrl().port(0);
    std::vector<std::unique_ptr<PropertyBlock>> blocks;
    const QStringList names = blockNames(run.s.values);
    for (int b = 0; b < names.size(); ++b) {
      blocks.push_back(std::make_unique<PropertyBlock>());
      for (int i = 0; i < PropertyBlock::Size; ++i)
        blocks.back()->setValue(i, roundValue(-1, b * PropertyBlock::Size + i));
      host.enableRemoting(blocks.back().get(), names[b]);
    }
    auto children = startChildren(run, "qtro-fanout", port, run.s.clients, run.s.processes,
                                  {std::to_string(run.s.values), std::to_string(run.s.rounds)}, qtPump);
    if (children.empty())
      return {};
    const double cpu0 = cpuSeconds();
    const int64_t start = nowNs();
    for (int round = 0; round < run.s.rounds; ++round) {
      for (size_t b = 0; b < blocks.size(); ++b)
        for (int i = 0; i < PropertyBlock::Size; ++i)
          blocks[b]->setValue(i, roundValue(round, int(b) * PropertyBlock::Size + i));
      QCoreApplication::processEvents();
    }
    return collectFanout(children, run, start, cpu0, qtPump);
  }
#endif

  struct Hub
  {
    double medianUs = NAN;
    double p99Us = NAN;
  };

  Hub plexaHub(const Run& run)
  {
    Plexa::RemoteNode root(nullptr, "bench");
    Plexa::Peer peer(root);
    if (!peer.listen("127.0.0.1", 0))
      return {};
    ChildProcess child(
        run.self, {"--child", "plexa-hub", std::to_string(peer.listeningPort()), std::to_string(run.s.hubSamples)});
    std::string line;
    if (!child.readLine(line, 120, [&] { peer.waitAndUpdate(1); }))
      return {};
    const std::vector<std::string> w = words(line);
    if (w.size() != 3 || w[0] != "lat")
      return {};
    return {std::atof(w[1].c_str()) / 1000.0, std::atof(w[2].c_str()) / 1000.0};
  }

  struct Idle
  {
    bool ok = false;
    double seconds = NAN;
    double serverKiBPerConnection = NAN;
    double serverThreadsPerConnection = NAN;
    double clientKiBPerConnection = NAN;
  };

  Idle plexaIdle(const Run& run)
  {
    Plexa::RemoteNode root(nullptr, "bench");
    buildFloats(root, run.s.idleAttributes);
    Plexa::PeerOptions options;
    options.maxConnections = run.s.idleConnections + 8;
    Plexa::Peer peer(root, options);
    if (!peer.listen("127.0.0.1", 0))
      return {};
    peer.update();
    const long rss0 = statusField("VmRSS");
    const long threads0 = statusField("Threads");
    const int64_t start = nowNs();
    std::vector<std::string> ready;
    auto children = startChildren(
        run, "plexa-idle", peer.listeningPort(), run.s.idleConnections, run.s.idleProcesses,
        {std::to_string(run.s.idleAttributes)}, [&] { peer.waitAndUpdate(2); }, &ready);
    Idle r;
    if (children.empty())
      return r;
    r.seconds = double(nowNs() - start) / 1e9;
    // Settled: every session is up and the answers to the announcements are in.
    const auto until = Clock::now() + std::chrono::seconds(2);
    while (Clock::now() < until)
      peer.waitAndUpdate(10);
    const double n = run.s.idleConnections;
    r.ok = peer.sessionCount() == run.s.idleConnections;
    r.serverKiBPerConnection = double(statusField("VmRSS") - rss0) / n;
    r.serverThreadsPerConnection = double(statusField("Threads") - threads0) / n;
    double clientKiB = 0;
    for (const std::string& line : ready) {
      const std::vector<std::string> w = words(line);
      clientKiB += w.size() == 3 ? std::atof(w[1].c_str()) : NAN;
    }
    r.clientKiBPerConnection = clientKiB / n;
    return r;
  }

  struct Churn
  {
    bool ok = false;
    int complete = 0;
    double seconds = NAN;
    long rssBeforeKiB = 0;
    long rssAfterKiB = 0;
    int fdsBefore = 0;
    int fdsAfter = 0;
    long threadsBefore = 0;
    long threadsAfter = 0;
  };

  Churn plexaChurn(const Run& run)
  {
    Plexa::RemoteNode root(nullptr, "bench");
    buildFloats(root, run.s.churnAttributes);
    Plexa::Peer peer(root);
    if (!peer.listen("127.0.0.1", 0))
      return {};
    auto pump = [&] { peer.waitAndUpdate(2); };
    auto cycles = [&](int count) {
      ChildProcess child(run.self, {"--child", "plexa-churn", std::to_string(peer.listeningPort()),
                                    std::to_string(count), std::to_string(run.s.churnAttributes)});
      std::string line;
      const bool read = child.readLine(line, 3600, pump);
      const std::vector<std::string> w = words(line);
      return read && w.size() == 2 && w[0] == "done" ? std::atoi(w[1].c_str()) : -1;
    };
    // Ended sessions are retired by the update loop: at least a second of it, until none is left.
    auto settle = [&] {
      const auto least = Clock::now() + std::chrono::seconds(1);
      const auto most = Clock::now() + std::chrono::seconds(10);
      while (Clock::now() < most && (peer.sessionCount() != 0 || Clock::now() < least))
        pump();
    };
    // A first few cycles bring the allocator and the server's tables to their working size.
    cycles(50);
    settle();
    Churn r;
    r.rssBeforeKiB = statusField("VmRSS");
    r.fdsBefore = openDescriptors();
    r.threadsBefore = statusField("Threads");
    const int64_t start = nowNs();
    r.complete = cycles(run.s.churnCycles);
    r.seconds = double(nowNs() - start) / 1e9;
    settle();
    r.rssAfterKiB = statusField("VmRSS");
    r.fdsAfter = openDescriptors();
    r.threadsAfter = statusField("Threads");
    r.ok = r.complete == run.s.churnCycles;
    return r;
  }

  const char* verdict(bool met)
  {
    return met ? "met" : "MISSED";
  }

  int runAll(const Run& run)
  {
    const Settings& s = run.s;
    const std::string loadBefore = BenchReport::loadAverage();
    Fanout qtro;
#ifdef PLEXA_BENCH_QTRO
    qtro = qtroFanout(run);
    const char* qtroKind = "64 QRemoteObjectNodes, each with dynamic replicas of the 100 sources of 100 floats";
#else
    const char* qtroKind = "not built (Qt5RemoteObjects missing)";
#endif
    const Fanout plexa = plexaFanout(run);
    const Hub hub = run.fanoutOnly ? Hub() : plexaHub(run);
    const Idle idle = run.fanoutOnly ? Idle() : plexaIdle(run);
    const Churn churn = run.fanoutOnly ? Churn() : plexaChurn(run);

    std::printf("PeerScaleBench: one server process, clients in child processes, over 127.0.0.1%s; load average "
                "%s before, %s after\n",
                s.rounds < Settings().rounds ? " (--quick)" : "", loadBefore.c_str(),
                BenchReport::loadAverage().c_str());
    std::printf("  (a) %d clients in %d processes (%d Peers each; QtRO: %s), %d floats x %d rounds, one round "
                "in flight\n",
                s.clients, s.processes, s.clients / s.processes, qtroKind, s.values, s.rounds);
    std::printf("%-44s %14s %14s %10s   %s\n", "", "Plexa", "QtRO", "ratio", "target");
    auto row = [](const char* what, double p, double q, const char* target, const char* result) {
      char ratio[32] = "-";
      if (p > 0 && q > 0)
        std::snprintf(ratio, sizeof ratio, "%.2fx", p / q);
      std::printf("%-44s %14.2f %14.2f %10s   %s %s\n", what, p, q, ratio, target, result);
    };
    row("(a) values/s, all clients", plexa.total, qtro.total, ">= 3x QtRO",
        verdict(plexa.ok && plexa.total >= 3 * qtro.total));
    row("(a) slowest client values/s", plexa.slowest, qtro.slowest, ">= half the mean",
        verdict(plexa.ok && plexa.slowest >= plexa.mean / 2));
    row("(a) mean client values/s", plexa.mean, qtro.mean, "", "");
    row("(a) server CPU s per million values", plexa.cpuPerMillion, qtro.cpuPerMillion, "", "");
    row("(a) client CPU s per million values", plexa.clientCpuPerMillion, qtro.clientCpuPerMillion, "", "");
    row("(a) wire bytes per value", plexa.bytesPerValue, qtro.bytesPerValue, "", "");
    if (!plexa.ok || !qtro.ok)
      std::printf("  note: a fan-out run missed values or ended wrong (Plexa %s, QtRO %s)\n",
                  plexa.ok ? "ok" : "FAILED", qtro.ok ? "ok" : "FAILED");
    if (run.fanoutOnly)
      return 0;
    std::printf("(b) client A -> server -> client B, %d changes: median %.1f us, p99 %.1f us\n", s.hubSamples,
                hub.medianUs, hub.p99Us);
    std::printf("(c) %d idle connections in %d processes, %d-attribute tree: all mirrored after %.2f s; server "
                "%.0f KiB and %.2f threads per connection, client %.0f KiB per connection; %s (< 2048 KiB each)%s\n",
                s.idleConnections, s.idleProcesses, s.idleAttributes, idle.seconds, idle.serverKiBPerConnection,
                idle.serverThreadsPerConnection, idle.clientKiBPerConnection,
                verdict(idle.ok && idle.serverKiBPerConnection < 2048 && idle.clientKiBPerConnection < 2048),
                idle.ok ? "" : " (not every session was up)");
    std::printf("(d) churn: %d connect/mirror/disconnect cycles of a %d-attribute tree in %.1f s, %d complete; "
                "server RSS %ld -> %ld KiB, descriptors %d -> %d, threads %ld -> %ld; %s (all complete, "
                "descriptors and threads equal, RSS within 4 MiB)\n",
                s.churnCycles, s.churnAttributes, churn.seconds, churn.complete, churn.rssBeforeKiB, churn.rssAfterKiB,
                churn.fdsBefore, churn.fdsAfter, churn.threadsBefore, churn.threadsAfter,
                verdict(churn.ok && churn.fdsAfter == churn.fdsBefore && churn.threadsAfter == churn.threadsBefore &&
                        churn.rssAfterKiB - churn.rssBeforeKiB <= 4096));
    return 0;
  }
}

int main(int argc, char** argv)
{
  QCoreApplication app(argc, argv);
  if (argc >= 3 && std::strcmp(argv[1], "--child") == 0) {
    const std::string role = argv[2];
    const std::vector<std::string> args(argv + 3, argv + argc);
    if (role == "plexa-fanout" && args.size() == 4)
      return plexaFanoutChild(args);
    if (role == "plexa-hub" && args.size() == 2)
      return plexaHubChild(args);
    if (role == "plexa-idle" && args.size() == 3)
      return plexaIdleChild(args);
    if (role == "plexa-churn" && args.size() == 3)
      return plexaChurnChild(args);
#ifdef PLEXA_BENCH_QTRO
    if (role == "qtro-fanout" && args.size() == 4)
      return qtroFanoutChild(args);
#endif
    return 2;
  }
  bool quick = false;
  Run run;
  for (int i = 1; i < argc; ++i) {
    quick = quick || std::strcmp(argv[i], "--quick") == 0;
    run.fanoutOnly = run.fanoutOnly || std::strcmp(argv[i], "--fanout") == 0;
  }
  run.self = QCoreApplication::applicationFilePath().toStdString();
  run.s = Settings::make(quick);
  return runAll(run);
}
