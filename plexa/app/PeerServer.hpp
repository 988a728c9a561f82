#pragma once

#include "bastion/Mutex.hpp"
#include "bastion/ThreadSafety.hpp"
#include "plexa/files/ServerBase.hpp"

#include <memory>
#include <vector>

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

    /// Lets go of the connections that have ended and been retired. Application thread.
    void releaseEnded();

  protected:
    /// Server thread. A connection over the cap is closed at once, with a warning for the first one
    /// refused since a connection was last let in.
    std::shared_ptr<ConnectionThread> createConnection(Bastion::TCPSocket* socket) override;

  private:
    const PeerConnectionFactory& m_factory;
    const int m_maxConnections;
    /// Server thread only: connections are being refused, and the warning has been given.
    bool m_refusing = false;

    /// Every connection made and not yet released. Held so that the last reference to a connection
    /// is dropped on the application thread (by `releaseEnded` or the destructor), never on the
    /// background thread that retires it: a connection's Qt objects belong to the accept thread,
    /// and their teardown must follow that thread's end in an order the thread checker can see.
    Bastion::Mutex m_madeMutex;
    std::vector<std::shared_ptr<ConnectionThread>> m_made BASTION_GUARDED_BY(m_madeMutex);
  };
}
