#include "plexa/types/TypeRegistry.hpp"
#include "plexa/bundle/WireBytesTest.hpp"

#include "plexa/types/AliasDeserializer.hpp"
#include "plexa/types/FunctorWrap.hpp"
#include "plexa/types/TypeSamplesTest.hpp"

#include "bastion/LogCapture.hpp"
#include "carafe/Node.hpp"

#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <set>
#include <string>

using PlexaTest::bytes;
using PlexaTest::thrownText;

using Plexa::BundleReaderCore;
using Plexa::BundleWriterCore;
using Plexa::TypeRegistry;

namespace
{

  /// The wire form a serializer produces for `attribute`, with its announced id and size.
  QByteArray serialize(const TypeRegistry& registry, Carafe::Attribute* attribute, uint32_t* id = nullptr,
                       uint32_t* size = nullptr)
  {
    uint32_t typeId = 0xDEAD, fixed = 0xDEAD;
    const Plexa::Serializer serializer = registry.createSerializer(attribute, typeId, fixed);
    EXPECT_TRUE(bool(serializer));
    QByteArray out;
    BundleWriterCore writer(out);
    if (serializer)
      serializer(writer);
    if (id)
      *id = typeId;
    if (size)
      *size = fixed;
    return out;
  }

  /// Applies `wire` to `attribute` through the registry and checks that exactly all bytes were used.
  void deserialize(const TypeRegistry& registry, uint32_t typeId, Carafe::Attribute* attribute, const QByteArray& wire)
  {
    const Plexa::Deserializer deserializer = registry.createDeserializer(typeId, attribute);
    ASSERT_TRUE(bool(deserializer));
    BundleReaderCore reader(wire, 0);
    deserializer(reader);
    EXPECT_EQ(reader.position, uint32_t(wire.size()));
  }

  QByteArray variantBytes(const TypeRegistry& registry, uint32_t typeId, const QVariant& value)
  {
    QByteArray out;
    BundleWriterCore writer(out);
    registry.createVariantSerializer(typeId)(writer, value);
    return out;
  }

  class CountingListener
  {
  public:
    explicit CountingListener(Carafe::Attribute& attribute)
    {
      attribute.addListener([this] { ++calls; }, Carafe::Attribute::RoleChanged);
    }
    int calls = 0;
  };
}

TEST(TypeRegistry, RegistersExactlyTheProtocolIds)
{
  TypeRegistry registry;
  const std::vector<uint32_t> expected = {1,  2,  3,  4,  9,  10, 11, 12, 13, 14, 15, 16, 17, 19, 20, 22, 23, 26,
                                          29, 32, 34, 35, 36, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52};
  EXPECT_EQ(registry.registeredTypeIds(), expected);

  Bastion::LogCapture log;
  for (uint32_t id : {0u, 5u, 6u, 7u, 8u, 18u, 21u, 24u, 25u, 27u, 28u, 30u, 31u, 33u, 37u, 38u, 39u, 53u, 1000u}) {
    SCOPED_TRACE(id);
    EXPECT_EQ(registry.createAttribute(id), nullptr);
    EXPECT_FALSE(bool(registry.createVariantSerializer(id)));
    EXPECT_FALSE(bool(registry.createVariantDeserializer(id)));
    Carafe::AttributeT<float> attribute;
    log.clear();
    EXPECT_FALSE(bool(registry.createDeserializer(id, &attribute)));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(
        log.contains(Bastion::LogLevel::Error,
                     "Plexa TypeRegistry - cound not find deserializer factory for type " + QByteArray::number(id)));
  }
}

TEST(TypeRegistry, EveryIdRoundTripsThroughAllFourFunctionsAndTheFactory)
{
  TypeRegistry registry;
  const std::map<uint32_t, QVariant> samples = Plexa::TypeSamples::sampleValues();
  for (uint32_t id : registry.registeredTypeIds()) {
    SCOPED_TRACE(id);
    ASSERT_EQ(samples.count(id), 1u);
    const QByteArray wire = variantBytes(registry, id, samples.at(id));
    ASSERT_EQ(wire.size() % 4, 0);

    std::unique_ptr<Carafe::Attribute> fresh(registry.createAttribute(id));
    ASSERT_NE(fresh, nullptr);
    uint32_t announcedId = 0, announcedSize = 0;
    const QByteArray defaultWire = serialize(registry, fresh.get(), &announcedId, &announcedSize);
    EXPECT_EQ(announcedId, id);
    EXPECT_EQ(announcedSize, registry.fixedSize(id));
    EXPECT_NE(defaultWire, wire) << "the sample must differ from the default to prove the value moved";
    if (announcedSize != 0) {
      EXPECT_EQ(uint32_t(wire.size()), (announcedSize + 3) & ~3u);
    }

    CountingListener listener(*fresh);
    deserialize(registry, id, fresh.get(), wire);
    EXPECT_EQ(listener.calls, 1);
    EXPECT_EQ(serialize(registry, fresh.get()), wire);

    BundleReaderCore reader(wire, 0);
    const QVariant back = registry.createVariantDeserializer(id)(reader);
    EXPECT_EQ(reader.position, uint32_t(wire.size()));
    EXPECT_EQ(variantBytes(registry, id, back), wire);
  }
}

