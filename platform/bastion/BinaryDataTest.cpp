#include "bastion/BinaryData.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <random>
#include <vector>

using Bastion::BinaryData;

namespace
{
  /// Bytes in a heap block of exactly their size, so AddressSanitizer reports any read past the end
  /// (a QByteArray keeps a terminating zero that would hide a one-byte overread).
  struct ExactBytes
  {
    explicit ExactBytes(const char* bytes, int n)
        : size(n)
        , block(new char[size_t(n > 0 ? n : 1)])
    {
      if (n > 0)
        std::memcpy(block.get(), bytes, size_t(n));
    }
    explicit ExactBytes(const QByteArray& b)
        : ExactBytes(b.constData(), b.size())
    {
    }
    int size;
    std::unique_ptr<char[]> block;
  };

  enum class Read
  {
    Int32,
    Int64,
    Float,
    Double,
    String,
    StringBytes,
    Blob,
    BlobExact4
  };
  constexpr int ReadKinds = 8;

  bool readOne(BinaryData& d, Read kind)
  {
    int32_t i32;
    int64_t i64;
    float f;
    double dbl;
    QString s;
    QByteArray b;
    char four[4];
    switch (kind) {
    case Read::Int32:
      return d.readInt32(i32);
    case Read::Int64:
      return d.readInt64(i64);
    case Read::Float:
      return d.readFloat(f);
    case Read::Double:
      return d.readDouble(dbl);
    case Read::String:
      return d.readString(s);
    case Read::StringBytes:
      return d.readString(b);
    case Read::Blob:
      return d.readBlob(b);
    case Read::BlobExact4:
      return d.readBlob(four, 4);
    }
    return false;
  }

  /// One item of each type; `kinds` receives the read that fits each item.
  QByteArray sampleItems(std::vector<Read>* kinds = nullptr)
  {
    BinaryData d;
    d.writeInt32(-123456);
    d.writeInt64(int64_t(1) << 40);
    d.writeFloat(2.5f);
    d.writeDouble(-1e300);
    d.writeString(QString::fromUtf8("gr\xc3\xbc\xc3\x9f"));
    d.writeBlob("\x01\x02\x03", 3);
    d.writeBlob("wxyz", 4);
    if (kinds)
      *kinds = {Read::Int32, Read::Int64, Read::Float, Read::Double, Read::String, Read::Blob, Read::BlobExact4};
    return d.toByteArray();
  }
}

