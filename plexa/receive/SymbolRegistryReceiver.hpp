#pragma once

#include "plexa/session/BundleReceiver.hpp"

namespace Bastion
{
  class SymbolRegistry;
}

namespace Plexa
{
  /// Reads the peer's symbol definitions (symbol, then the path as a blob) into the registry of
  /// received symbols, which the other receivers read. Update thread only.
  class SymbolRegistryReceiver : public BundleReceiver
  {
  public:
    /// `received` must outlive the receiver.
    explicit SymbolRegistryReceiver(Bastion::SymbolRegistry& received);

    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, Core& core) override;

    /// Cap on the paths the registry may hold (0, the default: none). Beyond it new paths are
    /// refused, one error is logged per session and `limitExceeded()` turns true: a peer that
    /// defines ever new paths would otherwise grow the registry without bound.
    void setMaxSymbols(int maxSymbols) { m_maxSymbols = maxSymbols; }
    bool limitExceeded() const { return m_limitExceeded; }

  private:
    Bastion::SymbolRegistry& m_received;
    int m_maxSymbols = 0;
    bool m_limitExceeded = false;
  };
}
