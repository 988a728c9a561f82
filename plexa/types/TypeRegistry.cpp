#include "plexa/types/TypeRegistry.hpp"

#include "plexa/types/AliasDeserializer.hpp"
#include "plexa/types/FunctorWrap.hpp"

#include "bastion/Log.hpp"

#include <QStringList>

#include <utility>

namespace Plexa
{
  namespace
  {
    constexpr int Received = Carafe::Attribute::LayerReceived;

    /// Strings of the dynamic types: variants convertible to QString, errors with a fixed name.
    void writeStringVariant(BundleWriterCore& writer, const QVariant& variant)
    {
      if (!variant.canConvert<QString>())
        ValueCodec::throwNotConvertible("QString");
      writer.writeString(variant.toString());
    }

    QVariant readStringVariant(BundleReaderCore& reader)
    {
      return QVariant(reader.readCountedString());
    }

    void writeStringListVariant(BundleWriterCore& writer, const QVariant& variant)
    {
      if (!variant.canConvert<QStringList>())
        ValueCodec::throwNotConvertible("QStringList");
      ValueCodec::writeStringBlock(writer, variant.toStringList());
    }

    QVariant readStringListVariant(BundleReaderCore& reader)
    {
      QStringList list;
      ValueCodec::readStringBlock(reader, list);
      return QVariant(list);
    }

  }

  TypeRegistry::TypeRegistry()
  {
    initDefaultTypes();
  }

  void TypeRegistry::initDefaultTypes()
  {
    using Carafe::AttributeT;
    registerSimpleType<AttributeT<bool>>(1);
    registerSimpleType<AttributeT<Bastion::Color>>(2);
    registerSimpleType<AttributeT<Bastion::ColorPMA>>(48);
    registerSimpleType<AttributeT<float>>(3);
    registerSimpleType<AttributeT<double>>(4);
    registerSimpleType<AttributeT<unsigned int>>(10);
    registerSimpleType<AttributeT<long>>(11);
    registerSimpleType<AttributeT<unsigned long>>(12);
    registerSimpleType<AttributeT<Quiver::RectT<int>>>(13);
    registerSimpleType<AttributeT<Quiver::RectT<float>>>(14);
    registerSimpleType<AttributeT<Quiver::RectT<double>>>(15);
    registerSimpleType<AttributeT<Quiver::Vector2T<int>>>(16);
    registerSimpleType<AttributeT<Quiver::Vector2T<float>>>(17);
    registerSimpleType<AttributeT<Quiver::Vector3T<int>>>(19);
    registerSimpleType<AttributeT<Quiver::Vector3T<float>>>(20);
    registerSimpleType<AttributeT<Quiver::Vector4T<int>>>(22);
    registerSimpleType<AttributeT<Quiver::Vector4T<float>>>(23);
    registerSimpleType<AttributeT<Quiver::SizeT<float>>>(50);
    registerSimpleType<AttributeT<Quiver::SizeT<int>>>(52);
    registerSimpleType<AttributeT<Quiver::Vector2f, Carafe::Separate>>(49);
    registerSimpleType<AttributeT<Quiver::Matrix2T<float>>>(26);
    registerSimpleType<AttributeT<Quiver::Matrix3T<float>>>(29);
    registerSimpleType<AttributeT<Quiver::Matrix4T<float>>>(32);
    registerSimpleType<AttributeT<Bastion::TimeStamp>>(34);
    registerSimpleAttributeContainer<std::vector<float>>(40);
    registerSimpleAttributeContainer<std::vector<Quiver::Vector2T<float>>>(41);
    registerSimpleAttributeContainer<std::vector<int>>(42);
    registerSimpleAttributeContainer<std::vector<unsigned int>>(43);

    initStringTypes();
    initStringList();
    initMemGrids();
    initSpline();
    initEnumAndIntTypes();
  }