TEST(BinaryData, EveryItemTypeRoundTrips)
{
  BinaryData d;
  std::vector<int> offsets;
  offsets.push_back(d.writeInt32(std::numeric_limits<int32_t>::min()));
  offsets.push_back(d.writeInt32(std::numeric_limits<int32_t>::max()));
  offsets.push_back(d.writeInt64(std::numeric_limits<int64_t>::min()));
  offsets.push_back(d.writeFloat(-0.0f));
  offsets.push_back(d.writeFloat(std::numeric_limits<float>::quiet_NaN()));
  offsets.push_back(d.writeDouble(std::numeric_limits<double>::denorm_min()));
  offsets.push_back(d.writeString(QString()));
  offsets.push_back(d.writeString(QString::fromUtf8("\xe2\x82\xac uro")));
  offsets.push_back(d.writeString(QByteArray("a\0b", 3)));
  offsets.push_back(d.writeString("plain"));
  offsets.push_back(d.writeBlob(nullptr, 0));
  offsets.push_back(d.writeBlob(QByteArray("12345")));
  for (size_t i = 0; i < offsets.size(); ++i)
    EXPECT_EQ(offsets[i] % 4, 0) << "item " << i;
  EXPECT_EQ(offsets[0], 0);
  EXPECT_EQ(offsets[1], 8);
  EXPECT_EQ(offsets[2], 16);
  EXPECT_EQ(offsets[3], 28);
  EXPECT_EQ(d.size() % 4, 0);
  EXPECT_EQ(d.position(), 0);

  int32_t i32 = 0;
  int64_t i64 = 0;
  float f = 1;
  double dbl = 0;
  QString s;
  QByteArray b;
  ASSERT_TRUE(d.readInt32(i32));
  EXPECT_EQ(i32, std::numeric_limits<int32_t>::min());
  ASSERT_TRUE(d.readInt32(i32));
  EXPECT_EQ(i32, std::numeric_limits<int32_t>::max());
  ASSERT_TRUE(d.readInt64(i64));
  EXPECT_EQ(i64, std::numeric_limits<int64_t>::min());
  ASSERT_TRUE(d.readFloat(f));
  EXPECT_TRUE(f == 0.0f && std::signbit(f));
  ASSERT_TRUE(d.readFloat(f));
  EXPECT_TRUE(std::isnan(f));
  ASSERT_TRUE(d.readDouble(dbl));
  EXPECT_EQ(dbl, std::numeric_limits<double>::denorm_min());
  ASSERT_TRUE(d.readString(s));
  EXPECT_TRUE(s.isEmpty());
  ASSERT_TRUE(d.readString(s));
  EXPECT_EQ(s, QString::fromUtf8("\xe2\x82\xac uro"));
  ASSERT_TRUE(d.readString(b));
  EXPECT_EQ(b, QByteArray("a\0b", 3));
  ASSERT_TRUE(d.readString(b));
  EXPECT_EQ(b, QByteArray("plain"));
  ASSERT_TRUE(d.readBlob(b));
  EXPECT_TRUE(b.isEmpty());
  EXPECT_EQ(d.nextItemType(), uint32_t(BinaryData::BlobItem));
  ASSERT_TRUE(d.readBlob(b));
  EXPECT_EQ(b, QByteArray("12345"));
  EXPECT_TRUE(d.atEnd());
  EXPECT_EQ(d.nextItemType(), 0u);

  d.rewind();
  EXPECT_EQ(d.position(), 0);
  ASSERT_TRUE(d.readInt32(i32));
  EXPECT_EQ(i32, std::numeric_limits<int32_t>::min());
}

TEST(BinaryData, EncodingIsLittleEndianTaggedAndZeroPadded)
{
  BinaryData d;
  d.writeInt32(0x01020304);
  d.writeInt64(-2);
  d.writeFloat(1.0f);
  d.writeDouble(1.0);
  d.writeString("abcde");
  d.writeBlob("\xff", 1);
  const QByteArray expected = QByteArray::fromHex("01000000"
                                                  "04030201"
                                                  "02000000"
                                                  "feffffffffffffff"
                                                  "03000000"
                                                  "0000803f"
                                                  "04000000"
                                                  "000000000000f03f"
                                                  "05000000"
                                                  "05000000"
                                                  "6162636465000000"
                                                  "06000000"
                                                  "01000000"
                                                  "ff000000");
  EXPECT_EQ(d.toByteArray().toHex(), expected.toHex());
  EXPECT_EQ(QByteArray(d.data(), d.size()), expected);
  // The examples of docs/protocol.md: a size item and one key/value pair, then file-info items.
  BinaryData map;
  const int sizeItem = map.writeInt32(0);
  map.writeString("id");
  map.writeString("7");
  ASSERT_TRUE(map.patchInt32(sizeItem, map.size()));
  EXPECT_EQ(map.toByteArray().toHex(), QByteArray("0100000020000000"
                                                  "050000000200000069640000"
                                                  "050000000100000037000000"));
  BinaryData info;
  info.writeString("a.txt");
  info.writeInt64(5);
  info.writeInt64(1000);
  info.writeString(QString());
  EXPECT_EQ(info.toByteArray().toHex(), QByteArray("0500000005000000612e747874000000"
                                                   "020000000500000000000000"
                                                   "02000000e803000000000000"
                                                   "0500000000000000"));
}

