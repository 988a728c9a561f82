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
      if (added.second)
        m_version.store(nextVersion(), std::memory_order_release);
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
        m_version.store(nextVersion(), std::memory_order_release);
        return true;
      }
    }
    Bastion::error("AttributeCache::remove # Trying to remove missing symbol: %u", symbol);
    return false;
  }

  uint64_t AttributeCache::nextVersion()
  {
    static std::atomic<uint64_t> last{0};
    return ++last;
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
