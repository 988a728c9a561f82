#include "plexa/tracking/AttributeCache.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

namespace Plexa
{
  bool AttributeCache::add(uint32_t symbol, Carafe::Attribute* attribute)
  {
    {
      Bastion::WriteGuard lock(m_lock);
      auto it = m_bySymbol.find(symbol);
      if (it == m_bySymbol.end()) {
        m_bySymbol.emplace(symbol, attribute);
        // An attribute that already has a reverse entry keeps it.
        m_byAttribute.emplace(attribute, symbol);
        return true;
      }
      if (it->second == attribute)
        return true;
    }
    // Logged without the lock: a log handler may look the symbol up.
    Bastion::error("AttributeCache::ensureExists # Found an existing symbol (%u) pointing to a different "
                   "attribute",
                   symbol);
    return false;
  }

  bool AttributeCache::remove(uint32_t symbol)
  {
    {
      Bastion::WriteGuard lock(m_lock);
      auto it = m_bySymbol.find(symbol);
      if (it != m_bySymbol.end()) {
        auto rev = m_byAttribute.find(it->second);
        if (rev != m_byAttribute.end() && rev->second == symbol)
          m_byAttribute.erase(rev);
        m_bySymbol.erase(it);
        m_nodeSymbols.erase(symbol);
        return true;
      }
    }
    Bastion::error("AttributeCache::remove # Trying to remove missing symbol: %u", symbol);
    return false;
  }

  Carafe::Attribute* AttributeCache::find(uint32_t symbol) const
  {
    Bastion::ReadGuard lock(m_lock);
    auto it = m_bySymbol.find(symbol);
    return it == m_bySymbol.end() ? nullptr : it->second;
  }

  bool AttributeCache::isNode(uint32_t symbol) const
  {
    Bastion::ReadGuard lock(m_lock);
    return m_nodeSymbols.count(symbol) != 0;
  }

  void AttributeCache::setIsNode(uint32_t symbol, bool isNode)
  {
    Bastion::WriteGuard lock(m_lock);
    if (isNode)
      m_nodeSymbols.insert(symbol);
    else
      m_nodeSymbols.erase(symbol);
  }
}