TEST(BinaryData, Int32AndInt64ReadsConvertBetweenTheTwoIntegerItems)
{
  BinaryData d;
  d.writeInt64((int64_t(0x12345678) << 32) | 0x9abcdef0);
  d.writeInt64(-5);
  d.writeInt64(int64_t(3000000000));
  d.writeInt32(-7);
  d.writeInt32(std::numeric_limits<int32_t>::min());
  int32_t i32 = 0;
  int64_t i64 = 0;
  ASSERT_TRUE(d.readInt32(i32));
  EXPECT_EQ(uint32_t(i32), 0x9abcdef0u);
  ASSERT_TRUE(d.readInt32(i32));
  EXPECT_EQ(i32, -5);
  ASSERT_TRUE(d.readInt32(i32));
  EXPECT_EQ(uint32_t(i32), 3000000000u);
  ASSERT_TRUE(d.readInt64(i64));
  EXPECT_EQ(i64, -7);
  ASSERT_TRUE(d.readInt64(i64));
  EXPECT_EQ(i64, int64_t(std::numeric_limits<int32_t>::min()));
  EXPECT_TRUE(d.atEnd());
}

TEST(BinaryData, WrongItemTypeFailsAndKeepsPosition)
{
  std::vector<Read> kinds;
  const QByteArray items = sampleItems(&kinds);
  BinaryData d(items);
  for (size_t item = 0; item < kinds.size(); ++item) {
    for (int k = 0; k < ReadKinds; ++k) {
      const Read kind = Read(k);
      const bool fits = kind == kinds[item] || (kinds[item] == Read::Int32 && kind == Read::Int64) ||
                        (kinds[item] == Read::Int64 && kind == Read::Int32) ||
                        (kinds[item] == Read::String && kind == Read::StringBytes) ||
                        (kinds[item] == Read::BlobExact4 && kind == Read::Blob);
      if (fits)
        continue;
      const int before = d.position();
      EXPECT_FALSE(readOne(d, kind)) << "item " << item << " read " << k;
      EXPECT_EQ(d.position(), before) << "item " << item << " read " << k;
    }
    ASSERT_TRUE(readOne(d, kinds[item])) << "item " << item;
  }
  EXPECT_TRUE(d.atEnd());
  for (int k = 0; k < ReadKinds; ++k) {
    EXPECT_FALSE(readOne(d, Read(k)));
    EXPECT_EQ(d.position(), items.size());
  }

  BinaryData unknown(QByteArray::fromHex("0700000001000000"));
  for (int k = 0; k < ReadKinds; ++k)
    EXPECT_FALSE(readOne(unknown, Read(k)));
  EXPECT_EQ(unknown.position(), 0);
}

TEST(BinaryData, TruncatedItemsFailWithoutReadingPastTheEnd)
{
  std::vector<Read> kinds;
  const QByteArray items = sampleItems(&kinds);
  BinaryData whole(items);
  std::vector<int> starts;
  for (Read kind : kinds) {
    starts.push_back(whole.position());
    ASSERT_TRUE(readOne(whole, kind));
  }
  starts.push_back(whole.position());

  for (size_t item = 0; item < kinds.size(); ++item) {
    for (int cut = starts[item]; cut < starts[item + 1]; ++cut) {
      ExactBytes prefix(items.constData(), cut);
      BinaryData d;
      d.linkTo(prefix.block.get(), prefix.size);
      ASSERT_TRUE(d.setPosition(starts[item]));
      for (int k = 0; k < ReadKinds; ++k) {
        EXPECT_FALSE(readOne(d, Read(k))) << "item " << item << " cut at " << cut;
        EXPECT_EQ(d.position(), starts[item]);
      }
    }
  }

  // Counts that point far past the end, up to the largest uint32, must not wrap any bound.
  for (uint32_t count : {16u, 0x7ffffff9u, 0x7fffffffu, 0xfffffff9u, 0xfffffffdu, 0xffffffffu}) {
    for (uint32_t tag : {5u, 6u}) {
      QByteArray bytes(12, '\0');
      std::memcpy(bytes.data(), &tag, 4);
      std::memcpy(bytes.data() + 4, &count, 4);
      ExactBytes exact(bytes);
      BinaryData d;
      d.linkTo(exact.block.get(), exact.size);
      for (int k = 0; k < ReadKinds; ++k)
        EXPECT_FALSE(readOne(d, Read(k))) << "count " << count;
      EXPECT_EQ(d.position(), 0);
    }
  }
}

