#include "plexa/files/AssetBase.hpp"

#include "plexa/files/FileListThread.hpp"
#include "plexa/files/FileTransferFormat.hpp"
#include "plexa/files/ProgressSender.hpp"
#include "plexa/files/RootDirectory.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/Mutex.hpp"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Plexa
{
  namespace
  {
    void tell(ProgressSender* progress, const QString& text)
    {
      if (progress)
        progress->transferInfo(text);
    }

    QString canonicalRoot(const QString& root)
    {
      QString path = QFileInfo(root).canonicalFilePath();
      if (path.isEmpty())
        path = QDir::cleanPath(root);
      while (path.endsWith('/'))
        path.chop(1);
      return path;
    }

    /// Modification time in milliseconds (truncated), in UTC: the same value for the scan and for
    /// the row made from a received file, so that row survives the next rescan unchanged. UTC also
    /// keeps every time zone lookup out of the threads of the store.
    QDateTime modificationTime(const struct stat& st)
    {
      return QDateTime::fromMSecsSinceEpoch(qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000, Qt::UTC);
    }

    // Tables are handed between threads (published snapshots, returned lists, rows made on a
    // connection thread and dropped on the rebuild thread). Their strings and arrays are copied deeply
    // on the way, so no implicitly shared Qt data is ever released on two threads: Qt counts those
    // references inside its own library, where the thread checker cannot see them.
    QString deepCopy(const QString& text)
    {
      return QString(text.constData(), text.size());
    }

    AssetBase::FileInfo deepCopy(const AssetBase::FileInfo& row)
    {
      AssetBase::FileInfo copy = row;
      copy.md5 = QByteArray(row.md5.constData(), row.md5.size());
      return copy;
    }

    AssetBase::FileList deepCopy(const AssetBase::FileList& list)
    {
      AssetBase::FileList copy;
      for (auto it = list.cbegin(); it != list.cend(); ++it)
        copy.insert(copy.cend(), deepCopy(it.key()), deepCopy(it.value()));
      return copy;
    }

    /// The scan's two wildcard filters, "*.filesync.part" (temporary download files) and
    /// "*[\\:*?\"<>]*" (names that the transfer lines cannot carry), written out: QRegExp would
    /// share its engine cache between the threads that rebuild lists.
    bool isFiltered(const QString& name)
    {
      if (name.endsWith(QLatin1String(TemporarySuffix)))
        return true;
      for (const QChar c : name) {
        switch (c.unicode()) {
        case '\\':
        case ':':
        case '*':
        case '?':
        case '"':
        case '<':
        case '>':
          return true;
        default:
          break;
        }
      }
      return false;
    }

    /// Whether this process may read the file: decided from the mode bits where they settle it, so
    /// that a rescan costs one system call per file; access(2) otherwise (groups, lists).
    bool isReadable(int dirFd, const QByteArray& name, const struct stat& st)
    {
      static const uid_t user = geteuid();
      if (user == 0)
        return true;
      if (st.st_uid == user)
        return st.st_mode & S_IRUSR;
      return faccessat(dirFd, name.constData(), R_OK, AT_EACCESS) == 0;
    }

    /// Closes a directory stream on scope exit.
    struct DirCloser
    {
      void operator()(DIR* dir) const { closedir(dir); }
    };

    /// Serialises every use of the settings store by stores of this process. QSettings shares its
    /// files between objects behind its own lock; this one makes the order visible to the thread
    /// checker as well, and keeps the rewrite of one array in one piece.
    Bastion::Mutex& settingsStoreMutex()
    {
      static Bastion::Mutex mutex;
      return mutex;
    }

    QString settingsArray(const QString& root)
    {
      return QStringLiteral("FileList/") + root;
    }
  }

  class AssetBase::D
  {
  public:
    explicit D(const QString& root) : rootPath(canonicalRoot(root)) {}

    void loadFileList();
    void saveFileList(const FileList& list);
    void publish() BASTION_REQUIRES(fileListMutex);
    /// One level of the directory scan; `relative` begins and ends with '/'.
    /// A file found by the scan that must be hashed.
    struct Pending
    {
      QString path;
      QDateTime modified;
    };

    /// `cursor` walks `old` alongside the scan, which meets paths mostly in the list's order, so most
    /// lookups are one comparison.
    void scan(const QString& relative, const FileList& old, FileList::const_iterator& cursor, FileList& result,
              QList<Pending>& toHash)
      BASTION_REQUIRES(fileListMutex, removeQueueMutex);

    Bastion::Mutex fileListMutex;
    FileList fileList BASTION_GUARDED_BY(fileListMutex);
    /// True when the saved array differs from `fileList` (a download added a row, or a rebuild was
    /// stopped before saving).
    bool fileListUnsaved BASTION_GUARDED_BY(fileListMutex) = false;
    const QString rootPath;
    std::unique_ptr<FileListThread> thread;
    std::atomic<bool> running{true};

    mutable Bastion::Mutex snapshotMutex;
    std::shared_ptr<const FileList> snapshot BASTION_GUARDED_BY(snapshotMutex) = std::make_shared<FileList>();

    mutable Bastion::Mutex removeQueueMutex;
    RemoveQueue removeQueue BASTION_GUARDED_BY(removeQueueMutex);

    mutable Bastion::Mutex downloadMutex;
    FileList downloadList BASTION_GUARDED_BY(downloadMutex);

  };

  void AssetBase::D::loadFileList()
  {
    FileList loaded;
    {
      Bastion::Guard storeGuard(settingsStoreMutex());
      QSettings store(QStringLiteral("Brandwick"), QStringLiteral("Cache"));
      const int count = store.beginReadArray(settingsArray(rootPath));
      const Bastion::TimeStamp now = Bastion::TimeStamp::getTime();
      for (int i = 0; i < count; ++i) {
        store.setArrayIndex(i);
        FileInfo row;
        row.size = store.value(QStringLiteral("size")).toLongLong();
        row.md5 = store.value(QStringLiteral("MD5")).toByteArray();
        row.time = store.value(QStringLiteral("ts")).toDateTime().toUTC();
        row.stamp = now;
        // The values share their data with the settings' process-wide cache: keep copies of our own.
        loaded.insert(deepCopy(store.value(QStringLiteral("file")).toString()), deepCopy(row));
      }
      store.endArray();
    }
    Bastion::Guard guard(fileListMutex);
    fileList = loaded;
    publish();
  }

  void AssetBase::D::saveFileList(const FileList& list)
  {
    Bastion::Guard storeGuard(settingsStoreMutex());
    QSettings store(QStringLiteral("Brandwick"), QStringLiteral("Cache"));
    const QString array = settingsArray(rootPath);
    store.remove(array);
    store.beginWriteArray(array, list.size());
    int index = 0;
    for (auto it = list.cbegin(); it != list.cend(); ++it, ++index) {
      store.setArrayIndex(index);
      store.setValue(QStringLiteral("file"), it.key());
      store.setValue(QStringLiteral("ts"), it.value().time);
      store.setValue(QStringLiteral("MD5"), it.value().md5);
      store.setValue(QStringLiteral("size"), QVariant::fromValue<qlonglong>(it.value().size));
    }
    store.endArray();
  }

  void AssetBase::D::publish()
  {
    auto published = std::make_shared<const FileList>(deepCopy(fileList));
    Bastion::Guard guard(snapshotMutex);
    snapshot = std::move(published);
  }

  void AssetBase::D::scan(const QString& relative, const FileList& old, FileList::const_iterator& cursor,
                          FileList& result, QList<Pending>& toHash)
  {
    const int fd = ::open(QFile::encodeName(rootPath + relative).constData(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0)
      return;
    std::unique_ptr<DIR, DirCloser> dir(fdopendir(fd));
    if (!dir) {
      ::close(fd);
      return;
    }
    QList<QByteArray> names;
    while (const dirent* entry = readdir(dir.get())) {
      const QByteArray name(entry->d_name);
      if (name != "." && name != "..")
        names.append(name);
    }
    std::sort(names.begin(), names.end());
    for (const QByteArray& encoded : names) {
      const QString name = QFile::decodeName(encoded);
      if (isFiltered(name))
        continue;
      struct stat st;
      if (fstatat(fd, encoded.constData(), &st, AT_SYMLINK_NOFOLLOW) != 0)
        continue;
      if (S_ISDIR(st.st_mode)) {
        scan(relative + name + '/', old, cursor, result, toHash);
        continue;
      }
      if (S_ISLNK(st.st_mode)) {
        // A linked folder could lead out of the root or back into itself: only linked files that
        // resolve inside the root are listed.
        char target[PATH_MAX];
        const QByteArray linkName = QFile::encodeName(rootPath + relative + name);
        if (fstatat(fd, encoded.constData(), &st, 0) != 0 || !S_ISREG(st.st_mode) ||
            !realpath(linkName.constData(), target) ||
            !QFile::decodeName(target).startsWith(rootPath + '/'))
          continue;
      }
      if (!S_ISREG(st.st_mode) || !isReadable(fd, encoded, st))
        continue;
      const QString path = relative + name;
      if (removeQueue.contains(path))
        continue;
      const QDateTime modified = modificationTime(st);
      auto previous = cursor != old.cend() && cursor.key() == path ? cursor : old.constFind(path);
      if (previous != old.cend())
        cursor = std::next(previous);
      if (previous != old.cend() && previous->time == modified)
        result.insert(result.cend(), path, *previous);
      else
        toHash.append({path, modified});
    }
  }

  AssetBase::AssetBase(const QString& root) : d(new D(root))
  {
    d->loadFileList();
    d->thread.reset(new FileListThread(this));
    d->thread->run();
  }

  AssetBase::~AssetBase()
  {
    d->running = false;
    d->thread->waitEnd();
    d->thread.reset();
  }

  const QString& AssetBase::rootPath() const
  {
    return d->rootPath;
  }

  AssetBase::FileList AssetBase::buildFileList(ProgressSender* progress)
  {
    Bastion::Guard listGuard(d->fileListMutex);
    tell(progress, QStringLiteral("Scanning directory tree..."));
    FileList result;
    QList<D::Pending> toHash;
    {
      Bastion::Guard queueGuard(d->removeQueueMutex);
      FileList::const_iterator cursor = d->fileList.cbegin();
      d->scan(QStringLiteral("/"), d->fileList, cursor, result, toHash);
    }

    QByteArray block(FileHashBlockSize, Qt::Uninitialized);
    for (const D::Pending& pending : toHash) {
      if (!d->running)
        break;
      const QString localName = d->rootPath + pending.path;
      const int fd = ::open(QFile::encodeName(localName).constData(), O_RDONLY | O_CLOEXEC);
      if (fd < 0) {
        tell(progress, QStringLiteral("Failed to open: %1").arg(pending.path));
        Bastion::error("Failed to open %s", localName.toUtf8().constData());
        continue;
      }
      QCryptographicHash hash(QCryptographicHash::Md5);
      qint64 size = 0;
      ssize_t got;
      while ((got = ::read(fd, block.data(), size_t(block.size()))) > 0 || (got < 0 && errno == EINTR)) {
        if (got > 0) {
          hash.addData(block.constData(), int(got));
          size += got;
        }
      }
      ::close(fd);
      FileInfo row;
      // The time seen by the scan, before hashing: a change during the hashing shows as a newer
      // time at the next rescan and is hashed again.
      row.time = pending.modified;
      row.md5 = hash.result();
      row.size = size;
      row.stamp = Bastion::TimeStamp::getTime();
      result.insert(pending.path, row);
      tell(progress, QStringLiteral("Generated checksums: %1").arg(pending.path));
    }

    // An unchanged list keeps its published snapshot: copying it again would cost more than the scan.
    // Without hashing, the new list holds old rows only, unchanged: it differs when it lost some.
    const bool differs = !toHash.isEmpty() || result.size() != d->fileList.size();
    const bool changed = d->fileListUnsaved || differs;
    if (differs) {
      d->fileList = result;
      d->publish();
    }
    if (d->running) {
      // An unchanged list is not written again: rewriting every row costs more than the whole rescan.
      if (changed)
        d->saveFileList(result);
      d->fileListUnsaved = false;
    } else {
      d->fileListUnsaved = true;
    }
    tell(progress, QStringLiteral("Checksum list generated"));
    // The published snapshot is never changed and its strings are its own, so handing out a shared
    // copy of it costs nothing and releases nothing on two threads that Qt counted inside its library.
    Bastion::Guard guard(d->snapshotMutex);
    return *d->snapshot;
  }

  bool AssetBase::waitForFileList(int timeoutMs)
  {
    return d->thread->waitEnd(timeoutMs);
  }

  AssetBase::FileList AssetBase::fileList() const
  {
    std::shared_ptr<const FileList> list;
    {
      Bastion::Guard guard(d->snapshotMutex);
      list = d->snapshot;
    }
    return deepCopy(*list);
  }

  QString AssetBase::md5(const QString& path) const
  {
    std::shared_ptr<const FileList> list;
    {
      Bastion::Guard guard(d->snapshotMutex);
      list = d->snapshot;
    }
    auto it = list->constFind(path);
    return it == list->cend() ? QString() : QString::fromLatin1(it->md5.toHex());
  }

  bool AssetBase::addFileToDownloadList(const QString& path, qint64 size, qint64 parts, const QString& md5Hex,
                                        Bastion::TimeStamp owner)
  {
    Bastion::Guard guard(d->downloadMutex);
    if (d->downloadList.contains(path))
      return false;
    FileInfo row;
    row.time = QDateTime::currentDateTimeUtc();
    row.md5 = QByteArray::fromHex(md5Hex.toLatin1());
    row.size = size;
    row.totalParts = parts;
    row.currentParts = 0;
    row.hash = std::make_shared<RunningMd5>();
    row.stamp = owner;
    d->downloadList.insert(deepCopy(path), row);
    return true;
  }

  bool AssetBase::isDownloading(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    return d->downloadList.contains(path);
  }

  bool AssetBase::isDownloadingFor(const QString& path, Bastion::TimeStamp owner) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it != d->downloadList.cend() && it->stamp == owner;
  }

  qint64 AssetBase::downloadListSize(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it == d->downloadList.cend() ? -1 : it->size;
  }

  qint64 AssetBase::totalParts(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it == d->downloadList.cend() ? -1 : it->totalParts;
  }

  qint64 AssetBase::currentParts(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it == d->downloadList.cend() ? -1 : it->currentParts;
  }

  bool AssetBase::increasePartCount(const QString& path)
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.find(path);
    if (it == d->downloadList.end())
      return false;
    ++it->currentParts;
    return true;
  }

  void AssetBase::downloadListAddHashData(const QString& path, const QByteArray& data)
  {
    // Hashed outside the download lock, which other connections need meanwhile.
    if (const std::shared_ptr<RunningMd5> hash = downloadListHash(path))
      hash->addData(data);
  }

  std::shared_ptr<RunningMd5> AssetBase::downloadListHash(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it == d->downloadList.cend() ? nullptr : it->hash;
  }

  QString AssetBase::downloadListMD5(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it == d->downloadList.cend() ? QString() : QString::fromLatin1(it->md5.toHex());
  }

  QString AssetBase::downloadListPartMD5(const QString& path) const
  {
    const std::shared_ptr<RunningMd5> hash = downloadListHash(path);
    return hash ? QString::fromLatin1(hash->result().toHex()) : QString();
  }

  QDateTime AssetBase::downloadListStartTime(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it == d->downloadList.cend() ? QDateTime() : it->time;
  }

  bool AssetBase::removeFileFromDownloadList(const QString& path, bool succeeded)
  {
    FileInfo download;
    {
      Bastion::Guard guard(d->downloadMutex);
      auto it = d->downloadList.constFind(path);
      if (it == d->downloadList.cend())
        return false;
      download = *it;
    }
    if (succeeded) {
      const RootDirectory root(d->rootPath);
      struct stat st;
      FileInfo row;
      row.time = root.stat(RootDirectory::encode(path), st) ? modificationTime(st) : QDateTime::currentDateTimeUtc();
      row.md5 = QByteArray(download.md5.constData(), download.md5.size());
      row.size = download.size;
      row.stamp = Bastion::TimeStamp::getTime();
      Bastion::Guard guard(d->fileListMutex);
      d->fileList.insert(deepCopy(path), row);
      d->fileListUnsaved = true;
      d->publish();
    }
    Bastion::Guard guard(d->downloadMutex);
    const bool removed = d->downloadList.remove(path) > 0;
    if (removed && d->downloadList.isEmpty()) {
      buildFileList(nullptr);
      transferFinished();
    }
    return removed;
  }

  void AssetBase::clearDownloadList(Bastion::TimeStamp owner)
  {
    const RootDirectory root(d->rootPath);
    Bastion::Guard guard(d->downloadMutex);
    for (auto it = d->downloadList.begin(); it != d->downloadList.end();) {
      if (it->stamp != owner) {
        ++it;
        continue;
      }
      if (it->currentParts > 0)
        root.remove(RootDirectory::encode(it.key() + QLatin1String(TemporarySuffix)));
      it = d->downloadList.erase(it);
    }
  }

  void AssetBase::addFileToRemoveQueue(const QString& path, std::shared_ptr<ConnectionThread> connection)
  {
    Bastion::Guard guard(d->removeQueueMutex);
    d->removeQueue[deepCopy(path)].append(connection);
  }

  AssetBase::RemoveQueue AssetBase::removeQueue() const
  {
    Bastion::Guard guard(d->removeQueueMutex);
    RemoveQueue copy;
    for (auto it = d->removeQueue.cbegin(); it != d->removeQueue.cend(); ++it)
      copy.insert(deepCopy(it.key()), it.value());
    return copy;
  }

  bool AssetBase::removeFromRemoveQueue(const QString& path)
  {
    Bastion::Guard guard(d->removeQueueMutex);
    return d->removeQueue.remove(path) > 0;
  }

  bool AssetBase::removeFileAndEmptyFolders(const QString& path)
  {
    const QString localName = d->rootPath + path;
    QString folder = QFileInfo(QFileInfo(localName).absolutePath()).canonicalFilePath();
    if (!QFile::remove(localName))
      return false;
    // rmdir only takes empty folders; the walk stops at the root, and at anything outside it.
    while (!folder.isEmpty() && folder != d->rootPath && folder.startsWith(d->rootPath + '/')) {
      if (!QDir().rmdir(folder))
        break;
      folder = QFileInfo(QFileInfo(folder).absolutePath()).canonicalFilePath();
    }
    return true;
  }

  void AssetBase::stop()
  {
    d->running = false;
  }

  bool AssetBase::isRunning() const
  {
    return d->running;
  }

  void AssetBase::transferFinished() {}
}