TEST(TypeRegistry, GoldenBytesOfTheDocumentedExamples)
{
  TypeRegistry registry;
  Carafe::AttributeT<bool> flag;
  flag.setValue(true);
  uint32_t id = 0, size = 0;
  EXPECT_EQ(serialize(registry, &flag, &id, &size), bytes({1, 0, 0, 0}));
  EXPECT_EQ(id, 1u);
  EXPECT_EQ(size, 1u);

  Carafe::AttributeContainer<std::vector<float>> floats;
  EXPECT_EQ(serialize(registry, &floats, &id, &size), bytes({0, 0, 0, 0}));
  EXPECT_EQ(id, 40u);
  EXPECT_EQ(size, 0u);

  Carafe::AttributeGrid<unsigned char> grid;
  Bastion::MemGrid8u g(3, 2);
  for (int i = 0; i < 6; ++i)
    g.data()[i] = uint8_t(i + 1);
  grid.setValue(g);
  EXPECT_EQ(serialize(registry, &grid), bytes({10, 0, 0, 0, 3, 0, 0, 0, 1, 2, 3, 4, 5, 6, 0, 0}));
  Carafe::AttributeGrid<unsigned char> gridBack;
  deserialize(registry, 45, &gridBack, serialize(registry, &grid));
  EXPECT_EQ(gridBack.value().width(), 3);
  EXPECT_EQ(gridBack.value().height(), 2);
  EXPECT_EQ(gridBack.value(), g);

  Carafe::AttributeT<QStringList> list;
  list.setValue({QStringLiteral("a"), QStringLiteral("bc")});
  EXPECT_EQ(serialize(registry, &list), bytes({16, 0, 0, 0, 1, 0, 0, 0, 'a', 0, 0, 0, 2, 0, 0, 0, 'b', 'c', 0, 0}));
  Carafe::AttributeContainer<std::vector<QString>> strings;
  strings.setValue({QStringLiteral("a"), QStringLiteral("bc")});
  EXPECT_EQ(serialize(registry, &strings), serialize(registry, &list));

  Carafe::AttributeT<QString> text;
  text.setValue(QStringLiteral("abc"));
  EXPECT_EQ(serialize(registry, &text), bytes({3, 0, 0, 0, 'a', 'b', 'c', 0}));

  // Matrices travel row by row; rectangles as low corner, then high corner.
  Carafe::AttributeT<Quiver::Matrix2f> matrix;
  Quiver::Matrix2f m;
  m.m[0][0] = 1.f;
  m.m[0][1] = 2.f;
  m.m[1][0] = 3.f;
  m.m[1][1] = 4.f;
  matrix.setValue(m);
  const QByteArray mw = serialize(registry, &matrix);
  ASSERT_EQ(mw.size(), 16);
  float row[4];
  std::memcpy(row, mw.constData(), 16);
  EXPECT_EQ(row[1], 2.f);
  EXPECT_EQ(row[2], 3.f);
  Carafe::AttributeT<Quiver::Recti> rect;
  rect.setValue(Quiver::Recti(1, 2, 3, 4));
  EXPECT_EQ(serialize(registry, &rect), bytes({1, 0, 0, 0, 2, 0, 0, 0, 3, 0, 0, 0, 4, 0, 0, 0}));
}

TEST(TypeRegistry, ReceivedValuesLandOnTheReceivedLayer)
{
  TypeRegistry registry;
  Carafe::AttributeT<float> source, target;
  source.setValue(2.5f);
  deserialize(registry, 3, &target, serialize(registry, &source));
  EXPECT_EQ(target.value(), 2.5f);
  EXPECT_EQ(target.topLayer(), int(Carafe::Attribute::LayerReceived));

  Carafe::AttributeAsset asset;
  Carafe::AttributeT<QString> text;
  text.setValue(QStringLiteral("file.png"));
  deserialize(registry, 51, &asset, serialize(registry, &text));
  EXPECT_EQ(asset.source(), QStringLiteral("file.png"));
  EXPECT_EQ(asset.topLayer(), int(Carafe::Attribute::LayerReceived));
}

