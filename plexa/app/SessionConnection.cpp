#include "plexa/app/SessionConnection.hpp"

namespace Plexa
{
  SessionConnection::SessionConnection(Bastion::TCPSocket* socket, bool accepted, SessionHost& host,
                                       std::shared_ptr<TrafficMeter> traffic, const QString& peerAddress)
      : ConnectionThread(socket, accepted)
      , m_link(host, std::move(traffic), peerAddress)
  {
    m_link.attach(*this);
  }

  SessionConnection::~SessionConnection()
  {
    shutdown();
    m_link.detach(*this);
  }

  bool SessionConnection::parse(QString line)
  {
    return m_link.parse(*this, line);
  }

  void SessionConnection::connected()
  {
    m_link.connected(*this);
  }

  void SessionConnection::disconnected()
  {
    m_link.disconnected(*this);
  }

  void SessionConnection::retryProgress(double secondsLeft)
  {
    m_link.retrying(secondsLeft);
  }
}
