#include "plexa/session/HandshakeReceiver.hpp"

#include "bastion/Log.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/session/SessionFormat.hpp"

#include <QStringList>

#include <stdexcept>

namespace Plexa
{
  namespace
  {
    QString readText(BundleReaderCore& reader)
    {
      QString text;
      reader.readString(text, MaxHandshakeStringBytes);
      return text;
    }

    /// A 32-bit pair count, then that many key and value strings. Every pair takes at least 8 bytes
    /// of the bundle, so a huge count runs into the end of the bundle rather than into memory.
    QMap<QString, QString> readMap(BundleReaderCore& reader)
    {
      QMap<QString, QString> map;
      for (uint32_t count = reader.readValue<uint32_t>(); count > 0; --count) {
        const QString key = readText(reader);
        map.insert(key, readText(reader));
      }
      return map;
    }
  }

  void HandshakeReceiver::handleBundle(BundleReaderCore& reader, const BundleHeader&, BundleDispatcher& session)
  {
    try {
      while (!reader.atEnd()) {
        const uint32_t length = reader.readValue<uint32_t>();
        // The end is formed in 64 bits: a length near 2^32 must not wrap the 32-bit position back to
        // (or before) the record's start, which would read the same record for ever. Every record
        // moves the position forward by at least its length word.
        const uint64_t end = uint64_t(reader.position) + ((uint64_t(length) + 3) & ~uint64_t(3));
        if (end > uint64_t(uint32_t(reader.data->size())))
          throw std::out_of_range(BundleErrors::ReadPastEnd);
        handleRecord(reader, session);
        reader.position = uint32_t(end);
      }
    } catch (const std::out_of_range&) {
      Bastion::warning("HandshakeReceiver::handleBundle # Corrupted message");
    } catch (const std::invalid_argument&) {
      Bastion::warning("HandshakeReceiver::handleBundle # Corrupted message");
    }
  }

  void HandshakeReceiver::handleRecord(BundleReaderCore& reader, BundleDispatcher& session)
  {
    const QString command = readText(reader);
    if (command == QLatin1String(HandshakeCommands::Info)) {
      m_peerInfo = readMap(reader);
    } else if (command == QLatin1String(HandshakeCommands::LoadModule)) {
      const uint32_t messageType = reader.readValue<uint32_t>();
      const QString moduleName = readText(reader);
      const QMap<QString, QString> parameters = readMap(reader);
      session.loadModule(messageType, moduleName, parameters);
    } else if (command == QLatin1String(HandshakeCommands::Error)) {
      const QString answered = readText(reader);
      const QString moduleName = readText(reader);
      const QMap<QString, QString> info = readMap(reader);
      QStringList pairs;
      for (auto it = info.cbegin(); it != info.cend(); ++it)
        pairs << QString("%1: %2").arg(it.key(), it.value());
      Bastion::error("HandshakeReceiver::handleBundle # error, command: %s, module: %s, additional info: %s",
                     answered.toUtf8().constData(), moduleName.toUtf8().constData(),
                     pairs.join(", ").toUtf8().constData());
    } else if (command != QLatin1String(HandshakeCommands::Ok)) {
      Bastion::warning("HandshakeReceiver::handleBundle # Unknown command '%s'", command.toUtf8().constData());
    }
  }
}
