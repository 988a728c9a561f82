#include "plexa/bundle/BundleWriter.hpp"

#include "plexa/bundle/Bundle.hpp"

#include <cstring>

namespace Plexa
{
  BundleWriter::BundleWriter()
      : m_data(Bundle::HeaderSize, '\0')
      , m_core(&m_data)
  {
  }

  bool BundleWriter::isEmpty() const
  {
    return m_data.size() <= Bundle::HeaderSize;
  }

  void BundleWriter::open(uint32_t messageType, const BundleOutput& output)
  {
    writeHeader(messageType, output);
  }

  bool BundleWriter::close(uint32_t messageType, BundleOutput& output)
  {
    if (isEmpty())
      return false;
    writeHeader(messageType, output);
    output.add(m_data);
    // The output now shares the bytes; refilling detaches our copy, so the emitted bundle stays as
    // it was when the next records are written.
    m_data.fill('\0', Bundle::HeaderSize);
    return true;
  }

  void BundleWriter::writeHeader(uint32_t messageType, const BundleOutput& output)
  {
    BundleHeader header;
    header.payloadSize = uint32_t(m_data.size() - Bundle::HeaderSize);
    header.messageType = messageType;
    header.sequence = output.sequence();
    header.acknowledged = output.acknowledged();
    std::memcpy(m_data.data(), &header, sizeof(header));
  }
}