TEST(BinaryData, ExactSizeBlobReadNeedsTheExactSize)
{
  BinaryData d;
  d.writeBlob("abcdef", 6);
  d.writeBlob(nullptr, 0);
  char buf[8] = {};
  EXPECT_FALSE(d.readBlob(buf, 5));
  EXPECT_FALSE(d.readBlob(buf, 7));
  EXPECT_FALSE(d.readBlob(buf, -1));
  EXPECT_EQ(d.position(), 0);
  EXPECT_EQ(buf[0], 0);
  ASSERT_TRUE(d.readBlob(buf, 6));
  EXPECT_EQ(QByteArray(buf, 6), QByteArray("abcdef"));
  EXPECT_TRUE(d.readBlob(nullptr, 0));
  EXPECT_TRUE(d.atEnd());
}

TEST(BinaryData, LinkedBytesAreReadInPlaceAndCopiedBeforeAWrite)
{
  const QByteArray items = sampleItems();
  ExactBytes exact(items);
  BinaryData d;
  d.linkTo(exact.block.get(), exact.size);
  EXPECT_TRUE(d.isLinked());
  EXPECT_EQ(d.data(), exact.block.get());
  EXPECT_EQ(d.size(), items.size());
  int32_t v = 0;
  ASSERT_TRUE(d.readInt32(v));
  EXPECT_EQ(v, -123456);

  // Patching and appending copy first: the linked bytes stay as they were.
  EXPECT_TRUE(d.patchInt32(0, 99));
  EXPECT_FALSE(d.isLinked());
  EXPECT_NE(d.data(), exact.block.get());
  EXPECT_EQ(std::memcmp(exact.block.get(), items.constData(), size_t(items.size())), 0);
  EXPECT_EQ(d.position(), 8);
  const int offset = d.writeString("tail");
  EXPECT_EQ(offset, items.size());
  d.rewind();
  ASSERT_TRUE(d.readInt32(v));
  EXPECT_EQ(v, 99);

  BinaryData appended;
  appended.linkTo(exact.block.get(), exact.size);
  EXPECT_EQ(appended.writeInt32(5), items.size());
  EXPECT_EQ(appended.toByteArray().left(items.size()), items);

  BinaryData empty;
  empty.linkTo(nullptr, 10);
  EXPECT_EQ(empty.size(), 0);
  EXPECT_TRUE(empty.atEnd());
  EXPECT_FALSE(empty.readInt32(v));
  empty.linkTo(exact.block.get(), -3);
  EXPECT_EQ(empty.size(), 0);
  empty.clear();
  EXPECT_FALSE(empty.isLinked());
}

