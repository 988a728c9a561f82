#pragma once

// Connections for the tests of the file transfer (unit tests here, loopback tests in tests/).
// Header only; nothing of it goes into the library.

#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTestSupport.hpp"
#include "plexa/files/FileTransferCommand.hpp"
#include "plexa/files/FileTransferHandler.hpp"
#include "plexa/files/ServerBase.hpp"
#include "plexa/net/ConnectionTestSupport.hpp"
#include "plexa/net/ConnectionThread.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/TCPSocket.hpp"

#include <QMap>
#include <QStringList>

#include <atomic>
#include <memory>
#include <utility>
#include <vector>

namespace PlexaTest
{
  /// A store that signals every time its download list becomes empty.
  class NotifyingStore : public Plexa::AssetBase
  {
  public:
    using Plexa::AssetBase::AssetBase;
    void transferFinished() override { finished.raise(); }
    Signal finished;
  };

  /// A handler serving and receiving below a fixed root, recording progress reports.
  class TestHandler : public Plexa::FileTransferHandler
  {
  public:
    TestHandler(Bastion::TCPSocket* socket, bool accepted, Plexa::AssetBase& assets, const QString& root)
        : Plexa::FileTransferHandler(socket, accepted, assets)
        , m_root(root)
    {
      eventAddListener("connected", [this](Bastion::BinaryData&) { connectedSignal.raise(); });
      eventAddListener("disconnected", [this](Bastion::BinaryData&) { disconnectedSignal.raise(); });
    }
    ~TestHandler() override { shutdown(); }

    QString rootPath() override { return m_root; }
    void transferFailed(const QString&) override {}
    void transferProgress(qint64 bytes, const QString& path) override
    {
      Bastion::Guard lock(m_mutex);
      m_progress[path] += bytes;
      ++m_reports;
    }
    qint64 progressOf(const QString& path)
    {
      Bastion::Guard lock(m_mutex);
      return m_progress.value(path);
    }
    int reports()
    {
      Bastion::Guard lock(m_mutex);
      return m_reports;
    }

    Signal connectedSignal, disconnectedSignal;

  private:
    const QString m_root;
    Bastion::Mutex m_mutex;
    QMap<QString, qint64> m_progress;
    int m_reports = 0;
  };

  /// A listening server whose connections are TestHandlers sharing one store and root.
  class FileServer : public Plexa::ServerBase
  {
  public:
    FileServer(Plexa::AssetBase& assets, const QString& root)
        : m_assets(assets)
        , m_root(root)
    {
    }
    ~FileServer() override
    {
      // The accept thread may still be setting up the last connection: join it before the
      // connections are taken down.
      stop(true);
      waitEnd();
      closeConnections();
    }

  protected:
    std::shared_ptr<Plexa::ConnectionThread> createConnection(Bastion::TCPSocket* socket) override
    {
      return std::make_shared<TestHandler>(socket, true, m_assets, m_root);
    }

  private:
    Plexa::AssetBase& m_assets;
    const QString m_root;
  };

  /// The other end of a handler, speaking the protocol by hand: it records every line (and the
  /// raw bytes after a "filepart" line) and sends whatever bytes a test gives it.
  class RawPeer : public Plexa::ConnectionThread
  {
  public:
    struct Received
    {
      QString line;
      QByteArray bytes;
    };

    RawPeer(Bastion::TCPSocket* socket, bool accepted)
        : Plexa::ConnectionThread(socket, accepted)
    {
      eventAddListener("connected", [this](Bastion::BinaryData&) { connectedSignal.raise(); });
      eventAddListener("disconnected", [this](Bastion::BinaryData&) { disconnectedSignal.raise(); });
    }
    ~RawPeer() override
    {
      release();
      shutdown();
    }

    /// Stops reading at the first "filepart" line (its bytes unread; `heldSignal` raised) until
    /// `release()`, so that what the other end sends piles up in its write buffer.
    void holdAtFirstPart() { m_hold = true; }
    void release() { m_released.raise(); }

    void send(const QByteArray& bytes) { writeBufferData(bytes, QByteArray()); }
    /// Waits until `count` lines arrived in all.
    bool waitLines(int count, int timeoutMs = 10000) { return m_lines.wait(count, timeoutMs); }
    std::vector<Received> received()
    {
      Bastion::Guard lock(m_mutex);
      return m_received;
    }
    QStringList lines()
    {
      QStringList result;
      for (const Received& r : received())
        result.append(r.line);
      return result;
    }

    Signal connectedSignal, disconnectedSignal, heldSignal;

  protected:
    bool parse(QString line) override
    {
      Received r{line, {}};
      const Plexa::FileTransferCommand command = Plexa::FileTransferCommand::parse(line);
      if (command.kind == Plexa::FileTransferCommand::FilePart && m_hold.exchange(false)) {
        heldSignal.raise();
        m_released.wait(1, 30000);
      }
      if (command.kind == Plexa::FileTransferCommand::FilePart)
        r.bytes = readData(command.first.toInt());
      {
        Bastion::Guard lock(m_mutex);
        m_received.push_back(r);
      }
      m_lines.raise();
      return true;
    }

  private:
    Bastion::Mutex m_mutex;
    std::vector<Received> m_received;
    Signal m_lines;
    std::atomic<bool> m_hold{false};
    Signal m_released;
  };

  /// Connects a client of type C to a freshly accepted server of type S, both started and
  /// connected. `makeServer(socket)` and `makeClient()` build them; nulls on failure.
  template <typename S, typename C, typename MakeServer, typename MakeClient>
  std::pair<std::shared_ptr<S>, std::shared_ptr<C>> connectPair(MakeServer makeServer, MakeClient makeClient)
  {
    Listener listener;
    std::shared_ptr<C> client = makeClient();
    client->setReconnect(false);
    client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
    Bastion::TCPSocket* socket = listener.accept(10000);
    if (!socket)
      return {};
    std::shared_ptr<S> server = makeServer(socket);
    server->run();
    if (!server->connectedSignal.wait() || !client->connectedSignal.wait())
      return {};
    return {server, client};
  }
}
