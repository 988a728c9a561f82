#include "plexa/app/FileSessionConnection.hpp"

#include "plexa/app/SessionHost.hpp"
#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTransferCommand.hpp"

#include <QFileInfo>

namespace Plexa
{
  FileSessionConnection::FileSessionConnection(Bastion::TCPSocket* socket, bool accepted, AssetBase& assets,
                                               SessionHost& host, std::shared_ptr<TrafficMeter> traffic,
                                               const QString& peerAddress)
    : FileTransferHandler(socket, accepted, assets), m_link(host, std::move(traffic), peerAddress)
  {
    m_link.attach(*this);
  }

  FileSessionConnection::~FileSessionConnection()
  {
    shutdown();
    m_link.detach(*this);
  }

  QString FileSessionConnection::rootPath()
  {
    return assets().rootPath();
  }

  void FileSessionConnection::transferFailed(const QString&) {}

  void FileSessionConnection::transferProgress(qint64 bytes, const QString& path)
  {
    auto it = m_downloads.find(path);
    if (it == m_downloads.end())
      return;
    it->done += bytes;
    report(SessionHost::FileEvent::Progress, path, *it);
  }

  bool FileSessionConnection::parse(QString line)
  {
    if (m_link.parse(*this, line))
      return true;
    const bool understood = FileTransferHandler::parse(line);
    if (!understood)
      return false;
    const FileTransferCommand command = FileTransferCommand::parse(line);
    if (command.kind == FileTransferCommand::FileInfo) {
      // Booked when the handler entered it into the download list (it refuses a path that is
      // being downloaded already, by this or another connection).
      if (!m_downloads.contains(command.path) && assets().isDownloading(command.path)) {
        Download download;
        download.md5 = command.md5;
        download.size = command.first.toLongLong();
        m_downloads.insert(command.path, download);
        report(SessionHost::FileEvent::Booked, command.path, download);
      }
    } else if (command.kind == FileTransferCommand::FilePart) {
      // The handler takes a download off the list after its last part, whatever the outcome; the
      // store lists a file with the announced MD5 only when it was received intact and moved into
      // place (or was already there).
      auto it = m_downloads.find(command.path);
      if (it != m_downloads.end() && !assets().isDownloading(command.path)) {
        const bool verified = assets().md5(command.path) == it->md5 &&
                              QFileInfo(rootPath() + command.path).isFile();
        report(SessionHost::FileEvent::Finished, command.path, *it, verified);
        m_downloads.erase(it);
      }
    }
    return true;
  }

  void FileSessionConnection::connected()
  {
    FileTransferHandler::connected();
    m_link.connected(*this);
  }

  void FileSessionConnection::disconnected()
  {
    // Downloads of this connection end with it; their fetches fail with the session.
    FileTransferHandler::disconnected();
    m_downloads.clear();
    m_link.disconnected(*this);
  }

  void FileSessionConnection::retryProgress(double secondsLeft)
  {
    m_link.retrying(secondsLeft);
  }

  void FileSessionConnection::report(int kind, const QString& path, const Download& download, bool verified)
  {
    SessionHost::FileEvent event;
    event.kind = SessionHost::FileEvent::Kind(kind);
    event.session = m_link.session();
    event.path = path;
    event.bytesDone = download.done;
    event.bytesTotal = download.size;
    event.verified = verified;
    m_link.host().fileEvent(event);
  }
}