TEST(BinaryData, CopiesAreDeepAndOwnTheirBytes)
{
  const QByteArray items = sampleItems();
  auto exact = std::make_unique<ExactBytes>(items);
  BinaryData linked;
  linked.linkTo(exact->block.get(), exact->size);
  int32_t v = 0;
  ASSERT_TRUE(linked.readInt32(v));

  BinaryData copy(linked);
  BinaryData assigned;
  assigned.writeInt32(1);
  assigned = linked;
  BinaryData temporary(linked);
  BinaryData moved(std::move(temporary));
  BinaryData moveAssigned;
  {
    BinaryData source;
    source.linkTo(exact->block.get(), exact->size);
    moveAssigned = std::move(source);
  }
  BinaryData movedLink;
  {
    BinaryData source;
    source.linkTo(exact->block.get(), exact->size);
    BinaryData target(std::move(source));
    movedLink = target;
  }
  // Nothing may still point into the linked block once it is gone.
  exact.reset();
  for (BinaryData* d : {&copy, &assigned, &moved, &moveAssigned, &movedLink}) {
    EXPECT_FALSE(d->isLinked());
    EXPECT_EQ(d->toByteArray(), items);
  }
  EXPECT_EQ(copy.position(), 8);
  EXPECT_EQ(assigned.position(), 8);
  EXPECT_EQ(moveAssigned.position(), 0);

  BinaryData owned;
  owned.writeInt32(1);
  BinaryData other(owned);
  ASSERT_TRUE(other.patchInt32(0, 2));
  other.writeInt32(3);
  owned.rewind();
  ASSERT_TRUE(owned.readInt32(v));
  EXPECT_EQ(v, 1);
  EXPECT_TRUE(owned.atEnd());
  // Arrays handed in or out are never written through later.
  const QByteArray given = sampleItems();
  BinaryData wrapping(given);
  ASSERT_TRUE(wrapping.patchInt32(0, 77));
  wrapping.writeInt32(78);
  EXPECT_EQ(given, items);
  const QByteArray snapshot = wrapping.toByteArray();
  ASSERT_TRUE(wrapping.patchInt32(0, 79));
  wrapping.clear();
  wrapping.writeInt32(80);
  BinaryData fromSnapshot(snapshot);
  ASSERT_TRUE(fromSnapshot.readInt32(v));
  EXPECT_EQ(v, 77);

  BinaryData stolen(std::move(owned));
  EXPECT_EQ(stolen.size(), 8);
  EXPECT_EQ(owned.size(), 0);
  EXPECT_EQ(owned.position(), 0);
}

TEST(BinaryData, PatchInt32OnlyRewritesAnInt32Item)
{
  BinaryData d;
  const int first = d.writeInt32(1);
  const int wide = d.writeInt64(2);
  const int text = d.writeString("x");
  const int last = d.writeInt32(3);
  const QByteArray before = d.toByteArray();
  for (int offset : {wide, text, text + 4, first + 4, -1, -8, d.size(), d.size() - 4, 1, 2})
    EXPECT_FALSE(d.patchInt32(offset, 42)) << "offset " << offset;
  EXPECT_EQ(d.toByteArray(), before);
  EXPECT_TRUE(d.patchInt32(last, -42));
  EXPECT_TRUE(d.patchInt32(first, 0x7fffffff));
  int32_t v = 0;
  int64_t w = 0;
  QString s;
  ASSERT_TRUE(d.readInt32(v));
  EXPECT_EQ(v, 0x7fffffff);
  ASSERT_TRUE(d.readInt64(w));
  EXPECT_EQ(w, 2);
  ASSERT_TRUE(d.readString(s));
  ASSERT_TRUE(d.readInt32(v));
  EXPECT_EQ(v, -42);
}

TEST(BinaryData, PositionIsBoundedAndClearEmpties)
{
  BinaryData d;
  d.writeInt32(1);
  d.writeInt32(2);
  EXPECT_FALSE(d.setPosition(-1));
  EXPECT_FALSE(d.setPosition(17));
  EXPECT_EQ(d.position(), 0);
  EXPECT_TRUE(d.setPosition(16));
  EXPECT_TRUE(d.atEnd());
  EXPECT_TRUE(d.setPosition(8));
  int32_t v = 0;
  ASSERT_TRUE(d.readInt32(v));
  EXPECT_EQ(v, 2);
  // A position inside an item reads whatever tag is there, and still never overruns.
  ASSERT_TRUE(d.setPosition(12));
  EXPECT_FALSE(d.readInt32(v));
  EXPECT_EQ(d.position(), 12);

  EXPECT_EQ(d.writeBlob("x", -1), -1);
  EXPECT_EQ(d.writeBlob(nullptr, 4), -1);
  EXPECT_EQ(d.size(), 16);
  d.reserve(1024);
  EXPECT_EQ(d.writeInt32(3), 16);
  d.clear();
  EXPECT_EQ(d.size(), 0);
  EXPECT_EQ(d.position(), 0);
  EXPECT_TRUE(d.atEnd());
  EXPECT_EQ(d.writeFloat(1.5f), 0);
}

