#pragma once

#include "plexa/files/RunningMd5.hpp"

#include "bastion/TimeStamp.hpp"

#include <QByteArray>
#include <QDateTime>
#include <QList>
#include <QMap>
#include <QString>

#include <memory>

namespace Plexa
{
  class ConnectionThread;
  class ProgressSender;

  /// The shared store behind file synchronisation for one root directory: the file list (every
  /// regular file below the root with size, modification time and MD5, saved in the settings store
  /// "Brandwick"/"Cache" under the array "FileList/" + root path so that unchanged files are not
  /// hashed again), the download list (files being received, with the announced MD5, the part
  /// counts and a running MD5 of the bytes received) and a queue of files to be removed.
  ///
  /// All FileTransferHandlers of a process share one store; every operation may be called from any
  /// thread. The locks are taken in the order download list, rebuild, file list, remove queue, never
  /// another (the download list's holder only tries the rebuild lock, never waits for it).
  /// The constructor starts a FileListThread that rebuilds the list once; the destructor stops and
  /// joins it.
  class AssetBase
  {
  public:
    /// One row of the file list or of the download list.
    struct FileInfo
    {
      /// File list: last modification. Download list: when the download was entered.
      QDateTime time;
      /// The 16 raw bytes of the MD5: of the file, or as announced by the sender.
      QByteArray md5;
      qint64 size = 0;
      /// Download list only (0 in the file list).
      qint64 totalParts = 0;
      qint64 currentParts = 0;
      /// Download list only: MD5 of the bytes received so far (null in the file list).
      std::shared_ptr<RunningMd5> hash;
      /// File list: when the row was made. Download list: the connected time of the connection
      /// that started the download, which owns it (see clearDownloadList).
      Bastion::TimeStamp stamp;
    };
    using FileList = QMap<QString, FileInfo>;
    using RemoveQueue = QMap<QString, QList<std::weak_ptr<ConnectionThread>>>;

    /// `root`: the directory to publish; kept as its canonical path without trailing '/'. Loads the
    /// saved file list and starts the background rebuild.
    explicit AssetBase(const QString& root);
    /// Stops the background rebuild (remaining files are skipped, nothing is saved) and joins it.
    virtual ~AssetBase();
    AssetBase(const AssetBase&) = delete;
    AssetBase& operator=(const AssetBase&) = delete;

    /// The canonical root path without trailing '/'; constant after construction.
    const QString& rootPath() const;

    /// Rescans the root and brings the file list up to date, hashing only new and changed files,
    /// then saves it (unless stopped, or unchanged since it was last saved). Returns the new list.
    /// Blocks for the whole scan, and first for a rebuild in progress. The walk and the hashing
    /// stay below the root and follow no link into folders; only regular files are hashed, and one
    /// that cannot be read to its end is left out (logged) until a later rescan reads it. The file
    /// list lock is held for the scan and for entering the result, not while hashing, so finished
    /// downloads enter their rows meanwhile. `progress` may be null; it is called on this thread
    /// without the file list lock, except for its first text.
    FileList buildFileList(ProgressSender* progress);
    /// Waits for the rebuild started by the constructor, at most `timeoutMs` (negative: no limit).
    bool waitForFileList(int timeoutMs = -1);
    /// The file list as published after the last rebuild or completed download. Never waits for a
    /// rebuild in progress.
    FileList fileList() const;

    /// The file list's MD5 of `path` as 32 lower-case hexadecimal digits; empty if not listed.
    /// Reads the published list, so it never waits for a rebuild in progress.
    QString md5(const QString& path) const;

    /// Enters a download of `path` owned by `owner`; false, changing nothing, if `path` is being
    /// downloaded already (by any connection).
    bool addFileToDownloadList(const QString& path, qint64 size, qint64 parts, const QString& md5Hex,
                               Bastion::TimeStamp owner);
    bool isDownloading(const QString& path) const;
    /// Whether `path` is being downloaded by the connection `owner` (the one that entered it).
    bool isDownloadingFor(const QString& path, Bastion::TimeStamp owner) const;
    /// The announced size in bytes, or -1 if `path` is not being downloaded.
    qint64 downloadListSize(const QString& path) const;
    /// The announced part count, or -1 if `path` is not being downloaded.
    qint64 totalParts(const QString& path) const;
    /// Parts received so far, or -1 if `path` is not being downloaded.
    qint64 currentParts(const QString& path) const;
    /// Counts one more received part; false if `path` is not being downloaded.
    bool increasePartCount(const QString& path);
    /// Feeds received bytes into the download's running MD5; nothing if `path` is not listed.
    void downloadListAddHashData(const QString& path, const QByteArray& data);
    /// The announced MD5 as 32 lower-case hexadecimal digits; empty if absent.
    QString downloadListMD5(const QString& path) const;
    /// The running MD5 of the download of `path`, to be fed from another thread (see PartHasher);
    /// null if `path` is not being downloaded.
    std::shared_ptr<RunningMd5> downloadListHash(const QString& path) const;
    /// The MD5 of the bytes received so far, as 32 lower-case hexadecimal digits; empty if absent.
    QString downloadListPartMD5(const QString& path) const;
    /// When the download was entered; an invalid date-time if absent.
    QDateTime downloadListStartTime(const QString& path) const;
    /// Ends the download of `path`. When `succeeded`, the file list gets a row for it (the MD5 was
    /// verified by the caller). When the download list becomes empty, the file list is rebuilt (or,
    /// when a rebuild is running, that one rebuilds again as it ends, and this call does not wait
    /// for it) and transferFinished() is called, both with the download lock held: transferFinished
    /// must not use the download list (the lock is not recursive). True when a row was removed.
    bool removeFileFromDownloadList(const QString& path, bool succeeded);
    /// Drops every download owned by `owner` and deletes the temporary files of those that had
    /// received a part.
    void clearDownloadList(Bastion::TimeStamp owner);

    /// Queues `path` for removal on behalf of `connection` (held weakly). Queued files are left out
    /// of the file list from the next rebuild on. The application drains the queue.
    void addFileToRemoveQueue(const QString& path, const std::shared_ptr<ConnectionThread>& connection);
    /// A copy of the remove queue.
    RemoveQueue removeQueue() const;
    /// Takes `path` off the remove queue; false if it was not queued.
    bool removeFromRemoveQueue(const QString& path);
    /// Deletes the file `path` below the root, then the folders above it that this leaves empty, up
    /// to (never including) the root. Nothing outside the root is touched and no link is followed
    /// (a link at `path` is deleted itself). False when the file could not be deleted.
    bool removeFileAndEmptyFolders(const QString& path);

    /// Makes a rebuild in progress skip the remaining files and the saving. Any thread.
    virtual void stop();
    /// Whether stop() has not been called yet.
    bool isRunning() const;
    /// Called when the download list becomes empty after a removal, with the download lock held.
    /// Does nothing by default.
    virtual void transferFinished();

  private:
    class D;
    std::unique_ptr<D> d;
  };
}
