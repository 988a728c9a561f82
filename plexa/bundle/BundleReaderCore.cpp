#include "plexa/bundle/BundleReaderCore.hpp"

namespace Plexa
{
  QString BundleReaderCore::readCountedString()
  {
    const uint32_t count = readValue<uint32_t>();
    if (count == ZeroTerminatedStringCount) {
      // The 32-bit test passes (the sum wraps) and the position advance is 0: the text runs to the
      // first zero byte. Search for it only inside the buffer, whatever kind of array backs it.
      const char* text = static_cast<const char*>(read(count));
      const size_t length = ::strnlen(text, size_t(remaining()));
      return QString::fromUtf8(text, int(length));
    }
    const char* text = static_cast<const char*>(readBounded(count));
    return QString::fromUtf8(text, int(count));
  }

  uint32_t BundleReaderCore::readCheckedCount(uint32_t maxLength, const char* tooLongText)
  {
    const uint32_t count = readValue<uint32_t>();
    if (count > maxLength)
      throw std::invalid_argument(tooLongText);
    // Checked before anything is allocated for the bytes: memory follows bytes actually received.
    if (uint64_t(position) + uint64_t(count) > uint64_t(uint32_t(data->size())))
      throw std::out_of_range(BundleErrors::ReadPastEnd);
    return count;
  }

  void BundleReaderCore::readBytes(QByteArray& out, uint32_t maxLength, const char* tooLongText)
  {
    const uint32_t count = readCheckedCount(maxLength, tooLongText);
    const char* bytes = count ? static_cast<const char*>(read(count)) : nullptr;
    // A caller reading many values into one array keeps its block: no resize when the size is right.
    if (out.size() != int(count) || !out.isDetached())
      out.resize(int(count));
    if (count)
      std::memcpy(out.data(), bytes, count);
  }

  void BundleReaderCore::readString(QByteArray& out, uint32_t maxLength)
  {
    readBytes(out, maxLength, BundleErrors::StringTooLong);
    if (std::memchr(out.constData(), 0, size_t(out.size())))
      throw std::invalid_argument(BundleErrors::StringSizeMismatch);
  }

  void BundleReaderCore::readString(QString& out, uint32_t maxLength)
  {
    const uint32_t count = readCheckedCount(maxLength, BundleErrors::StringTooLong);
    if (count == 0) {
      out.clear();
      return;
    }
    const char* bytes = static_cast<const char*>(read(count));
    if (std::memchr(bytes, 0, count))
      throw std::invalid_argument(BundleErrors::StringSizeMismatch);
    out = QString::fromUtf8(bytes, int(count));
  }

  void BundleReaderCore::readBinary(QByteArray& out, uint32_t maxLength)
  {
    readBytes(out, maxLength, BundleErrors::BinaryTooLong);
  }
}
