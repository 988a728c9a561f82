#include "plexa/app/PeerConnectionFactory.hpp"

#include "plexa/app/FileSessionConnection.hpp"
#include "plexa/app/SessionConnection.hpp"

namespace Plexa
{
  PeerConnectionFactory::PeerConnectionFactory(SessionHost& host, std::shared_ptr<TrafficMeter> traffic,
                                               AssetBase* assets)
      : m_host(host)
      , m_traffic(std::move(traffic))
      , m_assets(assets)
  {
  }

  std::shared_ptr<ConnectionThread> PeerConnectionFactory::create(Bastion::TCPSocket* socket, bool accepted,
                                                                  const QString& peerAddress) const
  {
    if (m_assets)
      return std::make_shared<FileSessionConnection>(socket, accepted, *m_assets, m_host, m_traffic, peerAddress);
    return std::make_shared<SessionConnection>(socket, accepted, m_host, m_traffic, peerAddress);
  }
}
