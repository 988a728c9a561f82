#include "plexa/bundle/BundleStream.hpp"

#include "bastion/LogCapture.hpp"
#include "plexa/bundle/BundleTestSupport.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <stdexcept>

using namespace Plexa;
using namespace PlexaTest;

TEST(BundleStreamTest, LinesThatDoNotOpenABlockReadNothing)
{
  for (const char* line :
       {"plexa2", "Plexa2 3", "plexa2 x", "plexa2 ", "plexa23", "plexa2 3x", "plexa2 99999999999", "ping", ""}) {
    ByteSource source(QByteArray(64, '\0'));
    std::vector<Bundle> bundles{Bundle()};
    EXPECT_EQ(readBundleBlock(line, source, bundles), BundleBlockResult::NotABlock) << line;
    EXPECT_EQ(source.reads, 0) << line;
    EXPECT_TRUE(bundles.empty()) << line;
  }
}

TEST(BundleStreamTest, CountIsReadAsToIntReadsIt)
{
  const std::vector<Bundle> sent{BundleBytes(1, 1).bytes("aaaa"), BundleBytes(2, 2).bytes(""),
                                 BundleBytes(3, 3).bytes("bbbbcccc")};
  ByteSource source(concat(sent) + "trailing");
  std::vector<Bundle> bundles;
  // Blanks around the number and a plus sign are accepted.
  ASSERT_EQ(readBundleBlock("plexa2  +3 ", source, bundles), BundleBlockResult::Complete);
  EXPECT_EQ(bundles, sent);
  EXPECT_EQ(source.position, concat(sent).size());
}

TEST(BundleStreamTest, ZeroCountGivesAnEmptyCompleteBlock)
{
  ByteSource source("unrelated");
  std::vector<Bundle> bundles{Bundle()};
  EXPECT_EQ(readBundleBlock("plexa2 0", source, bundles), BundleBlockResult::Complete);
  EXPECT_TRUE(bundles.empty());
  EXPECT_EQ(source.reads, 0);
}

TEST(BundleStreamTest, BundlesArriveWholeAndInOrder)
{
  std::vector<Bundle> sent;
  for (uint32_t i = 0; i < 5; ++i)
    sent.push_back(BundleBytes(i, i + 1).bytes(QByteArray(int(i * 4), char('a' + i))));
  // One payload larger than a read chunk.
  sent.push_back(BundleBytes(9, 6).bytes(QByteArray(BundleReadChunkBytes * 2 + 12, 'z')));
  ByteSource source(concat(sent));
  std::vector<Bundle> bundles;
  ASSERT_EQ(readBundleBlock("plexa2 6", source, bundles), BundleBlockResult::Complete);
  ASSERT_EQ(bundles.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(bundles[i].data(), sent[i].data()) << i;
    EXPECT_TRUE(bundles[i].isComplete()) << i;
  }
  EXPECT_EQ(bundles[0].size(), 16); // payload size 0 is the header alone
  EXPECT_LE(source.largestRead, BundleReadChunkBytes);
}

TEST(BundleStreamTest, BlockCutShortYieldsNothing)
{
  const std::vector<Bundle> sent{BundleBytes(1, 1).bytes("aaaa"), BundleBytes(1, 2).bytes("bbbb"),
                                 BundleBytes(1, 3).bytes("cccc")};
  {
    // Closed after the second bundle: the third header is missing.
    Bastion::LogCapture log;
    ByteSource source(concat({sent[0], sent[1]}));
    std::vector<Bundle> bundles;
    EXPECT_EQ(readBundleBlock("plexa2 3", source, bundles), BundleBlockResult::Failed);
    EXPECT_TRUE(bundles.empty());
    EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "processPlexa2 # Failed to read Bundle header"));
  }
  {
    // Closed inside the third payload.
    Bastion::LogCapture log;
    ByteSource source(concat(sent).left(concat(sent).size() - 2));
    std::vector<Bundle> bundles;
    EXPECT_EQ(readBundleBlock("plexa2 3", source, bundles), BundleBlockResult::Failed);
    EXPECT_TRUE(bundles.empty());
    EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "processPlexa2 # Failed to read Bundle"));
    EXPECT_EQ(log.texts().size(), 1u);
  }
}

TEST(BundleStreamTest, NegativeCountThrowsBeforeReading)
{
  ByteSource source(QByteArray(64, '\0'));
  std::vector<Bundle> bundles;
  EXPECT_THROW(readBundleBlock("plexa2 -1", source, bundles), std::length_error);
  EXPECT_EQ(source.reads, 0);
}

TEST(BundleStreamTest, MemoryFollowsReceivedBytesNotAnnouncedSizes)
{
  {
    // A count of 2^31-1 with one bundle behind it: nothing is allocated for the rest.
    const Bundle one = BundleBytes(1, 1).bytes("abcd");
    ByteSource source(one.data());
    std::vector<Bundle> bundles;
    EXPECT_EQ(readBundleBlock("plexa2 2147483647", source, bundles), BundleBlockResult::Failed);
    EXPECT_EQ(source.reads, 3); // header, payload, failed second header
  }
  {
    // A payload announced near 2 GiB with 100 bytes behind it: reads stay chunk sized.
    Bastion::LogCapture log;
    Bundle big;
    big.setHeader(BundleHeader{0x7fffff00u, 1, 1, 0});
    ByteSource source(big.data() + QByteArray(100, 'x'));
    std::vector<Bundle> bundles;
    EXPECT_EQ(readBundleBlock("plexa2 1", source, bundles), BundleBlockResult::Failed);
    EXPECT_EQ(source.largestRead, BundleReadChunkBytes);
    EXPECT_FALSE(source.aborted);
    EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "processPlexa2 # Failed to read Bundle"));
  }
  for (uint32_t size : {0xffffffffu, 0x80000000u, uint32_t(MaxBundleBytes - 15)}) {
    // A size no byte array can hold is a failed read that ends the connection, before any payload read.
    Bastion::LogCapture log;
    Bundle huge;
    huge.setHeader(BundleHeader{size, 1, 1, 0});
    ByteSource source(huge.data() + QByteArray(100, 'x'));
    std::vector<Bundle> bundles;
    EXPECT_EQ(readBundleBlock("plexa2 1", source, bundles), BundleBlockResult::Failed) << size;
    EXPECT_TRUE(source.aborted) << size;
    EXPECT_EQ(source.reads, 1) << size;
    EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "processPlexa2 # Failed to read Bundle")) << size;
  }
}
