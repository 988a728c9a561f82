#include "bastion/BinaryData.hpp"

#include <QtEndian>

#include <algorithm>
#include <cstring>
#include <utility>

namespace Bastion
{
  namespace
  {
    /// The largest buffer we build: QByteArray cannot hold 2 GiB, and every offset must fit an int.
    constexpr int64_t MaxBytes = 0x7fff0000;
    /// First allocation of an owned buffer, so small payloads do not grow in many tiny steps.
    constexpr int64_t MinCapacity = 64;

    constexpr int64_t padded(int64_t n)
    {
      return (n + 3) & ~int64_t(3);
    }

    uint32_t loadU32(const char* p)
    {
      return qFromLittleEndian<quint32>(p);
    }
    uint64_t loadU64(const char* p)
    {
      return qFromLittleEndian<quint64>(p);
    }
    void storeU32(char* p, uint32_t v)
    {
      qToLittleEndian<quint32>(v, p);
    }
    void storeU64(char* p, uint64_t v)
    {
      qToLittleEndian<quint64>(v, p);
    }

    /// Bytes of the complete item at `pos`, or -1 for an unknown tag or an item cut off by the end.
    /// All bounds are computed in 64 bits, so no count can wrap them.
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

    /// The value bytes of a fixed-size item with this tag at `pos`, or null. Kept out of the
    /// class so the hot read path makes no calls through the shared library's symbol table.
    inline const char* fixedValueAt(const char* data, int size, int pos, uint32_t tag, int valueSize)
    {
      if (pos < 0 || int64_t(size) - pos < 4 + valueSize || loadU32(data + pos) != tag)
        return nullptr;
      return data + pos + 4;
    }
  }

  BinaryData::BinaryData()
      : m_data(m_bytes.constData())
  {
  }

  BinaryData::BinaryData(const QByteArray& bytes)
      : m_bytes(bytes)
      , m_data(m_bytes.constData())
      , m_size(m_bytes.size())
  {
  }

  BinaryData::BinaryData(const BinaryData& other)
      : m_data(m_bytes.constData())
  {
    *this = other;
  }

  BinaryData& BinaryData::operator=(const BinaryData& other)
  {
    if (this != &other) {
      m_bytes = QByteArray(other.m_data, other.m_size);
      m_data = m_bytes.constData();
      m_size = other.m_size;
      m_capacity = m_size;
      m_pos = other.m_pos;
      m_linked = false;
    }
    return *this;
  }

  BinaryData::BinaryData(BinaryData&& other) noexcept
      : m_data(m_bytes.constData())
  {
    *this = std::move(other);
  }

  BinaryData& BinaryData::operator=(BinaryData&& other) noexcept
  {
    if (this != &other) {
      if (other.m_linked) {
        *this = other;
      } else {
        m_bytes = std::move(other.m_bytes);
        m_data = m_bytes.constData();
        m_size = other.m_size;
        m_capacity = other.m_capacity;
        m_pos = other.m_pos;
        m_linked = false;
      }
      other.m_bytes = QByteArray();
      other.m_capacity = 0;
      other.clear();
    }
    return *this;
  }

  BinaryData::~BinaryData() = default;

  QByteArray BinaryData::toByteArray() const
  {
    // Always a copy: sharing m_bytes would let the next write change the caller's array.
    return QByteArray(m_data, m_size);
  }

  bool BinaryData::setPosition(int pos)
  {
    if (pos < 0 || pos > m_size)
      return false;
    m_pos = pos;
    return true;
  }

  void BinaryData::clear()
  {
    // Owned memory stays for the next writes; a shared or linked buffer is let go.
    if (m_capacity == 0)
      m_bytes = QByteArray();
    m_data = m_bytes.constData();
    m_size = 0;
    m_pos = 0;
    m_linked = false;
  }

  void BinaryData::reserve(int bytes)
  {
    if (bytes > m_size)
      detach(bytes - m_size);
  }

  void BinaryData::linkTo(const void* bytes, int size)
  {
    m_bytes = QByteArray();
    m_capacity = 0;
    m_linked = true;
    m_data = bytes ? static_cast<const char*>(bytes) : "";
    m_size = (bytes && size > 0) ? size : 0;
    m_pos = 0;
  }

  void BinaryData::detach(int extraBytes)
  {
    const int64_t needed = int64_t(m_size) + extraBytes;
    if (needed <= m_capacity)
      return;
    // Grow geometrically so a run of appends costs amortised constant time.
    const int64_t grown = std::min(std::max({needed, MinCapacity, 2 * int64_t(m_capacity)}), MaxBytes);
    QByteArray block(int(grown), Qt::Uninitialized);
    if (m_size > 0)
      std::memcpy(block.data(), m_data, size_t(m_size));
    m_bytes = std::move(block);
    m_data = m_bytes.constData();
    m_capacity = int(grown);
    m_linked = false;
  }

