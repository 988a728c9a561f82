#pragma once

// Test helpers for connection tests (unit and integration): a connection thread that records what
// happens to it, a raw socket that speaks the protocol byte by byte, and the one loopback listener
// that every test above this folder accepts its connections on. Header-only, used by tests
// only. Every wait has a deadline.

#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/TCPServerSocket.hpp"
#include "bastion/TCPSocket.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/net/NetFormat.hpp"
#include "plexa/net/SharedKey.hpp"

#include <QByteArray>
#include <QCryptographicHash>
#include <QMap>
#include <QString>
#include <QStringList>

#include <chrono>
#include <functional>
#include <memory>
#include <stdexcept>
#include <vector>

namespace PlexaTest
{
  /// Default deadline of a wait in tests.
  constexpr int WaitMs = 5000;

  /// A connection thread that records lines, pongs and hook calls, and lets a test wait for them.
  class RecordingConnection : public Plexa::ConnectionThread
  {
  public:
    using Handler = std::function<bool(RecordingConnection&, const QString&)>;

    RecordingConnection(Bastion::TCPSocket* socket, bool accepted)
        : Plexa::ConnectionThread(socket, accepted)
    {
    }
    ~RecordingConnection() override { shutdown(); }

    /// Called for every parsed line (on the connection thread) before it is recorded; its result
    /// is parse's. Without a handler, parse accepts everything except the line "unknown".
    void setHandler(Handler handler)
    {
      Bastion::Guard lock(m_mutex);
      m_handler = std::move(handler);
    }

    /// Makes the hook of this name ("connected", "disconnected" or "pong") throw std::runtime_error
    /// after it has recorded its call.
    void setThrowingHook(const QByteArray& hook)
    {
      Bastion::Guard lock(m_mutex);
      m_throwingHook = hook;
    }

    /// Waits until `predicate` holds (checked under the recorder's lock after every hook call).
    bool waitFor(const std::function<bool()>& predicate, int timeoutMs = WaitMs)
    {
      Bastion::Guard lock(m_mutex);
      return m_changed.waitFor(m_mutex, timeoutMs, predicate);
    }
    bool waitForLines(size_t count, int timeoutMs = WaitMs)
    {
      return waitFor([&] { return m_lines.size() >= count; }, timeoutMs);
    }
    bool waitConnected(int count = 1, int timeoutMs = WaitMs)
    {
      return waitFor([&] { return m_connectedCount >= count; }, timeoutMs);
    }
    bool waitDisconnected(int count = 1, int timeoutMs = WaitMs)
    {
      return waitFor([&] { return m_disconnectedCount >= count; }, timeoutMs);
    }

    std::vector<QString> lines() const
    {
      Bastion::Guard lock(m_mutex);
      return m_lines;
    }
    std::vector<QByteArray> pongs() const
    {
      Bastion::Guard lock(m_mutex);
      return m_pongs;
    }
    std::vector<double> retries() const
    {
      Bastion::Guard lock(m_mutex);
      return m_retries;
    }
    int connectedCount() const
    {
      Bastion::Guard lock(m_mutex);
      return m_connectedCount;
    }
    int disconnectedCount() const
    {
      Bastion::Guard lock(m_mutex);
      return m_disconnectedCount;
    }
    int failedCount() const
    {
      Bastion::Guard lock(m_mutex);
      return m_failedCount;
    }
    /// Maps read by a handler through `recordMap`.
    std::vector<QMap<QString, QString>> maps() const
    {
      Bastion::Guard lock(m_mutex);
      return m_maps;
    }
    void recordMap(const QMap<QString, QString>& map)
    {
      Bastion::Guard lock(m_mutex);
      m_maps.push_back(map);
      m_changed.wakeAll();
    }

    /// The mutex and condition that guard the records, for handlers with state of their own.
    void notify()
    {
      Bastion::Guard lock(m_mutex);
      m_changed.wakeAll();
    }

  protected:
    bool parse(QString line) override
    {
      Handler handler;
      {
        Bastion::Guard lock(m_mutex);
        handler = m_handler;
      }
      const bool result = handler ? handler(*this, line) : line != QLatin1String("unknown");
      Bastion::Guard lock(m_mutex);
      m_lines.push_back(line);
      m_changed.wakeAll();
      return result;
    }
    void connected() override
    {
      bump(m_connectedCount);
      throwIf("connected");
    }
    void disconnected() override
    {
      bump(m_disconnectedCount);
      throwIf("disconnected");
    }
    void connectionFailed() override { bump(m_failedCount); }
    void retryProgress(double secondsLeft) override
    {
      Bastion::Guard lock(m_mutex);
      m_retries.push_back(secondsLeft);
      m_changed.wakeAll();
    }
    void pong(const QByteArray& payload) override
    {
      Bastion::Guard lock(m_mutex);
      m_pongs.push_back(payload);
      m_changed.wakeAll();
      throwIf("pong");
    }

  private:
    void throwIf(const char* hook)
    {
      Bastion::Guard lock(m_mutex);
      if (m_throwingHook == hook)
        throw std::runtime_error(hook);
    }
    void bump(int& counter)
    {
      Bastion::Guard lock(m_mutex);
      ++counter;
      m_changed.wakeAll();
    }

    // Recursive: predicates given to waitFor may use the accessors.
    mutable Bastion::Mutex m_mutex{true};
    Bastion::Condition m_changed;
    Handler m_handler;
    QByteArray m_throwingHook;
    std::vector<QString> m_lines;
    std::vector<QByteArray> m_pongs;
    std::vector<double> m_retries;
    std::vector<QMap<QString, QString>> m_maps;
    int m_connectedCount = 0;
    int m_disconnectedCount = 0;
    int m_failedCount = 0;
  };

