#include "plexa/receive/SymbolRegistryReceiver.hpp"

#include "bastion/Log.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"

namespace Plexa
{
  SymbolRegistryReceiver::SymbolRegistryReceiver(Bastion::SymbolRegistry& received) : m_received(received) {}

  void SymbolRegistryReceiver::handleBundle(BundleReaderCore& reader, const BundleHeader&, Core&)
  {
    QByteArray path;
    while (!reader.atEnd()) {
      const uint32_t symbol = reader.readValue<uint32_t>();
      reader.readBinary(path, 0xFFFFFFFFu);
      if (m_maxSymbols > 0 && m_received.count() >= m_maxSymbols && m_received.lookup(path) == 0) {
        if (!m_limitExceeded)
          Bastion::error("SymbolRegistryReceiver::handleBundle # Symbol limit of %d reached; refusing new paths",
                         m_maxSymbols);
        m_limitExceeded = true;
        continue;
      }
      m_received.define(path, symbol);
    }
  }
}
