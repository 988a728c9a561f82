#pragma once

#include "bastion/SharedMutex.hpp"

#include <QByteArray>
#include <QHash>

#include <cstdint>

namespace Bastion
{
  /// Gives unsigned 32-bit numbers (symbols) to names (attribute paths, event names) and back.
  ///
  /// Symbol 0 never names anything. A new symbol is 1 + the highest symbol ever defined, so the
  /// numbers a peer binds with `define` never collide with those made here later. The empty name
  /// is a valid name.
  ///
  /// Thread-safe. `lookupOrDefine` (when it defines) and `define` take `lock()` for writing, so a
  /// caller holding it for reading sees no binding change across several lookups; while holding
  /// it, call only the lookups (`lookupOrDefine` and `define` would wait for a write lock that
  /// cannot come). The lookups themselves only take an internal reader lock of their own, so that
  /// they never wait for `lock()`: they run for every attribute of every bundle.
  class SymbolRegistry
  {
  public:
    SymbolRegistry();
    ~SymbolRegistry();
    SymbolRegistry(const SymbolRegistry&) = delete;
    SymbolRegistry& operator=(const SymbolRegistry&) = delete;

    /// The symbol of `name`, defining a new one when the name is unknown.
    uint32_t lookupOrDefine(const QByteArray& name);
    /// The symbol of `name`, or 0 when unknown.
    uint32_t lookup(const QByteArray& name) const;
    /// The name of `symbol`; false when unknown (never for a known empty name).
    bool lookup(uint32_t symbol, QByteArray& name) const;
    /// Binds `name` and `symbol` to each other, replacing any earlier binding of either: the
    /// name's old symbol and the symbol's old name no longer resolve. Symbol 0 is refused (warning
    /// logged, nothing changed).
    void define(const QByteArray& name, uint32_t symbol);

    /// Number of bound names.
    int count() const;

    /// The registry's change lock; see the class comment.
    SharedMutex& lock() const BASTION_RETURN_CAPABILITY(m_lock) { return m_lock; }

  private:
    uint32_t nextFreeSymbol() const BASTION_REQUIRES_SHARED(m_tables);

    /// Held for writing, before m_tables, by every change.
    mutable SharedMutex m_lock BASTION_ACQUIRED_BEFORE(m_tables);
    mutable SharedMutex m_tables;
    // Changes also hold m_lock for writing.
    QHash<QByteArray, uint32_t> m_byName BASTION_GUARDED_BY(m_tables);
    QHash<uint32_t, QByteArray> m_bySymbol BASTION_GUARDED_BY(m_tables);
    uint32_t m_highest BASTION_GUARDED_BY(m_tables) = 0;
  };
}
