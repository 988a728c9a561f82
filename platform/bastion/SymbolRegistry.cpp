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
    // Another thread may have defined the name between the two locks.
    auto it = m_byName.constFind(name);
    if (it != m_byName.constEnd())
      return it.value();
    const uint32_t symbol = nextFreeSymbol();
    if (symbol == 0) {
      error("SymbolRegistry::lookupOrDefine # No free symbol left for: %s", name.constData());
      return 0;
    }
    m_byName.insert(name, symbol);
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
    auto oldSymbol = m_byName.constFind(name);
    if (oldSymbol != m_byName.constEnd() && oldSymbol.value() != symbol)
      m_bySymbol.remove(oldSymbol.value());
    auto oldName = m_bySymbol.constFind(symbol);
    if (oldName != m_bySymbol.constEnd() && oldName.value() != name)
      m_byName.remove(oldName.value());
    m_byName.insert(name, symbol);
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
