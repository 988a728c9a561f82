#include "plexa/receive/OneWayEventReceiver.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"

namespace Plexa
{
  OneWayEventReceiver::OneWayEventReceiver(Bastion::SymbolRegistry& received)
      : m_received(received)
  {
  }

  void OneWayEventReceiver::handleBundle(BundleReaderCore& reader, const BundleHeader&, BundleDispatcher&)
  {
    QByteArray name;
    while (!reader.atEnd()) {
      const uint32_t symbol = reader.readValue<uint32_t>();
      const uint32_t size = reader.readValue<uint32_t>();
      const void* bytes = reader.readBounded(size);
      if (!m_received.lookup(symbol, name)) {
        if (mayLogRecord("OneWayEventReceiver::handleBundle"))
          Bastion::warning("OneWayEventReceiver::handleBundle # Symbol %u not found", symbol);
        continue;
      }
      if (!m_handler)
        continue;
      Bastion::BinaryData data;
      data.linkTo(bytes, int(size));
      m_handler(name, data);
    }
  }
}