  char* BinaryData::appendRaw(int bytes)
  {
    if (bytes < 0 || int64_t(m_size) + bytes > MaxBytes)
      return nullptr;
    if (int64_t(m_size) + bytes > m_capacity)
      detach(bytes);
    // m_bytes is ours alone (m_capacity > 0), so writing through m_data is safe.
    char* p = const_cast<char*>(m_data) + m_size;
    m_size += bytes;
    return p;
  }

  int BinaryData::writeFixed(uint32_t tag, uint64_t bits, int valueSize)
  {
    const int offset = m_size;
    char* p = appendRaw(4 + valueSize);
    if (!p)
      return -1;
    storeU32(p, tag);
    if (valueSize == 4)
      storeU32(p + 4, uint32_t(bits));
    else
      storeU64(p + 4, bits);
    return offset;
  }

  int BinaryData::writeCounted(uint32_t tag, const void* bytes, int size)
  {
    if (size < 0 || (size > 0 && !bytes))
      return -1;
    const int64_t total = 8 + padded(size);
    if (total > MaxBytes)
      return -1;
    const int offset = m_size;
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

  int BinaryData::writeInt32(int32_t v)
  {
    return writeFixed(Int32Item, uint32_t(v), 4);
  }
  int BinaryData::writeInt64(int64_t v)
  {
    return writeFixed(Int64Item, uint64_t(v), 8);
  }

  int BinaryData::writeFloat(float v)
  {
    uint32_t bits;
    std::memcpy(&bits, &v, 4);
    return writeFixed(FloatItem, bits, 4);
  }

  int BinaryData::writeDouble(double v)
  {
    uint64_t bits;
    std::memcpy(&bits, &v, 8);
    return writeFixed(DoubleItem, bits, 8);
  }

  int BinaryData::writeString(const QString& s)
  {
    return writeString(s.toUtf8());
  }

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

  int BinaryData::writeBlob(const void* bytes, int size)
  {
    return writeCounted(BlobItem, bytes, size);
  }

  int BinaryData::writeBlob(const QByteArray& bytes)
  {
    return writeCounted(BlobItem, bytes.constData(), bytes.size());
  }

  bool BinaryData::patchInt32(int itemOffset, int32_t v)
  {
    if (!fixedValueAt(m_data, m_size, itemOffset, Int32Item, 4))
      return false;
    // Walk the items up to the offset: a value or count that happens to equal the int32 tag must
    // not be taken for an item. Patches are rare (one per map block), so the walk is cheap enough.
    int64_t pos = 0;
    while (pos < itemOffset) {
      const int64_t length = itemLength(m_data, m_size, pos);
      if (length < 0)
        return false;
      pos += length;
    }
    if (pos != itemOffset)
      return false;
    detach(0);
    storeU32(const_cast<char*>(m_data) + itemOffset + 4, uint32_t(v));
    return true;
  }

  uint32_t BinaryData::nextItemType() const
  {
    if (int64_t(m_size) - m_pos < 4)
      return 0;
    return loadU32(m_data + m_pos);
  }

  bool BinaryData::readCounted(uint32_t tag, const char*& bytes, int& count)
  {
    if (int64_t(m_size) - m_pos < 8 || loadU32(m_data + m_pos) != tag)
      return false;
    const int64_t length = itemLength(m_data, m_size, m_pos);
    if (length < 0)
      return false;
    bytes = m_data + m_pos + 8;
    count = int(loadU32(m_data + m_pos + 4));
    m_pos += int(length);
    return true;
  }

  bool BinaryData::readInt32(int32_t& v)
  {
    if (const char* p = fixedValueAt(m_data, m_size, m_pos, Int32Item, 4)) {
      v = int32_t(loadU32(p));
      m_pos += 8;
      return true;
    }
    if (const char* p = fixedValueAt(m_data, m_size, m_pos, Int64Item, 8)) {
      v = int32_t(uint32_t(loadU64(p)));
      m_pos += 12;
      return true;
    }
    return false;
  }

  bool BinaryData::readInt64(int64_t& v)
  {
    if (const char* p = fixedValueAt(m_data, m_size, m_pos, Int64Item, 8)) {
      v = int64_t(loadU64(p));
      m_pos += 12;
      return true;
    }
    if (const char* p = fixedValueAt(m_data, m_size, m_pos, Int32Item, 4)) {
      v = int32_t(loadU32(p));
      m_pos += 8;
      return true;
    }
    return false;
  }

  bool BinaryData::readFloat(float& v)
  {
    const char* p = fixedValueAt(m_data, m_size, m_pos, FloatItem, 4);
    if (!p)
      return false;
    const uint32_t bits = loadU32(p);
    std::memcpy(&v, &bits, 4);
    m_pos += 8;
    return true;
  }

  bool BinaryData::readDouble(double& v)
  {
    const char* p = fixedValueAt(m_data, m_size, m_pos, DoubleItem, 8);
    if (!p)
      return false;
    const uint64_t bits = loadU64(p);
    std::memcpy(&v, &bits, 8);
    m_pos += 12;
    return true;
  }

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
