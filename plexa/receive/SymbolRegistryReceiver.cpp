#include "plexa/receive/SymbolRegistryReceiver.hpp"

#include "bastion/Log.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"

#include <algorithm>

namespace Plexa
{
  SymbolRegistryReceiver::SymbolRegistryReceiver(Bastion::SymbolRegistry& received)
      : m_received(received)
  {
  }

  void SymbolRegistryReceiver::handleBundle(BundleReaderCore& reader, const BundleHeader&, BundleDispatcher&)
  {
    while (!reader.atEnd()) {
      const uint32_t symbol = reader.readValue<uint32_t>();
      const uint32_t length = reader.readValue<uint32_t>();
      const char* bytes = static_cast<const char*>(reader.readBounded(length));
      // Checked on the bundle's bytes, before anything is copied: a refused path costs nothing.
      if (m_maxPathLength > 0 && length > uint32_t(m_maxPathLength)) {
        refusePath(m_refusedLength, symbol, length, m_maxPathLength, "bytes");
        continue;
      }
      if (m_maxPathDepth > 0) {
        const uint32_t depth = 1 + uint32_t(std::count(bytes, bytes + length, '/'));
        if (depth > uint32_t(m_maxPathDepth)) {
          refusePath(m_refusedDepth, symbol, depth, m_maxPathDepth, "levels");
          continue;
        }
      }
      const QByteArray path(bytes, int(length));
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

  void SymbolRegistryReceiver::refusePath(bool& logged, uint32_t symbol, uint32_t size, int limit, const char* unit)
  {
    if (logged)
      return;
    logged = true;
    Bastion::warning("SymbolRegistryReceiver::handleBundle # Refused the peer's symbol %u: its path of %u %s is over "
                     "the limit of %d %s (further paths over it are refused silently)",
                     symbol, size, unit, limit, unit);
  }
}
