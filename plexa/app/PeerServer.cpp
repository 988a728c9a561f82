#include "plexa/app/PeerServer.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/TCPSocket.hpp"
#include "plexa/app/PeerConnectionFactory.hpp"
#include "plexa/net/ConnectionThread.hpp"

#include <algorithm>
#include <iterator>

namespace Plexa
{
  PeerServer::PeerServer(const PeerConnectionFactory& factory, int maxConnections)
      : m_factory(factory)
      , m_maxConnections(maxConnections)
  {
  }

  PeerServer::~PeerServer()
  {
    // The accept thread may be setting up one more connection: join it before the connections
    // are taken down.
    stop(true);
    if (!isCurrentThread())
      waitEnd();
    closeConnections();
  }

  std::shared_ptr<ConnectionThread> PeerServer::createConnection(Bastion::TCPSocket* socket)
  {
    const QString address = QString::fromUtf8(socket->peerAddress()) + ':' + QString::number(socket->peerPort());
    if (m_maxConnections > 0) {
      // Connections whose thread has ended wait for their retirement and no longer count.
      int live = 0;
      for (const std::shared_ptr<ConnectionThread>& connection : instances())
        if (connection->isRunning())
          ++live;
      if (live >= m_maxConnections) {
        // A flood of connection attempts would otherwise flood the log as well: one line until
        // a connection is let in again.
        if (!m_refusing)
          Bastion::warning("PeerServer::createConnection # %d connections already, closing the one from %s", live,
                           address.toUtf8().constData());
        m_refusing = true;
        delete socket;
        return nullptr;
      }
      m_refusing = false;
    }
    std::shared_ptr<ConnectionThread> connection = m_factory.create(socket, true, address);
    Bastion::Guard guard(m_madeMutex);
    m_made.push_back(connection);
    return connection;
  }

  void PeerServer::releaseEnded()
  {
    std::vector<std::shared_ptr<ConnectionThread>> ended;
    {
      Bastion::Guard guard(m_madeMutex);
      // Held by nobody else: its thread has ended and its retirement has let it go. No other
      // reference can appear any more, so it goes here.
      auto alone = std::partition(m_made.begin(), m_made.end(),
                                  [](const std::shared_ptr<ConnectionThread>& c) { return c.use_count() > 1; });
      ended.assign(std::make_move_iterator(alone), std::make_move_iterator(m_made.end()));
      m_made.erase(alone, m_made.end());
    }
  }
}
