#pragma once

#include "plexa/bundle/Connection.hpp"

#include <QByteArray>

#include <memory>

namespace Plexa
{
  class ConnectionThread;

  /// A session's outgoing side over a connection thread: each list of bundles becomes one bundle
  /// block ("plexa2 <count>\n" and the bundles back to back), queued on the connection's writer
  /// under the buffer name "plexa2". Holds the connection weakly: once it is gone, sends are
  /// dropped silently. Any thread may call `send`.
  class Plexa1Connection : public Connection
  {
  public:
    /// Buffer name of bundle blocks in the writer's queue (see WriterThread::removeFromBuffer).
    static const QByteArray BufferName;

    explicit Plexa1Connection(std::weak_ptr<ConnectionThread> connection);

    /// Queues `bundles` as one block. Nothing is sent for an empty list, a connection that is gone,
    /// or a connected peer too old for bundle blocks. A connection that is not connected yet keeps
    /// the block in its writer's queue until it is.
    void send(const std::vector<Bundle>& bundles) override;

    /// The block `send` queues for `bundles`: the count line, then each bundle's bytes.
    static QList<QByteArray> blockParts(const std::vector<Bundle>& bundles);

  private:
    std::weak_ptr<ConnectionThread> m_connection;
  };
}
