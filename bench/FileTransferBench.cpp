// Fetches one file of random data over loopback with the file transfer (a listening server of
// FileTransferHandlers in one process, a client handler in another), and in the same run times
// md5sum of the file, a plain socket copy of it and `rsync -W` to an rsync daemon on 127.0.0.1.
// Prints MiB/s of each, the ratios (targets: at least 0.95x md5sum, at least 1.5x rsync) and the
// peak resident memory of the sending and the receiving process (target: under 96 MiB each). The
// fetch and md5sum are medians of several runs (PLEXA_BENCH_RUNS, at least 5), and the fetch
// against md5sum goes to the targets table.
//
// Usage: FileTransferBench [MiB]   (default 1024; PLEXA_BENCH_FILE_MIB works too). The size is kept
// a whole number of 64 KiB parts: above 16 MiB other sizes can be announced one part short.

#include "BenchReport.hpp"

#include "plexa/files/FileTransferTestSupport.hpp"

#include <QCryptographicHash>

#include <arpa/inet.h>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <netinet/in.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  double peakRssMiB()
  {
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) / 1024.0;
  }

  /// Random bytes written in 1 MiB blocks, so that this process stays small before it forks.
  bool makeRandomFile(const QString& name, qint64 size)
  {
    QFile file(name);
    if (!file.open(QIODevice::WriteOnly))
      return false;
    uint64_t state = 0x9e3779b97f4a7c15ull;
    QByteArray block(1 << 20, Qt::Uninitialized);
    for (qint64 done = 0; done < size; done += block.size()) {
      auto* words = reinterpret_cast<uint64_t*>(block.data());
      for (size_t i = 0; i < size_t(block.size()) / 8; ++i) {
        state ^= state << 13;
        state ^= state >> 7;
        state ^= state << 17;
        words[i] = state;
      }
      if (file.write(block) != block.size())
        return false;
    }
    return true;
  }

  /// Sender process: serves `root` until the parent closes `control`; reports port, then peak RSS.
  [[noreturn]] void runSender(const QString& root, int report, int control)
  {
    AssetBase store(root);
    store.waitForFileList();
    FileServer server(store, root);
    server.run(QStringLiteral("127.0.0.1"), 0);
    while (server.localPort() == 0)
      std::this_thread::yield();
    const int port = server.localPort();
    writeAllFd(report, reinterpret_cast<const char*>(&port), sizeof port);
    char byte;
    while (::read(control, &byte, 1) > 0) {
    }
    const double rss = peakRssMiB();
    writeAllFd(report, reinterpret_cast<const char*>(&rss), sizeof rss);
    _exit(0);
  }

  /// Receiver process: fetches /data.bin into `root`; reports seconds (negative on failure), then
  /// peak RSS.
  [[noreturn]] void runReceiver(const QString& root, int port, const QString& expectedMd5, int report)
  {
    double seconds = -1;
    {
      NotifyingStore store(root);
      store.waitForFileList();
      auto handler = std::make_shared<TestHandler>(nullptr, false, store, root);
      handler->setReconnect(false);
      handler->connectToHost(QStringLiteral("127.0.0.1"), port);
      if (handler->connectedSignal.wait(1, 10000)) {
        const Clock::time_point start = Clock::now();
        handler->requestFileInfo(QStringLiteral("/data.bin"));
        if (store.finished.wait(1, 600000) && store.md5(QStringLiteral("/data.bin")) == expectedMd5)
          seconds = secondsSince(start);
      }
      handler.reset();
    }
    const double rss = peakRssMiB();
    writeAllFd(report, reinterpret_cast<const char*>(&seconds), sizeof seconds);
    writeAllFd(report, reinterpret_cast<const char*>(&rss), sizeof rss);
    _exit(0);
  }

  /// Writes `size` bytes into a scratch file in `dir` and deletes it again. Memory that a virtual
  /// machine has not touched for a few seconds is handed back to its host, and the first write into
  /// it then costs several times the copy itself (here about 2.5 s per GiB). Every method that
  /// writes the file is timed right after this, so each one is measured on warm memory alike.
  void warmMemory(const QString& dir, qint64 size)
  {
    const QString name = dir + "/warm.tmp";
    {
      QFile file(name);
      if (!file.open(QIODevice::WriteOnly))
        return;
      const QByteArray block(1 << 20, '\x5a');
      for (qint64 done = 0; done < size; done += block.size())
        file.write(block);
    }
    QFile::remove(name);
  }

  template <typename T>
  bool readValue(int fd, T& value)
  {
    return ::read(fd, &value, sizeof value) == ssize_t(sizeof value);
  }

  /// The same bytes through a plain loopback socket into a file, 1 MiB at a time.
  double socketCopy(const QString& from, const QString& to)
  {
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      return -1;
    const Clock::time_point start = Clock::now();
    std::thread receiver([&] {
      const int conn = ::accept(listener, nullptr, nullptr);
      QFile out(to);
      out.open(QIODevice::WriteOnly);
      QByteArray buffer(1 << 20, Qt::Uninitialized);
      ssize_t n;
      while ((n = ::read(conn, buffer.data(), size_t(buffer.size()))) > 0)
        out.write(buffer.constData(), n);
      ::close(conn);
    });
    const int conn = ::socket(AF_INET, SOCK_STREAM, 0);
    ::connect(conn, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    QFile in(from);
    in.open(QIODevice::ReadOnly);
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    qint64 n;
    while ((n = in.read(buffer.data(), buffer.size())) > 0)
      writeAllFd(conn, buffer.constData(), size_t(n));
    ::close(conn);
    receiver.join();
    ::close(listener);
    return secondsSince(start);
  }

  int freePort()
  {
    const int s = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr = {};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    ::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    ::getsockname(s, reinterpret_cast<sockaddr*>(&addr), &len);
    ::close(s);
    return ntohs(addr.sin_port);
  }

  /// `rsync -W` of the file to a daemon on 127.0.0.1 that writes into `target`; -1 if unavailable.
  double rsyncCopy(const QString& file, const QString& workDir, const QString& target)
  {
    const int port = freePort();
    const QString config = workDir + "/rsyncd.conf";
    writeFile(config, QStringLiteral("use chroot = no\nuid = 0\ngid = 0\npid file = %1/rsyncd.pid\n"
                                     "log file = %1/rsyncd.log\n[bench]\npath = %2\nread only = no\n")
                          .arg(workDir, target)
                          .toUtf8());
    const pid_t daemon = fork();
    if (daemon == 0) {
      const QByteArray configArg = "--config=" + QFile::encodeName(config);
      const QByteArray portArg = "--port=" + QByteArray::number(port);
      execlp("rsync", "rsync", "--daemon", "--no-detach", "--address=127.0.0.1", configArg.constData(),
             portArg.constData(), static_cast<char*>(nullptr));
      _exit(127);
    }
    double seconds = -1;
    // The daemon needs a moment to listen: retry the copy until it connects, within a deadline.
    const QByteArray command = "rsync -W -q " + QFile::encodeName(file) +
                               " rsync://127.0.0.1:" + QByteArray::number(port) + "/bench/ 2>/dev/null";
    const Clock::time_point deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
      const Clock::time_point start = Clock::now();
      const int status = std::system(command.constData());
      if (WIFEXITED(status) && WEXITSTATUS(status) == 0) {
        seconds = secondsSince(start);
        break;
      }
      if (WIFEXITED(status) && WEXITSTATUS(status) != 10 && WEXITSTATUS(status) != 5)
        break;
      std::this_thread::yield();
    }
    ::kill(daemon, SIGTERM);
    ::waitpid(daemon, nullptr, 0);
    return seconds;
  }

  void row(const char* name, double seconds, double mib)
  {
    if (seconds > 0)
      std::printf("  %-22s %8.2f s %9.1f MiB/s\n", name, seconds, mib / seconds);
    else
      std::printf("  %-22s   failed or unavailable\n", name);
  }
}

