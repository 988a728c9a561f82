#pragma once

#include "plexa/bundle/BundleFormat.hpp"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <cstring>
#include <stdexcept>
#include <type_traits>

namespace Plexa
{
  /// Reads items of the wire encoding (see BundleWriterCore) from a bundle's bytes.
  ///
  /// A cheap view: it owns nothing, does not modify `data`, and hands out pointers into it rather
  /// than copying; only strings and blobs are copied into their results. `data` must outlive the
  /// reader and every pointer it returned. Not thread-safe.
  ///
  /// Every failure throws a standard exception (std::out_of_range, std::invalid_argument) whose text
  /// is part of the log vocabulary; the session core catches it per bundle.
  class BundleReaderCore
  {
  public:
    /// A reader of a whole bundle starts behind the 16-byte header; pass 0 for bare item bytes.
    explicit BundleReaderCore(const QByteArray* data, uint32_t position = BundleHeaderSize)
        : data(data)
        , position(position)
    {
    }
    explicit BundleReaderCore(const QByteArray& data, uint32_t position = BundleHeaderSize)
        : data(&data)
        , position(position)
    {
    }

    /// The bytes being read (the whole bundle, header included). Not owned, not modified.
    const QByteArray* data;
    /// Offset of the next item from the start of `data`.
    uint32_t position;

    /// Returns a pointer to `size` bytes at `position` and moves `position` behind them and their
    /// padding. Throws std::out_of_range ("BundleReader::read # tried to read past the end"), with
    /// `position` unchanged, when position + size exceeds the buffer.
    ///
    /// The test and the advance are 32-bit on purpose (peers depend on the exact rule): a size near
    /// 2^32 wraps. Code that copies or allocates `size` bytes from peer data uses `readBounded`.
    const void* read(uint32_t size)
    {
      if (uint32_t(position + size) > uint32_t(data->size()))
        throw std::out_of_range(BundleErrors::ReadPastEnd);
      const char* at = data->constData() + position;
      position += paddedSize(size);
      return at;
    }

    /// As `read`, but the bounds test is done in 64 bits, so a huge `size` fails instead of wrapping:
    /// the returned pointer and `size` bytes behind it always lie inside the buffer.
    const void* readBounded(uint32_t size)
    {
      if (uint64_t(position) + uint64_t(size) > uint64_t(uint32_t(data->size())))
        throw std::out_of_range(BundleErrors::ReadPastEnd);
      return read(size);
    }

    /// A fixed-size value from its raw bytes. The bytes are loaded straight into the result (items
    /// are only 4-byte aligned, so the load goes through memcpy, which compiles to a plain move).
    template <typename T>
    T readValue()
    {
      static_assert(std::is_trivially_copyable<T>::value, "only raw values travel as their bytes");
      T value;
      std::memcpy(static_cast<void*>(&value), read(uint32_t(sizeof(T))), sizeof(T));
      return value;
    }

    /// Bytes left behind `position` (0 when it stands at or past the end).
    uint64_t remaining() const
    {
      const uint64_t end = uint32_t(data->size());
      return position < end ? end - position : 0;
    }
    bool atEnd() const { return remaining() == 0; }

    /// The string form the value decoders use: a 32-bit count, then `count` UTF-8 bytes, no length
    /// limit. A count of 0xFFFFFFFF takes the text up to the first zero byte (at the latest the end
    /// of the buffer) and leaves `position` behind the count word. Any other count that runs past
    /// the buffer throws the read-past-the-end text.
    QString readCountedString();

    /// UTF-8 string with a 32-bit byte count. Throws std::invalid_argument
    /// ("BundleReaderCore::readString # too many characters") when the count exceeds `maxLength`,
    /// with `position` already behind the count word, std::out_of_range when the bytes run past the
    /// buffer, and std::invalid_argument ("BundleReaderCore::readString # size mismatch") when the
    /// bytes hold a zero byte. `out` is assigned only on success (the QString form) or resized to the
    /// count (the byte form).
    void readString(QByteArray& out, uint32_t maxLength);
    void readString(QString& out, uint32_t maxLength);
    /// A blob with a 32-bit byte count; as readString(QByteArray&) without the zero-byte test and with
    /// "BundleReaderCore::readBinary # too many characters" for the limit.
    void readBinary(QByteArray& out, uint32_t maxLength);

  private:
    /// Reads the count word and checks it against `maxLength` and the buffer; returns the count and
    /// leaves `position` behind the count word.
    uint32_t readCheckedCount(uint32_t maxLength, const char* tooLongText);
    void readBytes(QByteArray& out, uint32_t maxLength, const char* tooLongText);
  };
}
