#include "bastion/TCPSocket.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Mutex.hpp"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <vector>

namespace Bastion
{
  namespace
  {
    using Clock = std::chrono::steady_clock;

    /// Largest single send: a big write advances the sent-byte counter as it goes instead of only
    /// at its end.
    constexpr int SendChunkSize = 256 * 1024;

    /// Receive buffer size; reads at least this large go straight into the caller's buffer.
    constexpr int ReceiveBufferSize = 64 * 1024;

    /// A descriptor that is closed when the last user lets go of it, so a call still inside
    /// recv/send on another thread never sees its number reused.
    using Descriptor = std::shared_ptr<const int>;

    Descriptor adopt(int fd)
    {
      return Descriptor(new int(fd), [](const int* p) {
        ::close(*p);
        delete p;
      });
    }

    /// Milliseconds left until `deadline`, at least 0.
    int msLeft(Clock::time_point deadline)
    {
      auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
      return ms < 0 ? 0 : int(ms) + 1;
    }

    void setStreamOptions(int fd)
    {
      int one = 1;
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
      setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one));
    }

    /// Waits for `events` on `fd` until `deadline`; false on timeout or error.
    bool waitFor(int fd, short events, Clock::time_point deadline)
    {
      for (;;) {
        pollfd p{fd, events, 0};
        int rc = ::poll(&p, 1, msLeft(deadline));
        if (rc > 0)
          return true;
        if (rc == 0 || errno != EINTR)
          return false;
        if (Clock::now() >= deadline)
          return false;
      }
    }
  }

  class TCPSocket::D
  {
  public:
    mutable Mutex mutex;
    /// The connected descriptor; null when closed or still connecting.
    Descriptor connected BASTION_GUARDED_BY(mutex);
    /// The descriptor of a connection attempt in progress, so that close() can abort it.
    Descriptor connecting BASTION_GUARDED_BY(mutex);
    /// Counts close() calls; open() notices one that happened while it was connecting.
    uint64_t closeCount BASTION_GUARDED_BY(mutex) = 0;
    QByteArray peerAddress BASTION_GUARDED_BY(mutex);
    int peerPort BASTION_GUARDED_BY(mutex) = 0;
    std::atomic<bool> open{false};
    std::atomic<int> connectTimeoutMs{DefaultConnectTimeoutMs};

    // reader thread only
    std::vector<char> buffer;
    int bufferPos = 0;
    int bufferEnd = 0;

    Descriptor current() const
    {
      Guard g(mutex);
      return connected;
    }

    void becomeConnected(const Descriptor& fd)
    {
      sockaddr_storage addr;
      socklen_t len = sizeof(addr);
      char host[NI_MAXHOST] = "";
      char serv[NI_MAXSERV] = "";
      if (getpeername(*fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0)
        getnameinfo(reinterpret_cast<sockaddr*>(&addr), len, host, sizeof(host), serv, sizeof(serv),
                    NI_NUMERICHOST | NI_NUMERICSERV);
      bufferPos = bufferEnd = 0;
      Guard g(mutex);
      connected = fd;
      peerAddress = host;
      peerPort = std::atoi(serv);
      open = true;
    }
  };

  TCPSocket::TCPSocket()
      : m_d(new D)
  {
  }

  TCPSocket::TCPSocket(int fd)
      : m_d(new D)
  {
    if (fd < 0)
      return;
    setStreamOptions(fd);
    m_d->becomeConnected(adopt(fd));
  }

  TCPSocket::~TCPSocket()
  {
    close();
  }

  int TCPSocket::open(const char* host, int port)
  {
    uint64_t closeCount;
    {
      Guard g(m_d->mutex);
      if (m_d->connected || m_d->connecting)
        return EISCONN;
      closeCount = m_d->closeCount;
    }
    const Clock::time_point deadline =
        Clock::now() + std::chrono::milliseconds(std::max(0, m_d->connectTimeoutMs.load()));

    addrinfo hints;
    std::memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const QByteArray service = QByteArray::number(port);
    if (port < 0 || port > 65535 || !host || getaddrinfo(host, service.constData(), &hints, &list) != 0 || !list)
      return EHOSTUNREACH;

    int result = EHOSTUNREACH;
    for (addrinfo* ai = list; ai; ai = ai->ai_next) {
      int raw = ::socket(ai->ai_family, ai->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, ai->ai_protocol);
      if (raw < 0) {
        result = errno;
        continue;
      }
      Descriptor fd = adopt(raw);
      {
        Guard g(m_d->mutex);
        if (m_d->closeCount != closeCount) {
          result = ECONNABORTED;
          break;
        }
        m_d->connecting = fd;
      }
      int err = 0;
      if (::connect(raw, ai->ai_addr, ai->ai_addrlen) != 0) {
        err = errno;
        if (err == EINPROGRESS) {
          if (!waitFor(raw, POLLOUT, deadline)) {
            err = ETIMEDOUT;
          } else {
            socklen_t len = sizeof(err);
            if (getsockopt(raw, SOL_SOCKET, SO_ERROR, &err, &len) != 0)
              err = errno;
          }
        }
      }
      bool aborted;
      {
        Guard g(m_d->mutex);
        m_d->connecting.reset();
        aborted = m_d->closeCount != closeCount;
      }
      if (aborted) {
        result = ECONNABORTED;
        break;
      }
      if (err == 0) {
        int flags = fcntl(raw, F_GETFL);
        fcntl(raw, F_SETFL, flags & ~O_NONBLOCK);
        setStreamOptions(raw);
        m_d->becomeConnected(fd);
        {
          // A close() may have slipped in between the check above and the publication.
          Guard g(m_d->mutex);
          if (m_d->closeCount == closeCount) {
            result = 0;
          } else {
            m_d->connected.reset();
            m_d->open = false;
            result = ECONNABORTED;
          }
        }
        break;
      }
      result = err;
      if (Clock::now() >= deadline) {
        result = ETIMEDOUT;
        break;
      }
    }
    freeaddrinfo(list);
    return result;
  }

  int TCPSocket::read(void* buf, int size)
  {
    if (size <= 0 || !m_d->open.load(std::memory_order_acquire))
      return 0;
    char* out = static_cast<char*>(buf);
    int done = std::min(size, m_d->bufferEnd - m_d->bufferPos);
    if (done > 0) {
      std::memcpy(out, m_d->buffer.data() + m_d->bufferPos, size_t(done));
      m_d->bufferPos += done;
      if (done == size)
        return done;
    }
    Descriptor fd = m_d->current();
    if (!fd)
      return done;
    const int timeoutMs = readTimeout();
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const int flags = timeoutMs > 0 ? MSG_DONTWAIT : 0;
    while (done < size) {
      const int want = size - done;
      ssize_t n;
      if (want >= ReceiveBufferSize) {
        n = ::recv(*fd, out + done, size_t(want), flags);
      } else {
        if (m_d->buffer.empty())
          m_d->buffer.resize(ReceiveBufferSize);
        n = ::recv(*fd, m_d->buffer.data(), ReceiveBufferSize, flags);
        if (n > 0) {
          const int take = std::min(want, int(n));
          std::memcpy(out + done, m_d->buffer.data(), size_t(take));
          m_d->bufferPos = take;
          m_d->bufferEnd = int(n);
          done += take;
          m_rxBytes.fetch_add(uint64_t(n), std::memory_order_relaxed);
          continue;
        }
      }
      if (n > 0) {
        done += int(n);
        m_rxBytes.fetch_add(uint64_t(n), std::memory_order_relaxed);
        continue;
      }
      if (n < 0 && errno == EINTR)
        continue;
      const bool mayWait = n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && timeoutMs > 0;
      // The peer closed (0), a hard error, or nothing arrived before the deadline.
      if (!mayWait || Clock::now() >= deadline || !waitFor(*fd, POLLIN, deadline))
        break;
    }
    return done;
  }

  int TCPSocket::write(const void* buf, int size)
  {
    if (size <= 0)
      return 0;
    Descriptor fd = m_d->current();
    if (!fd)
      return 0;
    const char* in = static_cast<const char*>(buf);
    const int timeoutMs = writeTimeout();
    const Clock::time_point deadline = Clock::now() + std::chrono::milliseconds(timeoutMs);
    const int flags = MSG_NOSIGNAL | (timeoutMs > 0 ? MSG_DONTWAIT : 0);
    int done = 0;
    while (done < size) {
      ssize_t n = ::send(*fd, in + done, size_t(std::min(size - done, SendChunkSize)), flags);
      if (n > 0) {
        done += int(n);
        m_txBytes.fetch_add(uint64_t(n), std::memory_order_relaxed);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && timeoutMs > 0) {
        if (Clock::now() >= deadline || !waitFor(*fd, POLLOUT, deadline))
          break;
      } else {
        break;
      }
    }
    return done;
  }

  int TCPSocket::writeSome(const void* buf, int size)
  {
    Descriptor fd = m_d->current();
    if (!fd)
      return -1;
    const char* in = static_cast<const char*>(buf);
    int done = 0;
    while (done < size) {
      const ssize_t n =
          ::send(*fd, in + done, size_t(std::min(size - done, SendChunkSize)), MSG_NOSIGNAL | MSG_DONTWAIT);
      if (n > 0) {
        done += int(n);
        m_txBytes.fetch_add(uint64_t(n), std::memory_order_relaxed);
      } else if (n < 0 && errno == EINTR) {
        continue;
      } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
        break;
      } else {
        return done > 0 ? done : -1;
      }
    }
    return done;
  }

  void TCPSocket::close()
  {
    Guard g(m_d->mutex);
    ++m_d->closeCount;
    m_d->open = false;
    // shutdown wakes a recv, send, poll or connect blocked on another thread; the descriptor
    // itself goes when the last of them lets go.
    if (m_d->connected)
      ::shutdown(*m_d->connected, SHUT_RDWR);
    if (m_d->connecting)
      ::shutdown(*m_d->connecting, SHUT_RDWR);
    m_d->connected.reset();
  }

  bool TCPSocket::isOpen() const
  {
    return m_d->open.load(std::memory_order_acquire);
  }

  void TCPSocket::setReadTimeout(int ms)
  {
    m_readTimeoutMs = std::max(0, ms);
  }

  void TCPSocket::setWriteTimeout(int ms)
  {
    m_writeTimeoutMs = std::max(0, ms);
  }

  void TCPSocket::setConnectTimeout(int ms)
  {
    m_d->connectTimeoutMs = std::max(0, ms);
  }

  QByteArray TCPSocket::peerAddress() const
  {
    Guard g(m_d->mutex);
    return m_d->peerAddress;
  }

  int TCPSocket::peerPort() const
  {
    Guard g(m_d->mutex);
    return m_d->peerPort;
  }
}
