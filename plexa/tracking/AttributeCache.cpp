#include "plexa/tracking/AttributeCache.hpp"

#include "bastion/Log.hpp"

namespace Plexa
{
  bool AttributeCache::add(uint32_t symbol, Carafe::Attribute* attribute)
  {
    std::unique_lock<std::shared_mutex> lock(m_lock);
    const auto added = m_bySymbol.insert(symbol, attribute);
    if (!added.second) {
      if (*added.first == attribute)
        return true;
      lock.unlock();
      Bastion::error("AttributeCache::ensureExists # Found an existing symbol (%u) pointing to a different "
                     "attribute",
                     symbol);
      return false;
    }
    return true;
  }

  bool AttributeCache::remove(uint32_t symbol)
  {
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (!m_bySymbol.erase(symbol)) {
      lock.unlock();
      Bastion::error("AttributeCache::remove # Trying to remove missing symbol: %u", symbol);
      return false;
    }
    m_nodeSymbols.erase(symbol);
    return true;
  }

  Carafe::Attribute* AttributeCache::find(uint32_t symbol) const
  {
    std::shared_lock<std::shared_mutex> lock(m_lock);
    Carafe::Attribute* const* attribute = m_bySymbol.find(symbol);
    return attribute ? *attribute : nullptr;
  }

  bool AttributeCache::isNode(uint32_t symbol) const
  {
    std::shared_lock<std::shared_mutex> lock(m_lock);
    return m_nodeSymbols.contains(symbol);
  }

  void AttributeCache::setIsNode(uint32_t symbol, bool isNode)
  {
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (isNode)
      m_nodeSymbols.insert(symbol, true);
    else
      m_nodeSymbols.erase(symbol);
  }
}
