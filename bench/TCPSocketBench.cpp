// Moves 256 MiB over loopback through Bastion::TCPSocket and through a plain POSIX socket loop with
// the same chunk sizes, in the same run, and prints both rates and their ratio.

#include "bastion/TCPServerSocket.hpp"
#include "bastion/TCPSocket.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
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
  constexpr int Rounds = 5;

  double bastionRun()
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

    const auto start = Clock::now();
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
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();
    writer.join();
    return double(TotalBytes) / secs;
  }

  double posixRun()
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

    const auto start = Clock::now();
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
    const double secs = std::chrono::duration<double>(Clock::now() - start).count();
    writer.join();
    ::close(peer);
    ::close(client);
    ::close(listener);
    return double(TotalBytes) / secs;
  }
}

int main()
{
  // Alternate the two so that machine noise hits both alike; keep the best round of each.
  double bastion = 0;
  double posix = 0;
  for (int i = 0; i < Rounds; ++i) {
    posix = std::max(posix, posixRun());
    bastion = std::max(bastion, bastionRun());
  }
  const double mib = 1024.0 * 1024.0;
  std::printf("%-28s %10s\n", "256 MiB over loopback", "MiB/s");
  std::printf("%-28s %10.0f\n", "plain POSIX send/recv", posix / mib);
  std::printf("%-28s %10.0f\n", "Bastion::TCPSocket", bastion / mib);
  std::printf("%-28s %10.2f (target >= 0.90)\n", "ratio Bastion / POSIX", bastion / posix);
  return 0;
}
