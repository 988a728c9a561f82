#pragma once

#include "plexa/session/BundleReceiver.hpp"

#include <cstdint>

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

    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher& session) override;

    /// Cap on the paths the registry may hold (0, the default: none). Beyond it new paths are
    /// refused, one error is logged per session and `limitExceeded()` turns true: a peer that
    /// defines ever new paths would otherwise grow the registry without bound.
    void setMaxSymbols(int maxSymbols) { m_maxSymbols = maxSymbols; }
    bool limitExceeded() const { return m_limitExceeded; }
    /// Limits on one path, in bytes and in names (0, the default: none). A definition beyond one
    /// is refused, so the peer's records with its symbol are unknown symbols; the first refusal
    /// of each kind is logged. They keep a peer from making this side build and store a chain of
    /// nodes as deep as a bundle is long.
    void setMaxPathLength(int bytes) { m_maxPathLength = bytes; }
    void setMaxPathDepth(int names) { m_maxPathDepth = names; }

  private:
    void refusePath(bool& logged, uint32_t symbol, uint32_t size, int limit, const char* unit);

    Bastion::SymbolRegistry& m_received;
    int m_maxSymbols = 0;
    bool m_limitExceeded = false;
    int m_maxPathLength = 0;
    int m_maxPathDepth = 0;
    bool m_refusedLength = false;
    bool m_refusedDepth = false;
  };
}
