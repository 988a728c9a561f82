// Throughput of the connection transport: a stream of 64 KiB entries queued with writeBuffer on
// one connection thread and read with readData on another, over loopback, next to a plain
// blocking socket loop that moves the same bytes in the same run. Prints both rates and their
// ratio (the transport's target is at least 0.8 of the plain loop).
//
// Options: --mib <n> (default 256) --runs <n> (default 3; the best run of each side counts).

#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/TCPServerSocket.hpp"
#include "bastion/TCPSocket.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/net/WriterThread.hpp"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

namespace
{
  constexpr int EntryBytes = 64 * 1024;
  using Clock = std::chrono::steady_clock;

  /// CPU seconds used by the whole process so far (all threads, user and system).
  double cpuSeconds()
  {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
  }

  struct Result
  {
    double rate = 0;      // bytes per wall-clock second
    double cpuPerGiB = 0; // CPU seconds per GiB moved
  };

  /// Reads the announced number of entries with readData, on its connection thread.
  class SinkConnection : public Plexa::ConnectionThread
  {
  public:
    using Plexa::ConnectionThread::ConnectionThread;
    ~SinkConnection() override { shutdown(); }

    bool waitConnected()
    {
      Bastion::Guard lock(m_mutex);
      return m_changed.waitFor(m_mutex, 10 * 1000, [&] { return m_connected; });
    }
    /// Waits for the end of the stream; the time it ended, or nothing after a timeout.
    bool waitDone(Clock::time_point& end, uint64_t& bytes)
    {
      Bastion::Guard lock(m_mutex);
      if (!m_changed.waitFor(m_mutex, 120 * 1000, [&] { return m_done; }))
        return false;
      end = m_end;
      bytes = m_bytes;
      m_done = false;
      return true;
    }

  protected:
    void connected() override
    {
      Bastion::Guard lock(m_mutex);
      m_connected = true;
      m_changed.wakeAll();
    }
    bool parse(QString line) override
    {
      if (!line.startsWith("stream "))
        return false;
      const int entries = line.mid(7).toInt();
      std::vector<unsigned char> buffer(EntryBytes);
      uint64_t bytes = 0;
      for (int i = 0; i < entries && readData(buffer.data(), EntryBytes); ++i)
        bytes += EntryBytes;
      Bastion::Guard lock(m_mutex);
      m_end = Clock::now();
      m_bytes = bytes;
      m_done = true;
      m_changed.wakeAll();
      return true;
    }

  private:
    Bastion::Mutex m_mutex;
    Bastion::Condition m_changed;
    bool m_connected = false;
    bool m_done = false;
    Clock::time_point m_end;
    uint64_t m_bytes = 0;
  };

  /// One run through two connection threads; zero rate on failure.
  Result transportRate(SinkConnection& sender, SinkConnection& receiver, int entries)
  {
    const QByteArray entry(EntryBytes, 'p');
    const double cpuStart = cpuSeconds();
    const Clock::time_point start = Clock::now();
    sender.queue(QString("stream %1\n").arg(entries));
    for (int i = 0; i < entries; ++i) {
      // Keep at most 32 MiB queued, as a producer of file parts does; resume at 16 MiB, so the
      // producer wakes once per 16 MiB and not once per entry.
      if (sender.bufferedDataSize() >= (32 << 20))
        sender.writerThread()->waitForDrain(16 << 20, 10000);
      sender.writeBufferData(entry, "bench");
    }
    Clock::time_point end;
    uint64_t bytes = 0;
    if (!receiver.waitDone(end, bytes) || bytes != uint64_t(entries) * EntryBytes)
      return Result();
    Result result;
    result.rate = double(bytes) / std::chrono::duration<double>(end - start).count();
    result.cpuPerGiB = (cpuSeconds() - cpuStart) / (double(bytes) / (1 << 30));
    return result;
  }

  int plainSocket()
  {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    return fd;
  }

  bool writeAll(int fd, const char* data, size_t size)
  {
    while (size > 0) {
      const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
      if (n <= 0)
        return false;
      data += n;
      size -= size_t(n);
    }
    return true;
  }

  bool readAll(int fd, char* data, size_t size)
  {
    while (size > 0) {
      const ssize_t n = ::recv(fd, data, size, 0);
      if (n <= 0)
        return false;
      data += n;
      size -= size_t(n);
    }
    return true;
  }

