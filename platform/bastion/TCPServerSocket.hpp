#pragma once

#include <memory>

namespace Bastion
{
  class TCPSocket;

  /// A listening TCP socket. One thread polls and accepts; `close()` may come from any thread and
  /// makes a poll in progress return false at once.
  class TCPServerSocket
  {
  public:
    TCPServerSocket();
    virtual ~TCPServerSocket();
    TCPServerSocket(const TCPServerSocket&) = delete;
    TCPServerSocket& operator=(const TCPServerSocket&) = delete;

    /// Binds `host` (empty: all interfaces, IPv6 and IPv4 where available) and `port` (0: an
    /// ephemeral port, see `localPort()`) with SO_REUSEADDR, and listens with `backlog`.
    /// Returns 0 on success, otherwise an errno value (EADDRINUSE, EISCONN when already open,
    /// EHOSTUNREACH when the name does not resolve, ...). A closed server socket may be opened again.
    int open(const char* host, int port, int backlog);
    /// The bound port while open, else 0.
    int localPort() const;
    bool isOpen() const;
    /// Waits at most `usec` microseconds for an incoming connection. False on timeout, when not
    /// open or when closed meanwhile.
    bool isPendingConnection(int usec);
    /// Takes the next connection (blocking if none is pending). The caller owns the result; null
    /// on failure or when closed, with the errno value in `error` when given (EMFILE, ENFILE:
    /// out of descriptors, the connection stays pending; 0 when closed).
    TCPSocket* accept(int* error = nullptr);
    /// Stops listening; any thread, idempotent.
    void close();

  private:
    class D;
    std::unique_ptr<D> m_d;
  };
}
