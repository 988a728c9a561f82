#include "plexa/app/FileSessionConnection.hpp"

#include "plexa/app/SessionHost.hpp"
#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTransferCommand.hpp"

#include <QFileInfo>

namespace Plexa
{
  namespace
  {
    /// A download tells the host that parts still arrive at most this often (in seconds): a fetch
    /// only needs it to know that its download has not stalled.
    constexpr double AliveReportSecs = 0.1;
  }

  FileSessionConnection::FileSessionConnection(Bastion::TCPSocket* socket, bool accepted, AssetBase& assets,
                                               SessionHost& host, std::shared_ptr<TrafficMeter> traffic,
                                               const QString& peerAddress)
      : FileTransferHandler(socket, accepted, assets)
      , m_link(host, std::move(traffic), peerAddress)
  {
    m_link.attach(*this);
    // A fetch asks for each file it takes: an announcement nobody asked for books nothing.
    setAcceptUnrequestedFileInfo(false);
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
    it->reported = Bastion::TimeStamp::getTime();
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
    if (command.kind == FileTransferCommand::FilePart) {
      // The handler takes a download off the list after its last part, whatever the outcome; the
      // store lists a file with the announced MD5 only when it was received intact and moved into
      // place (or was already there).
      auto it = m_downloads.find(command.path);
      if (it == m_downloads.end())
        return true;
      if (!assets().isDownloading(command.path)) {
        const bool verified = assets().md5(command.path) == it->md5 && QFileInfo(rootPath() + command.path).isFile();
        report(SessionHost::FileEvent::Finished, command.path, *it, verified);
        m_downloads.erase(it);
      } else if (it->reported.sinceSecondsD() >= AliveReportSecs) {
        it->reported = Bastion::TimeStamp::getTime();
        report(SessionHost::FileEvent::Alive, command.path, *it);
      }
    }
    return true;
  }

  void FileSessionConnection::downloadBooked(const QString& path, qint64 size, const QString& md5)
  {
    Download download;
    download.md5 = md5;
    download.size = size;
    download.reported = Bastion::TimeStamp::getTime();
    m_downloads.insert(path, download);
    report(SessionHost::FileEvent::Booked, path, download);
  }

  void FileSessionConnection::downloadRefused(const QString& path, Refusal why)
  {
    // Nobody waits for a file that was not asked for; and the download this connection runs
    // already ends the fetches of its path.
    if (why != Refusal::NotRequested && !m_downloads.contains(path))
      report(SessionHost::FileEvent::Refused, path, Download());
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
