#pragma once

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <memory>

namespace Bastion
{
  /// A blocking TCP stream socket with TCP_NODELAY and SO_KEEPALIVE set.
  ///
  /// Threads: one thread reads and one thread writes at a time (reads and writes may run
  /// concurrently); `close()`, the counters, `isOpen()` and the peer accessors may be called from
  /// any thread. `close()` makes a read or write blocked on another thread fail at once; the
  /// descriptor is released only after the last call inside it has left, so its number is never
  /// reused under a reader.
  class TCPSocket
  {
  public:
    /// Time limit of the connection attempt in `open()` unless `setConnectTimeout` says otherwise.
    static constexpr int DefaultConnectTimeoutMs = 10000;

    TCPSocket();
    /// Takes over a connected descriptor (as returned by accept()); it is closed with the socket.
    explicit TCPSocket(int fd);
    ~TCPSocket();
    TCPSocket(const TCPSocket&) = delete;
    TCPSocket& operator=(const TCPSocket&) = delete;

    /// Resolves `host` (name or IPv4/IPv6 address) and connects to the first address that
    /// accepts, waiting at most the connect timeout in all. Returns 0 on success, otherwise an
    /// errno value: EISCONN when already open, EHOSTUNREACH when the name does not resolve,
    /// ETIMEDOUT, ECONNABORTED when `close()` interrupted the attempt, or the connect error.
    /// A closed socket may be opened again.
    int open(const char* host, int port);

    /// Blocks until `size` bytes were read into `buf`. Returns `size`, or fewer when the peer
    /// ended the stream, on error, on read timeout or when the socket was closed. `size` <= 0
    /// returns 0. Reads are buffered, so small reads rarely cost a system call.
    int read(void* buf, int size);
    /// Blocks until all `size` bytes were written; returns the count written (less = failure).
    /// Never raises SIGPIPE.
    int write(const void* buf, int size);
    /// Writes what the socket takes without waiting: returns the count written (0 when the send
    /// buffer is full), or -1 after an error or when the socket is closed. Never raises SIGPIPE.
    int writeSome(const void* buf, int size);

    /// Shuts the connection down and releases the descriptor once no call is inside. Any thread,
    /// idempotent.
    void close();
    bool isOpen() const;

    uint64_t bytesReceived() const { return m_rxBytes.load(std::memory_order_relaxed); }
    uint64_t bytesSent() const { return m_txBytes.load(std::memory_order_relaxed); }

    /// Limits of one whole `read()` / `write()` call in milliseconds; 0 = none. A call that runs
    /// out of time fails like an error (returns the bytes moved so far) and the socket stays open.
    void setReadTimeout(int ms);
    void setWriteTimeout(int ms);
    int readTimeout() const { return m_readTimeoutMs.load(std::memory_order_relaxed); }
    int writeTimeout() const { return m_writeTimeoutMs.load(std::memory_order_relaxed); }
    /// Limit of the connection attempt of `open()`, default DefaultConnectTimeoutMs.
    void setConnectTimeout(int ms);

    /// Numeric address and port of the peer of the current or last connection ("" and 0 before
    /// the first one), for log lines.
    QByteArray peerAddress() const;
    int peerPort() const;

  private:
    class D;
    std::unique_ptr<D> m_d;
    std::atomic<uint64_t> m_rxBytes{0};
    std::atomic<uint64_t> m_txBytes{0};
    std::atomic<int> m_readTimeoutMs{0};
    std::atomic<int> m_writeTimeoutMs{0};
  };
}
