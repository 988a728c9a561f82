#pragma once

#include "plexa/app/SessionLink.hpp"
#include "plexa/files/FileTransferHandler.hpp"

#include "bastion/TimeStamp.hpp"

#include <QMap>

namespace Plexa
{
  /// A `Peer`'s connection with file transfer: bundle blocks (see `SessionLink`), then the file
  /// transfer commands below the root of the shared `AssetBase`. It takes only the files it asked
  /// for, follows the downloads it books and reports each to the host (booked or refused, progress,
  /// finished with or without a matching MD5).
  class FileSessionConnection : public FileTransferHandler
  {
  public:
    /// As SessionConnection, plus the store shared by all connections of the peer, which must
    /// outlive this one.
    FileSessionConnection(Bastion::TCPSocket* socket, bool accepted, AssetBase& assets, SessionHost& host,
                          std::shared_ptr<TrafficMeter> traffic, const QString& peerAddress);
    ~FileSessionConnection() override;

    QString rootPath() override;
    void transferFailed(const QString& path) override;
    void transferProgress(qint64 bytes, const QString& path) override;

  protected:
    bool parse(QString line) override;
    void connected() override;
    void disconnected() override;
    void retryProgress(double secondsLeft) override;
    void downloadBooked(const QString& path, qint64 size, const QString& md5) override;
    void downloadRefused(const QString& path, Refusal why) override;

  private:
    struct Download
    {
      QString md5;
      qint64 size = 0;
      qint64 done = 0;
      /// When the host was last told that parts arrive.
      Bastion::TimeStamp reported;
    };

    void report(int kind, const QString& path, const Download& download, bool verified = false);

    SessionLink m_link;
    // Connection thread only: the downloads this connection booked, by path.
    QMap<QString, Download> m_downloads;
  };
}
