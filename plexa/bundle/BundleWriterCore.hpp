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
    explicit BundleWriterCore(QByteArray* data)
        : data(data)
    {
    }
    explicit BundleWriterCore(QByteArray& data)
        : data(&data)
    {
    }

    /// The bytes being written (the whole bundle, header included). Not owned.
    QByteArray* data;

    /// Current size of the written bytes, i.e. the offset the next item starts at.
    uint32_t size() const { return uint32_t(data->size()); }

    /// Appends `size` bytes and zero padding up to a multiple of 4. `size` 0 appends nothing.
    void write(const void* bytes, uint32_t size)
    {
      if (size == 0)
        return;
      const uint32_t padded = paddedSize(size);
      char* out = append(padded);
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
    void writeBinary(const QByteArray& bytes) { writeCounted(bytes.constData(), uint32_t(bytes.size())); }

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

  private:
    /// Grows the array by `bytes` and returns where they start. When the array is unshared and its
    /// block already has room, this does inline exactly what QByteArray::resize does in that case
    /// (new size, terminating zero); otherwise it calls resize, whose growth policy then decides.
    /// Writing small items is dominated by this step, so the common case avoids the library call.
    // gcc cannot see that an array with room (alloc != 0) is never Qt's static empty array and
    // warns about the terminator write; the condition above it rules that case out.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wstringop-overflow"
#pragma GCC diagnostic ignored "-Warray-bounds"
#endif
    char* append(uint32_t bytes)
    {
      QByteArray::DataPtr& d = data->data_ptr();
      const uint64_t newSize = uint64_t(uint32_t(d->size)) + bytes;
      if (!d->ref.isShared() && newSize + 1 <= d->alloc) {
        char* base = static_cast<char*>(d->data());
        const int start = d->size;
        d->size = int(newSize);
        base[newSize] = '\0';
        return base + start;
      }
      return appendSlow(bytes);
    }
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
    char* appendSlow(uint32_t bytes);

    /// The count word, the bytes and their padding in one step: a short text costs one append
    /// instead of two, which is most of the cost of writing it. `count` is below 2^31 (a QByteArray's),
    /// so the padded total cannot wrap.
    void writeCounted(const char* bytes, uint32_t count)
    {
      const uint32_t padded = paddedSize(count);
      char* out = append(4 + padded);
      std::memcpy(out, &count, 4);
      if (padded == 0)
        return;
      // The last word first, then the bytes over it: the padding is whatever of it they leave.
      std::memset(out + padded, 0, 4);
      std::memcpy(out + 4, bytes, count);
    }
  };
}
