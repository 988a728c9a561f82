// Builds the file list of 10,000 small files (first scan: every file hashed, the list saved), then
// rescans with nothing changed, in the same store and in a restarted store that loads the saved
// list. Target: the rescans hash nothing and take under a tenth of the first scan. All figures are
// medians of several runs (PLEXA_BENCH_RUNS, at least 5): each first scan reaches the same folder
// through a link of its own, under which no list is saved yet. The saved lists go to a settings
// folder inside the temporary folder, never to the user's.
//
// The first scan is timed twice: as a user meets it, with the files' contents not in memory (the
// bench drops them from the page cache, its own files only, before each run; names and attributes
// stay cached, as they are for the rescan), and warm, with every byte in memory. The target compares
// the rescan with the first. On a warm first scan, the rescan's floor is the kernel's part of it:
// one fstatat per file and the folders' getdents, about a sixth of that scan here.
//
// Usage: FileListBench [files] [rescans]   (default 10000 files, median of 5 rescans)

#include "BenchReport.hpp"

#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTestSupport.hpp"
#include "plexa/files/ProgressSender.hpp"

#include <QDirIterator>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <unistd.h>
#include <vector>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  /// CPU seconds of the whole process (all threads): on a busy machine this shows the work done
  /// when the wall time also shows the waiting.
  double cpuSeconds()
  {
    struct timespec ts;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) * 1e-9;
  }

  /// Writes out the files below `root`, whose pages can then be dropped from the page cache (only
  /// clean ones can).
  bool writeOut(const QString& root)
  {
    const int folder = ::open(QFile::encodeName(root).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    const bool written = folder >= 0 && syncfs(folder) == 0;
    if (folder >= 0)
      ::close(folder);
    return written;
  }

  /// Drops the cached contents of the files below `root` from the page cache. False when a file
  /// could not be opened.
  bool dropCachedContents(const QString& root)
  {
    QDirIterator files(root, QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
      const int fd = ::open(QFile::encodeName(files.next()).constData(), O_RDONLY | O_CLOEXEC);
      if (fd < 0)
        return false;
      posix_fadvise(fd, 0, 0, POSIX_FADV_DONTNEED);
      ::close(fd);
    }
    return true;
  }

  class HashCounter : public ProgressSender
  {
  public:
    void transferInfo(const QString& text) override
    {
      if (text.startsWith(QLatin1String("Generated checksums: ")))
        ++hashed;
    }
    int hashed = 0;
  };
}

int main(int argc, char** argv)
{
  const int files = argc > 1 ? std::max(1, std::atoi(argv[1])) : 10000;
  const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : BenchReport::runs();
  QTemporaryDir work(QDir::tempPath() + "/plexa-filelist-bench-XXXXXX");
  qputenv("HOME", QFile::encodeName(work.path()));
  qputenv("XDG_DATA_HOME", QFile::encodeName(work.path() + "/data"));
  QTemporaryDir root(work.path() + "/files-XXXXXX");
  for (int i = 0; i < files; ++i) {
    const QString name = QStringLiteral("%1/d%2/f%3.txt").arg(root.path()).arg(i / 100).arg(i);
    if (!writeFile(name, randomBytes(200 + i % 800, unsigned(i)))) {
      std::printf("cannot write %s\n", qPrintable(name));
      return 1;
    }
  }

  if (!writeOut(root.path())) {
    std::printf("cannot write out %s\n", qPrintable(root.path()));
    return 1;
  }
  double restart, restartCpu;
  int rescanHashed, restartHashed;
  std::vector<double> firstRuns, firstCpuRuns, warmRuns, rescanRuns, rescanCpuRuns;
  for (int run = 0; run < 2 * BenchReport::runs(); ++run) {
    // Cold and warm runs alternate, so that both see the same load.
    const bool cold = run % 2 == 0;
    const QString link = QStringLiteral("%1/first%2").arg(work.path()).arg(run);
    QFile::link(root.path(), link);
    if (cold && !dropCachedContents(root.path())) {
      std::printf("cannot drop the cached contents of %s\n", qPrintable(root.path()));
      return 1;
    }
    const Clock::time_point start = Clock::now();
    const double cpu = cpuSeconds();
    AssetBase store(link);
    store.waitForFileList();
    (cold ? firstRuns : warmRuns).push_back(secondsSince(start));
    if (cold)
      firstCpuRuns.push_back(cpuSeconds() - cpu);
    if (store.fileList().size() != files) {
      std::printf("listed %d of %d files\n", store.fileList().size(), files);
      return 1;
    }
  }
  {
    AssetBase store(root.path());
    store.waitForFileList();
    HashCounter counter;
    for (int round = 0; round < rounds; ++round) {
      const Clock::time_point again = Clock::now();
      const double cpuAgain = cpuSeconds();
      store.buildFileList(&counter);
      rescanRuns.push_back(secondsSince(again));
      rescanCpuRuns.push_back(cpuSeconds() - cpuAgain);
    }
    rescanHashed = counter.hashed;
  }
  const BenchReport::Stats firstStats = BenchReport::stats(firstRuns);
  const BenchReport::Stats rescanStats = BenchReport::stats(rescanRuns);
  const double first = firstStats.median, rescan = rescanStats.median, warm = BenchReport::stats(warmRuns).median;
  const double firstCpu = BenchReport::stats(firstCpuRuns).median, rescanCpu = BenchReport::stats(rescanCpuRuns).median;
  {
    // A restarted store: load the saved list, then the background rescan, then one more rescan
    // that counts what it hashes.
    const Clock::time_point start = Clock::now();
    const double cpu = cpuSeconds();
    AssetBase store(root.path());
    store.waitForFileList();
    restart = secondsSince(start);
    restartCpu = cpuSeconds() - cpu;
    HashCounter counter;
    store.buildFileList(&counter);
    restartHashed = counter.hashed;
  }

  std::printf("FileListBench: %d files, medians of %d first scans and %d rescans\n", files, firstStats.runs,
              rescanStats.runs);
  std::printf("                                   wall s    cpu s  hashed  wall ratio\n");
  std::printf("  first scan (hash all, save)     %7.3f  %7.3f   (contents read from the disk)\n", first, firstCpu);
  std::printf("  the same, contents cached       %7.3f\n", warm);
  std::printf("  rescan, nothing changed         %7.3f  %7.3f  %6d  %.3f (target < 0.100); %.3f of the warm scan\n",
              rescan, rescanCpu, rescanHashed, rescan / first, rescan / warm);
  std::printf("  restart: load saved list + scan %7.3f  %7.3f  %6d  %.3f\n", restart, restartCpu, restartHashed,
              restart / first);
  const bool hashedNothing = rescanHashed == 0 && restartHashed == 0;
  BenchReport::Row row;
  row.what = "file list rescan, 10,000 unchanged, ms";
  row.figure = BenchReport::number(rescan * 1e3, "%.1f");
  row.baselineName = "first scan";
  row.baseline = BenchReport::number(first * 1e3, "%.1f");
  row.ratio = BenchReport::number(rescan / first, "%.3f");
  row.target = "<= 0.1 of first scan";
  row.met = hashedNothing && rescan / first <= 0.1;
  row.spread = "rescan " + BenchReport::spread(BenchReport::scaled(rescanStats, 1e3), "%.1f") + ", first " +
               BenchReport::spread(BenchReport::scaled(firstStats, 1e3), "%.0f") + ", warm first " +
               BenchReport::number(warm * 1e3, "%.0f") + " ms (ratio " + BenchReport::number(rescan / warm, "%.3f") +
               ")";
  BenchReport::add(row);
  return hashedNothing ? 0 : 1;
}
