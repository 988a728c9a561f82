#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/bundle/WireBytesTest.hpp"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using PlexaTest::bytes;
using PlexaTest::outOfRange;
using PlexaTest::thrownText;

TEST(BundleWriterCore, ValuesAndStringsArePaddedToFourBytes)
{
  QByteArray data;
  Plexa::BundleWriterCore writer(data);
  writer.writeValue(true);
  EXPECT_EQ(data, bytes({1, 0, 0, 0}));

  data.clear();
  writer.writeString(QStringLiteral("abc"));
  EXPECT_EQ(data, bytes({3, 0, 0, 0, 'a', 'b', 'c', 0}));

  data.clear();
  writer.writeString(QStringLiteral("abcd"));
  EXPECT_EQ(data, bytes({4, 0, 0, 0, 'a', 'b', 'c', 'd'}));

  data.clear();
  writer.writeString(QString());
  EXPECT_EQ(data, bytes({0, 0, 0, 0}));

  // Non-ASCII text is counted in UTF-8 bytes, not characters.
  data.clear();
  writer.writeString(QString::fromUtf8("\xc3\xa9"));
  EXPECT_EQ(data, bytes({2, 0, 0, 0, 0xc3, 0xa9, 0, 0}));

  data.clear();
  writer.writeBinary(QByteArray("\0x\0", 3));
  EXPECT_EQ(data, bytes({3, 0, 0, 0, 0, 'x', 0, 0}));

  data.clear();
  writer.writeValue(double(1.0));
  writer.writeValue(uint16_t(0x0201));
  EXPECT_EQ(data, bytes({0, 0, 0, 0, 0, 0, 0xf0, 0x3f, 1, 2, 0, 0}));
}

TEST(BundleWriterCore, WriteAppendsBehindExistingBytesAndZeroSizeAppendsNothing)
{
  QByteArray data("HEAD");
  Plexa::BundleWriterCore writer(&data);
  writer.write("xyz", 0);
  EXPECT_EQ(data, QByteArray("HEAD"));
  writer.write("xyzzy", 5);
  EXPECT_EQ(data, QByteArray("HEADxyzzy\0\0\0", 12));
  EXPECT_EQ(writer.size(), 12u);
}

TEST(BundleWriterCore, WriteDetachesASharedBuffer)
{
  QByteArray data(4, 'a');
  const QByteArray shared = data;
  Plexa::BundleWriterCore writer(data);
  writer.writeValue(uint32_t(7));
  const uint32_t patch = 9;
  writer.writeDataAt(0, &patch, 4);
  EXPECT_EQ(shared, QByteArray(4, 'a'));
  EXPECT_EQ(data, bytes({9, 0, 0, 0, 7, 0, 0, 0}));
}

TEST(BundleWriterCore, WriteDataAtPatchesInsideAndRefusesPastTheEnd)
{
  QByteArray data;
  Plexa::BundleWriterCore writer(data);
  writer.writeValue(uint32_t(0));
  writer.writeValue(uint32_t(0));
  const uint32_t v = 0x04030201;
  writer.writeDataAt(4, &v, 4); // ends exactly at the end
  EXPECT_EQ(data, bytes({0, 0, 0, 0, 1, 2, 3, 4}));

  EXPECT_EQ(thrownText([&] { writer.writeDataAt(5, &v, 4); }),
            outOfRange("BundleWriterCore::writeDataAt # tried to write past the end"));
  // An offset that wraps a 32-bit sum back into the buffer is refused too.
  EXPECT_EQ(thrownText([&] { writer.writeDataAt(0xFFFFFFFEu, &v, 4); }),
            outOfRange("BundleWriterCore::writeDataAt # tried to write past the end"));
  EXPECT_THROW(writer.writeDataAt(5, &v, 4), std::out_of_range);
  EXPECT_EQ(data.size(), 8);
  EXPECT_EQ(data, bytes({0, 0, 0, 0, 1, 2, 3, 4}));
}

TEST(BundleWriterCore, BlockCountsWhatFollowsTheCountWord)
{
  QByteArray data("HEAD");
  Plexa::BundleWriterCore writer(data);
  const uint32_t at = writer.beginBlock();
  writer.writeString(QStringLiteral("a"));
  writer.writeString(QStringLiteral("bc"));
  writer.endBlock(at);
  EXPECT_EQ(data, QByteArray("HEAD") + bytes({16, 0, 0, 0, 1, 0, 0, 0, 'a', 0, 0, 0, 2, 0, 0, 0, 'b', 'c', 0, 0}));

  QByteArray empty;
  Plexa::BundleWriterCore second(empty);
  second.endBlock(second.beginBlock());
  EXPECT_EQ(empty, bytes({0, 0, 0, 0}));
}

TEST(BundleWriterCore, StringsMatchTheirUtf8FormAtEveryLengthAndGrowth)
{
  QByteArray data;
  Plexa::BundleWriterCore writer(data);
  QByteArray expected;
  for (int length = 0; length < 300; ++length) {
    QString text;
    for (int i = 0; i < length; ++i)
      text.append(QChar(i % 7 == 3 && length % 2 ? 0x00e9 + i % 5 : 'a' + i % 26));
    if (length == 299)
      text.append(QChar(0xd83d)).append(QChar(0xde00)); // a surrogate pair
    writer.writeString(text);
    const QByteArray utf8 = text.toUtf8();
    const uint32_t count = uint32_t(utf8.size());
    expected.append(reinterpret_cast<const char*>(&count), 4).append(utf8);
    expected.append(QByteArray(int((4 - utf8.size() % 4) % 4), '\0'));
  }
  EXPECT_EQ(data, expected);
}

TEST(BundleWriterCore, WritingOverBorrowedBytesCopiesThemFirst)
{
  const char raw[] = {'r', 'a', 'w', '!'};
  QByteArray data = QByteArray::fromRawData(raw, 4);
  Plexa::BundleWriterCore writer(data);
  writer.writeValue(uint32_t(5));
  EXPECT_EQ(data, QByteArray("raw!") + bytes({5, 0, 0, 0}));
  EXPECT_EQ(QByteArray(raw, 4), QByteArray("raw!"));
  EXPECT_NE(data.constData(), raw);
}
