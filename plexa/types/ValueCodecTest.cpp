#include "plexa/types/ValueCodec.hpp"
#include "plexa/bundle/WireBytesTest.hpp"

#include "plexa/types/AliasDeserializer.hpp"
#include "plexa/types/FunctorWrap.hpp"
#include "plexa/types/TypeRegistry.hpp"
#include "plexa/types/TypeSamplesTest.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/Node.hpp"

#include <gtest/gtest.h>

#include <memory>
#include <random>
#include <string>

using PlexaTest::thrownText;

using Plexa::BundleReaderCore;
using Plexa::BundleWriterCore;
using Plexa::TypeRegistry;

namespace
{
  const std::string PastEnd = "out_of_range: BundleReader::read # tried to read past the end";

  QByteArray words(std::initializer_list<uint32_t> values)
  {
    QByteArray out;
    BundleWriterCore writer(out);
    for (uint32_t v : values)
      writer.writeValue(v);
    return out;
  }

  QByteArray sampleWire(const TypeRegistry& registry, uint32_t id)
  {
    QByteArray out;
    BundleWriterCore writer(out);
    registry.createVariantSerializer(id)(writer, Plexa::TypeSamples::sampleValues().at(id));
    return out;
  }

  /// Runs the attribute deserializer of `id` over `wire` into a fresh attribute; returns what it threw.
  std::string decodeInto(const TypeRegistry& registry, uint32_t id, const QByteArray& wire,
                         uint32_t* position = nullptr)
  {
    std::unique_ptr<Carafe::Attribute> attribute(registry.createAttribute(id));
    const Plexa::Deserializer deserializer = registry.createDeserializer(id, attribute.get());
    BundleReaderCore reader(wire, 0);
    const std::string thrown = thrownText([&] { deserializer(reader); });
    if (position)
      *position = reader.position;
    return thrown;
  }
}

TEST(ValueCodec, GridWithoutRoomForTheWidthIsRefused)
{
  TypeRegistry registry;
  for (uint32_t count : {0u, 1u, 3u}) {
    EXPECT_EQ(decodeInto(registry, 45, words({count, 1, 1})),
              "out_of_range: AttributeGrid deserialize # not enough data");
  }
  // The width word itself missing.
  EXPECT_EQ(decodeInto(registry, 45, words({4})), PastEnd);
}

TEST(ValueCodec, GridOfWidthZeroIsEmptyAndSkipsItsBytes)
{
  for (uint32_t count : {4u, 12u}) {
    SCOPED_TRACE(count);
    QByteArray wire = words({count, 0, 0x01010101, 0x02020202, 0xABCD});
    Bastion::MemGrid8u grid(2, 2);
    BundleReaderCore reader(wire, 0);
    Plexa::ValueCodec::readGrid(reader, grid);
    EXPECT_EQ(grid.width(), 0);
    EXPECT_EQ(grid.height(), 0);
    EXPECT_EQ(reader.position, 8 + count - 4);
  }
}

TEST(ValueCodec, GridTakesWholeRowsAndGrowsOnlyWhenItMust)
{
  // c = 4 + 7 with width 3: two rows of three, the seventh byte is skipped with the padding.
  QByteArray wire = words({11, 3}) + QByteArray("abcdefg\0", 8) + words({0xABCD});
  Bastion::MemGrid8u grid(100, 100);
  const uint8_t* block = grid.data();
  const size_t capacity = grid.capacity();
  BundleReaderCore reader(wire, 0);
  Plexa::ValueCodec::readGrid(reader, grid);
  EXPECT_EQ(grid.width(), 3);
  EXPECT_EQ(grid.height(), 2);
  EXPECT_EQ(QByteArray(reinterpret_cast<const char*>(grid.data()), 6), QByteArray("abcdef"));
  EXPECT_EQ(grid.data(), block);
  EXPECT_EQ(grid.capacity(), capacity);
  EXPECT_EQ(reader.readValue<uint32_t>(), 0xABCDu);

  // More bytes than rows: height rounds down, a width larger than the bytes gives no rows.
  QByteArray narrow = words({4 + 2, 5}) + QByteArray("xy\0\0", 4);
  BundleReaderCore narrowReader(narrow, 0);
  Plexa::ValueCodec::readGrid(narrowReader, grid);
  EXPECT_EQ(grid.width(), 5);
  EXPECT_EQ(grid.height(), 0);
}