int main(int argc, char** argv)
{
  qint64 mib = 1024;
  if (argc > 1)
    mib = std::atoll(argv[1]);
  else if (const char* env = std::getenv("PLEXA_BENCH_FILE_MIB"))
    mib = std::atoll(env);
  mib = std::max<qint64>(mib, 1);
  const qint64 size = mib << 20;

  QTemporaryDir work(QDir::tempPath() + "/plexa-filetransfer-bench-XXXXXX");
  const QString source = work.path() + "/source", target = work.path() + "/target", copies = work.path() + "/copies";
  QDir().mkpath(source);
  QDir().mkpath(target);
  QDir().mkpath(copies);
  const QString file = source + "/data.bin";
  std::printf("FileTransferBench: %lld MiB of random data over 127.0.0.1 (each copy is timed right after\n"
              "writing and deleting a scratch file of the same size, so that memory the host took back is\n"
              "not counted against any of them)\n",
              (long long)mib);
  if (!makeRandomFile(file, size)) {
    std::printf("cannot write %s\n", qPrintable(file));
    return 1;
  }

  // md5sum once untimed: it brings the file into the page cache for every method alike.
  const QByteArray md5sum = "md5sum " + QFile::encodeName(file) + " > /dev/null";
  std::system(md5sum.constData());
  QString expectedMd5;
  {
    QFile in(file);
    in.open(QIODevice::ReadOnly);
    QCryptographicHash hash(QCryptographicHash::Md5);
    hash.addData(&in);
    expectedMd5 = QString::fromLatin1(hash.result().toHex());
  }

  // Sender and receiver run in processes of their own, forked before this one starts any thread.
  int senderReport[2], senderControl[2];
  if (pipe(senderReport) != 0 || pipe(senderControl) != 0)
    return 1;
  std::fflush(stdout);
  const pid_t sender = fork();
  if (sender == 0) {
    ::close(senderControl[1]);
    runSender(source, senderReport[1], senderControl[0]);
  }
  ::close(senderControl[0]);
  int port = 0;
  if (!readValue(senderReport[0], port))
    return 1;
  // Each run times md5sum and then a fetch right after it, so that both see the same load; the
  // ratio of the run compares the two.
  std::vector<double> plexaRuns, md5Runs, ratioRuns;
  double receiverRss = 0, senderRss = 0;
  for (int run = 0; run < BenchReport::runs(); ++run) {
    Clock::time_point start = Clock::now();
    const int md5Status = std::system(md5sum.constData());
    md5Runs.push_back(md5Status == 0 ? secondsSince(start) : NAN);
    warmMemory(target, size);
    int receiverReport[2];
    if (pipe(receiverReport) != 0)
      return 1;
    std::fflush(stdout);
    const pid_t receiver = fork();
    if (receiver == 0)
      runReceiver(target, port, expectedMd5, receiverReport[1]);
    double seconds = -1, rss = 0;
    readValue(receiverReport[0], seconds);
    readValue(receiverReport[0], rss);
    ::waitpid(receiver, nullptr, 0);
    ::close(receiverReport[0]);
    ::close(receiverReport[1]);
    receiverRss = std::max(receiverRss, rss);
    plexaRuns.push_back(seconds > 0 ? seconds : NAN);
    ratioRuns.push_back(md5Runs.back() / plexaRuns.back());
    QFile::remove(target + "/data.bin");
  }
  ::close(senderControl[1]);
  readValue(senderReport[0], senderRss);
  ::waitpid(sender, nullptr, 0);
  const BenchReport::Stats plexaStats = BenchReport::stats(plexaRuns);
  const BenchReport::Stats ratioStats = BenchReport::stats(ratioRuns);
  const double plexaSeconds = plexaStats.runs == int(plexaRuns.size()) ? plexaStats.median : -1;
  const double md5Seconds = BenchReport::stats(md5Runs).median;

  warmMemory(copies, size);
  const double socketSeconds = socketCopy(file, copies + "/socket.bin");
  QFile::remove(copies + "/socket.bin");
  warmMemory(copies, size);
  const double rsyncSeconds = rsyncCopy(file, work.path(), copies);

  const double total = double(mib);
  row("plexa fetch", plexaSeconds, total);
  row("md5sum", md5Seconds, total);
  row("plain socket copy", socketSeconds, total);
  row("rsync -W (daemon)", rsyncSeconds, total);
  if (plexaSeconds > 0 && md5Seconds > 0)
    std::printf("  plexa / md5sum          %5.2fx  (target >= 0.95x; median of the runs' ratios)\n", ratioStats.median);
  if (plexaSeconds > 0 && rsyncSeconds > 0)
    std::printf("  plexa / rsync -W        %5.2fx  (target >= 1.50x)\n", rsyncSeconds / plexaSeconds);
  if (plexaSeconds > 0 && socketSeconds > 0)
    std::printf("  plexa / socket copy     %5.2fx\n", socketSeconds / plexaSeconds);
  std::printf("  peak RSS sender %.1f MiB, receiver %.1f MiB (target < 96 MiB each)\n", senderRss, receiverRss);
  BenchReport::Row fetch;
  fetch.what = "fetch of " + std::to_string(mib) + " MiB, MiB/s";
  fetch.figure = BenchReport::number(total / plexaSeconds, "%.0f");
  fetch.baselineName = "md5sum";
  fetch.baseline = BenchReport::number(total / md5Seconds, "%.0f");
  fetch.ratio = BenchReport::number(ratioStats.median, "%.2fx");
  fetch.target = ">= 0.95x md5sum";
  fetch.met = plexaSeconds > 0 && ratioStats.median >= 0.95;
  fetch.spread = "ratio " + BenchReport::spread(ratioStats, "%.2f");
  BenchReport::add(fetch);
  return plexaSeconds > 0 ? 0 : 1;
}
