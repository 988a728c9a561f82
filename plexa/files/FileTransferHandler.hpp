#pragma once

#include "plexa/net/ConnectionThread.hpp"

#include <QString>

#include <cstdint>
#include <memory>

namespace Bastion
{
  class TCPSocket;
}

namespace Plexa
{
  class AssetBase;

  /// A connection that copies files between two hosts over its line protocol. Either end asks for
  /// a file by its path below a root folder ("sendfileinfo"); the holder answers with size, part
  /// count and MD5 ("fileinfo"); the asker books the download in the shared AssetBase and asks for
  /// the parts ("sendparts"); the holder streams 64 KiB parts ("filepart" line + raw bytes), which
  /// the receiver appends to "<file>.filesync.part", hashing as they arrive, and moves into place
  /// once the whole file's MD5 matches. There is no error reply: every refusal and failure is
  /// logged and the peer hears nothing.
  ///
  /// Paths named by the peer never reach outside the root: both ends open, create and rename them
  /// through a RootDirectory of `rootPath()`.
  ///
  /// Threads: lines are parsed and parts received on the connection thread, which also calls
  /// `rootPath()` and `transferProgress()` and raises "file-info". Parts are sent by an upload task
  /// on the shared background thread (Bastion::BGThread), which pauses while 32 MiB or more wait in
  /// the write buffer and is woken by the writer once the buffer has drained below half of that.
  /// `requestFileInfo` and `requestFileParts` may be called from any thread.
  ///
  /// Lifetime: as for every ConnectionThread, an application subclass calls `shutdown()` first thing
  /// in its destructor, so that the connection thread never calls into a destroyed subclass.
  class FileTransferHandler : public ConnectionThread
  {
  public:
    /// `socket` and `accepted` go to ConnectionThread; `assets` is shared by all handlers and must
    /// outlive this one. Sets the ping timeout to 60 s and declares the event "file-info".
    FileTransferHandler(Bastion::TCPSocket* socket, bool accepted, AssetBase& assets);
    /// Shuts the connection down (see `stopBackgroundWork`).
    ~FileTransferHandler() override;

    /// Sends "sendfileinfo" for `path` (beginning with '/'): asks the peer for the file. Without
    /// unrequested announcements (below), the path is remembered until its "fileinfo" arrives, the
    /// request is forgotten or the connection ends.
    void requestFileInfo(const QString& path);
    /// Forgets a request of `path`: a "fileinfo" that comes for it later is refused (unless
    /// unrequested announcements are accepted). Any thread.
    void forgetFileInfoRequest(const QString& path);
    /// Whether a "fileinfo" for a path this side never asked for starts a download (default true:
    /// either end may push a file). Off, only announcements answering `requestFileInfo` are taken;
    /// the rest are refused with a log line. Any thread; set it before connecting.
    void setAcceptUnrequestedFileInfo(bool accept);
    /// Sends "sendparts" for `path`: asks the peer to stream the file.
    void requestFileParts(const QString& path);
    AssetBase& assets() const;

    /// The local folder that all transfer paths are relative to; a local name is this string
    /// followed directly by the path. Connection thread.
    virtual QString rootPath() = 0;
    /// Reserved for the application: the library never calls it.
    virtual void transferFailed(const QString& path) = 0;
    /// `bytes` of the file at `path` were written since the previous report (after every 20th part
    /// and after the last). Connection thread.
    virtual void transferProgress(qint64 bytes, const QString& path) = 0;

    /// Parts the holder announces for a file of `size` bytes: the ceiling of size / 65536 computed
    /// in single precision, as the protocol always did. Above 16 MiB it can come out one short of
    /// the parts actually sent (33554433 bytes give 512, not 513), which the receiver then reports
    /// as an MD5 mismatch.
    static qint64 partCount(qint64 size);

  protected:
    /// Why a "fileinfo" started no download.
    enum class Refusal
    {
      /// Another download of the path runs, on this connection or another one.
      AlreadyDownloading,
      /// This connection has MaxDownloadsPerConnection downloads booked.
      TooManyDownloads,
      /// Unrequested announcements are not accepted and this side never asked for the path.
      NotRequested
    };

    /// A "fileinfo" booked the download of `path` and "sendparts" went out. Connection thread.
    virtual void downloadBooked(const QString& path, qint64 size, const QString& md5);
    /// A "fileinfo" for `path` was refused (and logged). Connection thread.
    virtual void downloadRefused(const QString& path, Refusal why);

    /// Handles "fileinfo", "sendfileinfo", "filepart" and "sendparts"; false for any other line.
    bool parse(QString line) override;
    /// Records the connected time, the key of this connection's downloads.
    void connected() override;
    /// Drops this connection's downloads and their temporary files, its uploads, and the file
    /// traffic still queued for the peer (a next connection's peer would take it out of place).
    void disconnected() override;
    /// Ends the upload task (waiting for a step that runs, then running one last step here) and
    /// refuses uploads from now on: after `shutdown()` this handler sends no more files.
    void stopBackgroundWork() override;

  private:
    class D;
    class UploadTask;

    void sendFileInfo(const QString& path);
    void receiveFileInfo(const QString& path, qint64 size, qint64 parts, const QString& md5);
    void receiveFilePart(const QString& path, qint64 byteCount, qint64 partNumber);
    void finishDownload(const QString& path);
    void startFilePartsUploadTask(const QString& path);
    /// Background thread: 0 = call again at once, 1 = buffer full (pause), 2 = nothing left.
    int sendFileParts();
    int abandonUploads();
    void startSendingfileParts();
    void continueSendingFileParts();
    void closeCurrentFile();
    /// Background thread: queues a part of the file being sent; false (nothing queued) when the
    /// connection it was asked on has ended.
    bool queuePart(const QList<QByteArray>& parts);
    void refuseOutsideRoot(const char* where, const QString& path);
    /// Queues file traffic under FileBufferName.
    void writeFileTraffic(const QByteArray& data);
    /// Logs the first refusal of `path` by a cap (`which`: its name) on this connection, with the
    /// size that went over `limit`.
    void logCapOnce(int cap, const char* where, const char* which, const QString& path, qint64 size, qint64 limit);

    std::unique_ptr<D> d;
  };
}