TEST(ValueCodec, GridDeserializerNotifiesOnce)
{
  TypeRegistry registry;
  Carafe::AttributeGrid<unsigned char> attribute;
  int calls = 0;
  attribute.addListener([&] { ++calls; }, Carafe::Attribute::RoleChanged);
  const QByteArray wire = sampleWire(registry, 45);
  BundleReaderCore reader(wire, 0);
  registry.createDeserializer(45, &attribute)(reader);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(attribute.value(), Plexa::TypeSamples::sampleGrid());
  EXPECT_EQ(attribute.topLayer(), int(Carafe::Attribute::LayerReceived));
}

TEST(ValueCodec, VectorIgnoresARemainderWithoutSkippingIt)
{
  // 6 bytes announced for floats: one element; the next item starts right behind it.
  QByteArray wire = words({6, 0x3f800000, 0xABCD});
  std::vector<float> values;
  BundleReaderCore reader(wire, 0);
  Plexa::ValueCodec::readVector(reader, values);
  ASSERT_EQ(values.size(), 1u);
  EXPECT_EQ(values[0], 1.f);
  EXPECT_EQ(reader.position, 8u);
  EXPECT_EQ(reader.readValue<uint32_t>(), 0xABCDu);

  QVector<Quiver::Vector2f> points;
  BundleReaderCore pointsReader(wire, 0);
  Plexa::ValueCodec::readVector(pointsReader, points);
  EXPECT_TRUE(points.isEmpty()); // 6 bytes hold no 8-byte element
  EXPECT_EQ(pointsReader.position, 4u);
}

TEST(ValueCodec, HugeCountsAreRefusedBeforeAnythingIsAllocated)
{
  TypeRegistry registry;
  for (uint32_t id : {36u, 40u, 41u, 42u, 43u, 44u, 45u, 46u}) {
    for (uint32_t count : {0x7FFFFFFFu, 0x80000000u, 0xFFFFFFF0u, 0xFFFFFFFCu, 0xFFFFFFFFu}) {
      SCOPED_TRACE(std::to_string(id) + " " + std::to_string(count));
      EXPECT_EQ(decodeInto(registry, id, words({count, 8, 1, 2})), PastEnd);
    }
  }
}

TEST(ValueCodec, StringsRunningPastTheirBlockNeverEatTheNextRecord)
{
  TypeRegistry registry;
  // Block of 12 bytes: "a", then a count of 5 whose bytes lie behind the block.
  QByteArray wire = words({12, 1}) + QByteArray("a\0\0\0", 4) + words({5}) + QByteArray("hello\0\0\0", 8);
  for (uint32_t id : {36u, 44u}) {
    uint32_t position = 0;
    EXPECT_EQ(decodeInto(registry, id, wire, &position), PastEnd) << id;
  }
  // A block longer than the buffer.
  EXPECT_EQ(decodeInto(registry, 36, words({400, 1, 0x61})), PastEnd);

  // A well-formed block followed by the next record.
  QByteArray good = words({8, 1}) + QByteArray("a\0\0\0", 4) + words({0xABCD});
  Carafe::AttributeT<QStringList> list;
  BundleReaderCore reader(good, 0);
  registry.createDeserializer(36, &list)(reader);
  EXPECT_EQ(list.value(), QStringList{QStringLiteral("a")});
  EXPECT_EQ(reader.readValue<uint32_t>(), 0xABCDu);
}

