#pragma once

#include "bastion/FlatHash.hpp"
#include "bastion/SharedMutex.hpp"

#include <atomic>
#include <cstdint>

namespace Carafe
{
  class Attribute;
}

namespace Plexa
{
  /// Turns symbols back into live attributes of the local tree: one per remote node, filled and
  /// emptied by the node watcher, read by the sender and the receivers.
  ///
  /// The attributes are borrowed, never owned; the watcher removes a symbol when its attribute
  /// leaves the tree. One symbol maps to at most one attribute. Thread-safe: every operation
  /// takes the cache's reader-writer lock itself and never calls out while holding it.
  class AttributeCache
  {
  public:
    /// True if the pair is now present (new, or already there with the same attribute); false,
    /// with an error logged and nothing changed, if the symbol belongs to another attribute.
    bool add(uint32_t symbol, Carafe::Attribute* attribute);
    /// True if the symbol was present and is now gone (node mark included); false, with an
    /// error logged, if it was missing.
    bool remove(uint32_t symbol);
    /// The attribute of `symbol`, or null.
    Carafe::Attribute* find(uint32_t symbol) const;
    bool isNode(uint32_t symbol) const;
    void setIsNode(uint32_t symbol, bool isNode);
    /// Changes with every symbol added or removed, and is never the same for two caches of the
    /// process: an answer of `find` kept with the version it was read under holds while the
    /// version does. Any thread.
    uint64_t version() const { return m_version.load(std::memory_order_acquire); }

  private:
    static uint64_t nextVersion();

    mutable Bastion::SharedMutex m_lock;
    std::atomic<uint64_t> m_version{nextVersion()};
    // Flat tables: every attribute of the tree has an entry.
    Bastion::FlatHash<uint32_t, bool> m_nodeSymbols BASTION_GUARDED_BY(m_lock);
    Bastion::FlatHash<uint32_t, Carafe::Attribute*> m_bySymbol BASTION_GUARDED_BY(m_lock);
  };
}
