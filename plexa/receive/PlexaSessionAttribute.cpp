#include "plexa/receive/PlexaSessionAttribute.hpp"

#include "plexa/bundle/BundleReaderCore.hpp"

namespace Plexa
{
  void PlexaSessionAttribute::skipValue(BundleReaderCore& reader, uint32_t size)
  {
    reader.readBounded(size != 0 ? size : reader.readValue<uint32_t>());
  }

  Deserializer PlexaSessionAttribute::createDummyDeserializer(uint32_t size)
  {
    if (size != 0)
      return [size](BundleReaderCore& reader) { reader.readBounded(size); };
    return [](BundleReaderCore& reader) {
      const uint32_t start = reader.position;
      const uint32_t count = reader.readValue<uint32_t>();
      try {
        reader.readBounded(count);
      } catch (...) {
        // A value cut short leaves the reader where the value began.
        reader.position = start;
        throw;
      }
    };
  }
}