TEST(ValueCodec, StringCountOfAllOnesTakesTheTextUpToTheFirstZero)
{
  TypeRegistry registry;
  QByteArray wire = words({0xFFFFFFFFu}) + QByteArray("name\0xyz", 8);
  Carafe::AttributeT<QString> text;
  BundleReaderCore reader(wire, 0);
  registry.createDeserializer(35, &text)(reader);
  EXPECT_EQ(text.value(), QStringLiteral("name"));
  EXPECT_EQ(reader.position, 4u);

  // An untargeted alias caches it in a form that replays to the same text, and leaves the position
  // where the direct decoder leaves it.
  Carafe::Node node;
  auto* alias = new Carafe::AttributeAlias();
  node.addAttribute("alias", alias);
  Bastion::LogCapture log;
  const Plexa::Deserializer deferred = registry.createDeserializer(35, alias);
  BundleReaderCore aliasReader(wire, 0);
  deferred(aliasReader);
  EXPECT_EQ(aliasReader.position, 4u);
  Carafe::AttributeT<QString> target;
  alias->setAttribute(&target);
  EXPECT_EQ(target.value(), QStringLiteral("name"));
}

TEST(ValueCodec, UntargetedAliasRefusesHugeLengthsWithoutCopying)
{
  TypeRegistry registry;
  Carafe::Node node;
  auto* alias = new Carafe::AttributeAlias();
  node.addAttribute("alias", alias);
  Bastion::LogCapture log;
  const Plexa::Deserializer deferred = registry.createDeserializer(40, alias);
  for (uint32_t count : {9u, 0x7FFFFFFFu, 0xFFFFFFF0u}) {
    const QByteArray wire = words({count, 1});
    BundleReaderCore r(wire, 0);
    EXPECT_EQ(thrownText([&] { deferred(r); }), PastEnd) << count;
  }
  // A malformed cached value (a grid too short for its width) is logged when replayed, not thrown
  // into whoever retargets the alias.
  EXPECT_TRUE(deferred.target<Plexa::FunctorWrap>()->aliasDeserializer()->cached().isEmpty());
  auto* gridAlias = new Carafe::AttributeAlias();
  node.addAttribute("grid", gridAlias);
  const Plexa::Deserializer gridDeferred = registry.createDeserializer(45, gridAlias);
  const QByteArray shortGrid = words({2, 0});
  BundleReaderCore gridReader(shortGrid, 0);
  gridDeferred(gridReader);
  Carafe::AttributeGrid<unsigned char> grid;
  gridAlias->setAttribute(&grid);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "AliasDeserializer for 'grid' could not apply the cached value: "
                                                     "AttributeGrid deserialize # not enough data"));
}

TEST(ValueCodec, EveryTruncationOfEveryTypeThrowsTheReaderText)
{
  TypeRegistry registry;
  for (uint32_t id : registry.registeredTypeIds()) {
    const QByteArray wire = sampleWire(registry, id);
    for (int length = 0; length < wire.size(); ++length) {
      SCOPED_TRACE(std::to_string(id) + " cut at " + std::to_string(length));
      const QByteArray cut = wire.left(length);
      const std::string thrown = decodeInto(registry, id, cut);
      BundleReaderCore reader(cut, 0);
      const std::string variantThrown = thrownText([&] { registry.createVariantDeserializer(id)(reader); });
      EXPECT_EQ(thrown, variantThrown);
      // The padding of the last item may be missing without harm; anything shorter must fail.
      if (length < wire.size() - 3) {
        EXPECT_EQ(thrown, PastEnd);
      } else if (thrown != "(nothing thrown)") {
        EXPECT_EQ(thrown, PastEnd);
      }
    }
  }
}

TEST(ValueCodec, BitFlipsOnlyEverThrowTheDocumentedExceptions)
{
  TypeRegistry registry;
  std::mt19937 rng(20240611);
  for (uint32_t id : registry.registeredTypeIds()) {
    const QByteArray wire = sampleWire(registry, id) + words({0, 0});
    for (int round = 0; round < 300; ++round) {
      QByteArray flipped = wire;
      const int flips = 1 + int(rng() % 3);
      for (int i = 0; i < flips; ++i) {
        const size_t bit = rng() % (size_t(flipped.size()) * 8);
        flipped[int(bit / 8)] = char(flipped[int(bit / 8)] ^ (1 << (bit % 8)));
      }
      uint32_t position = 0;
      const std::string thrown = decodeInto(registry, id, flipped, &position);
      EXPECT_TRUE(thrown == "(nothing thrown)" || thrown.rfind("out_of_range: ", 0) == 0) << id << ": " << thrown;
      EXPECT_LE(position, uint32_t(flipped.size()) + 3);
    }
  }
}
