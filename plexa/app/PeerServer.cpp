#include "plexa/app/PeerServer.hpp"

#include "bastion/Log.hpp"
#include "bastion/TCPSocket.hpp"
#include "plexa/app/PeerConnectionFactory.hpp"
#include "plexa/net/ConnectionThread.hpp"

namespace Plexa
{
  PeerServer::PeerServer(const PeerConnectionFactory& factory, int maxConnections)
    : m_factory(factory), m_maxConnections(maxConnections)
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
        Bastion::warning("PeerServer::createConnection # %d connections already, closing the one from %s",
                         live, address.toUtf8().constData());
        delete socket;
        return nullptr;
      }
    }
    return m_factory.create(socket, true, address);
  }
}
