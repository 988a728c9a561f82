// Builds the file list of 10,000 small files (first scan: every file hashed, the list saved), then
// rescans with nothing changed, in the same store and in a restarted store that loads the saved
// list. Target: the rescans hash nothing and take under a tenth of the first scan.
//
// Usage: FileListBench [files] [rescans]   (default 10000 files, best of 5 rescans)

#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTestSupport.hpp"
#include "plexa/files/ProgressSender.hpp"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>

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
  const int rounds = argc > 2 ? std::max(1, std::atoi(argv[2])) : 5;
  QTemporaryDir root(QDir::tempPath() + "/plexa-filelist-bench-XXXXXX");
  for (int i = 0; i < files; ++i) {
    const QString name = QStringLiteral("%1/d%2/f%3.txt").arg(root.path()).arg(i / 100).arg(i);
    if (!writeFile(name, randomBytes(200 + i % 800, unsigned(i)))) {
      std::printf("cannot write %s\n", qPrintable(name));
      return 1;
    }
  }

  double first, rescan, restart, firstCpu, rescanCpu, restartCpu;
  int rescanHashed, restartHashed;
  {
    const Clock::time_point start = Clock::now();
    const double cpu = cpuSeconds();
    AssetBase store(root.path());
    store.waitForFileList();
    first = secondsSince(start);
    firstCpu = cpuSeconds() - cpu;
    if (store.fileList().size() != files) {
      std::printf("listed %d of %d files\n", store.fileList().size(), files);
      return 1;
    }
    // The best of a few rescans, as usual for timings on a shared machine.
    HashCounter counter;
    rescan = rescanCpu = 1e300;
    for (int round = 0; round < rounds; ++round) {
      const Clock::time_point again = Clock::now();
      const double cpuAgain = cpuSeconds();
      store.buildFileList(&counter);
      rescan = std::min(rescan, secondsSince(again));
      rescanCpu = std::min(rescanCpu, cpuSeconds() - cpuAgain);
    }
    rescanHashed = counter.hashed;
  }
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

  std::printf("FileListBench: %d files\n", files);
  std::printf("                                   wall s    cpu s  hashed  wall ratio\n");
  std::printf("  first scan (hash all, save)     %7.3f  %7.3f\n", first, firstCpu);
  std::printf("  rescan, nothing changed         %7.3f  %7.3f  %6d  %.3f (target < 0.100)\n", rescan, rescanCpu,
              rescanHashed, rescan / first);
  std::printf("  restart: load saved list + scan %7.3f  %7.3f  %6d  %.3f\n", restart, restartCpu, restartHashed,
              restart / first);
  return rescanHashed == 0 && restartHashed == 0 ? 0 : 1;
}