  /// MD5(challenge[0..31], key, challenge[32..63]), computed here independently of the library.
  inline QByteArray expectedAnswer(const QByteArray& challenge, const QByteArray& key)
  {
    return QCryptographicHash::hash(challenge.left(32) + key + challenge.mid(32), QCryptographicHash::Md5);
  }

  /// One end of a TCP connection driven by the test, byte by byte (where a test needs the other end
  /// to speak whole protocol lines, it uses a connection thread instead). Reads time out after WaitMs.
  class RawSocket
  {
  public:
    explicit RawSocket(Bastion::TCPSocket* socket)
        : m_socket(socket)
    {
      if (m_socket)
        m_socket->setReadTimeout(WaitMs);
    }

    bool isValid() const { return m_socket != nullptr; }
    Bastion::TCPSocket& socket() { return *m_socket; }

    /// A line without its LF (CR kept), or a null string on timeout or end.
    QByteArray readLine()
    {
      QByteArray line;
      char c = 0;
      while (m_socket->read(&c, 1) == 1) {
        if (c == '\n')
          return line;
        line.append(c);
      }
      return QByteArray();
    }
    QByteArray read(int size)
    {
      QByteArray data(size, '\0');
      const int got = m_socket->read(data.data(), size);
      data.resize(qMax(0, got));
      return data;
    }
    bool write(const QByteArray& bytes) { return m_socket->write(bytes.constData(), bytes.size()) == bytes.size(); }
    /// True when the other end closed the connection (a read returns nothing).
    bool closedByPeer()
    {
      char c = 0;
      return m_socket->read(&c, 1) == 0;
    }

    /// Client half of the handshake against a connection in the server role.
    bool clientHandshake(const QByteArray& versionLine = "Orrery 2.7.2\n",
                         const QByteArray& key = Plexa::SharedKey::current())
    {
      if (readLine() != QByteArray(Plexa::NetFormat::VersionLine))
        return false;
      const QByteArray challenge = read(Plexa::NetFormat::ChallengeBytes);
      if (challenge.size() != Plexa::NetFormat::ChallengeBytes)
        return false;
      write(versionLine + "quill\n" + expectedAnswer(challenge, key));
      return readLine() == "ok";
    }

    /// Server half against a connection in the client role.
    bool serverHandshake(const QByteArray& versionLine = "Orrery 2.7.2\n")
    {
      const QByteArray challenge = QByteArray("0123456789abcdef0123456789ABCDEF").repeated(2);
      write(versionLine + challenge);
      const bool sendsVersion = versionLine != "Orrery 1.9.0\n";
      if (sendsVersion && readLine() != QByteArray(Plexa::NetFormat::VersionLine))
        return false;
      if (readLine() != "quill")
        return false;
      if (read(16) != expectedAnswer(challenge, Plexa::SharedKey::current()))
        return false;
      return write("ok\n");
    }

  private:
    std::unique_ptr<Bastion::TCPSocket> m_socket;
  };

  /// A listening socket on 127.0.0.1 with an ephemeral port.
  class Listener
  {
  public:
    Listener() { m_ok = m_server.open("127.0.0.1", 0, 4) == 0; }
    bool isOpen() const { return m_ok; }
    int port() const { return m_server.localPort(); }
    /// The next connection within `timeoutMs`, or null.
    Bastion::TCPSocket* accept(int timeoutMs = WaitMs)
    {
      if (!m_server.isPendingConnection(timeoutMs * 1000))
        return nullptr;
      return m_server.accept();
    }
    void close() { m_server.close(); }

  private:
    Bastion::TCPServerSocket m_server;
    bool m_ok = false;
  };

  /// A connected pair: `accepted` is the server-side socket, `client` the raw socket of it.
  struct SocketPair
  {
    Bastion::TCPSocket* accepted = nullptr;
    std::unique_ptr<RawSocket> client;
  };

  inline SocketPair connectPair(Listener& listener)
  {
    SocketPair pair;
    auto* socket = new Bastion::TCPSocket();
    if (socket->open("127.0.0.1", listener.port()) != 0) {
      delete socket;
      return pair;
    }
    pair.client.reset(new RawSocket(socket));
    pair.accepted = listener.accept();
    return pair;
  }

  /// A server-role connection on an accepted loopback socket, with a raw client at the other end.
  struct AcceptedConnection
  {
    Listener listener;
    SocketPair pair;
    std::shared_ptr<RecordingConnection> connection;

    explicit AcceptedConnection(bool usePing = true)
    {
      pair = connectPair(listener);
      connection = std::make_shared<RecordingConnection>(pair.accepted, true);
      connection->setUsePing(usePing);
    }
    /// Starts the connection's thread only.
    void run() { connection->Bastion::Thread::run(); }
    /// Starts it and completes the handshake from the raw client.
    bool start(const QByteArray& clientVersion = "Orrery 2.7.2\n")
    {
      run();
      return client().clientHandshake(clientVersion) && connection->waitConnected();
    }
    RawSocket& client() { return *pair.client; }
  };

  /// A handler that reads the map block announced by a line "map <count>" and records it.
  inline bool readMapBlock(RecordingConnection& connection, const QString& line)
  {
    const QStringList words = line.split(' ');
    if (words.size() != 2 || words[0] != "map")
      return false;
    connection.recordMap(connection.readMap(words[1].toInt()));
    return true;
  }
}
