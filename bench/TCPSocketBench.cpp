// Moves 256 MiB over loopback through Bastion::TCPSocket and through a plain POSIX socket loop with
// the same chunk sizes, in the same run, and prints both rates and their ratio.

#include "bastion/TCPServerSocket.hpp"
#include "bastion/TCPSocket.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <thread>
#include <vector>

namespace
{
  using Clock = std::chrono::steady_clock;

  constexpr long long TotalBytes = 256LL << 20;
  constexpr int ChunkBytes = 64 * 1024;
  constexpr int Rounds = 7;

  /// Bytes per second of wall time and per second of CPU time (user + system, all threads): on a
  /// loaded machine the second is the steadier measure of what the code itself costs.
  struct Rate
  {
    double wall = 0;
    double cpu = 0;
  };

  double cpuSeconds()
  {
    rusage u;
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
  }

  /// Times `transfer` (which moves TotalBytes and joins its threads).
  template <typename F>
  Rate measure(F transfer)
  {
    const double cpu0 = cpuSeconds();
    const auto start = Clock::now();
    transfer();
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    return {double(TotalBytes) / wall, double(TotalBytes) / (cpuSeconds() - cpu0)};
  }

  Rate bastionRun()
  {
    Bastion::TCPServerSocket server;
    if (server.open("127.0.0.1", 0, 1) != 0)
      std::abort();
    Bastion::TCPSocket client;
    if (client.open("127.0.0.1", server.localPort()) != 0 || !server.isPendingConnection(5000000))
      std::abort();
    std::unique_ptr<Bastion::TCPSocket> peer(server.accept());
    if (!peer)
      std::abort();

    return measure([&] {
      std::thread writer([&client] {
        std::vector<char> chunk(ChunkBytes, 'b');
        for (long long sent = 0; sent < TotalBytes; sent += ChunkBytes)
          if (client.write(chunk.data(), ChunkBytes) != ChunkBytes)
            std::abort();
      });
      std::vector<char> buf(ChunkBytes);
      for (long long got = 0; got < TotalBytes; got += ChunkBytes)
        if (peer->read(buf.data(), ChunkBytes) != ChunkBytes)
          std::abort();
      writer.join();
    });
  }

  Rate posixRun()
  {
    int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof(addr);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&addr), &len) != 0)
      std::abort();
    int client = ::socket(AF_INET, SOCK_STREAM, 0);
    if (::connect(client, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0)
      std::abort();
    int peer = ::accept(listener, nullptr, nullptr);
    if (peer < 0)
      std::abort();
    // The same socket options Bastion sets, so only the code paths differ.
    int one = 1;
    for (int fd : {client, peer}) {
      ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
      ::setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one));
    }

    const Rate rate = measure([&] {
      std::thread writer([client] {
        std::vector<char> chunk(ChunkBytes, 'p');
        for (long long sent = 0; sent < TotalBytes; sent += ChunkBytes) {
          for (int off = 0; off < ChunkBytes;) {
            ssize_t n = ::send(client, chunk.data() + off, size_t(ChunkBytes - off), MSG_NOSIGNAL);
            if (n <= 0)
              std::abort();
            off += int(n);
          }
        }
      });
      std::vector<char> buf(ChunkBytes);
      for (long long got = 0; got < TotalBytes; got += ChunkBytes) {
        for (int off = 0; off < ChunkBytes;) {
          ssize_t n = ::recv(peer, buf.data() + off, size_t(ChunkBytes - off), 0);
          if (n <= 0)
            std::abort();
          off += int(n);
        }
      }
      writer.join();
    });
    ::close(peer);
    ::close(client);
    ::close(listener);
    return rate;
  }
}

int main()
{
  // Alternate the two so that machine noise hits both alike; keep the best round of each.
  Rate bastion;
  Rate posix;
  for (int i = 0; i < Rounds; ++i) {
    // Swap the order every round, so neither side always runs right after the other.
    Rate p;
    Rate b;
    if (i % 2) {
      b = bastionRun();
      p = posixRun();
    } else {
      p = posixRun();
      b = bastionRun();
    }
    if (std::getenv("TCPSOCKETBENCH_VERBOSE"))
      std::printf("round %d: POSIX %.0f, Bastion %.0f MiB/s\n", i, p.wall / 1048576.0, b.wall / 1048576.0);
    posix = {std::max(posix.wall, p.wall), std::max(posix.cpu, p.cpu)};
    bastion = {std::max(bastion.wall, b.wall), std::max(bastion.cpu, b.cpu)};
  }
  const double mib = 1024.0 * 1024.0;
  std::printf("%-28s %12s %16s\n", "256 MiB over loopback", "MiB/s wall", "MiB per CPU-s");
  std::printf("%-28s %12.0f %16.0f\n", "plain POSIX send/recv", posix.wall / mib, posix.cpu / mib);
  std::printf("%-28s %12.0f %16.0f\n", "Bastion::TCPSocket", bastion.wall / mib, bastion.cpu / mib);
  std::printf("%-28s %12.2f %16.2f   (target >= 0.90)\n", "ratio Bastion / POSIX", bastion.wall / posix.wall,
              bastion.cpu / posix.cpu);
  return 0;
}