  /// The same bytes through a plain blocking socket pair, one writer and one reader thread.
  Result plainRate(int entries)
  {
    const int listener = plainSocket();
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0 || ::listen(listener, 1) != 0 ||
        ::getsockname(listener, reinterpret_cast<sockaddr*>(&address), &length) != 0)
      return Result();
    const int client = plainSocket();
    if (::connect(client, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
      return Result();
    const int server = ::accept(listener, nullptr, nullptr);
    ::close(listener);
    std::atomic<bool> ok{true};
    const double cpuStart = cpuSeconds();
    const Clock::time_point start = Clock::now();
    std::thread writer([&] {
      std::vector<char> entry(EntryBytes, 'p');
      for (int i = 0; i < entries && ok; ++i)
        ok = ok && writeAll(client, entry.data(), entry.size());
    });
    std::vector<char> buffer(EntryBytes);
    for (int i = 0; i < entries && ok; ++i)
      ok = ok && readAll(server, buffer.data(), buffer.size());
    const Clock::time_point end = Clock::now();
    writer.join();
    ::close(client);
    ::close(server);
    if (!ok)
      return Result();
    const double bytes = double(entries) * EntryBytes;
    Result result;
    result.rate = bytes / std::chrono::duration<double>(end - start).count();
    result.cpuPerGiB = (cpuSeconds() - cpuStart) / (bytes / (1 << 30));
    return result;
  }
}

int main(int argc, char** argv)
{
  int mib = 256;
  int runs = 3;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--mib") == 0)
      mib = std::atoi(argv[i + 1]);
    else if (std::strcmp(argv[i], "--runs") == 0)
      runs = std::atoi(argv[i + 1]);
  }
  const int entries = mib * (1 << 20) / EntryBytes;

  Bastion::TCPServerSocket listener;
  if (listener.open("127.0.0.1", 0, 2) != 0) {
    std::printf("cannot listen\n");
    return 1;
  }
  auto sender = std::make_shared<SinkConnection>(nullptr, false);
  sender->setUsePing(false);
  sender->connectToHost("127.0.0.1", listener.localPort());
  if (!listener.isPendingConnection(10 * 1000 * 1000))
    return 1;
  auto receiver = std::make_shared<SinkConnection>(listener.accept(), true);
  receiver->setUsePing(false);
  receiver->Bastion::Thread::run();
  if (!sender->waitConnected() || !receiver->waitConnected()) {
    std::printf("handshake failed\n");
    return 1;
  }

  Result bestTransport;
  Result bestPlain;
  for (int run = 0; run < runs; ++run) {
    const Result transport = transportRate(*sender, *receiver, entries);
    const Result plain = plainRate(entries);
    if (transport.rate == 0 || plain.rate == 0) {
      std::printf("run %d failed\n", run + 1);
      return 1;
    }
    std::printf("run %d: transport %8.1f MiB/s (%.2f CPU s/GiB)   plain socket loop %8.1f MiB/s (%.2f CPU s/GiB)\n",
                run + 1, transport.rate / (1 << 20), transport.cpuPerGiB, plain.rate / (1 << 20), plain.cpuPerGiB);
    if (transport.rate > bestTransport.rate)
      bestTransport = transport;
    if (plain.rate > bestPlain.rate)
      bestPlain = plain;
  }
  std::printf("\n%d MiB in 64 KiB entries, best of %d runs\n", mib, runs);
  std::printf("%-42s %10s %14s\n", "", "MiB/s", "CPU s per GiB");
  std::printf("%-42s %10.1f %14.2f\n", "ConnectionThread writeBuffer -> readData", bestTransport.rate / (1 << 20),
              bestTransport.cpuPerGiB);
  std::printf("%-42s %10.1f %14.2f\n", "plain blocking socket loop", bestPlain.rate / (1 << 20), bestPlain.cpuPerGiB);
  std::printf("%-42s %10.2f %14.2f\n", "ratio (transport / plain; target rate >= 0.80)",
              bestTransport.rate / bestPlain.rate, bestTransport.cpuPerGiB / bestPlain.cpuPerGiB);
  return 0;
}
