#include "plexa/app/SessionLink.hpp"

#include "plexa/app/PeerSession.hpp"
#include "plexa/app/SessionHost.hpp"
#include "plexa/app/TrafficMeter.hpp"
#include "plexa/bundle/Plexa1Connection.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/net/WriterThread.hpp"

namespace Plexa
{
  SessionLink::SessionLink(SessionHost& host, std::shared_ptr<TrafficMeter> traffic, const QString& peerAddress)
      : m_host(host)
      , m_traffic(std::move(traffic))
      , m_peerAddress(peerAddress)
  {
  }

  SessionLink::~SessionLink() = default;

  void SessionLink::attach(const ConnectionThread& connection)
  {
    m_traffic->add(connection);
  }

  void SessionLink::detach(const ConnectionThread& connection)
  {
    m_traffic->retire(connection);
  }

  void SessionLink::connected(ConnectionThread& connection)
  {
    // A core may have queued a block after its connection dropped and before its session ended;
    // the bundles' message types mean nothing to the next session's peer.
    connection.writerThread()->removeFromBuffer(Plexa1Connection::BufferName);
    m_session = std::make_shared<PeerSession>(connection.shared_from_this(), m_peerAddress, m_host);
    m_host.sessionStarted(m_session);
  }

  void SessionLink::disconnected(ConnectionThread& connection)
  {
    if (m_session)
      m_session->end();
    m_session.reset();
    connection.writerThread()->removeFromBuffer(Plexa1Connection::BufferName);
  }

  bool SessionLink::parse(ConnectionThread& connection, const QString& line)
  {
    return m_session && processPlexa2(m_session, connection, line);
  }

  void SessionLink::retrying(double secondsLeft)
  {
    m_host.retrying(secondsLeft);
  }
}
