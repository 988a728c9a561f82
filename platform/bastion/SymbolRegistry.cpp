#include "bastion/SymbolRegistry.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

#include <limits>

namespace Bastion
{
  SymbolRegistry::SymbolRegistry() = default;

  SymbolRegistry::~SymbolRegistry() = default;

  uint32_t SymbolRegistry::lookupOrDefine(const QByteArray& name)
  {
    {
      ReadGuard read(m_tables);
      auto it = m_byName.constFind(name);
      if (it != m_byName.constEnd())
        return it.value();
    }
    WriteGuard write(m_lock);
    WriteGuard tables(m_tables);
    // Another thread may have defined the name between the two locks. One walk of the table
    // finds it or makes its entry (0 until the symbol is known: symbol 0 names nothing).
    uint32_t& entry = m_byName[name];
    if (entry != 0)
      return entry;
    const uint32_t symbol = nextFreeSymbol();
    if (symbol == 0) {
      m_byName.remove(name);
      error("SymbolRegistry::lookupOrDefine # No free symbol left for: %s", name.constData());
      return 0;
    }
    entry = symbol;
    m_bySymbol.insert(symbol, name);
    if (symbol > m_highest)
      m_highest = symbol;
    return symbol;
  }

  uint32_t SymbolRegistry::nextFreeSymbol() const
  {
    if (m_highest < std::numeric_limits<uint32_t>::max())
      return m_highest + 1;
    // A peer bound the largest number. Counting on from there would wrap to 0, so take the
    // lowest free number instead; at most count() + 1 probes.
    for (uint32_t s = 1; s != 0; ++s) {
      if (!m_bySymbol.contains(s))
        return s;
    }
    return 0;
  }

  uint32_t SymbolRegistry::lookup(const QByteArray& name) const
  {
    ReadGuard read(m_tables);
    return m_byName.value(name, 0);
  }

  bool SymbolRegistry::lookup(uint32_t symbol, QByteArray& name) const
  {
    ReadGuard read(m_tables);
    auto it = m_bySymbol.constFind(symbol);
    if (it == m_bySymbol.constEnd())
      return false;
    name = it.value();
    return true;
  }

  void SymbolRegistry::define(const QByteArray& name, uint32_t symbol)
  {
    if (symbol == 0) {
      warning("SymbolRegistry::define # Symbol 0 names nothing, ignored for: %s", name.constData());
      return;
    }
    WriteGuard write(m_lock);
    WriteGuard tables(m_tables);
    // The symbol's old name goes first: removing it may move the name table's entries, and the
    // entry of `name` is then held by reference. One walk per table and step, as a peer defines
    // every path of its tree here.
    auto oldName = m_bySymbol.constFind(symbol);
    if (oldName != m_bySymbol.constEnd() && oldName.value() != name)
      m_byName.remove(oldName.value());
    uint32_t& bound = m_byName[name];
    if (bound != 0 && bound != symbol)
      m_bySymbol.remove(bound);
    bound = symbol;
    m_bySymbol.insert(symbol, name);
    if (symbol > m_highest)
      m_highest = symbol;
  }

  int SymbolRegistry::count() const
  {
    ReadGuard read(m_tables);
    return m_byName.size();
  }
}
