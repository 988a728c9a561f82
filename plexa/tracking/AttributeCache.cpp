#include "plexa/tracking/AttributeCache.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

namespace Plexa
{
  bool AttributeCache::add(uint32_t symbol, Carafe::Attribute* attribute)
  {
    {
      Bastion::WriteGuard lock(m_lock);
      const auto added = m_bySymbol.insert(symbol, attribute);
      if (added.second || *added.first == attribute)
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
      if (m_bySymbol.erase(symbol)) {
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
    Carafe::Attribute* const* attribute = m_bySymbol.find(symbol);
    return attribute ? *attribute : nullptr;
  }

  bool AttributeCache::isNode(uint32_t symbol) const
  {
    Bastion::ReadGuard lock(m_lock);
    return m_nodeSymbols.contains(symbol);
  }

  void AttributeCache::setIsNode(uint32_t symbol, bool isNode)
  {
    Bastion::WriteGuard lock(m_lock);
    if (isNode)
      m_nodeSymbols.insert(symbol, true);
    else
      m_nodeSymbols.erase(symbol);
  }
}
