#include "plexa/files/FileTransferHandler.hpp"

#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTransferCommand.hpp"
#include "plexa/files/FileTransferFormat.hpp"
#include "plexa/files/PartHasher.hpp"
#include "plexa/files/RootDirectory.hpp"
#include "plexa/net/WriterThread.hpp"

#include "bastion/BGThread.hpp"
#include "bastion/BinaryData.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/Task.hpp"

#include <QFile>
#include <QMap>
#include <QSet>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cmath>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Plexa
{
  namespace
  {
    /// The connected time keys a connection's downloads, so two connections must never share one:
    /// stamps taken in the same clock tick are pushed apart.
    Bastion::TimeStamp uniqueConnectedTime()
    {
      static std::atomic<int64_t> last{0};
      const int64_t now = Bastion::TimeStamp::getTime().value();
      int64_t previous = last.load();
      int64_t next;
      do {
        next = std::max(now, previous + 1);
      } while (!last.compare_exchange_weak(previous, next));
      return Bastion::TimeStamp::fromValue(next);
    }

    /// Writes all of `bytes` to `fd`; false on an error (errno set).
    bool writeAll(int fd, const QByteArray& bytes)
    {
      const char* data = bytes.constData();
      qint64 left = bytes.size();
      while (left > 0) {
        const ssize_t n = ::write(fd, data, size_t(left));
        if (n < 0 && errno == EINTR)
          continue;
        if (n <= 0)
          return false;
        data += n;
        left -= n;
      }
      return true;
    }

    QByteArray parentOf(const QByteArray& path)
    {
      const int slash = path.lastIndexOf('/');
      return slash <= 0 ? QByteArray("/") : path.left(slash);
    }

    /// The caps that log only their first refusal on a connection (bits of D::capsLogged).
    enum Cap
    {
      PathCap = 1,
      DownloadCap = 2,
      UploadQueueCap = 4,
      ReplyBufferCap = 8,
      /// Not a cap, but as cheap for a peer to repeat.
      DuplicateUpload = 16
    };

    /// Every this many parts of a download (8 MiB), the disk write of those just written is started.
    /// The file is flushed before it is moved into place; without this the flush would write the
    /// whole file at the end, while the link waits, instead of alongside the transfer.
    constexpr qint64 WritebackParts = 128;

    /// After part `last` of `fd` when it ends a run of WritebackParts: starts writing that run to
    /// disk, without waiting for it.
    void startWriteback(int fd, qint64 last)
    {
#ifdef __linux__
      if (last % WritebackParts == 0)
        ::sync_file_range(fd, (last - WritebackParts) * FilePartSize, WritebackParts * FilePartSize,
                          SYNC_FILE_RANGE_WRITE);
#else
      (void)fd;
      (void)last;
#endif
    }

    /// How much of a refused path a log line shows.
    constexpr int LoggedPathChars = 200;

    /// A download under such a name would be written to, and moved onto, another download's
    /// temporary file, or make a folder where one belongs. The file list never lists such names.
    bool isTemporaryName(const QString& path)
    {
      return path.endsWith(QLatin1String(TemporarySuffix)) ||
             path.contains(QLatin1String(TemporarySuffix) + QLatin1Char('/'));
    }
  }

  /// Runs the handler's sending on the background thread. The handler pointer is cleared (and a
  /// last step run) by the handler's destructor; a step that finds it null finishes the task.
  class FileTransferHandler::UploadTask : public Bastion::Task
  {
  public:
    explicit UploadTask(FileTransferHandler* handler)
        : Bastion::Task(1.0)
        , m_handler(handler)
    {
    }

    void doTask() override
    {
      FileTransferHandler* handler = m_handler.load();
      if (!handler) {
        setFinished();
        return;
      }
      switch (handler->sendFileParts()) {
      case 0:
        break;
      case 1:
        scheduleFromNowSecs(UploadPauseSeconds);
        break;
      default:
        setFinished();
        break;
      }
    }

    void detach() { m_handler.store(nullptr); }

  private:
    std::atomic<FileTransferHandler*> m_handler;
  };

  class FileTransferHandler::D
  {
  public:
    explicit D(AssetBase& store)
        : assets(store)
    {
    }

    struct Upload
    {
      QString path;
      /// The root at the time of the request, so the background thread never calls rootPath().
      QString root;

      bool operator==(const Upload& other) const { return path == other.path; }
    };

    AssetBase& assets;

    ~D()
    {
      for (const int fd : downloadFiles)
        ::close(fd);
    }

    // Connection thread only.
    QMap<QString, qint64> bytesSinceReport;
    Bastion::TimeStamp connectedTime;
    /// Downloads this connection booked and has not finished yet (MaxDownloadsPerConnection).
    QSet<QString> booked;
    /// The caps (Cap bits) that refused something on this connection and said so in the log.
    int capsLogged = 0;

    // Any thread.
    std::atomic<bool> acceptUnrequested{true};
    Bastion::Mutex requestMutex;
    /// Paths asked for with "sendfileinfo" whose "fileinfo" has not come yet (only kept while
    /// unrequested announcements are refused).
    QSet<QString> requested BASTION_GUARDED_BY(requestMutex);

    /// Counts the ends of connections. An upload belongs to the connection it was asked on: the
    /// background thread checks this under `sendMutex` before it queues each part, and the end of
    /// a connection raises it and passes through the mutex before dropping what is queued, so no
    /// part of an old upload can slip in behind the drop.
    std::atomic<uint64_t> generation{0};
    Bastion::Mutex sendMutex;
    /// The temporary file of each download of this connection that has received its first part,
    /// open from that part until the file is moved into place: every part goes into the file that
    /// was created for it, whatever happens to the name meanwhile.
    QMap<QString, int> downloadFiles;

    Bastion::Mutex uploadMutex;
    std::shared_ptr<UploadTask> uploadTask BASTION_GUARDED_BY(uploadMutex);
    QList<Upload> uploadQueue BASTION_GUARDED_BY(uploadMutex);
    QString currentPath BASTION_GUARDED_BY(uploadMutex);
    /// Set by shutdown: no upload task starts any more.
    bool uploadsStopped BASTION_GUARDED_BY(uploadMutex) = false;

    // Background thread only, while a step of the upload task runs.
    uint64_t sendingGeneration = 0;
    QString sendingPath;
    QString sendingRoot;
    QFile currentFile;

    // Constant after construction.
    long drainListener = -1;

    // Fed by the connection thread only.
    PartHasher hasher;
  };

  FileTransferHandler::FileTransferHandler(Bastion::TCPSocket* socket, bool accepted, AssetBase& assets)
      : ConnectionThread(socket, accepted)
      , d(new D(assets))
  {
    setPingTimeout(60.0);
    eventAddOut("file-info");
    // A sender that paused on a full buffer resumes as soon as half of it has gone out, instead of
    // sleeping out its pause while the socket idles.
    d->drainListener = writerThread()->addDrainListener(UploadResumeLevel, [this] {
      Bastion::Guard guard(d->uploadMutex);
      if (d->uploadTask)
        d->uploadTask->scheduleFromNowSecs(0);
    });
  }

  FileTransferHandler::~FileTransferHandler()
  {
    shutdown();
    writerThread()->removeDrainListener(d->drainListener);
  }

  void FileTransferHandler::stopBackgroundWork()
  {
    // Before the connection and its writer stop, not after: a step that runs meanwhile would write
    // to the socket and raise the writer's events while they are torn down.
    Bastion::Guard guard(d->uploadMutex);
    d->uploadsStopped = true;
    if (d->uploadTask) {
      // A step only tries the mutex, so it cannot wait for us while we wait for it.
      d->uploadTask->detach();
      d->uploadTask->runNow();
      d->uploadTask.reset();
    }
    // No step runs any more: the file belongs to this thread now.
    d->currentFile.close();
  }

  void FileTransferHandler::requestFileInfo(const QString& path)
  {
    if (!d->acceptUnrequested.load()) {
      Bastion::Guard guard(d->requestMutex);
      d->requested.insert(FileTransferCommand::canonicalPath(path));
    }
    writeFileTraffic(QStringLiteral("sendfileinfo \"%1\"\n").arg(FileTransferCommand::canonicalPath(path)).toUtf8());
  }

  void FileTransferHandler::forgetFileInfoRequest(const QString& path)
  {
    Bastion::Guard guard(d->requestMutex);
    d->requested.remove(FileTransferCommand::canonicalPath(path));
  }

  void FileTransferHandler::setAcceptUnrequestedFileInfo(bool accept)
  {
    d->acceptUnrequested.store(accept);
  }

  void FileTransferHandler::requestFileParts(const QString& path)
  {
    writeFileTraffic(QStringLiteral("sendparts \"%1\"\n").arg(FileTransferCommand::canonicalPath(path)).toUtf8());
  }

  void FileTransferHandler::writeFileTraffic(const QByteArray& data)
  {
    writeBufferData(data, QByteArray(FileBufferName));
  }

  void FileTransferHandler::downloadBooked(const QString&, qint64, const QString&) {}

  void FileTransferHandler::downloadRefused(const QString&, Refusal) {}

  AssetBase& FileTransferHandler::assets() const
  {
    return d->assets;
  }

  qint64 FileTransferHandler::partCount(qint64 size)
  {
    const float parts = float(size) / float(FilePartSize);
    return qint64(std::ceil(parts));
  }

  bool FileTransferHandler::parse(QString line)
  {
    const FileTransferCommand command = FileTransferCommand::parse(line);
    // A part's bytes must be read whatever its path; a path that long can match no download anyway.
    if (command.kind != FileTransferCommand::None && command.kind != FileTransferCommand::FilePart) {
      const qint64 pathBytes = command.path.toUtf8().size();
      if (pathBytes > MaxFilePathBytes) {
        logCapOnce(PathCap, "parse", "MaxFilePathBytes", command.path, pathBytes, MaxFilePathBytes);
        return true;
      }
    }
    switch (command.kind) {
    case FileTransferCommand::FileInfo: {
      if (command.path.contains(QLatin1String("..")) || !command.path.startsWith('/')) {
        if (mayLog("Filename can't contain '..'"))
          Bastion::error("Filename can't contain '..' and it has to start with '/': %s",
                         loggedText(command.path).constData());
        return true;
      }
      if (isTemporaryName(command.path)) {
        Bastion::error("FileTransferHandler::receiveFileInfo # Refusing '%s': a download's temporary name",
                       command.path.toUtf8().constData());
        return true;
      }
      bool sizeOk = false, partsOk = false;
      const qint64 size = command.first.toLongLong(&sizeOk);
      const qint64 parts = command.second.toLongLong(&partsOk);
      if (!sizeOk || !partsOk) {
        if (mayLog("Size or part count out of range"))
          Bastion::error("FileTransferHandler::parse # Size or part count out of range for '%s'",
                         loggedText(command.path).constData());
        return true;
      }
      receiveFileInfo(command.path, size, parts, command.md5);
      return true;
    }
    case FileTransferCommand::SendFileInfo:
      sendFileInfo(command.path);
      return true;
    case FileTransferCommand::FilePart: {
      bool countOk = false, numberOk = false;
      const qint64 byteCount = command.first.toLongLong(&countOk);
      const qint64 partNumber = command.second.toLongLong(&numberOk);
      if (!countOk) {
        // The bytes that follow cannot be counted, so the stream cannot be kept in step: this
        // connection ends; a client reconnects as after any other drop.
        Bastion::error("FileTransferHandler::receiveFilePart # Byte count %s of a part of '%s' is out of range, "
                       "closing the connection",
                       loggedText(command.first).constData(), loggedText(command.path).constData());
        dropConnection();
        return true;
      }
      // An unrepresentable part number can match no download: 0 makes it an unexpected part.
      receiveFilePart(command.path, byteCount, numberOk ? partNumber : 0);
      return true;
    }
    case FileTransferCommand::SendParts:
      startFilePartsUploadTask(command.path);
      return true;
    case FileTransferCommand::None:
      break;
    }
    return false;
  }

  void FileTransferHandler::connected()
  {
    d->connectedTime = uniqueConnectedTime();
    d->capsLogged = 0;
  }

  void FileTransferHandler::disconnected()
  {
    for (const int fd : d->downloadFiles)
      ::close(fd);
    d->downloadFiles.clear();
    d->assets.clearDownloadList(d->connectedTime);
    d->bytesSinceReport.clear();
    d->booked.clear();
    {
      Bastion::Guard guard(d->requestMutex);
      d->requested.clear();
    }
    {
      Bastion::Guard guard(d->uploadMutex);
      d->generation.fetch_add(1);
      d->uploadQueue.clear();
      d->currentPath.clear();
    }
    // Waits for a part being queued right now; every later one sees the new generation.
    {
      Bastion::Guard guard(d->sendMutex);
    }
    // Not under the upload mutex: the drain listener that this may call takes it.
    writerThread()->removeFromBuffer(FileBufferName);
  }

  void FileTransferHandler::logCapOnce(int cap, const char* where, const char* which, const QString& path, qint64 size,
                                       qint64 limit)
  {
    if (d->capsLogged & cap)
      return;
    d->capsLogged |= cap;
    Bastion::error("FileTransferHandler::%s # %s:%d went over %s (%lld, limit %lld): refusing '%s'; further "
                   "refusals by this limit on this connection are not logged",
                   where, remoteHost().toUtf8().constData(), remotePort(), which, (long long)size, (long long)limit,
                   path.left(LoggedPathChars).toUtf8().constData());
  }

  void FileTransferHandler::refuseOutsideRoot(const char* where, const QString& path)
  {
    Bastion::error("FileTransferHandler::%s # Refusing '%s': the path leads outside the root folder", where,
                   path.toUtf8().constData());
  }

  void FileTransferHandler::sendFileInfo(const QString& path)
  {
    const QString root = rootPath();
    const QByteArray relative = RootDirectory::encode(path);
    if (!RootDirectory::isConfined(relative)) {
      refuseOutsideRoot("sendFileInfo", path);
      return;
    }
    const RootDirectory directory(root);
    struct stat st;
    if (!directory.stat(relative, st) || !S_ISREG(st.st_mode)) {
      if (RootDirectory::isEscapeError(errno))
        refuseOutsideRoot("sendFileInfo", path);
      else
        Bastion::error("FileTransferHandler::commitUpload#  file '%s' doesn't exist. Not uploaded",
                       (root + path).toUtf8().constData());
      return;
    }
    const qint64 buffered = bufferedDataSize();
    if (buffered > FileInfoReplyBufferLimit) {
      logCapOnce(ReplyBufferCap, "sendFileInfo", "FileInfoReplyBufferLimit", path, buffered, FileInfoReplyBufferLimit);
      return;
    }
    const qint64 size = st.st_size;
    writeFileTraffic(QStringLiteral("fileinfo %1 \"%2\" %3 %4\n")
                         .arg(QString::number(size), path, QString::number(partCount(size)), d->assets.md5(path))
                         .toUtf8());
  }

  void FileTransferHandler::receiveFileInfo(const QString& path, qint64 size, qint64 parts, const QString& md5)
  {
    if (!d->acceptUnrequested.load()) {
      bool asked = false;
      {
        Bastion::Guard guard(d->requestMutex);
        asked = d->requested.remove(path);
      }
      if (!asked) {
        if (mayLog("was not asked for"))
          Bastion::error("FileTransferHandler::receiveFileInfo # '%s' was not asked for: refused",
                         loggedText(path).constData());
        downloadRefused(path, Refusal::NotRequested);
        return;
      }
    }
    if (d->booked.size() >= MaxDownloadsPerConnection && !d->booked.contains(path)) {
      logCapOnce(DownloadCap, "receiveFileInfo", "MaxDownloadsPerConnection", path, d->booked.size() + 1,
                 MaxDownloadsPerConnection);
      downloadRefused(path, Refusal::TooManyDownloads);
      return;
    }
    Bastion::BinaryData info;
    info.writeString(path);
    info.writeInt64(size);
    info.writeInt64(parts);
    info.writeString(md5);
    eventSend("file-info", info);
    if (d->assets.addFileToDownloadList(path, size, parts, md5, d->connectedTime)) {
      d->booked.insert(path);
      requestFileParts(path);
      downloadBooked(path, size, md5);
    } else {
      if (mayLog("is being downloaded already"))
        Bastion::error("File '%s' is being downloaded already", loggedText(path).constData());
      downloadRefused(path, Refusal::AlreadyDownloading);
    }
  }

  void FileTransferHandler::receiveFilePart(const QString& path, qint64 byteCount, qint64 partNumber)
  {
    if (byteCount > FilePartReadLimit) {
      // Never allocate what a peer announces: read past the bytes in bounded pieces, keeping the
      // stream in step, and drop them.
      if (mayLog("Part over FilePartReadLimit"))
        Bastion::error("FileTransferHandler::receiveFilePart # Part %lld of '%s' has %lld bytes, more than %lld: "
                       "dropped",
                       (long long)partNumber, loggedText(path).constData(), (long long)byteCount,
                       (long long)FilePartReadLimit);
      QByteArray sink(int(FilePartReadLimit), Qt::Uninitialized);
      for (qint64 left = byteCount; left > 0;) {
        const int piece = int(std::min<qint64>(left, FilePartReadLimit));
        if (!readData(reinterpret_cast<unsigned char*>(sink.data()), piece))
          return;
        left -= piece;
      }
      return;
    }
    // Read the bytes whatever happens next, so that the stream stays in step. The count is at most
    // one part here, so the array may be made at its full size up front.
    QByteArray bytes(int(byteCount), Qt::Uninitialized);
    if (!readData(reinterpret_cast<unsigned char*>(bytes.data()), bytes.size()))
      return;

    // A download takes parts only from the connection that booked it.
    if (!d->assets.isDownloadingFor(path, d->connectedTime) && d->assets.isDownloading(path)) {
      if (mayLog("another connection is downloading"))
        Bastion::error("FileTransferHandler::receiveFilePart # Refusing part %lld of '%s': another connection "
                       "is downloading that file",
                       (long long)partNumber, loggedText(path).constData());
      return;
    }
    const qint64 expected = d->assets.currentParts(path) + 1;
    if (partNumber != expected || !d->assets.isDownloading(path)) {
      if (mayLog("received file part but we expected"))
        Bastion::error("received file part %lld but we expected %lld: '%s'", (long long)partNumber, (long long)expected,
                       loggedText(path).constData());
      return;
    }

    const QString root = rootPath();
    const QString temporaryName = root + path + QLatin1String(TemporarySuffix);
    const qint64 total = d->assets.totalParts(path);
    int fd = d->downloadFiles.value(path, -1);
    if (partNumber == 1) {
      if (fd >= 0)
        ::close(fd);
      d->downloadFiles.remove(path);
      const RootDirectory directory(root);
      const QByteArray temporary = RootDirectory::encode(path + QLatin1String(TemporarySuffix));
      // Made only for a download that was booked; a parent that leads outside the root fails here or
      // in the open below. The file is made afresh: whatever is at its name (a leftover, a link)
      // is never written to.
      directory.makeDirectories(parentOf(temporary));
      directory.remove(temporary);
      fd = directory.open(temporary, O_WRONLY | O_CREAT | O_EXCL, 0666);
      if (fd >= 0)
        d->downloadFiles.insert(path, fd);
    }
    if (fd < 0) {
      if (mayLog("Failed to open"))
        Bastion::error("Failed to open %s", loggedText(temporaryName).constData());
      return;
    }
    const bool written = writeAll(fd, bytes);
    const int writeError = errno;
    if (!written) {
      if (mayLog("Failed to write"))
        Bastion::error("FileTransferHandler::receiveFilePart # Failed to write %s: %s",
                       loggedText(temporaryName).constData(), qt_error_string(writeError).toUtf8().constData());
      return;
    }
    startWriteback(fd, partNumber);
    d->assets.increasePartCount(path);
    // Hashed on the hasher's thread while this one goes on reading; waited for before the check.
    d->hasher.add(d->assets.downloadListHash(path), bytes);

    const qint64 current = d->assets.currentParts(path);
    const bool done = current == total || total == 0;
    qint64& sinceReport = d->bytesSinceReport[path];
    sinceReport += bytes.size();
    if (current % ProgressInterval == 0 || done) {
      transferProgress(sinceReport, path);
      sinceReport = 0;
    }
    if (done) {
      d->hasher.waitIdle();
      finishDownload(path);
    }
  }

  void FileTransferHandler::finishDownload(const QString& path)
  {
    d->bytesSinceReport.remove(path);
    d->booked.remove(path);
    const int fd = d->downloadFiles.value(path, -1);
    d->downloadFiles.remove(path);
    const QString root = rootPath();
    const QString localName = root + path;
    const QString temporaryName = localName + QLatin1String(TemporarySuffix);
    const RootDirectory directory(root);
    const QByteArray local = RootDirectory::encode(path);
    const QByteArray temporary = RootDirectory::encode(path + QLatin1String(TemporarySuffix));

    const QString announced = d->assets.downloadListMD5(path);
    const QString received = d->assets.downloadListPartMD5(path);
    const QDateTime started = d->assets.downloadListStartTime(path);
    const qint64 size = d->assets.downloadListSize(path);
    struct stat st = {};
    bool succeeded = false;
    if (announced != received) {
      Bastion::error("md5 mismatch for '%s'", temporaryName.toUtf8().constData());
      directory.remove(temporary);
    } else if (::fstat(fd, &st) != 0 || st.st_size != size) {
      Bastion::error("FileTransferHandler::finishDownload # '%s' has %lld bytes, %lld were announced",
                     temporaryName.toUtf8().constData(), (long long)st.st_size, (long long)size);
      directory.remove(temporary);
    } else {
      // The move replaces the old file atomically; only where something is in the way is the old
      // one deleted first. Any other failure (a flush that failed, say) leaves the old file alone.
      succeeded = directory.moveIntoPlace(fd, temporary, local);
      const int moveError = errno;
      if (!succeeded && moveError == ESTALE) {
        // Something else was put at the temporary name: it is not ours to move or delete.
        Bastion::error("FileTransferHandler::finishDownload # '%s' is no longer the file that was received",
                       temporaryName.toUtf8().constData());
      } else if (!succeeded && moveError != EISDIR && moveError != ENOTEMPTY && moveError != EEXIST) {
        Bastion::error("Failed to rename '%s' to '%s'", temporaryName.toUtf8().constData(),
                       localName.toUtf8().constData());
        directory.remove(temporary);
      } else if (!succeeded) {
        directory.remove(local);
        succeeded = directory.moveIntoPlace(fd, temporary, local);
        if (!succeeded) {
          Bastion::error("Failed to rename '%s' to '%s'", temporaryName.toUtf8().constData(),
                         localName.toUtf8().constData());
          directory.remove(temporary);
        }
      }
    }
    if (fd >= 0)
      ::close(fd);
    if (succeeded)
      Bastion::debug("FileTransferHandler::receiveFilePart # '%s' received in %lld ms", path.toUtf8().constData(),
                     (long long)started.msecsTo(QDateTime::currentDateTimeUtc()));
    else
      Bastion::error("File Download for '%s' failed", path.toUtf8().constData());
    d->assets.removeFileFromDownloadList(path, succeeded);
  }

  void FileTransferHandler::startFilePartsUploadTask(const QString& path)
  {
    if (!RootDirectory::isConfined(RootDirectory::encode(path))) {
      refuseOutsideRoot("startFilePartsUploadTask", path);
      return;
    }
    const QString root = rootPath();
    Bastion::Guard guard(d->uploadMutex);
    if (d->uploadsStopped)
      return;
    const D::Upload upload{path, root};
    if (d->uploadQueue.contains(upload)) {
      if (!(d->capsLogged & DuplicateUpload)) {
        d->capsLogged |= DuplicateUpload;
        Bastion::error("FileTransferHandler::startFilePartsUploadTask # '%s' is queued already: request ignored; "
                       "further repeated requests on this connection are not logged",
                       path.left(LoggedPathChars).toUtf8().constData());
      }
      return;
    }
    if (d->uploadQueue.size() >= MaxQueuedUploads) {
      logCapOnce(UploadQueueCap, "startFilePartsUploadTask", "MaxQueuedUploads", path, d->uploadQueue.size() + 1,
                 MaxQueuedUploads);
      return;
    }
    d->uploadQueue.append(upload);
    if (!d->uploadTask) {
      d->uploadTask = std::make_shared<UploadTask>(this);
      Bastion::BGThread::instance().addTask(d->uploadTask);
    }
  }

  int FileTransferHandler::sendFileParts()
  {
    // Checked first: a dropped connection must end the task, not keep it polling a buffer that
    // nobody drains.
    if (!isConnected())
      return abandonUploads();
    // The connection this file was asked on has ended (and another may have begun).
    if (d->currentFile.isOpen() && d->sendingGeneration != d->generation.load())
      closeCurrentFile();
    if (bufferedDataSize() > UploadBufferLimit)
      return 1;
    if (d->currentFile.isOpen()) {
      continueSendingFileParts();
      return 0;
    }
    if (!d->uploadMutex.tryLock())
      return 0;
    if (!d->uploadQueue.isEmpty()) {
      const D::Upload next = d->uploadQueue.takeFirst();
      d->currentPath = next.path;
      d->sendingGeneration = d->generation.load();
      d->uploadMutex.unlock();
      d->sendingPath = next.path;
      d->sendingRoot = next.root;
      startSendingfileParts();
      return 0;
    }
    d->uploadTask.reset();
    d->uploadMutex.unlock();
    return 2;
  }

  int FileTransferHandler::abandonUploads()
  {
    if (!d->uploadMutex.tryLock())
      return 1;
    d->uploadQueue.clear();
    d->currentPath.clear();
    // Closed while the task is still registered: once it is cleared, the destructor no longer
    // waits for this step, so nothing may touch the handler after the unlock.
    closeCurrentFile();
    d->uploadTask.reset();
    d->uploadMutex.unlock();
    return 2;
  }

  bool FileTransferHandler::queuePart(const QList<QByteArray>& parts)
  {
    Bastion::Guard guard(d->sendMutex);
    if (d->sendingGeneration != d->generation.load())
      return false;
    writeBuffer(parts, QByteArray(FileBufferName));
    return true;
  }

  void FileTransferHandler::closeCurrentFile()
  {
    d->currentFile.close();
  }

  void FileTransferHandler::startSendingfileParts()
  {
    const QString fileName = d->sendingRoot + d->sendingPath;
    const RootDirectory directory(d->sendingRoot);
    // O_NONBLOCK: a fifo named by the peer must not block the background thread in open().
    const int fd = directory.open(RootDirectory::encode(d->sendingPath), O_RDONLY | O_NONBLOCK);
    struct stat st;
    int failure = fd < 0 ? errno : (::fstat(fd, &st) != 0 ? errno : (S_ISREG(st.st_mode) ? 0 : EISDIR));
    if (fd >= 0 && failure != 0)
      ::close(fd);
    if (failure == 0 &&
        !d->currentFile.open(fd, QIODevice::ReadOnly | QIODevice::Unbuffered, QFileDevice::AutoCloseHandle)) {
      ::close(fd);
      failure = EIO;
    }
    if (failure != 0) {
      if (RootDirectory::isEscapeError(failure))
        refuseOutsideRoot("startSendingfileParts", d->sendingPath);
      else
        Bastion::error("FileTransferHandler::startSendingfileParts # Failed to open file '%s': %s",
                       fileName.toUtf8().constData(), qt_error_string(failure).toUtf8().constData());
      return;
    }
    continueSendingFileParts();
  }

  void FileTransferHandler::continueSendingFileParts()
  {
    const QByteArray path = d->sendingPath.toUtf8();
    if (partCount(d->currentFile.size()) < 1) {
      queuePart({"filepart \"" + path + "\" 0 1\n"});
      closeCurrentFile();
      return;
    }
    bool readFailed = false;
    while (!d->currentFile.atEnd() && isConnected() && bufferedDataSize() <= UploadBufferLimit) {
      const qint64 partNumber = d->currentFile.pos() / FilePartSize + 1;
      // A fresh array per part: the writer keeps it until written, so reusing one buffer would only
      // make Qt copy it on the next read.
      QByteArray part(int(FilePartSize), Qt::Uninitialized);
      const qint64 got = d->currentFile.read(part.data(), FilePartSize);
      if (got < 1) {
        readFailed = true;
        break;
      }
      part.resize(int(got));
      const QByteArray header =
          "filepart \"" + path + "\" " + QByteArray::number(got) + ' ' + QByteArray::number(partNumber) + '\n';
      if (!queuePart({header, part})) {
        closeCurrentFile();
        return;
      }
    }
    if (readFailed) {
      Bastion::error("FileTransferHandler::continueSendingFileParts # Failed to read file '%s': %s",
                     (d->sendingRoot + d->sendingPath).toUtf8().constData(),
                     d->currentFile.errorString().toUtf8().constData());
      closeCurrentFile();
    } else if (d->currentFile.atEnd()) {
      closeCurrentFile();
    }
  }
}
