#pragma once

#include "bastion/Mutex.hpp"
#include "bastion/ThreadSafety.hpp"

#include <cstdint>
#include <set>

namespace Plexa
{
  class ConnectionThread;

  /// Bytes sent and received over a set of connections, those that are gone included. Shared by
  /// a `Peer` and its connections, which may outlive it (a server retires its connections on a
  /// background thread). Any thread.
  class TrafficMeter
  {
  public:
    /// Counts `connection` from now on; it must call `retire` before its socket goes.
    void add(const ConnectionThread& connection);
    /// Keeps the final counts of `connection` and stops reading it.
    void retire(const ConnectionThread& connection);

    uint64_t txBytes() const;
    uint64_t rxBytes() const;

  private:
    /// The retired count plus `count` of every live connection.
    uint64_t total(uint64_t TrafficMeter::*retired, uint64_t (ConnectionThread::*count)() const) const;

    mutable Bastion::Mutex m_mutex;
    std::set<const ConnectionThread*> m_live BASTION_GUARDED_BY(m_mutex);
    uint64_t m_retiredTx BASTION_GUARDED_BY(m_mutex) = 0;
    uint64_t m_retiredRx BASTION_GUARDED_BY(m_mutex) = 0;
  };
}
