#include "bastion/BinaryData.hpp"

#include <QtEndian>

#include <cstring>
#include <utility>

namespace Bastion
{
  namespace
  {
    /// The largest buffer we build: QByteArray cannot hold 2 GiB, and every offset must fit an int.
    constexpr int64_t MaxBytes = 0x7fff0000;

    constexpr int64_t padded(int64_t n) { return (n + 3) & ~int64_t(3); }

    uint32_t loadU32(const char* p) { return qFromLittleEndian<quint32>(p); }
    uint64_t loadU64(const char* p) { return qFromLittleEndian<quint64>(p); }
    void storeU32(char* p, uint32_t v) { qToLittleEndian<quint32>(v, p); }
    void storeU64(char* p, uint64_t v) { qToLittleEndian<quint64>(v, p); }

    /// Bytes of the complete item at `pos`, or -1 for an unknown tag or an item cut off by the end.
    int64_t itemLength(const char* data, int64_t size, int64_t pos)
    {
      if (pos < 0 || pos + 4 > size)
        return -1;
      int64_t length = -1;
      switch (loadU32(data + pos)) {
      case BinaryData::Int32Item:
      case BinaryData::FloatItem:
        length = 8;
        break;
      case BinaryData::Int64Item:
      case BinaryData::DoubleItem:
        length = 12;
        break;
      case BinaryData::StringItem:
      case BinaryData::BlobItem:
        if (pos + 8 > size)
          return -1;
        length = 8 + padded(loadU32(data + pos + 4));
        break;
      default:
        return -1;
      }
      return pos + length <= size ? length : -1;
    }
  }

  BinaryData::BinaryData() = default;

  BinaryData::BinaryData(const QByteArray& bytes) : m_bytes(bytes) {}

  BinaryData::BinaryData(const BinaryData& other)
    : m_bytes(other.data(), other.size()), m_pos(other.m_pos)
  {
  }

  BinaryData& BinaryData::operator=(const BinaryData& other)
  {
    if (this != &other) {
      m_bytes = QByteArray(other.data(), other.size());
      m_link = nullptr;
      m_linkSize = 0;
      m_pos = other.m_pos;
    }
    return *this;
  }

  BinaryData::BinaryData(BinaryData&& other) noexcept : m_pos(other.m_pos)
  {
    if (other.m_link)
      m_bytes = QByteArray(other.m_link, other.m_linkSize);
    else
      m_bytes = std::move(other.m_bytes);
    other.clear();
  }

  BinaryData& BinaryData::operator=(BinaryData&& other) noexcept
  {
    if (this != &other) {
      if (other.m_link)
        m_bytes = QByteArray(other.m_link, other.m_linkSize);
      else
        m_bytes = std::move(other.m_bytes);
      m_link = nullptr;
      m_linkSize = 0;
      m_pos = other.m_pos;
      other.clear();
    }
    return *this;
  }

  BinaryData::~BinaryData() = default;

  const char* BinaryData::data() const { return m_link ? m_link : m_bytes.constData(); }

  int BinaryData::size() const { return m_link ? m_linkSize : m_bytes.size(); }

  QByteArray BinaryData::toByteArray() const { return m_link ? QByteArray(m_link, m_linkSize) : m_bytes; }

  bool BinaryData::setPosition(int pos)
  {
    if (pos < 0 || pos > size())
      return false;
    m_pos = pos;
    return true;
  }

  void BinaryData::clear()
  {
    m_bytes.clear();
    m_link = nullptr;
    m_linkSize = 0;
    m_pos = 0;
  }

  void BinaryData::reserve(int bytes)
  {
    detach();
    if (bytes > m_bytes.size())
      m_bytes.reserve(bytes);
  }

  void BinaryData::linkTo(const void* bytes, int size)
  {
    m_bytes.clear();
    m_link = static_cast<const char*>(bytes);
    m_linkSize = (bytes && size > 0) ? size : 0;
    // A null pointer stays linked to nothing rather than falling back to the (empty) owned bytes,
    // so isLinked() reports what the caller asked for.
    if (!m_link)
      m_link = "";
    m_pos = 0;
  }

  bool BinaryData::detach()
  {
    if (!m_link)
      return true;
    m_bytes = QByteArray(m_link, m_linkSize);
    m_link = nullptr;
    m_linkSize = 0;
    return true;
  }

  char* BinaryData::appendRaw(int bytes)
  {
    detach();
    const int64_t old = m_bytes.size();
    if (bytes < 0 || old + bytes > MaxBytes)
      return nullptr;
    m_bytes.resize(int(old + bytes));
    return m_bytes.data() + old;
  }

  int BinaryData::writeFixed(uint32_t tag, const void* value, int valueSize)
  {
    const int offset = size();
    char* p = appendRaw(4 + valueSize);
    if (!p)
      return -1;
    storeU32(p, tag);
    if (valueSize == 4) {
      uint32_t v;
      std::memcpy(&v, value, 4);
      storeU32(p + 4, v);
    } else {
      uint64_t v;
      std::memcpy(&v, value, 8);
      storeU64(p + 4, v);
    }
    return offset;
  }

