#pragma once

#include <cstdint>
#include <cstdlib>

namespace Bastion
{
  /// A width x height grid of bytes, row-major with stride = width.
  ///
  /// `resize` reallocates only when width * height exceeds the capacity; a new block is 4096-byte
  /// aligned and its size a multiple of 4. Contents are not kept when the block grows (callers
  /// refill after resizing); shrinking keeps the block and its bytes.
  class MemGrid8u
  {
  public:
    MemGrid8u() = default;
    MemGrid8u(int width, int height);
    MemGrid8u(const MemGrid8u& other);
    MemGrid8u(MemGrid8u&& other) noexcept;
    MemGrid8u& operator=(const MemGrid8u& other);
    MemGrid8u& operator=(MemGrid8u&& other) noexcept;
    ~MemGrid8u();

    int width() const { return m_width; }
    int height() const { return m_height; }
    /// Bytes of the current block (at least width * height).
    size_t capacity() const { return m_capacity; }
    uint8_t* data() { return m_data; }
    const uint8_t* data() const { return m_data; }
    uint8_t* line(int y) { return m_data + size_t(y) * size_t(m_width); }
    const uint8_t* line(int y) const { return m_data + size_t(y) * size_t(m_width); }
    size_t byteCount() const { return size_t(m_width) * size_t(m_height); }

    /// Sets the size; negative sizes count as 0. Returns false (grid unchanged) when the block
    /// cannot be allocated.
    bool resize(int width, int height);
    /// Size 0 x 0 and the block freed.
    void clear();

    bool operator==(const MemGrid8u& o) const;
    bool operator!=(const MemGrid8u& o) const { return !(*this == o); }

  private:
    int m_width = 0;
    int m_height = 0;
    size_t m_capacity = 0;
    uint8_t* m_data = nullptr;
  };
}
