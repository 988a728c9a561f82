#include "plexa/types/ValueCodec.hpp"

#include <climits>
#include <new>

namespace Plexa
{
  void ValueCodec::writeGrid(BundleWriterCore& writer, const Bastion::MemGrid8u& grid)
  {
    const uint32_t bytes = uint32_t(grid.byteCount());
    writer.writeValue(uint32_t(4 + bytes));
    writer.writeValue(uint32_t(grid.width()));
    writer.write(grid.data(), bytes);
  }

  void ValueCodec::readGrid(BundleReaderCore& reader, Bastion::MemGrid8u& grid)
  {
    const uint32_t count = reader.readValue<uint32_t>();
    if (count < 4)
      throw std::out_of_range(GridTooShort);
    const uint32_t width = reader.readValue<uint32_t>();
    const uint32_t bytes = count - 4;
    // Checked before the grid is sized: a peer cannot make us allocate more than it sent.
    const uint8_t* source = static_cast<const uint8_t*>(reader.readBounded(bytes));
    if (width == 0) {
      // No row length to divide by: the grid is empty and whatever bytes came along are skipped.
      grid.resize(0, 0);
      return;
    }
    const uint32_t height = bytes / width;
    // width x height <= bytes, which fits the buffer; only a zero-height grid can have a width
    // beyond int, and it holds no bytes either way.
    const int w = width > uint32_t(INT_MAX) ? 0 : int(width);
    if (!grid.resize(w, int(height)))
      throw std::bad_alloc();
    if (grid.byteCount())
      std::memcpy(grid.data(), source, grid.byteCount());
  }

  void ValueCodec::throwNotConvertible(const char* typeName)
  {
    throw std::invalid_argument(std::string("Given QVariant can't be converted to ") + typeName);
  }
}
