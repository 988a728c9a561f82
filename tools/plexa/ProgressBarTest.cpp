#include "ProgressBar.hpp"

#include <gtest/gtest.h>

using Plexa::Cli::ProgressBar;

TEST(ProgressBar, BytesAndDurationsAreShortAndReadable)
{
  EXPECT_EQ(ProgressBar::formatBytes(0), "0 B");
  EXPECT_EQ(ProgressBar::formatBytes(1023), "1023 B");
  EXPECT_EQ(ProgressBar::formatBytes(1536), "1.5 KiB");
  EXPECT_EQ(ProgressBar::formatBytes(10 * 1024 * 1024), "10.0 MiB");
  EXPECT_EQ(ProgressBar::formatBytes(int64_t(3) << 40), "3.0 TiB");
  EXPECT_EQ(ProgressBar::formatBytes(int64_t(5000) << 40), "5000.0 TiB");

  EXPECT_EQ(ProgressBar::formatDuration(0), "0:00");
  EXPECT_EQ(ProgressBar::formatDuration(0.2), "0:01");
  EXPECT_EQ(ProgressBar::formatDuration(59.5), "1:00");
  EXPECT_EQ(ProgressBar::formatDuration(754), "12:34");
  EXPECT_EQ(ProgressBar::formatDuration(3600), "1:00:00");
  EXPECT_EQ(ProgressBar::formatDuration(-1), "--:--");
  EXPECT_EQ(ProgressBar::formatDuration(1.0 / 0.0), "--:--");
}

TEST(ProgressBar, TheBarLineShowsTheFiguresAndFitsTheTerminal)
{
  // Half of 2 MiB in 2 s: 512 KiB/s, 2 s left.
  const QString line = ProgressBar::barLine("/textures/wall.png", 1 << 20, 2 << 20, 2.0, 100);
  EXPECT_EQ(line.size(), 99);
  EXPECT_TRUE(line.startsWith("/textures/wall.png [")) << line.toStdString();
  EXPECT_TRUE(line.endsWith("]  50%  1.0 MiB / 2.0 MiB  512.0 KiB/s  0:02 left")) << line.toStdString();
  EXPECT_EQ(line.count('#'), 15);
  EXPECT_EQ(line.count('-'), 15);

  for (int columns : {20, 40, 60, 80, 200}) {
    const QString fitted = ProgressBar::barLine(QString(300, 'p'), 10, 1000, 1.0, columns);
    EXPECT_LT(fitted.size(), columns) << columns;
    EXPECT_TRUE(columns < 60 || fitted.contains("1%")) << fitted.toStdString();
  }
  EXPECT_TRUE(ProgressBar::barLine(QString(300, 'p'), 0, 0, 0.0, 80).contains("100%"));
  EXPECT_TRUE(ProgressBar::barLine("f", 0, 10, 0.0, 80).endsWith("-- B/s  --:-- left"));

  EXPECT_EQ(ProgressBar::plainLine("/a.bin", 1536, 3072, 1.0), "/a.bin: 1.5 KiB / 3.0 KiB (50%), 1.5 KiB/s, 0:01 left");
}

TEST(ProgressBar, ReportsAreThrottledAndFinishedFilesGetALineOfTheirOwn)
{
  ProgressBar plain(false, 80);
  EXPECT_EQ(plain.update("/a", 10, 100, 5.0), "/a: 10 B / 100 B (10%), -- B/s, --:-- left\n");
  EXPECT_EQ(plain.update("/a", 20, 100, 5.5), "");
  // Each file has its own pace.
  EXPECT_FALSE(plain.update("/b", 20, 100, 5.5).isEmpty());
  EXPECT_EQ(plain.update("/a", 30, 100, 6.0), "/a: 30 B / 100 B (30%), 30 B/s, 0:03 left\n");
  EXPECT_EQ(plain.finish("/a", "verified", 7.0), "/a: 30 B in 0:02, 15 B/s - verified\n");
  EXPECT_EQ(plain.clear(), "");

  ProgressBar terminal(true, 60);
  const QString first = terminal.update("/a", 10, 100, 1.0);
  EXPECT_TRUE(first.startsWith("\r/a [")) << first.toStdString();
  EXPECT_FALSE(first.contains('\n'));
  EXPECT_EQ(terminal.update("/a", 20, 100, 1.05), "");
  const QString second = terminal.update("/b", 20, 100, 1.2);
  EXPECT_TRUE(second.startsWith("\r/b [")) << second.toStdString();
  const QString done = terminal.finish("/a", "verified", 1.3);
  EXPECT_TRUE(done.startsWith("\r" + QString(second.size() - 1, ' ') + "\r/a: ")) << done.toStdString();
  EXPECT_TRUE(done.endsWith(" - verified\n"));
  EXPECT_EQ(terminal.clear(), "");
  // The other file's line comes back at its next report, without waiting.
  EXPECT_FALSE(terminal.update("/b", 30, 100, 1.31).isEmpty());
}