  void TypeRegistry::initStringTypes()
  {
    registerDynamicSizeAttributeContainer<std::vector<QString>, QString>(
        44, [](const QString& s, BundleWriterCore& writer) { writer.writeString(s); },
        [](BundleReaderCore& reader) { return reader.readCountedString(); });
    setVariantSerializer(44, writeStringListVariant);
    setVariantDeserializer(44, readStringListVariant);

    using StringAttribute = Carafe::AttributeT<QString>;
    registerDynamicSizeType<StringAttribute>(
        35,
        [](StringAttribute* a) -> Serializer {
          return [a](BundleWriterCore& writer) { writer.writeString(a->value()); };
        },
        [](StringAttribute* a) -> Deserializer {
          return [a](BundleReaderCore& reader) { a->setValue(reader.readCountedString(), Received); };
        });
    setVariantSerializer(35, writeStringVariant);
    setVariantDeserializer(35, readStringVariant);

    registerDynamicSizeType<Carafe::AttributeAsset>(
        51,
        [](Carafe::AttributeAsset* a) -> Serializer {
          return [a](BundleWriterCore& writer) { writer.writeString(a->source()); };
        },
        [](Carafe::AttributeAsset* a) -> Deserializer {
          return [a](BundleReaderCore& reader) { a->setSource(reader.readCountedString(), Received); };
        });
    setVariantSerializer(51, writeStringVariant);
    setVariantDeserializer(51, readStringVariant);
  }

  void TypeRegistry::initStringList()
  {
    using ListAttribute = Carafe::AttributeT<QStringList>;
    registerDynamicSizeType<ListAttribute>(
        36,
        [](ListAttribute* a) -> Serializer {
          return [a](BundleWriterCore& writer) { ValueCodec::writeStringBlock(writer, a->value()); };
        },
        [](ListAttribute* a) -> Deserializer {
          return [a](BundleReaderCore& reader) {
            QStringList list;
            ValueCodec::readStringBlock(reader, list);
            a->setValue(list, Received);
          };
        });
    setVariantSerializer(36, writeStringListVariant);
    setVariantDeserializer(36, readStringListVariant);
  }

  void TypeRegistry::initMemGrids()
  {
    using GridAttribute = Carafe::AttributeGrid<unsigned char>;
    registerDynamicSizeType<GridAttribute>(
        45,
        [](GridAttribute* a) -> Serializer {
          return [a](BundleWriterCore& writer) { ValueCodec::writeGrid(writer, a->value()); };
        },
        [](GridAttribute* a) -> Deserializer {
          // Decoded aside first: a grid cut short, forged or too large to allocate throws and
          // leaves the attribute as it was. Then moved onto the received layer (no copy of a
          // possibly large grid) and the listeners hear of it.
          return [a](BundleReaderCore& reader) {
            Bastion::MemGrid8u grid;
            ValueCodec::readGrid(reader, grid);
            a->grid(Received) = std::move(grid);
            a->notifyChanged();
          };
        });
    setVariantSerializer(45, [](BundleWriterCore& writer, const QVariant& variant) {
      ValueCodec::writeGrid(writer, ValueCodec::fromVariant<Bastion::MemGrid8u>(variant, "Bastion::MemGrid8u"));
    });
    setVariantDeserializer(45, [](BundleReaderCore& reader) {
      Bastion::MemGrid8u grid;
      ValueCodec::readGrid(reader, grid);
      return QVariant::fromValue(grid);
    });
  }

  void TypeRegistry::initSpline()
  {
    using Carafe::AttributeSpline;
    registerDynamicSizeType<AttributeSpline>(
        46,
        [](AttributeSpline* a) -> Serializer {
          return [a](BundleWriterCore& writer) {
            const std::vector<Quiver::Vector2f>& points = a->points();
            ValueCodec::writeVector(writer, points.data(), points.size());
          };
        },
        [](AttributeSpline* a) -> Deserializer {
          return [a](BundleReaderCore& reader) {
            std::vector<Quiver::Vector2f> points;
            ValueCodec::readVector(reader, points);
            a->setPoints(points, Received);
          };
        });
    // Same wire form and variant type as the 2-vector container.
    setVariantSerializer(46, variantSerializers[41]);
    setVariantDeserializer(46, variantDeserializers[41]);
  }

