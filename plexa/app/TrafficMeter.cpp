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
    return total(&TrafficMeter::m_retiredTx, &ConnectionThread::txBytes);
  }

  uint64_t TrafficMeter::rxBytes() const
  {
    return total(&TrafficMeter::m_retiredRx, &ConnectionThread::rxBytes);
  }

  uint64_t TrafficMeter::total(uint64_t TrafficMeter::*retired, uint64_t (ConnectionThread::*count)() const) const
  {
    Bastion::Guard guard(m_mutex);
    uint64_t sum = this->*retired;
    for (const ConnectionThread* connection : m_live)
      sum += (connection->*count)();
    return sum;
  }
}
