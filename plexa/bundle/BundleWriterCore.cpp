#include "plexa/bundle/BundleWriterCore.hpp"

#include <climits>
#include <stdexcept>

namespace Plexa
{
  void BundleWriterCore::writeDataAt(uint32_t offset, const void* bytes, uint32_t size)
  {
    // 64-bit sum: an offset near 2^32 must not wrap back into the buffer.
    if (uint64_t(offset) + uint64_t(size) > uint64_t(data->size()))
      throw std::out_of_range(BundleErrors::WritePastEnd);
    if (size == 0)
      return;
    std::memcpy(data->data() + offset, bytes, size);
  }

  char* BundleWriterCore::appendSlow(uint32_t bytes)
  {
    const int start = data->size();
    if (uint64_t(uint32_t(start)) + bytes >= uint64_t(INT_MAX))
      throw std::length_error("BundleWriterCore::write # bundle larger than 2 GiB");
    data->resize(start + int(bytes));
    return data->data() + start;
  }

  void BundleWriterCore::writeString(const QString& text)
  {
    // Most texts on the wire (paths, names, values) are ASCII, whose UTF-8 form is one byte per
    // character: write those straight into the buffer instead of through a temporary array.
    const int length = text.size();
    const QChar* chars = text.constData();
    for (int i = 0; i < length; ++i) {
      if (chars[i].unicode() >= 0x80) {
        writeBinary(text.toUtf8());
        return;
      }
    }
    writeValue(uint32_t(length));
    if (length == 0)
      return;
    const uint32_t padded = paddedSize(uint32_t(length));
    char* out = append(padded);
    for (int i = 0; i < length; ++i)
      out[i] = char(chars[i].unicode());
    for (uint32_t i = uint32_t(length); i < padded; ++i)
      out[i] = 0;
  }
}
