#pragma once

#include <QString>

#include <memory>

namespace Bastion
{
  class TCPSocket;
}

namespace Plexa
{
  class AssetBase;
  class ConnectionThread;
  class SessionHost;
  class TrafficMeter;

  /// Makes the connections of one `Peer`, client and accepted alike: a FileSessionConnection when
  /// the peer has a file store, a SessionConnection otherwise. Constant after construction; any
  /// thread.
  class PeerConnectionFactory
  {
  public:
    /// `host` and `assets` (may be null: no file transfer) must outlive every connection's thread.
    /// `pingTimeoutSecs` above 0 replaces the connections' own ping timeout.
    PeerConnectionFactory(SessionHost& host, std::shared_ptr<TrafficMeter> traffic, AssetBase* assets,
                          double pingTimeoutSecs = 0);

    /// A connection over `socket` (owned from now on; null for a client), not started yet.
    std::shared_ptr<ConnectionThread> create(Bastion::TCPSocket* socket, bool accepted,
                                             const QString& peerAddress) const;

  private:
    SessionHost& m_host;
    const std::shared_ptr<TrafficMeter> m_traffic;
    AssetBase* const m_assets;
    const double m_pingTimeoutSecs;
  };
}