  void TypeRegistry::initEnumAndIntTypes()
  {
    registerSimpleType<Carafe::AttributeEnum>(47);
    registerSimpleType<Carafe::AttributeT<int>>(9);
  }

  Carafe::Attribute* TypeRegistry::createAttribute(uint32_t typeId) const
  {
    const auto it = attributeFactories.find(typeId);
    return it == attributeFactories.end() ? nullptr : it->second();
  }

  Carafe::Attribute* TypeRegistry::followAliasChain(Carafe::Attribute* attribute)
  {
    // Carafe refuses retargets that would close a cycle, so the walk ends.
    while (auto* alias = dynamic_cast<Carafe::AttributeAlias*>(attribute))
      attribute = alias->attribute();
    return attribute;
  }

  Serializer TypeRegistry::createSerializer(Carafe::Attribute* attribute, uint32_t& typeId, uint32_t& size) const
  {
    if (!attribute)
      return {};
    Carafe::Attribute* target = followAliasChain(attribute);
    if (!target) {
      Bastion::warning("Plexa TypeRegistry asked to create serializer for alias attribute '%s' that ultimately has a "
                       "null target. Ignoring.",
                       attribute->name().constData());
      return {};
    }
    const auto exact = serializerFactories.find(std::type_index(typeid(*target)));
    if (exact != serializerFactories.end())
      return exact->second(target, typeId, size);
    // A subclass of a registered class: the first matcher that accepts it decides.
    for (const auto& entry : serializerMatchers) {
      if (!entry.second(target))
        continue;
      const auto factory = serializerFactories.find(entry.first);
      return factory == serializerFactories.end() ? Serializer() : factory->second(target, typeId, size);
    }
    return {};
  }

  Deserializer TypeRegistry::createDeserializer(uint32_t typeId, Carafe::Attribute* attribute) const
  {
    const auto it = deserializerFactories.find(typeId);
    if (it == deserializerFactories.end()) {
      Bastion::error("Plexa TypeRegistry - cound not find deserializer factory for type %u", typeId);
      return {};
    }
    const DeserializerFactory& factory = it->second;
    if (!attribute)
      return factory(nullptr);
    if (Carafe::Attribute* target = followAliasChain(attribute))
      return factory(target);

    Bastion::warning("Plexa TypeRegistry asked to create deserializer for alias attribute '%s' that ultimately has a "
                     "null target. Will create a smart deserializer that stores changes and applies them when a "
                     "target is set.",
                     attribute->name().constData());
    // Only an alias can end a chain in null.
    auto* alias = static_cast<Carafe::AttributeAlias*>(attribute);
    return FunctorWrap(std::make_shared<AliasDeserializer>(factory, alias, fixedSize(typeId)));
  }

  VariantSerializer TypeRegistry::createVariantSerializer(uint32_t typeId) const
  {
    const auto it = variantSerializers.find(typeId);
    return it == variantSerializers.end() ? VariantSerializer() : it->second;
  }

  VariantDeserializer TypeRegistry::createVariantDeserializer(uint32_t typeId) const
  {
    const auto it = variantDeserializers.find(typeId);
    return it == variantDeserializers.end() ? VariantDeserializer() : it->second;
  }

  void TypeRegistry::setVariantSerializer(uint32_t typeId, VariantSerializer serializer)
  {
    variantSerializers[typeId] = std::move(serializer);
  }

  void TypeRegistry::setVariantDeserializer(uint32_t typeId, VariantDeserializer deserializer)
  {
    variantDeserializers[typeId] = std::move(deserializer);
  }

  std::vector<uint32_t> TypeRegistry::registeredTypeIds() const
  {
    std::vector<uint32_t> ids;
    ids.reserve(attributeFactories.size());
    for (const auto& entry : attributeFactories)
      ids.push_back(entry.first);
    return ids;
  }

  uint32_t TypeRegistry::fixedSize(uint32_t typeId) const
  {
    const auto it = fixedSizes.find(typeId);
    return it == fixedSizes.end() ? 0 : it->second;
  }
}