  int BinaryData::writeCounted(uint32_t tag, const void* bytes, int size)
  {
    if (size < 0 || (size > 0 && !bytes))
      return -1;
    const int64_t total = 8 + padded(size);
    if (total > MaxBytes)
      return -1;
    const int offset = this->size();
    char* p = appendRaw(int(total));
    if (!p)
      return -1;
    storeU32(p, tag);
    storeU32(p + 4, uint32_t(size));
    if (size > 0)
      std::memcpy(p + 8, bytes, size_t(size));
    std::memset(p + 8 + size, 0, size_t(total - 8 - size));
    return offset;
  }

  int BinaryData::writeInt32(int32_t v) { return writeFixed(Int32Item, &v, 4); }
  int BinaryData::writeInt64(int64_t v) { return writeFixed(Int64Item, &v, 8); }
  int BinaryData::writeFloat(float v) { return writeFixed(FloatItem, &v, 4); }
  int BinaryData::writeDouble(double v) { return writeFixed(DoubleItem, &v, 8); }

  int BinaryData::writeString(const QString& s) { return writeString(s.toUtf8()); }

  int BinaryData::writeString(const QByteArray& utf8)
  {
    return writeCounted(StringItem, utf8.constData(), utf8.size());
  }

  int BinaryData::writeString(const char* utf8)
  {
    const size_t n = utf8 ? std::strlen(utf8) : 0;
    if (n > size_t(MaxBytes))
      return -1;
    return writeCounted(StringItem, utf8, int(n));
  }

  int BinaryData::writeBlob(const void* bytes, int size) { return writeCounted(BlobItem, bytes, size); }

  int BinaryData::writeBlob(const QByteArray& bytes) { return writeCounted(BlobItem, bytes.constData(), bytes.size()); }

  bool BinaryData::patchInt32(int itemOffset, int32_t v)
  {
    if (itemOffset < 0 || int64_t(itemOffset) + 8 > size())
      return false;
    if (loadU32(data() + itemOffset) != Int32Item)
      return false;
    // Walk the items up to the offset: a value or count that happens to equal the int32 tag must
    // not be taken for an item. Patches are rare (one per map block), so the walk is cheap enough.
    int64_t pos = 0;
    while (pos < itemOffset) {
      const int64_t length = itemLength(data(), size(), pos);
      if (length < 0)
        return false;
      pos += length;
    }
    if (pos != itemOffset)
      return false;
    detach();
    storeU32(m_bytes.data() + itemOffset + 4, uint32_t(v));
    return true;
  }

  uint32_t BinaryData::nextItemType() const
  {
    if (m_pos < 0 || int64_t(m_pos) + 4 > size())
      return 0;
    return loadU32(data() + m_pos);
  }

  bool BinaryData::readFixed(uint32_t tag, void* value, int valueSize)
  {
    // itemLength checks the bounds: the tag fixes the length of fixed-size items.
    if (nextItemType() != tag || itemLength(data(), size(), m_pos) < 0)
      return false;
    const char* p = data() + m_pos + 4;
    if (valueSize == 4) {
      const uint32_t v = loadU32(p);
      std::memcpy(value, &v, 4);
    } else {
      const uint64_t v = loadU64(p);
      std::memcpy(value, &v, 8);
    }
    m_pos += 4 + valueSize;
    return true;
  }

  bool BinaryData::readCounted(uint32_t tag, const char*& bytes, int& count)
  {
    if (nextItemType() != tag)
      return false;
    const int64_t length = itemLength(data(), size(), m_pos);
    if (length < 0)
      return false;
    bytes = data() + m_pos + 8;
    count = int(loadU32(data() + m_pos + 4));
    m_pos += int(length);
    return true;
  }

  bool BinaryData::readInt32(int32_t& v)
  {
    if (nextItemType() == Int64Item) {
      int64_t wide;
      if (!readFixed(Int64Item, &wide, 8))
        return false;
      v = int32_t(uint32_t(uint64_t(wide)));
      return true;
    }
    return readFixed(Int32Item, &v, 4);
  }

  bool BinaryData::readInt64(int64_t& v)
  {
    if (nextItemType() == Int32Item) {
      int32_t narrow;
      if (!readFixed(Int32Item, &narrow, 4))
        return false;
      v = narrow;
      return true;
    }
    return readFixed(Int64Item, &v, 8);
  }

  bool BinaryData::readFloat(float& v) { return readFixed(FloatItem, &v, 4); }
  bool BinaryData::readDouble(double& v) { return readFixed(DoubleItem, &v, 8); }

  bool BinaryData::readString(QString& s)
  {
    const char* bytes = nullptr;
    int n = 0;
    if (!readCounted(StringItem, bytes, n))
      return false;
    s = QString::fromUtf8(bytes, n);
    return true;
  }

  bool BinaryData::readString(QByteArray& utf8)
  {
    const char* bytes = nullptr;
    int n = 0;
    if (!readCounted(StringItem, bytes, n))
      return false;
    utf8 = QByteArray(bytes, n);
    return true;
  }

  bool BinaryData::readBlob(QByteArray& out)
  {
    const char* bytes = nullptr;
    int n = 0;
    if (!readCounted(BlobItem, bytes, n))
      return false;
    out = QByteArray(bytes, n);
    return true;
  }

  bool BinaryData::readBlob(void* dst, int size)
  {
    const int start = m_pos;
    const char* bytes = nullptr;
    int n = 0;
    if (!readCounted(BlobItem, bytes, n))
      return false;
    if (n != size) {
      m_pos = start;
      return false;
    }
    if (n > 0)
      std::memcpy(dst, bytes, size_t(n));
    return true;
  }
}
