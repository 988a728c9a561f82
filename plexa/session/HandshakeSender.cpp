#include "plexa/session/HandshakeSender.hpp"

#include "plexa/session/SessionFormat.hpp"

namespace Plexa
{
  HandshakeSender::HandshakeSender()
  {
    BundleWriterCore& out = m_writer.core();
    const uint32_t record = out.beginBlock();
    out.writeString(QString::fromLatin1(HandshakeCommands::Info));
    QMap<QString, QString> info;
    info.insert(QString::fromLatin1(HandshakeInfo::ApplicationKey),
                QString::fromLatin1(HandshakeInfo::ApplicationValue));
    info.insert(QString::fromLatin1(HandshakeInfo::VersionKey), QString::fromLatin1(HandshakeInfo::VersionValue));
    writeMap(info);
    out.endBlock(record);
  }

  uint32_t HandshakeSender::loadModule(const QByteArray& moduleName)
  {
    const uint32_t type = m_nextMessageType++;
    BundleWriterCore& out = m_writer.core();
    const uint32_t record = out.beginBlock();
    out.writeString(QString::fromLatin1(HandshakeCommands::LoadModule));
    out.writeValue(type);
    out.writeString(QString::fromUtf8(moduleName));
    writeMap({});
    out.endBlock(record);
    return type;
  }

  void HandshakeSender::replyOk(const QString& command, const QString& moduleName, const QString& description)
  {
    writeReply(HandshakeCommands::Ok, command, moduleName, description);
  }

  void HandshakeSender::replyError(const QString& command, const QString& moduleName, const QString& description)
  {
    writeReply(HandshakeCommands::Error, command, moduleName, description);
  }

  void HandshakeSender::writeUpdates(BundleOutput& output)
  {
    m_writer.close(HandshakeMessageType, output);
  }

  void HandshakeSender::writeReply(const char* reply, const QString& command, const QString& moduleName,
                                   const QString& description)
  {
    BundleWriterCore& out = m_writer.core();
    const uint32_t record = out.beginBlock();
    out.writeString(QString::fromLatin1(reply));
    out.writeString(command);
    out.writeString(moduleName);
    QMap<QString, QString> map;
    map.insert(QString::fromLatin1(HandshakeInfo::DescriptionKey), description);
    writeMap(map);
    out.endBlock(record);
  }

  void HandshakeSender::writeMap(const QMap<QString, QString>& map)
  {
    BundleWriterCore& out = m_writer.core();
    out.writeValue(uint32_t(map.size()));
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
      out.writeString(it.key());
      out.writeString(it.value());
    }
  }
}