TEST(TypeRegistry, FailedGridDecodeLeavesTheGridAsItWas)
{
  TypeRegistry registry;
  Carafe::AttributeGrid<unsigned char> grid;
  Bastion::MemGrid8u g(3, 2);
  grid.setValue(g);
  int heard = 0;
  grid.addListener([&] { ++heard; }, 2);
  const Plexa::Deserializer deserializer = registry.createDeserializer(45, &grid);
  // Cut short (10 bytes announced, 6 sent) and forged (a count too small for the width).
  for (const QByteArray& wire : {bytes({10, 0, 0, 0, 3, 0, 0, 0, 1, 2}), bytes({3, 0, 0, 0})}) {
    BundleReaderCore reader(wire, 0);
    EXPECT_NE(thrownText([&] { deserializer(reader); }), "(nothing thrown)");
    EXPECT_EQ(grid.value(), g);
    EXPECT_EQ(grid.topLayer(), int(Carafe::Attribute::LayerApplication));
  }
  EXPECT_EQ(heard, 0);
}

TEST(TypeRegistry, WrongClassGetsNoDeserializerAndNoMessage)
{
  TypeRegistry registry;
  Bastion::LogCapture log;
  Carafe::AttributeT<int> integer;
  EXPECT_FALSE(bool(registry.createDeserializer(3, &integer)));
  EXPECT_FALSE(bool(registry.createDeserializer(3, nullptr)));
  // The enumeration and the int share a wire form but not a class.
  Carafe::AttributeEnum enumeration;
  EXPECT_FALSE(bool(registry.createDeserializer(9, &enumeration)));
  EXPECT_TRUE(bool(registry.createDeserializer(47, &enumeration)));
  EXPECT_TRUE(log.lines().empty());
}

namespace
{
  class ApplicationFloat : public Carafe::AttributeT<float>
  {
  };

  class UnknownAttribute : public Carafe::Attribute
  {
  };
}

TEST(TypeRegistry, SubclassSerializesAsItsRegisteredBase)
{
  TypeRegistry registry;
  ApplicationFloat value;
  value.setValue(0.25f);
  uint32_t id = 0, size = 0;
  const QByteArray wire = serialize(registry, &value, &id, &size);
  EXPECT_EQ(id, 3u);
  EXPECT_EQ(size, 4u);
  EXPECT_EQ(wire, QByteArray::fromRawData(reinterpret_cast<const char*>(&value.value()), 4));
  ApplicationFloat back;
  deserialize(registry, 3, &back, wire);
  EXPECT_EQ(back.value(), 0.25f);

  UnknownAttribute unknown;
  id = 77;
  size = 77;
  Bastion::LogCapture log;
  EXPECT_FALSE(bool(registry.createSerializer(&unknown, id, size)));
  EXPECT_EQ(id, 77u);
  EXPECT_EQ(size, 77u);
  EXPECT_TRUE(log.lines().empty());
}

TEST(TypeRegistry, AliasChainsResolveToTheirFinalTarget)
{
  TypeRegistry registry;
  Carafe::AttributeT<float> value;
  Carafe::AttributeAlias inner, outer;
  ASSERT_TRUE(inner.setAttribute(&value));
  ASSERT_TRUE(outer.setAttribute(&inner));

  Carafe::AttributeT<float> source;
  source.setValue(7.f);
  deserialize(registry, 3, &outer, serialize(registry, &source));
  EXPECT_EQ(value.value(), 7.f);

  uint32_t id = 0, size = 0;
  EXPECT_EQ(serialize(registry, &outer, &id, &size), serialize(registry, &source));
  EXPECT_EQ(id, 3u);

  Carafe::AttributeAlias lonely;
  Bastion::LogCapture log;
  id = size = 99;
  EXPECT_FALSE(bool(registry.createSerializer(&lonely, id, size)));
  EXPECT_EQ(id, 99u);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning, "Plexa TypeRegistry asked to create serializer for alias "
                                                       "attribute '' that ultimately has a null target. Ignoring."));
}

namespace
{
  /// An alias living in a node, so that it has a name.
  struct NamedAlias
  {
    NamedAlias()
    {
      alias = new Carafe::AttributeAlias();
      node.addAttribute("mirror", alias);
    }
    Carafe::Node node;
    Carafe::AttributeAlias* alias;
  };

  QByteArray floatWire(float v)
  {
    QByteArray out;
    BundleWriterCore(out).writeValue(v);
    return out;
  }
}

