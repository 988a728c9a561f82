#pragma once

#include "bastion/SharedMutex.hpp"

#include <atomic>
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
    /// Changes with every change of a flag, and is never the same for two tables of the process:
    /// an answer of `getFlags` kept with the version it was read under holds while the version
    /// does. Any thread.
    uint64_t version() const { return m_version.load(std::memory_order_acquire); }

  private:
    static uint64_t nextVersion();

    mutable Bastion::SharedMutex m_lock;
    std::atomic<uint64_t> m_version{nextVersion()};
    std::unordered_map<uint32_t, Flag> m_flags BASTION_GUARDED_BY(m_lock);
  };
}
