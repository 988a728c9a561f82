#include "bastion/MemGrid8u.hpp"

#include <cstring>
#include <utility>

namespace Bastion
{
  MemGrid8u::MemGrid8u(int width, int height)
  {
    resize(width, height);
  }

  MemGrid8u::MemGrid8u(const MemGrid8u& other)
  {
    if (resize(other.m_width, other.m_height) && other.byteCount())
      std::memcpy(m_data, other.m_data, other.byteCount());
  }

  MemGrid8u::MemGrid8u(MemGrid8u&& other) noexcept
      : m_width(other.m_width)
      , m_height(other.m_height)
      , m_capacity(other.m_capacity)
      , m_data(other.m_data)
  {
    other.m_width = other.m_height = 0;
    other.m_capacity = 0;
    other.m_data = nullptr;
  }

  MemGrid8u& MemGrid8u::operator=(const MemGrid8u& other)
  {
    if (this != &other && resize(other.m_width, other.m_height) && other.byteCount())
      std::memcpy(m_data, other.m_data, other.byteCount());
    return *this;
  }

  MemGrid8u& MemGrid8u::operator=(MemGrid8u&& other) noexcept
  {
    if (this != &other) {
      std::free(m_data);
      m_width = std::exchange(other.m_width, 0);
      m_height = std::exchange(other.m_height, 0);
      m_capacity = std::exchange(other.m_capacity, 0);
      m_data = std::exchange(other.m_data, nullptr);
    }
    return *this;
  }

  MemGrid8u::~MemGrid8u()
  {
    std::free(m_data);
  }

  bool MemGrid8u::resize(int width, int height)
  {
    if (width < 0)
      width = 0;
    if (height < 0)
      height = 0;
    size_t needed = size_t(width) * size_t(height);
    if (needed > m_capacity) {
      size_t bytes = (needed + 3) & ~size_t(3);
      // aligned_alloc wants a multiple of the alignment.
      size_t allocBytes = (bytes + 4095) & ~size_t(4095);
      void* block = std::aligned_alloc(4096, allocBytes);
      if (!block)
        return false;
      std::free(m_data);
      m_data = static_cast<uint8_t*>(block);
      m_capacity = bytes;
    }
    m_width = width;
    m_height = height;
    return true;
  }

  void MemGrid8u::clear()
  {
    std::free(m_data);
    m_data = nullptr;
    m_capacity = 0;
    m_width = m_height = 0;
  }

  bool MemGrid8u::operator==(const MemGrid8u& o) const
  {
    if (m_width != o.m_width || m_height != o.m_height)
      return false;
    size_t n = byteCount();
    return n == 0 || std::memcmp(m_data, o.m_data, n) == 0;
  }
}
