#include "plexa/bundle/BundleWriterCore.hpp"

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

  void BundleWriterCore::writeString(const QString& text)
  {
    writeBinary(text.toUtf8());
  }

  void BundleWriterCore::writeBinary(const QByteArray& bytes)
  {
    const uint32_t count = uint32_t(bytes.size());
    writeValue(count);
    if (count != 0)
      write(bytes.constData(), count);
  }
}
