#pragma once

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/types/CarafeAttributes.hpp"
#include "plexa/types/MetaTypes.hpp"
#include "plexa/types/TypeFunctions.hpp"
#include "plexa/types/ValueCodec.hpp"


#include <QVariant>

#include <cstdint>
#include <map>
#include <type_traits>
#include <typeindex>
#include <unordered_map>
#include <vector>

namespace Plexa
{
  /// The attribute types that can cross a connection, keyed by the protocol's type ids.
  ///
  /// For each id: a factory for an empty attribute, a deserializer factory (bytes into a given
  /// attribute), a serializer factory (found from the attribute's run-time class, which also tells
  /// the id to announce) and QVariant conversions to and from the wire form. The built-in table is
  /// registered by the constructor (`initDefaultTypes`); docs/protocol.md lists it.
  ///
  /// Threads: filled at construction, then only read, so any thread may read it without a lock.
  /// `setVariantSerializer`/`setVariantDeserializer` are for set-up time and not synchronised.
  class TypeRegistry
  {
  public:
    TypeRegistry();

    /// A new attribute of the type (owned by the caller), or null for an unregistered id.
    Carafe::Attribute* createAttribute(uint32_t typeId) const;

    /// A serializer for `attribute` (not null), following alias chains to their final target. The
    /// class is looked up exactly first, then through the matchers, so a subclass of a registered
    /// class serializes as that class. On success `typeId` and `size` receive the registered id and
    /// fixed wire size (0 for types of variable size); on failure the result is empty and they are
    /// untouched. An alias chain without a target logs a warning.
    Serializer createSerializer(Carafe::Attribute* attribute, uint32_t& typeId, uint32_t& size) const;

    /// A deserializer that reads a value of `typeId` into `attribute`, following alias chains. An
    /// unregistered id logs an error and gives an empty function; so does an attribute of another
    /// class (silently). For an alias chain without a target the result is a FunctorWrap over an
    /// AliasDeserializer, which caches values until the alias gets a target.
    Deserializer createDeserializer(uint32_t typeId, Carafe::Attribute* attribute) const;

    /// Copies of the variant functions of `typeId`, empty when it has none. The serializer throws
    /// std::invalid_argument ("Given QVariant can't be converted to ...") for a variant that cannot
    /// become the type's value.
    VariantSerializer createVariantSerializer(uint32_t typeId) const;
    VariantDeserializer createVariantDeserializer(uint32_t typeId) const;
    /// Insert or replace the variant functions of `typeId`.
    void setVariantSerializer(uint32_t typeId, VariantSerializer serializer);
    void setVariantDeserializer(uint32_t typeId, VariantDeserializer deserializer);

    /// The registered type ids, ascending.
    std::vector<uint32_t> registeredTypeIds() const;
    /// The fixed wire size of one value of `typeId`; 0 for variable-size or unregistered ids.
    uint32_t fixedSize(uint32_t typeId) const;

    /// The first object on the chain from `attribute` that is not an alias (the attribute itself
    /// when it is none); null when the chain ends without a target.
    static Carafe::Attribute* followAliasChain(Carafe::Attribute* attribute);

    /// Fixed-size values of attribute class `A` (with `A::ValueType`, `value()` and
    /// `setValue(value, layer)`): one raw copy of sizeof(ValueType) bytes each way.
    template <typename A>
    void registerSimpleType(uint32_t id);

    /// `Carafe::AttributeContainer<C>` for C = std::vector<E> with fixed-size E: a 32-bit byte
    /// count, then the raw elements. Variants hold a QVector<E>.
    template <typename C>
    void registerSimpleAttributeContainer(uint32_t id);

    /// Attribute class `A` with a hand-written encoding. The variant functions are left to the
    /// caller (`setVariantSerializer`, `setVariantDeserializer`).
    template <typename A>
    void registerDynamicSizeType(uint32_t id, std::function<Serializer(A*)> serializerFactory,
                                 std::function<Deserializer(A*)> deserializerFactory);

    /// `Carafe::AttributeContainer<C>` for C = std::vector<E> with variable-size E: the elements in a
    /// length-prefixed block, read back until the block's end. The variant functions are left to
    /// the caller.
    template <typename C, typename E>
    void registerDynamicSizeAttributeContainer(uint32_t id,
                                               const std::function<void(const E&, BundleWriterCore&)>& writeElement,
                                               const std::function<E(BundleReaderCore&)>& readElement);

  private:
    void initDefaultTypes();
    void initStringTypes();
    void initStringList();
    void initMemGrids();
    void initSpline();
    void initEnumAndIntTypes();

    /// The five entries every registration makes: factory, deserializer factory, matcher,
    /// serializer factory and fixed size.
    template <typename A>
    void registerClass(uint32_t id, uint32_t size, std::function<Serializer(A*)> serializerFactory,
                       std::function<Deserializer(A*)> deserializerFactory);