TEST(BinaryData, RandomBytesNeverCrashOrMoveOnFailure)
{
  std::mt19937 rng(20240611);
  const uint32_t tags[] = {0, 1, 2, 3, 4, 5, 6, 7, 0xffffffffu};
  int successes = 0;
  for (int round = 0; round < 3000; ++round) {
    const int n = int(rng() % 64);
    QByteArray bytes(n, '\0');
    for (int i = 0; i < n; ++i)
      bytes[i] = char(rng());
    // Plant plausible tags and small counts, so reads get past the tag check often.
    for (int at = 0; at + 8 <= n; at += 4 * int(1 + rng() % 3)) {
      const uint32_t tag = tags[rng() % 9];
      const uint32_t count = rng() % 4 == 0 ? rng() : rng() % 24;
      std::memcpy(bytes.data() + at, &tag, 4);
      std::memcpy(bytes.data() + at + 4, &count, 4);
    }
    ExactBytes exact(bytes);
    BinaryData d;
    d.linkTo(exact.block.get(), exact.size);
    for (int step = 0; step < 32 && !d.atEnd(); ++step) {
      const int before = d.position();
      if (readOne(d, Read(rng() % ReadKinds))) {
        ++successes;
        EXPECT_GT(d.position(), before);
        EXPECT_LE(d.position(), n);
        EXPECT_EQ((d.position() - before) % 4, 0);
      } else {
        EXPECT_EQ(d.position(), before);
      }
    }
  }
  // The planted tags must have let a fair share of reads through, or this tested nothing.
  EXPECT_GT(successes, 1000);
}

TEST(BinaryData, EveryBitFlipIsReadSafely)
{
  std::vector<Read> kinds;
  const QByteArray items = sampleItems(&kinds);
  BinaryData plain(items);
  // Which bytes are tags and which are counts.
  std::vector<char> role(size_t(items.size()), 'v');
  for (Read kind : kinds) {
    const int start = plain.position();
    role[size_t(start)] = 't';
    if (kind == Read::String || kind == Read::Blob || kind == Read::BlobExact4)
      role[size_t(start + 4)] = 'c';
    ASSERT_TRUE(readOne(plain, kind));
  }

  for (int bit = 0; bit < items.size() * 8; ++bit) {
    QByteArray flipped = items;
    flipped[bit / 8] = char(flipped[bit / 8] ^ (1 << (bit % 8)));
    ExactBytes exact(flipped);
    BinaryData d;
    d.linkTo(exact.block.get(), exact.size);
    size_t read = 0;
    for (; read < kinds.size(); ++read) {
      const int before = d.position();
      if (!readOne(d, kinds[read])) {
        EXPECT_EQ(d.position(), before) << "bit " << bit;
        break;
      }
    }
    const size_t byte = size_t(bit / 8);
    const char r = role[byte - byte % 4];
    if (r == 'v') {
      // A flipped value or padding byte changes a value, never the item structure.
      EXPECT_EQ(read, kinds.size()) << "bit " << bit;
      EXPECT_TRUE(d.atEnd()) << "bit " << bit;
    } else if (r == 't') {
      // No single flip turns one tag into another that the same read accepts (1 and 2 differ in
      // two bits), so reading stops at that item.
      EXPECT_LT(read, kinds.size()) << "bit " << bit;
    }
  }
}
