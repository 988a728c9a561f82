#pragma once

#include "bastion/SharedMutex.hpp"

#include <cstdint>
#include <unordered_map>

namespace Plexa
{
  /// Per-symbol synchronisation flags of a remote node. Only symbols whose flag differs from the
  /// default (Publish) are stored. Thread-safe: every operation holds the lock for its duration.
  class SyncFlags
  {
  public:
    /// A bit set. Bit 0 (Publish): changes of the attribute are sent to the peer.
    using Flag = uint32_t;
    static constexpr Flag None = 0;
    static constexpr Flag Publish = 1;
    static constexpr Flag Default = Publish;

    /// The stored flag, or Default.
    Flag getFlags(uint32_t symbol) const;
    /// Default erases the symbol's entry; any other value replaces it.
    void setFlags(uint32_t symbol, Flag flag);
    void clear();

  private:
    mutable Bastion::SharedMutex m_lock;
    std::unordered_map<uint32_t, Flag> m_flags BASTION_GUARDED_BY(m_lock);
  };
}
