#pragma once

#include "plexa/files/ServerBase.hpp"

namespace Plexa
{
  class PeerConnectionFactory;

  /// The listening end of a `Peer`: accepted sockets become the peer's connections, at most
  /// `maxConnections` at a time (0: no cap).
  class PeerServer : public ServerBase
  {
  public:
    /// `factory` must outlive the server.
    PeerServer(const PeerConnectionFactory& factory, int maxConnections);
    /// Stops accepting, then stops and joins every connection.
    ~PeerServer() override;

  protected:
    /// Server thread. A connection over the cap is closed at once, with a warning.
    std::shared_ptr<ConnectionThread> createConnection(Bastion::TCPSocket* socket) override;

  private:
    const PeerConnectionFactory& m_factory;
    const int m_maxConnections;
  };
}
