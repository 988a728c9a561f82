#pragma once

#include <QVariant>

#include <cstdint>
#include <functional>

namespace Carafe
{
  class Attribute;
}

namespace Plexa
{
  class BundleReaderCore;
  class BundleWriterCore;

  // The functor shapes of the type registry. Serializers and deserializers capture a raw attribute
  // pointer they do not own: they are valid only while that attribute lives, and their owner
  // replaces them when it goes away.

  /// Appends the captured attribute's current value.
  using Serializer = std::function<void(BundleWriterCore&)>;
  /// Reads one value and stores it into the captured attribute (on the received value layer).
  using Deserializer = std::function<void(BundleReaderCore&)>;
  /// A new, default-constructed attribute of one type; the caller owns it.
  using AttributeFactory = std::function<Carafe::Attribute*()>;
  /// A deserializer for the given attribute, or an empty function when it is null or of another class.
  using DeserializerFactory = std::function<Deserializer(Carafe::Attribute*)>;
  /// True when the attribute is (a subclass of) one registered attribute class.
  using SerializerMatcher = std::function<bool(Carafe::Attribute*)>;
  /// A serializer for an attribute of the registered class; fills in its type id and fixed size.
  using SerializerFactory = std::function<Serializer(Carafe::Attribute*, uint32_t& typeId, uint32_t& size)>;
  /// Writes a QVariant in the wire form of one type id.
  using VariantSerializer = std::function<void(BundleWriterCore&, const QVariant&)>;
  /// Reads one value of a type id into a QVariant.
  using VariantDeserializer = std::function<QVariant(BundleReaderCore&)>;
}
