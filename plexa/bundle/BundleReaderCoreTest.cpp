#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/bundle/WireBytesTest.hpp"

#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>

using PlexaTest::bytes;
using PlexaTest::invalidArgument;
using PlexaTest::outOfRange;
using PlexaTest::thrownText;

namespace
{
  const char* const PastEnd = "BundleReader::read # tried to read past the end";
}

TEST(BundleReaderCore, ReadReturnsPointersIntoTheBufferAndSkipsPadding)
{
  QByteArray data;
  Plexa::BundleWriterCore writer(data);
  writer.writeValue(uint32_t(0xAABBCCDD)); // stands in for a header word
  writer.writeValue(true);
  writer.writeValue(double(2.5));
  writer.writeValue(uint16_t(513));
  writer.writeValue(int32_t(-3));

  Plexa::BundleReaderCore reader(data, 4);
  const void* first = reader.read(1);
  EXPECT_EQ(first, data.constData() + 4);
  EXPECT_EQ(reader.position, 8u);
  EXPECT_EQ(reader.readValue<double>(), 2.5);
  EXPECT_EQ(reader.readValue<uint16_t>(), 513);
  EXPECT_EQ(reader.position, 20u);
  EXPECT_EQ(reader.readValue<int32_t>(), -3);
  EXPECT_TRUE(reader.atEnd());
}

TEST(BundleReaderCore, DefaultPositionIsBehindTheBundleHeader)
{
  QByteArray data(20, '\0');
  data[16] = 5;
  Plexa::BundleReaderCore reader(data);
  EXPECT_EQ(reader.position, 16u);
  EXPECT_EQ(reader.readValue<uint32_t>(), 5u);
}

TEST(BundleReaderCore, ReadAtTheEndAndPastIt)
{
  QByteArray data(8, 'x');
  Plexa::BundleReaderCore reader(data, 8);
  EXPECT_EQ(reader.read(0), data.constData() + 8);
  EXPECT_EQ(reader.position, 8u);

  QByteArray seven(7, 'x');
  Plexa::BundleReaderCore r(seven, 4);
  EXPECT_EQ(thrownText([&] { r.read(4); }), outOfRange(PastEnd));
  EXPECT_EQ(r.position, 4u);
  EXPECT_EQ(thrownText([&] { r.readValue<uint32_t>(); }), outOfRange(PastEnd));
  EXPECT_EQ(r.position, 4u);
  EXPECT_NE(r.read(3), nullptr);
  EXPECT_EQ(r.position, 8u); // padding past a short end: the next read fails
  EXPECT_EQ(thrownText([&] { r.read(0); }), outOfRange(PastEnd));
}

TEST(BundleReaderCore, PositionArithmeticIsThirtyTwoBit)
{
  QByteArray data(32, '\0');
  Plexa::BundleReaderCore reader(data, 16);
  // 16 + 0xFFFFFFFF wraps to 15, which is inside: the read passes and the padded advance is 0.
  EXPECT_EQ(reader.read(0xFFFFFFFFu), data.constData() + 16);
  EXPECT_EQ(reader.position, 16u);
  // The bounded form refuses the same request and leaves the position alone.
  EXPECT_EQ(thrownText([&] { reader.readBounded(0xFFFFFFFFu); }), outOfRange(PastEnd));
  EXPECT_EQ(thrownText([&] { reader.readBounded(17); }), outOfRange(PastEnd));
  EXPECT_EQ(reader.position, 16u);
  EXPECT_EQ(reader.readBounded(16), data.constData() + 16);
  EXPECT_EQ(reader.position, 32u);
}

TEST(BundleReaderCore, StringsRoundTripWithTheirLimits)
{
  QByteArray data;
  Plexa::BundleWriterCore writer(data);
  writer.writeString(QString());
  writer.writeString(QString::fromUtf8("h\xc3\xa9llo"));
  writer.writeBinary(QByteArray("\0\1\2", 3));
  writer.writeString(QStringLiteral("abc"));

  Plexa::BundleReaderCore reader(data, 0);
  QString text = QStringLiteral("stale");
  reader.readString(text, 100);
  EXPECT_TRUE(text.isEmpty());
  reader.readString(text, 6);
  EXPECT_EQ(text, QString::fromUtf8("h\xc3\xa9llo"));
  QByteArray blob;
  reader.readBinary(blob, 3);
  EXPECT_EQ(blob, QByteArray("\0\1\2", 3));
  QByteArray raw;
  reader.readString(raw, 3);
  EXPECT_EQ(raw, QByteArray("abc"));
  EXPECT_TRUE(reader.atEnd());

  // Over the limit: the count word is consumed, the bytes are not.
  Plexa::BundleReaderCore limited(data, 4);
  EXPECT_EQ(thrownText([&] { limited.readString(text, 5); }),
            invalidArgument("BundleReaderCore::readString # too many characters"));
  EXPECT_EQ(limited.position, 8u);
  EXPECT_EQ(text, QString::fromUtf8("h\xc3\xa9llo"));
  Plexa::BundleReaderCore limitedBlob(data, 16);
  EXPECT_EQ(thrownText([&] { limitedBlob.readBinary(blob, 2); }),
            invalidArgument("BundleReaderCore::readBinary # too many characters"));
  EXPECT_EQ(limitedBlob.position, 20u);
}

