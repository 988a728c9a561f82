#include "plexa/bundle/Plexa1Connection.hpp"

#include "plexa/net/ConnectionThread.hpp"

#include <QList>
#include <QString>

namespace Plexa
{
  const QByteArray Plexa1Connection::BufferName = QByteArrayLiteral("plexa2");

  Plexa1Connection::Plexa1Connection(std::weak_ptr<ConnectionThread> connection)
      : m_connection(std::move(connection))
  {
  }

  void Plexa1Connection::send(const std::vector<Bundle>& bundles)
  {
    if (bundles.empty())
      return;
    const std::shared_ptr<ConnectionThread> connection = m_connection.lock();
    if (!connection)
      return;
    if (connection->isConnected() && !connection->isPlexa15Supported())
      return;
    connection->writeBuffer(blockParts(bundles), BufferName);
  }

  QList<QByteArray> Plexa1Connection::blockParts(const std::vector<Bundle>& bundles)
  {
    QList<QByteArray> parts;
    parts.reserve(int(bundles.size()) + 1);
    parts.append(QString("plexa2 %1\n").arg(bundles.size()).toUtf8());
    for (const Bundle& bundle : bundles)
      parts.append(bundle.data());
    return parts;
  }
}
