#pragma once

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"

#include "bastion/MemGrid8u.hpp"

#include <QMetaType>
#include <QString>
#include <QStringList>
#include <QVariant>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <typeinfo>

namespace Plexa
{
  /// The wire forms of attribute values, shared by the type registry's attribute serializers,
  /// deserializers and variant functions. docs/protocol.md ("Value encoding") lists them by type id.
  ///
  /// Decoders never trust a count: whatever they copy or allocate is checked (in 64 bits) to lie
  /// inside the reader's buffer first, and a failure throws the reader's std::out_of_range text.
  class ValueCodec
  {
  public:
    /// Text of the grid decoder's failure when the byte count cannot even hold the width word.
    static constexpr const char* GridTooShort = "AttributeGrid deserialize # not enough data";

    /// A fixed-size value as its in-memory bytes, padded to 4.
    template <typename T>
    static void writeRaw(BundleWriterCore& writer, const T& value)
    {
      writer.writeValue(value);
    }

    /// Reads a fixed-size value. A bool is one byte; any byte other than 0 reads as true, so no byte
    /// pattern from the wire can produce an invalid bool.
    template <typename T>
    static T readRaw(BundleReaderCore& reader)
    {
      if constexpr (std::is_same<T, bool>::value)
        return *static_cast<const unsigned char*>(reader.read(1)) != 0;
      else
        return reader.readValue<T>();
    }

    /// A vector of fixed-size elements: a 32-bit byte count (element size x n), then the elements.
    template <typename E>
    static void writeVector(BundleWriterCore& writer, const E* elements, size_t count)
    {
      static_assert(sizeof(E) % ItemAlignment == 0, "elements keep the 4-byte item alignment");
      const uint32_t bytes = uint32_t(count * sizeof(E));
      writer.writeValue(bytes);
      writer.write(elements, bytes);
    }

    /// Reads a vector written by `writeVector` into `out` (std::vector or QVector), replacing its
    /// content. The element count is the byte count divided by the element size; a remainder is
    /// ignored and not skipped (the next item starts right behind the last whole element).
    template <typename C>
    static void readVector(BundleReaderCore& reader, C& out)
    {
      using E = typename C::value_type;
      static_assert(sizeof(E) % ItemAlignment == 0, "elements keep the 4-byte item alignment");
      const uint32_t count = reader.readValue<uint32_t>() / uint32_t(sizeof(E));
      // Bounds first: the vector is sized only once its bytes are known to be there.
      const void* bytes = reader.readBounded(count * uint32_t(sizeof(E)));
      out.resize(typename C::size_type(count));
      if (count)
        std::memcpy(static_cast<void*>(out.data()), bytes, size_t(count) * sizeof(E));
    }

    /// Reads the items of a length-prefixed block: a 32-bit byte count, then items read by `readOne`
    /// until the position reaches the block's end. The block must lie inside the buffer, and an item
    /// that runs past the block's (padded) end throws the reader's text instead of consuming what
    /// follows the block.
    template <typename F>
    static void readBlock(BundleReaderCore& reader, F&& readOne)
    {
      const uint32_t length = reader.readValue<uint32_t>();
      const uint64_t start = reader.position;
      const uint64_t end = start + length;
      if (end > uint64_t(uint32_t(reader.data->size())))
        throw std::out_of_range(BundleErrors::ReadPastEnd);
      const uint64_t paddedEnd = start + ((uint64_t(length) + 3) & ~uint64_t(3));
      while (reader.position < end) {
        readOne();
        if (reader.position > paddedEnd)
          throw std::out_of_range(BundleErrors::ReadPastEnd);
      }
    }

    /// A list of strings in a length-prefixed block, in list order, without an element count.
    template <typename C>
    static void writeStringBlock(BundleWriterCore& writer, const C& strings)
    {
      const uint32_t at = writer.beginBlock();
      for (const QString& s : strings)
        writer.writeString(s);
      writer.endBlock(at);
    }

    /// Reads the strings of a block written by `writeStringBlock`, appending to `out`.
    template <typename C>
    static void readStringBlock(BundleReaderCore& reader, C& out)
    {
      readBlock(reader, [&] { out.push_back(reader.readCountedString()); });
    }

    /// A byte grid: 32-bit byte count c = 4 + width x height, 32-bit width, then the bytes row by row.
    static void writeGrid(BundleWriterCore& writer, const Bastion::MemGrid8u& grid);
    /// Reads a grid written by `writeGrid` into `grid`, reallocating only when it must grow. Throws
    /// std::out_of_range (GridTooShort) for c below 4, the reader's text when the bytes are not all
    /// there, std::bad_alloc when the grid cannot be allocated. A width of 0 gives an empty grid,
    /// whatever byte count follows (the bytes are skipped).
    static void readGrid(BundleReaderCore& reader, Bastion::MemGrid8u& grid);

    /// The name of T that the variant conversion errors end with: the run-time type information
    /// name, as the compiler gives it (mangled), with a leading '*' skipped ("f" for float).
    template <typename T>
    static const char* typeInfoName()
    {
      const char* name = typeid(T).name();
      return *name == '*' ? name + 1 : name;
    }

    /// Throws std::invalid_argument "Given QVariant can't be converted to <typeName>".
    [[noreturn]] static void throwNotConvertible(const char* typeName);

    /// The value of a variant as T: its own value when it holds a T, the converted value when Qt
    /// can convert it (T's default when the conversion itself fails), else throwNotConvertible with
    /// T's run-time type name.
    template <typename T>
    static T fromVariant(const QVariant& variant)
    {
      return fromVariant<T>(variant, typeInfoName<T>());
    }

    /// As above with a fixed name in the error text.
    template <typename T>
    static T fromVariant(const QVariant& variant, const char* typeName)
    {
      const int id = qMetaTypeId<T>();
      if (variant.userType() == id)
        return *static_cast<const T*>(variant.constData());
      if (!variant.canConvert(id))
        throwNotConvertible(typeName);
      QVariant converted(variant);
      if (converted.convert(id))
        return *static_cast<const T*>(converted.constData());
      return T{};
    }
  };
}
