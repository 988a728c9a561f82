#include "plexa/remote/SyncFlags.hpp"

#include "bastion/Guard.hpp"

namespace Plexa
{
  SyncFlags::Flag SyncFlags::getFlags(uint32_t symbol) const
  {
    Bastion::ReadGuard lock(m_lock);
    auto it = m_flags.find(symbol);
    return it == m_flags.end() ? Default : it->second;
  }

  void SyncFlags::setFlags(uint32_t symbol, Flag flag)
  {
    Bastion::WriteGuard lock(m_lock);
    if (flag == Default)
      m_flags.erase(symbol);
    else
      m_flags[symbol] = flag;
    m_version.store(nextVersion(), std::memory_order_release);
  }

  void SyncFlags::clear()
  {
    Bastion::WriteGuard lock(m_lock);
    m_flags.clear();
    m_version.store(nextVersion(), std::memory_order_release);
  }

  uint64_t SyncFlags::nextVersion()
  {
    static std::atomic<uint64_t> last{0};
    return ++last;
  }
}