TEST(TypeRegistry, UntargetedAliasReplaysOnlyTheLastValueOnce)
{
  TypeRegistry registry;
  NamedAlias named;
  Bastion::LogCapture log;
  const Plexa::Deserializer deserializer = registry.createDeserializer(3, named.alias);
  ASSERT_TRUE(bool(deserializer));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Warning,
                           "Plexa TypeRegistry asked to create deserializer for alias attribute 'mirror' that "
                           "ultimately has a null target. Will create a smart deserializer that stores changes and "
                           "applies them when a target is set."));
  const Plexa::FunctorWrap* wrap = deserializer.target<Plexa::FunctorWrap>();
  ASSERT_NE(wrap, nullptr);
  const std::shared_ptr<Plexa::AliasDeserializer> alias = wrap->aliasDeserializer();
  EXPECT_EQ(alias->size(), 4u);

  for (float v : {1.f, 2.f}) {
    const QByteArray wire = floatWire(v);
    BundleReaderCore reader(wire, 0);
    deserializer(reader);
    EXPECT_EQ(reader.position, 4u);
  }
  EXPECT_EQ(alias->cached(), floatWire(2.f));
  EXPECT_EQ(log.countContaining(
                "AliasDeserializer for 'mirror' called but alias does not have a target. Will cache the value"),
            2);

  Carafe::AttributeT<float> target;
  CountingListener listener(target);
  log.clear();
  ASSERT_TRUE(named.alias->setAttribute(&target));
  EXPECT_EQ(target.value(), 2.f);
  EXPECT_EQ(listener.calls, 1);
  EXPECT_TRUE(alias->cached().isEmpty());
  EXPECT_EQ(alias->listenerId(), -1);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Info, "AliasDeserializer for 'mirror' found a target. Switching to "
                                                    "normal deserializer. Have cached value: yes"));

  // Later changes of the alias do not replay anything; values go straight to the target.
  target.setValue(5.f);
  EXPECT_EQ(target.value(), 5.f);
  const QByteArray wire = floatWire(3.f);
  BundleReaderCore reader(wire, 0);
  deserializer(reader);
  EXPECT_EQ(target.value(), 3.f);
  EXPECT_EQ(log.countContaining("Switching to normal deserializer"), 1);
}

TEST(TypeRegistry, UntargetedAliasCachesDynamicValuesWithTheirLength)
{
  TypeRegistry registry;
  NamedAlias named;
  const Plexa::Deserializer deserializer = registry.createDeserializer(35, named.alias);
  QByteArray wire;
  BundleWriterCore writer(wire);
  writer.writeString(QStringLiteral("hello"));
  writer.writeValue(uint32_t(0xABCD)); // the next record must stay untouched
  BundleReaderCore reader(wire, 0);
  deserializer(reader);
  EXPECT_EQ(reader.position, 12u);
  EXPECT_EQ(reader.readValue<uint32_t>(), 0xABCDu);
  EXPECT_EQ(deserializer.target<Plexa::FunctorWrap>()->aliasDeserializer()->cached(), wire.left(12));

  // An empty value caches its length word alone.
  QByteArray empty(4, '\0');
  BundleReaderCore emptyReader(empty, 0);
  deserializer(emptyReader);
  EXPECT_EQ(deserializer.target<Plexa::FunctorWrap>()->aliasDeserializer()->cached(), empty);

  BundleReaderCore again(wire, 0);
  deserializer(again);
  Carafe::AttributeT<QString> target;
  Carafe::AttributeAlias middle;
  ASSERT_TRUE(middle.setAttribute(&target));
  ASSERT_TRUE(named.alias->setAttribute(&middle));
  EXPECT_EQ(target.value(), QStringLiteral("hello"));
}

TEST(TypeRegistry, AliasDeserializerForgetsADeletedAlias)
{
  TypeRegistry registry;
  Plexa::Deserializer deserializer;
  {
    NamedAlias named;
    deserializer = registry.createDeserializer(3, named.alias);
    EXPECT_EQ(deserializer.target<Plexa::FunctorWrap>()->aliasDeserializer()->alias(), named.alias);
  }
  const auto alias = deserializer.target<Plexa::FunctorWrap>()->aliasDeserializer();
  EXPECT_EQ(alias->alias(), nullptr);
  Bastion::LogCapture log;
  const QByteArray wire = floatWire(4.f);
  BundleReaderCore reader(wire, 0);
  deserializer(reader);
  EXPECT_EQ(alias->cached(), wire);
  EXPECT_TRUE(
      log.contains(Bastion::LogLevel::Info,
                   "AliasDeserializer for 'mirror' called but alias does not have a target. Will cache the value"));
  deserializer = nullptr; // the destructor must not reach for the deleted alias (ASan watches)
}

