#include "plexa/remote/SyncFlags.hpp"

namespace Plexa
{
  SyncFlags::Flag SyncFlags::getFlags(uint32_t symbol) const
  {
    std::shared_lock<std::shared_mutex> lock(m_lock);
    auto it = m_flags.find(symbol);
    return it == m_flags.end() ? Default : it->second;
  }

  void SyncFlags::setFlags(uint32_t symbol, Flag flag)
  {
    std::unique_lock<std::shared_mutex> lock(m_lock);
    if (flag == Default)
      m_flags.erase(symbol);
    else
      m_flags[symbol] = flag;
  }

  void SyncFlags::clear()
  {
    std::unique_lock<std::shared_mutex> lock(m_lock);
    m_flags.clear();
  }
}
