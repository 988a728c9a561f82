#include "FaultProxy.hpp"

#include <algorithm>
#include <chrono>
#include <deque>
#include <list>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace PlexaTest
{
  namespace
  {
    using Clock = std::chrono::steady_clock;

    /// Bytes one direction holds before it stops reading: the sender then feels TCP back-pressure,
    /// as it would behind a slow link.
    constexpr size_t MaxQueuedBytes = 1 << 20;
    constexpr size_t ReadSize = 16384;

    void setNonBlocking(int fd)
    {
      ::fcntl(fd, F_SETFL, ::fcntl(fd, F_GETFL) | O_NONBLOCK);
      const int one = 1;
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    }

    sockaddr_in loopback(int port)
    {
      sockaddr_in address{};
      address.sin_family = AF_INET;
      address.sin_port = htons(uint16_t(port));
      address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
      return address;
    }

    struct Chunk
    {
      std::string bytes;
      size_t offset = 0;
      Clock::time_point due;
      /// Largest piece per write; 0: as much as the socket takes.
      size_t piece = 0;
      /// The connection is cut once this many bytes of the chunk went out; npos: never.
      size_t cutAt = std::string::npos;
    };

    struct Direction
    {
      int from = -1;
      int to = -1;
      std::deque<Chunk> queue;
      size_t queued = 0;
      /// The source has closed its side: `to` gets a FIN once the queue is empty.
      bool ended = false;
      bool shutDown = false;
      /// The last write would have blocked.
      bool blocked = false;
    };

    struct Link
    {
      Direction up;
      Direction down;
      bool closed = false;
    };
  }

  class FaultProxy::D
  {
  public:
    D(int targetPort, unsigned seed, const Faults& faults)
        : targetPort(targetPort)
        , faults(faults)
        , random(seed)
    {
      if (::pipe2(wakePipe, O_NONBLOCK | O_CLOEXEC) != 0)
        return;
      listener = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      const int one = 1;
      ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
      sockaddr_in address = loopback(0);
      if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 64) != 0) {
        ::close(listener);
        listener = -1;
        return;
      }
      socklen_t length = sizeof address;
      ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length);
      port = ntohs(address.sin_port);
      setNonBlocking(listener);
      thread = std::thread([this] { run(); });
    }

    ~D()
    {
      quit = true;
      wake();
      if (thread.joinable())
        thread.join();
      for (Link& link : links)
        close(link, false);
      if (listener >= 0)
        ::close(listener);
      for (int fd : wakePipe)
        if (fd >= 0)
          ::close(fd);
    }

    void wake()
    {
      const char byte = 0;
      if (wakePipe[1] >= 0)
        (void)!::write(wakePipe[1], &byte, 1);
    }

    int below(int n) { return n <= 0 ? 0 : int(random() % unsigned(n)); }

    void run()
    {
      std::vector<pollfd> fds;
      std::vector<Direction*> owners;
      while (!quit) {
        const Clock::time_point now = Clock::now();
        if (faultsDropped.exchange(false))
          for (Link& link : links)
            for (Direction* d : {&link.up, &link.down})
              for (Chunk& chunk : d->queue) {
                chunk.due = now;
                chunk.piece = 0;
                chunk.cutAt = std::string::npos;
              }
        // Writes that are due, and the time until the next one.
        int timeoutMs = 1000;
        for (Link& link : links)
          for (Direction* d : {&link.up, &link.down}) {
            if (!link.closed)
              timeoutMs = std::min(timeoutMs, flush(link, *d));
          }
        links.remove_if([](const Link& link) { return link.closed; });

        fds.clear();
        owners.clear();
        fds.push_back({wakePipe[0], POLLIN, 0});
        owners.push_back(nullptr);
        // A stopped process opens no connections either: new ones wait in the backlog.
        fds.push_back({listener, short(swallowing ? 0 : POLLIN), 0});
        owners.push_back(nullptr);
        for (Link& link : links)
          for (Direction* d : {&link.up, &link.down}) {
            if (!d->ended && d->queued < MaxQueuedBytes) {
              fds.push_back({d->from, POLLIN, 0});
              owners.push_back(d);
            }
            if (d->blocked) {
              fds.push_back({d->to, POLLOUT, 0});
              owners.push_back(d);
            }
          }
        if (::poll(fds.data(), fds.size(), std::max(timeoutMs, 0)) < 0)
          continue;
        if (fds[0].revents) {
          char sink[64];
          while (::read(wakePipe[0], sink, sizeof sink) > 0) {
          }
        }
        if (fds[1].revents & POLLIN)
          acceptOne();
        for (size_t i = 2; i < fds.size(); ++i) {
          if (!fds[i].revents)
            continue;
          Direction* d = owners[i];
          if (fds[i].events & POLLOUT)
            d->blocked = false;
          else
            receive(*d);
        }
        for (Link& link : links)
          if (!link.closed && ((link.up.ended && link.up.shutDown && link.down.ended && link.down.shutDown)))
            close(link, false);
      }
    }

    void acceptOne()
    {
      const int client = ::accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
      if (client < 0)
        return;
      const int server = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
      sockaddr_in address = loopback(targetPort);
      if (::connect(server, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        ::close(server);
        ::close(client);
        return;
      }
      setNonBlocking(client);
      setNonBlocking(server);
      links.emplace_back();
      Link& link = links.back();
      link.up.from = link.down.to = client;
      link.up.to = link.down.from = server;
      ++acceptedCount;
    }

    Link& linkOf(Direction& d)
    {
      for (Link& link : links)
        if (&link.up == &d || &link.down == &d)
          return link;
      return links.front();
    }

    void receive(Direction& d)
    {
      Link& link = linkOf(d);
      if (link.closed)
        return;
      std::string bytes(ReadSize, '\0');
      const ssize_t n = ::read(d.from, &bytes[0], bytes.size());
      if (n == 0) {
        d.ended = true;
        return;
      }
      if (n < 0) {
        if (errno != EAGAIN && errno != EINTR)
          close(link, false);
        return;
      }
      if (swallowing)
        return;
      bytes.resize(size_t(n));
      const Clock::time_point now = Clock::now();
      Chunk chunk;
      chunk.bytes = std::move(bytes);
      chunk.due = now;
      if (faultsOn) {
        if (below(1000) < faults.stall)
          chunk.due += std::chrono::milliseconds(faults.minStallMs + below(faults.maxStallMs - faults.minStallMs + 1));
        if (below(1000) < faults.delay)
          chunk.due += std::chrono::milliseconds(below(faults.maxDelayMs + 1));
        if (below(1000) < faults.split)
          chunk.piece = size_t(1 + below(faults.maxPiece));
        if (below(1000) < faults.cut)
          chunk.cutAt = size_t(below(int(chunk.bytes.size())));
      }
      // Order is kept: a chunk is never due before the one ahead of it.
      if (!d.queue.empty())
        chunk.due = std::max(chunk.due, d.queue.back().due);
      d.queued += chunk.bytes.size();
      d.queue.push_back(std::move(chunk));
    }

    /// Writes what is due in `d`; returns the milliseconds until it has more to write.
    int flush(Link& link, Direction& d)
    {
      if (swallowing) {
        d.queue.clear();
        d.queued = 0;
      }
      while (!d.queue.empty() && !d.blocked) {
        Chunk& chunk = d.queue.front();
        const Clock::time_point now = Clock::now();
        if (chunk.due > now)
          return int(std::chrono::duration_cast<std::chrono::milliseconds>(chunk.due - now).count()) + 1;
        size_t size = chunk.bytes.size() - chunk.offset;
        if (chunk.piece)
          size = std::min(size, chunk.piece);
        if (chunk.cutAt != std::string::npos)
          size = std::min(size, chunk.cutAt - chunk.offset);
        if (size > 0) {
          const ssize_t n = ::send(d.to, chunk.bytes.data() + chunk.offset, size, MSG_NOSIGNAL);
          if (n < 0) {
            if (errno == EAGAIN)
              d.blocked = true;
            else if (errno != EINTR)
              close(link, false);
            return 1000;
          }
          chunk.offset += size_t(n);
          d.queued -= size_t(n);
        }
        if (chunk.offset == chunk.cutAt) {
          ++cutCount;
          close(link, below(2) == 0);
          return 1000;
        }
        if (chunk.offset == chunk.bytes.size()) {
          d.queue.pop_front();
        } else if (chunk.piece) {
          // The next piece goes out in a later round, now and then a millisecond later, so the
          // reader sees it apart.
          chunk.due = now + std::chrono::milliseconds(below(3) == 0 ? 1 : 0);
          return 0;
        }
      }
      // A swallowed end is held back like everything else: a stopped process finds its connection
      // closed only once it runs again.
      if (d.queue.empty() && d.ended && !d.shutDown && !swallowing) {
        ::shutdown(d.to, SHUT_WR);
        d.shutDown = true;
      }
      return 1000;
    }

    /// `reset`: the peers see a connection reset instead of an orderly end.
    void close(Link& link, bool reset)
    {
      if (link.closed)
        return;
      link.closed = true;
      for (int fd : {link.up.from, link.up.to}) {
        if (reset) {
          const linger hard{1, 0};
          ::setsockopt(fd, SOL_SOCKET, SO_LINGER, &hard, sizeof hard);
        }
        ::close(fd);
      }
      link.up.queue.clear();
      link.down.queue.clear();
    }

    const int targetPort;
    const Faults faults;
    int port = 0;
    int listener = -1;
    int wakePipe[2] = {-1, -1};

    std::atomic<bool> quit{false};
    std::atomic<bool> faultsOn{true};
    std::atomic<bool> faultsDropped{false};
    std::atomic<bool> swallowing{false};
    std::atomic<int> cutCount{0};
    std::atomic<int> acceptedCount{0};

    // Proxy thread only.
    std::mt19937 random;
    std::list<Link> links;
    std::thread thread;
  };

  FaultProxy::FaultProxy(int targetPort, unsigned seed, const Faults& faults)
      : d(new D(targetPort, seed, faults))
  {
  }

  FaultProxy::FaultProxy(int targetPort, unsigned seed)
      : FaultProxy(targetPort, seed, Faults())
  {
  }

  FaultProxy::~FaultProxy() = default;

  int FaultProxy::port() const
  {
    return d->port;
  }

  void FaultProxy::setFaults(bool on)
  {
    d->faultsOn = on;
    if (!on)
      d->faultsDropped = true;
    d->wake();
  }

  void FaultProxy::setSwallowing(bool on)
  {
    d->swallowing = on;
    d->wake();
  }

  int FaultProxy::cuts() const
  {
    return d->cutCount;
  }

  int FaultProxy::accepted() const
  {
    return d->acceptedCount;
  }
}