TEST(BundleReaderCore, StringWithZeroByteIsASizeMismatch)
{
  const QByteArray data = bytes({3, 0, 0, 0, 'a', 0, 'b', 0});
  for (int form = 0; form < 2; ++form) {
    Plexa::BundleReaderCore reader(data, 0);
    QString text = QStringLiteral("kept");
    QByteArray raw;
    const std::string got = thrownText([&] { form == 0 ? reader.readString(text, 10) : reader.readString(raw, 10); });
    EXPECT_EQ(got, invalidArgument("BundleReaderCore::readString # size mismatch"));
    EXPECT_EQ(text, QStringLiteral("kept"));
  }
  // A blob may hold zero bytes.
  Plexa::BundleReaderCore reader(data, 0);
  QByteArray blob;
  reader.readBinary(blob, 10);
  EXPECT_EQ(blob, QByteArray("a\0b", 3));
}

TEST(BundleReaderCore, HostileCountsNeverReadOrAllocatePastTheBuffer)
{
  for (uint32_t count : {5u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFF0u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
    QByteArray data;
    Plexa::BundleWriterCore writer(data);
    writer.writeValue(count);
    writer.writeValue(uint32_t(0x64636261)); // "abcd"
    SCOPED_TRACE(count);
    QString text;
    QByteArray raw;
    Plexa::BundleReaderCore a(data, 0);
    EXPECT_EQ(thrownText([&] { a.readString(text, 0xFFFFFFFFu); }), outOfRange(PastEnd));
    EXPECT_EQ(a.position, 4u);
    Plexa::BundleReaderCore b(data, 0);
    EXPECT_EQ(thrownText([&] { b.readBinary(raw, 0xFFFFFFFFu); }), outOfRange(PastEnd));
    Plexa::BundleReaderCore c(data, 0);
    EXPECT_EQ(thrownText([&] { c.readString(raw, 0xFFFFFFFFu); }), outOfRange(PastEnd));
    if (count != 0xFFFFFFFFu) {
      Plexa::BundleReaderCore d(data, 0);
      EXPECT_EQ(thrownText([&] { d.readCountedString(); }), outOfRange(PastEnd));
      EXPECT_EQ(d.position, 4u);
    }
  }
}

TEST(BundleReaderCore, CountedStringWithAllOnesRunsToTheFirstZeroAndStays)
{
  QByteArray data = bytes({0xFF, 0xFF, 0xFF, 0xFF, 'h', 'i', 0, 'x', 4, 0, 0, 0});
  Plexa::BundleReaderCore reader(data, 0);
  EXPECT_EQ(reader.readCountedString(), QStringLiteral("hi"));
  EXPECT_EQ(reader.position, 4u);

  // Without a zero byte the text stops at the end of the buffer, even over raw (unterminated) bytes.
  const char raw[] = {char(0xFF), char(0xFF), char(0xFF), char(0xFF), 'a', 'b', 'c', 'd', 'e'};
  const QByteArray view = QByteArray::fromRawData(raw, 8);
  Plexa::BundleReaderCore viewReader(view, 0);
  EXPECT_EQ(viewReader.readCountedString(), QStringLiteral("abcd"));

  QByteArray normal;
  Plexa::BundleWriterCore writer(normal);
  writer.writeString(QStringLiteral("abcde"));
  Plexa::BundleReaderCore normalReader(normal, 0);
  EXPECT_EQ(normalReader.readCountedString(), QStringLiteral("abcde"));
  EXPECT_EQ(normalReader.position, 12u);
}

TEST(BundleReaderCore, RandomBytesOnlyEverThrowTheDocumentedExceptions)
{
  std::mt19937 rng(1234);
  for (int round = 0; round < 2000; ++round) {
    QByteArray data(int(rng() % 40), '\0');
    for (char& c : data)
      c = char(rng() % 4 == 0 ? 0xFF : rng() % 8);
    Plexa::BundleReaderCore reader(data, 0);
    for (int step = 0; step < 8; ++step) {
      try {
        QString text;
        QByteArray raw;
        switch (rng() % 4) {
        case 0:
          reader.readString(text, rng() % 2 ? 0xFFFFFFFFu : 8);
          break;
        case 1:
          reader.readBinary(raw, 0xFFFFFFFFu);
          break;
        case 2:
          reader.readCountedString();
          break;
        default:
          reader.readValue<uint64_t>();
          break;
        }
      } catch (const std::out_of_range&) {
      } catch (const std::invalid_argument&) {
      }
      ASSERT_LE(reader.position, uint32_t(data.size()) + 3);
    }
  }
}
