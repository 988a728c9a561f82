#include "DemoReport.hpp"

#include <QStringList>

#include <gtest/gtest.h>

using Plexa::Cli::DemoReport;

TEST(DemoReport, MedianOfOddEvenAndNoSamples)
{
  EXPECT_EQ(DemoReport::median({}), 0.0);
  EXPECT_EQ(DemoReport::median({3.0}), 3.0);
  EXPECT_EQ(DemoReport::median({5.0, 1.0, 3.0}), 3.0);
  EXPECT_EQ(DemoReport::median({4.0, 1.0, 3.0, 2.0}), 2.5);
  EXPECT_EQ(DemoReport::median({0.4, 9.0, 0.4, 0.5, 0.3}), 0.4);
}

TEST(DemoReport, TheTableShowsEveryFigureAndSuccessNeedsIdenticalTreesAndAllFiles)
{
  DemoReport report;
  report.attributesMirrored = 61;
  report.valuesApplied = 8640;
  report.animationSeconds = 3.0;
  report.roundTripsMs = {0.5, 0.25, 0.75};
  report.serverToClientBytes = 3 << 20;
  report.clientToServerBytes = 10240;
  report.slicedEventBytes = 300008;
  report.slices = 5;
  report.slicedEventIntact = true;
  report.files = 3;
  report.filesVerified = 3;
  report.treesIdentical = true;
  EXPECT_EQ(report.table().toStdString(),
            "  attributes mirrored        61\n"
            "  values applied per second  2880\n"
            "  median round trip          0.50 ms (3 samples)\n"
            "  bytes on the wire          3.0 MiB (server to client 3.0 MiB, client to server 10.0 KiB)\n"
            "  sliced event               300008 bytes in 5 slices, intact\n"
            "  files verified             3 of 3\n"
            "  trees identical            yes");
  EXPECT_TRUE(report.succeeded());

  DemoReport differing = report;
  differing.treesIdentical = false;
  EXPECT_FALSE(differing.succeeded());
  EXPECT_TRUE(differing.table().endsWith("trees identical            no"));
  DemoReport missingFile = report;
  missingFile.filesVerified = 2;
  EXPECT_FALSE(missingFile.succeeded());
  DemoReport noFiles = report;
  noFiles.files = noFiles.filesVerified = 0;
  EXPECT_FALSE(noFiles.succeeded());

  DemoReport empty;
  EXPECT_TRUE(empty.table().contains("median round trip          none measured"));
  EXPECT_TRUE(empty.table().contains("values applied per second  0"));
  EXPECT_TRUE(empty.table().contains("sliced event               did not arrive intact"));
}
