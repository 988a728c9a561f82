#include "plexa/app/PeerConnectionFactory.hpp"

#include "plexa/app/FileSessionConnection.hpp"
#include "plexa/app/SessionConnection.hpp"

namespace Plexa
{
  PeerConnectionFactory::PeerConnectionFactory(SessionHost& host, std::shared_ptr<TrafficMeter> traffic,
                                               AssetBase* assets, double pingTimeoutSecs)
      : m_host(host)
      , m_traffic(std::move(traffic))
      , m_assets(assets)
      , m_pingTimeoutSecs(pingTimeoutSecs)
  {
  }

  std::shared_ptr<ConnectionThread> PeerConnectionFactory::create(Bastion::TCPSocket* socket, bool accepted,
                                                                  const QString& peerAddress) const
  {
    std::shared_ptr<ConnectionThread> connection;
    if (m_assets)
      connection = std::make_shared<FileSessionConnection>(socket, accepted, *m_assets, m_host, m_traffic, peerAddress);
    else
      connection = std::make_shared<SessionConnection>(socket, accepted, m_host, m_traffic, peerAddress);
    if (m_pingTimeoutSecs > 0)
      connection->setPingTimeout(m_pingTimeoutSecs);
    return connection;
  }
}