    // Constant after construction (but for the variant tables' set-up time setters).
    std::map<uint32_t, AttributeFactory> attributeFactories;
    std::map<uint32_t, DeserializerFactory> deserializerFactories;
    std::unordered_map<std::type_index, SerializerMatcher> serializerMatchers;
    std::unordered_map<std::type_index, SerializerFactory> serializerFactories;
    std::unordered_map<uint32_t, uint32_t> fixedSizes;
    std::map<uint32_t, VariantSerializer> variantSerializers;
    std::map<uint32_t, VariantDeserializer> variantDeserializers;
  };

  template <typename A>
  void TypeRegistry::registerClass(uint32_t id, uint32_t size, std::function<Serializer(A*)> serializerFactory,
                                   std::function<Deserializer(A*)> deserializerFactory)
  {
    static_assert(std::is_base_of<Carafe::Attribute, A>::value, "registered classes are attributes");
    const std::type_index key(typeid(A));
    attributeFactories[id] = [] { return static_cast<Carafe::Attribute*>(new A()); };
    deserializerFactories[id] = [deserializerFactory](Carafe::Attribute* attribute) -> Deserializer {
      A* typed = dynamic_cast<A*>(attribute);
      return typed ? deserializerFactory(typed) : Deserializer();
    };
    serializerMatchers[key] = [](Carafe::Attribute* attribute) { return dynamic_cast<A*>(attribute) != nullptr; };
    serializerFactories[key] = [id, size, serializerFactory](Carafe::Attribute* attribute, uint32_t& typeId,
                                                             uint32_t& fixedSize) {
      typeId = id;
      fixedSize = size;
      // Only reached through createSerializer, which found `attribute` to be an A.
      return serializerFactory(static_cast<A*>(attribute));
    };
    fixedSizes[id] = size;
  }

  template <typename A>
  void TypeRegistry::registerSimpleType(uint32_t id)
  {
    using T = typename A::ValueType;
    static_assert(std::is_trivially_copyable<T>::value, "simple types travel as their raw bytes");
    registerClass<A>(
        id, uint32_t(sizeof(T)),
        [](A* attribute) -> Serializer {
          return [attribute](BundleWriterCore& writer) { ValueCodec::writeRaw(writer, attribute->value()); };
        },
        [](A* attribute) -> Deserializer {
          return [attribute](BundleReaderCore& reader) {
            attribute->setValue(ValueCodec::readRaw<T>(reader), Carafe::Attribute::LayerReceived);
          };
        });
    variantSerializers[id] = [](BundleWriterCore& writer, const QVariant& variant) {
      ValueCodec::writeRaw(writer, ValueCodec::fromVariant<T>(variant));
    };
    variantDeserializers[id] = [](BundleReaderCore& reader) {
      return QVariant::fromValue(ValueCodec::readRaw<T>(reader));
    };
  }

  template <typename C>
  void TypeRegistry::registerSimpleAttributeContainer(uint32_t id)
  {
    using A = Carafe::AttributeContainer<C>;
    using E = typename C::value_type;
    registerClass<A>(
        id, 0,
        [](A* attribute) -> Serializer {
          return [attribute](BundleWriterCore& writer) {
            const C& value = attribute->value();
            ValueCodec::writeVector(writer, value.data(), value.size());
          };
        },
        [](A* attribute) -> Deserializer {
          return [attribute](BundleReaderCore& reader) {
            C value;
            ValueCodec::readVector(reader, value);
            attribute->setValue(value, Carafe::Attribute::LayerReceived);
          };
        });
    variantSerializers[id] = [](BundleWriterCore& writer, const QVariant& variant) {
      const QVector<E> value =
          ValueCodec::fromVariant<QVector<E>>(variant, QMetaType::typeName(qMetaTypeId<QVector<E>>()));
      ValueCodec::writeVector(writer, value.constData(), size_t(value.size()));
    };
    variantDeserializers[id] = [](BundleReaderCore& reader) {
      QVector<E> value;
      ValueCodec::readVector(reader, value);
      return QVariant::fromValue(value);
    };
  }

  template <typename A>
  void TypeRegistry::registerDynamicSizeType(uint32_t id, std::function<Serializer(A*)> serializerFactory,
                                             std::function<Deserializer(A*)> deserializerFactory)
  {
    registerClass<A>(id, 0, std::move(serializerFactory), std::move(deserializerFactory));
  }

  template <typename C, typename E>
  void TypeRegistry::registerDynamicSizeAttributeContainer(
      uint32_t id, const std::function<void(const E&, BundleWriterCore&)>& writeElement,
      const std::function<E(BundleReaderCore&)>& readElement)
  {
    using A = Carafe::AttributeContainer<C>;
    registerClass<A>(
        id, 0,
        [writeElement](A* attribute) -> Serializer {
          return [attribute, writeElement](BundleWriterCore& writer) {
            const uint32_t at = writer.beginBlock();
            for (const E& element : attribute->value())
              writeElement(element, writer);
            writer.endBlock(at);
          };
        },
        [readElement](A* attribute) -> Deserializer {
          return [attribute, readElement](BundleReaderCore& reader) {
            C value;
            ValueCodec::readBlock(reader, [&] { value.push_back(readElement(reader)); });
            attribute->setValue(value, Carafe::Attribute::LayerReceived);
          };
        });
  }
}
