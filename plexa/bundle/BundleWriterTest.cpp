#include "plexa/bundle/BundleWriter.hpp"
#include "plexa/bundle/Bundle.hpp"
#include "plexa/bundle/BundleOutput.hpp"

#include <gtest/gtest.h>

#include <vector>

using namespace Plexa;

namespace
{
  QByteArray bytes(std::initializer_list<int> values)
  {
    QByteArray out;
    for (int v : values)
      out.append(char(v));
    return out;
  }
}

TEST(BundleWriterTest, ClosedBundleCarriesHeaderThenRecords)
{
  std::vector<Bundle> bundles;
  uint32_t counter = 0x01020304;
  BundleOutput output(&bundles, &counter, 0x0a0b0c0d);
  BundleWriter writer;
  writer.core().writeValue(uint32_t(0xdeadbeef));
  writer.core().writeString("abc");
  ASSERT_TRUE(writer.close(0x55, output));

  ASSERT_EQ(bundles.size(), 1u);
  const QByteArray expected = bytes({12,   0,    0,    0,    // payload size
                                     0x55, 0,    0,    0,    // message type
                                     4,    3,    2,    1,    // sequence
                                     0x0d, 0x0c, 0x0b, 0x0a, // acknowledged
                                     0xef, 0xbe, 0xad, 0xde, 3, 0, 0, 0, 'a', 'b', 'c', 0});
  EXPECT_EQ(bundles[0].data(), expected);
  EXPECT_TRUE(bundles[0].isComplete());
  EXPECT_EQ(counter, 0x01020305u);
  EXPECT_TRUE(writer.isEmpty());
  EXPECT_EQ(writer.data(), QByteArray(16, '\0'));
}

TEST(BundleWriterTest, EmptyWriterEmitsNothingAndKeepsTheCounter)
{
  std::vector<Bundle> bundles;
  uint32_t counter = 7;
  BundleOutput output(&bundles, &counter, 3);
  BundleWriter writer;
  writer.open(9, output);
  EXPECT_FALSE(writer.close(9, output));
  EXPECT_TRUE(bundles.empty());
  EXPECT_EQ(counter, 7u);
}

TEST(BundleWriterTest, BundlesOfOnePassGetConsecutiveSequencesAndOneAcknowledged)
{
  std::vector<Bundle> bundles;
  uint32_t counter = 1;
  BundleOutput output(&bundles, &counter, 42);
  BundleWriter first;
  BundleWriter second;
  first.core().writeValue(uint32_t(1));
  second.core().writeValue(uint32_t(2));
  first.close(5, output);
  second.close(6, output);
  first.core().writeValue(uint32_t(3));
  first.close(5, output);

  ASSERT_EQ(bundles.size(), 3u);
  EXPECT_EQ(bundles[0].header().sequence, 1u);
  EXPECT_EQ(bundles[1].header().sequence, 2u);
  EXPECT_EQ(bundles[2].header().sequence, 3u);
  EXPECT_EQ(bundles[1].header().messageType, 6u);
  for (const Bundle& b : bundles) {
    EXPECT_EQ(b.header().acknowledged, 42u);
    EXPECT_EQ(b.header().payloadSize, 4u);
  }
  EXPECT_EQ(counter, 4u);
  // Each emitted bundle kept its own bytes while the writer was reused.
  EXPECT_EQ(bundles[0].data().mid(16), bytes({1, 0, 0, 0}));
  EXPECT_EQ(bundles[2].data().mid(16), bytes({3, 0, 0, 0}));
}

TEST(BundleWriterTest, OpenFillsTheHeaderFromTheOutput)
{
  std::vector<Bundle> bundles;
  uint32_t counter = 11;
  BundleOutput output(&bundles, &counter, 10);
  BundleWriter writer;
  writer.open(3, output);
  const Bundle open(writer.data());
  EXPECT_EQ(open.header().messageType, 3u);
  EXPECT_EQ(open.header().sequence, 11u);
  EXPECT_EQ(open.header().acknowledged, 10u);
  EXPECT_EQ(open.header().payloadSize, 0u);
}

TEST(BundleWriterTest, BundleHeaderAccessAndCompleteness)
{
  Bundle empty;
  EXPECT_EQ(empty.data(), QByteArray(16, '\0'));
  EXPECT_TRUE(empty.isComplete());

  Bundle bundle;
  bundle.data().append(QByteArray(8, 'x'));
  BundleHeader header{8, 2, 3, 4};
  bundle.setHeader(header);
  EXPECT_EQ(bundle.data().left(16), bytes({8, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0}));
  EXPECT_TRUE(bundle.isComplete());
  header.payloadSize = 9;
  bundle.setHeader(header);
  EXPECT_FALSE(bundle.isComplete());

  // Bytes shorter than a header: missing fields read as zero, never past the array.
  const Bundle shortBundle(bytes({5, 0, 0, 0, 7}));
  EXPECT_EQ(shortBundle.header().payloadSize, 5u);
  EXPECT_EQ(shortBundle.header().messageType, 7u);
  EXPECT_EQ(shortBundle.header().sequence, 0u);
  EXPECT_FALSE(shortBundle.isComplete());
  Bundle grown(bytes({1}));
  grown.setHeader(BundleHeader{0, 1, 2, 3});
  EXPECT_EQ(grown.size(), 16);
  EXPECT_TRUE(grown.isComplete());
}