TEST(TypeRegistry, AliasDeserializerDroppedBeforeTheAliasRemovesItsListeners)
{
  TypeRegistry registry;
  NamedAlias named;
  const int before = named.alias->listenerCount(Carafe::Attribute::RoleChanged);
  {
    const Plexa::Deserializer deserializer = registry.createDeserializer(3, named.alias);
    EXPECT_EQ(named.alias->listenerCount(Carafe::Attribute::RoleChanged), before + 1);
  }
  EXPECT_EQ(named.alias->listenerCount(Carafe::Attribute::RoleChanged), before);
  EXPECT_EQ(named.alias->listenerCount(Carafe::Attribute::RoleDeleted), 0);
  Carafe::AttributeT<float> target;
  EXPECT_TRUE(named.alias->setAttribute(&target));
}

TEST(TypeRegistry, FunctorWrapWithoutAliasDeserializerReadsNothing)
{
  Bastion::LogCapture log;
  const QByteArray wire = floatWire(1.f);
  BundleReaderCore reader(wire, 0);
  Plexa::FunctorWrap()(reader);
  EXPECT_EQ(reader.position, 0u);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "FunctorWrap::operator() # have no functor"));
}

TEST(TypeRegistry, VariantConversionsAndTheirErrors)
{
  TypeRegistry registry;
  EXPECT_EQ(variantBytes(registry, 3, QVariant(QStringLiteral("1.5"))), floatWire(1.5f));
  // Convertible in principle, but not this text: the default value is written.
  EXPECT_EQ(variantBytes(registry, 3, QVariant(QStringLiteral("abc"))), floatWire(0.f));
  const QVariant list(QStringList{QStringLiteral("x")});
  EXPECT_EQ(thrownText([&] { variantBytes(registry, 3, list); }),
            "invalid_argument: Given QVariant can't be converted to f");
  const QVariant color = QVariant::fromValue(Bastion::Color(1, 0, 0, 1));
  EXPECT_EQ(thrownText([&] { variantBytes(registry, 35, color); }),
            "invalid_argument: Given QVariant can't be converted to QString");
  EXPECT_EQ(thrownText([&] { variantBytes(registry, 51, color); }),
            "invalid_argument: Given QVariant can't be converted to QString");
  EXPECT_EQ(thrownText([&] { variantBytes(registry, 36, color); }),
            "invalid_argument: Given QVariant can't be converted to QStringList");
  EXPECT_EQ(thrownText([&] { variantBytes(registry, 45, QVariant(3)); }),
            "invalid_argument: Given QVariant can't be converted to Bastion::MemGrid8u");
  EXPECT_EQ(thrownText([&] { variantBytes(registry, 41, QVariant(3)); }),
            "invalid_argument: Given QVariant can't be converted to QVector<Quiver::Vector2f>");
  EXPECT_EQ(thrownText([&] { variantBytes(registry, 2, QVariant(3)); }),
            std::string("invalid_argument: Given QVariant can't be converted to ") + typeid(Bastion::Color).name());

  // Once used, the value types are known to Qt by their names.
  const std::map<uint32_t, QVariant> samples = Plexa::TypeSamples::sampleValues();
  const std::map<uint32_t, const char*> names = {
      {2, "Bastion::Color"}, {48, "Bastion::ColorPMA"}, {17, "Quiver::Vector2f"}, {45, "Bastion::MemGrid8u"}};
  for (const auto& entry : names) {
    const QByteArray wire = variantBytes(registry, entry.first, samples.at(entry.first));
    BundleReaderCore reader(wire, 0);
    EXPECT_EQ(registry.createVariantDeserializer(entry.first)(reader).userType(), QMetaType::type(entry.second))
        << entry.second;
    EXPECT_NE(QMetaType::type(entry.second), int(QMetaType::UnknownType)) << entry.second;
  }

  // The registry can be extended after construction.
  registry.setVariantSerializer(
      1000, [](BundleWriterCore& writer, const QVariant& v) { writer.writeValue(uint32_t(v.toUInt() * 2)); });
  EXPECT_EQ(variantBytes(registry, 1000, QVariant(21)), bytes({42, 0, 0, 0}));
  registry.setVariantDeserializer(3, [](BundleReaderCore&) { return QVariant(QStringLiteral("replaced")); });
  const QByteArray wire = floatWire(1.f);
  BundleReaderCore reader(wire, 0);
  EXPECT_EQ(registry.createVariantDeserializer(3)(reader), QVariant(QStringLiteral("replaced")));
}
