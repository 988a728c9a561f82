#include "plexa/app/TrafficMeter.hpp"

#include "bastion/Guard.hpp"
#include "plexa/net/ConnectionThread.hpp"

namespace Plexa
{
  void TrafficMeter::add(const ConnectionThread& connection)
  {
    Bastion::Guard guard(m_mutex);
    m_live.insert(&connection);
  }

  void TrafficMeter::retire(const ConnectionThread& connection)
  {
    Bastion::Guard guard(m_mutex);
    if (m_live.erase(&connection) == 0)
      return;
    m_retiredTx += connection.txBytes();
    m_retiredRx += connection.rxBytes();
  }

  uint64_t TrafficMeter::txBytes() const
  {
    Bastion::Guard guard(m_mutex);
    uint64_t total = m_retiredTx;
    for (const ConnectionThread* connection : m_live)
      total += connection->txBytes();
    return total;
  }

  uint64_t TrafficMeter::rxBytes() const
  {
    Bastion::Guard guard(m_mutex);
    uint64_t total = m_retiredRx;
    for (const ConnectionThread* connection : m_live)
      total += connection->rxBytes();
    return total;
  }
}
