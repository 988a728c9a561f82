#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

namespace Bastion
{
  /// A buffer of typed items, written one after the other and read back in the same order.
  ///
  /// Every item starts with a little-endian uint32 tag (see ItemType) and takes a multiple of 4
  /// bytes: int32 = tag + 4 value bytes (8 bytes), int64 = tag + 8, float = tag + 4, double =
  /// tag + 8, string/blob = tag + uint32 byte count n + n bytes + zero padding to a multiple of 4.
  /// Strings are UTF-8. The bytes travel on the wire (map blocks, node event payloads); the
  /// encoding is described in docs/protocol.md.
  ///
  /// Reading never trusts the bytes: a read of the wrong item type, of a truncated item or at the
  /// end returns false, leaves the read position where it was and never touches memory outside
  /// the buffer. Two conversions are accepted on purpose: `readInt32` narrows an int64 item to
  /// its low 32 bits and `readInt64` widens an int32 item.
  ///
  /// Not thread-safe: one thread at a time per object.
  class BinaryData
  {
  public:
    enum ItemType : uint32_t
    {
      Int32Item = 1,
      Int64Item = 2,
      FloatItem = 3,
      DoubleItem = 4,
      StringItem = 5,
      BlobItem = 6
    };

    /// Empty, owned bytes, read position 0.
    BinaryData();
    /// A copy of `bytes` (already encoded items), read position 0.
    explicit BinaryData(const QByteArray& bytes);
    /// Copies are deep, linked data included: the copy owns its bytes. The position is copied.
    BinaryData(const BinaryData& other);
    BinaryData& operator=(const BinaryData& other);
    /// Moving steals owned bytes; a linked source is deep-copied, so the target never depends on
    /// someone else's buffer.
    BinaryData(BinaryData&& other) noexcept;
    BinaryData& operator=(BinaryData&& other) noexcept;
    ~BinaryData();

    /// Appends one item and returns its byte offset (for `patchInt32`), or -1 when the buffer
    /// would grow past 2 GiB or `size` is negative. A linked buffer is copied first.
    int writeInt32(int32_t v);
    int writeInt64(int64_t v);
    int writeFloat(float v);
    int writeDouble(double v);
    int writeString(const QString& s);
    int writeString(const QByteArray& utf8);
    int writeString(const char* utf8);
    int writeBlob(const void* bytes, int size);
    int writeBlob(const QByteArray& bytes);

    /// Rewrites the value of the int32 item that starts at `itemOffset`. False (nothing
    /// changed) when no int32 item starts there. Walks the items before the offset to be sure
    /// it is an item boundary, so it costs time linear in the number of those items.
    bool patchInt32(int itemOffset, int32_t v);

    /// Accepts an int32 item, or an int64 item narrowed to its low 32 bits.
    bool readInt32(int32_t& v);
    /// Accepts an int64 item, or an int32 item widened.
    bool readInt64(int64_t& v);
    bool readFloat(float& v);
    bool readDouble(double& v);
    /// Invalid UTF-8 is decoded with replacement characters.
    bool readString(QString& s);
    bool readString(QByteArray& utf8);
    bool readBlob(QByteArray& bytes);
    /// Succeeds only for a blob of exactly `size` bytes, copied to `dst`.
    bool readBlob(void* dst, int size);

    /// The tag of the item at the read position, or 0 at the end or when fewer than 4 bytes are
    /// left. Does not check that the item is complete.
    uint32_t nextItemType() const;

    /// Makes this a read-only view of `size` bytes at `bytes`, read position 0. Nothing is
    /// copied: the bytes must stay alive and unchanged while this object reads them. A later
    /// write copies them into owned bytes first. A negative size counts as 0.
    void linkTo(const void* bytes, int size);
    bool isLinked() const { return m_linked; }

    /// The encoded items (valid until the next write, link or destruction).
    const char* data() const { return m_data; }
    int size() const { return m_size; }
    QByteArray toByteArray() const;

    void rewind() { m_pos = 0; }
    int position() const { return m_pos; }
    /// Moves the read position to `pos` if 0 <= pos <= size(); false (unchanged) otherwise.
    bool setPosition(int pos);
    bool atEnd() const { return m_pos >= size(); }
    /// Drops all items (and any link), read position 0. Owned memory is kept for later writes.
    void clear();
    /// Reserves room for `bytes` bytes in total, so a run of writes does not reallocate.
    void reserve(int bytes);

  private:
    // Hidden from the library's symbol table: called only from BinaryData.cpp, so the compiler
    // may inline them into the hot write path instead of calling through the PLT.
#define BASTION_BINARYDATA_INTERNAL __attribute__((visibility("hidden")))
    BASTION_BINARYDATA_INTERNAL void detach(int extraBytes);
    BASTION_BINARYDATA_INTERNAL char* appendRaw(int bytes);
    BASTION_BINARYDATA_INTERNAL int writeFixed(uint32_t tag, uint64_t bits, int valueSize);
    BASTION_BINARYDATA_INTERNAL int writeCounted(uint32_t tag, const void* bytes, int size);
    BASTION_BINARYDATA_INTERNAL bool readCounted(uint32_t tag, const char*& bytes, int& size);
#undef BASTION_BINARYDATA_INTERNAL

    // m_data/m_size are the items: the first m_size bytes of m_bytes, or the linked bytes. When
    // owned, m_bytes may be longer than m_size (spare room, so appending rarely calls into Qt).
    QByteArray m_bytes;
    const char* m_data;
    int m_size = 0;
    // Bytes at m_data this object may write: m_bytes.size() once m_bytes is ours alone, 0 while
    // linked or while m_bytes still shares a QByteArray given to the constructor.
    int m_capacity = 0;
    int m_pos = 0;
    bool m_linked = false;
  };
}
