#pragma once

#include <cstdint>

// Wire constants of the bundle byte encoding. docs/protocol.md ("Value encoding") describes the
// format in prose; this header is its single source in code.
namespace Plexa
{
  /// Every bundle starts with a header of four unsigned 32-bit words; a payload reader starts here.
  constexpr uint32_t BundleHeaderSize = 16;

  /// Every item (value, count word, string bytes, blob bytes) occupies a multiple of this many bytes,
  /// the gap filled with zeros. Together with the 16-byte header it keeps every item 4-byte aligned
  /// relative to the start of the bundle.
  constexpr uint32_t ItemAlignment = 4;

  /// The number of bytes an item of `size` bytes occupies on the wire. The arithmetic is 32-bit on
  /// purpose: sizes near 2^32 wrap to 0, and the reader's position advance relies on that exact rule.
  constexpr uint32_t paddedSize(uint32_t size)
  {
    return (size + (ItemAlignment - 1)) & ~(ItemAlignment - 1);
  }

  /// A string count with this value makes the value decoders take the text up to the first zero byte
  /// without moving the read position behind it (a consequence of the 32-bit position arithmetic that
  /// peers rely on, kept as it is).
  constexpr uint32_t ZeroTerminatedStringCount = 0xFFFFFFFFu;

  /// Exception texts. They are part of the log vocabulary: the session core logs them when it drops a
  /// bundle, so they stay exactly as they are (the reader's text names "BundleReader" on purpose).
  namespace BundleErrors
  {
    constexpr const char* ReadPastEnd = "BundleReader::read # tried to read past the end";
    constexpr const char* StringTooLong = "BundleReaderCore::readString # too many characters";
    constexpr const char* StringSizeMismatch = "BundleReaderCore::readString # size mismatch";
    constexpr const char* BinaryTooLong = "BundleReaderCore::readBinary # too many characters";
    constexpr const char* WritePastEnd = "BundleWriterCore::writeDataAt # tried to write past the end";
  }
}
