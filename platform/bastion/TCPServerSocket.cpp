#include "bastion/TCPServerSocket.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/TCPSocket.hpp"

#include <netdb.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

namespace Bastion
{
  namespace
  {
    /// Closed when the last user lets go, so a poll or accept still running on another thread
    /// never sees the number reused.
    using Descriptor = std::shared_ptr<const int>;

    /// Creates, binds and listens; 0 or an errno value.
    int bindOne(const addrinfo* ai, int backlog, Descriptor& out)
    {
      int raw = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC, ai->ai_protocol);
      if (raw < 0)
        return errno;
      Descriptor fd(new int(raw), [](const int* p) {
        ::close(*p);
        delete p;
      });
      int one = 1;
      setsockopt(raw, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
      if (ai->ai_family == AF_INET6) {
        // An unnamed host means every interface of both families.
        int zero = 0;
        setsockopt(raw, IPPROTO_IPV6, IPV6_V6ONLY, &zero, sizeof(zero));
      }
      if (::bind(raw, ai->ai_addr, ai->ai_addrlen) != 0 || ::listen(raw, backlog) != 0)
        return errno;
      out = fd;
      return 0;
    }
  }

  class TCPServerSocket::D
  {
  public:
    mutable Mutex mutex;
    Descriptor fd BASTION_GUARDED_BY(mutex);
    int port BASTION_GUARDED_BY(mutex) = 0;

    Descriptor current() const
    {
      Guard g(mutex);
      return fd;
    }
  };

  TCPServerSocket::TCPServerSocket()
      : m_d(new D)
  {
  }

  TCPServerSocket::~TCPServerSocket()
  {
    close();
  }

  int TCPServerSocket::open(const char* host, int port, int backlog)
  {
    if (isOpen())
      return EISCONN;
    if (port < 0 || port > 65535)
      return EINVAL;
    const bool anyHost = !host || !*host;
    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV | AI_PASSIVE;
    const QByteArray service = QByteArray::number(port);
    addrinfo* list = nullptr;
    // For every interface, try the dual-stack IPv6 wildcard first, then IPv4 only.
    const char* names[2] = {anyHost ? "::" : host, anyHost ? "0.0.0.0" : nullptr};
    int result = EHOSTUNREACH;
    Descriptor bound;
    for (const char* name : names) {
      if (!name || bound)
        break;
      if (getaddrinfo(name, service.constData(), &hints, &list) != 0 || !list)
        continue;
      for (addrinfo* ai = list; ai && !bound; ai = ai->ai_next)
        result = bindOne(ai, backlog, bound);
      freeaddrinfo(list);
      list = nullptr;
    }
    if (!bound)
      return result;

    sockaddr_storage addr;
    socklen_t len = sizeof(addr);
    int boundPort = port;
    if (getsockname(*bound, reinterpret_cast<sockaddr*>(&addr), &len) == 0) {
      if (addr.ss_family == AF_INET)
        boundPort = ntohs(reinterpret_cast<sockaddr_in*>(&addr)->sin_port);
      else if (addr.ss_family == AF_INET6)
        boundPort = ntohs(reinterpret_cast<sockaddr_in6*>(&addr)->sin6_port);
    }
    Guard g(m_d->mutex);
    if (m_d->fd)
      return EISCONN;
    m_d->fd = bound;
    m_d->port = boundPort;
    return 0;
  }

  int TCPServerSocket::localPort() const
  {
    Guard g(m_d->mutex);
    return m_d->fd ? m_d->port : 0;
  }

  bool TCPServerSocket::isOpen() const
  {
    Guard g(m_d->mutex);
    return bool(m_d->fd);
  }

  bool TCPServerSocket::isPendingConnection(int usec)
  {
    Descriptor fd = m_d->current();
    if (!fd)
      return false;
    pollfd p{*fd, POLLIN, 0};
    timespec limit{usec / 1000000, long(usec % 1000000) * 1000L};
    int rc = ::ppoll(&p, 1, usec < 0 ? nullptr : &limit, nullptr);
    return rc > 0 && (p.revents & POLLIN) && isOpen();
  }

  TCPSocket* TCPServerSocket::accept(int* error)
  {
    if (error)
      *error = 0;
    Descriptor fd = m_d->current();
    if (!fd)
      return nullptr;
    for (;;) {
      int raw = ::accept4(*fd, nullptr, nullptr, SOCK_CLOEXEC);
      if (raw >= 0)
        return new TCPSocket(raw);
      const int failure = errno;
      if (failure != EINTR || !isOpen()) {
        if (error)
          *error = failure;
        return nullptr;
      }
    }
  }

  void TCPServerSocket::close()
  {
    Guard g(m_d->mutex);
    if (!m_d->fd)
      return;
    // Wakes a poll or accept blocked on another thread.
    ::shutdown(*m_d->fd, SHUT_RDWR);
    m_d->fd.reset();
    m_d->port = 0;
  }
}
