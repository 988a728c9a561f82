#pragma once

#include "plexa/bundle/BundleFormat.hpp"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <cstring>
#include <type_traits>

namespace Plexa
{
  /// Appends items to a bundle's bytes in the wire encoding: host (little-endian) byte order, every
  /// item zero-padded to a multiple of 4 bytes, strings and blobs as a 32-bit byte count followed by
  /// the bytes.
  ///
  /// A cheap view: it owns nothing and allocates nothing of its own; `data` must outlive it. Not
  /// thread-safe: one thread uses a writer, and nobody else touches `data` meanwhile.
  class BundleWriterCore
  {
  public:
    explicit BundleWriterCore(QByteArray* data) : data(data) {}
    explicit BundleWriterCore(QByteArray& data) : data(&data) {}

    /// The bytes being written (the whole bundle, header included). Not owned.
    QByteArray* data;

    /// Current size of the written bytes, i.e. the offset the next item starts at.
    uint32_t size() const { return uint32_t(data->size()); }

    /// Appends `size` bytes and zero padding up to a multiple of 4. `size` 0 appends nothing.
    void write(const void* bytes, uint32_t size)
    {
      if (size == 0)
        return;
      const int start = data->size();
      const uint32_t padded = paddedSize(size);
      data->resize(start + int(padded));
      char* out = data->data() + start;
      std::memcpy(out, bytes, size);
      for (uint32_t i = size; i < padded; ++i)
        out[i] = 0;
    }

    /// Overwrites `size` already written bytes at `offset`; the buffer does not grow. Throws
    /// std::out_of_range ("BundleWriterCore::writeDataAt # tried to write past the end") when
    /// offset + size is beyond the written bytes.
    void writeDataAt(uint32_t offset, const void* bytes, uint32_t size);

    /// A fixed-size value as its raw in-memory bytes (sizeof(T) bytes plus padding).
    template <typename T>
    void writeValue(const T& value)
    {
      static_assert(std::is_trivially_copyable<T>::value, "only raw values travel as their bytes");
      write(&value, uint32_t(sizeof(T)));
    }

    /// UTF-8 bytes with a 32-bit byte count in front; an empty string is the count 0 alone.
    void writeString(const QString& text);
    /// The bytes as they are, with a 32-bit byte count in front.
    void writeBinary(const QByteArray& bytes);

    /// Starts a length-prefixed block: writes a placeholder count word and returns its offset, to be
    /// handed to `endBlock` once the block's content is written.
    uint32_t beginBlock()
    {
      const uint32_t at = size();
      writeValue(uint32_t(0));
      return at;
    }

    /// Patches the count word at `countOffset` with the number of bytes written after it.
    void endBlock(uint32_t countOffset)
    {
      const uint32_t count = size() - countOffset - 4;
      writeDataAt(countOffset, &count, 4);
    }
  };
}
