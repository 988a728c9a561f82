#include "plexa/files/AssetBase.hpp"

#include "plexa/files/FileListThread.hpp"
#include "plexa/files/FileTransferCommand.hpp"
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
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

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
    qint64 modificationMSecs(const struct stat& st)
    {
      return qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000;
    }

    QDateTime modificationTime(const struct stat& st)
    {
      return QDateTime::fromMSecsSinceEpoch(modificationMSecs(st), Qt::UTC);
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
    /// share its engine cache between the threads that rebuild lists. Applied to a name's bytes as
    /// the disk has them: the characters filtered are ASCII, which every local file name encoding
    /// keeps as they are, so no name needs decoding for this.
    bool isFiltered(const char* name, size_t length)
    {
      static const size_t suffixLength = std::strlen(TemporarySuffix);
      if (length >= suffixLength && std::memcmp(name + length - suffixLength, TemporarySuffix, suffixLength) == 0)
        return true;
      return std::strpbrk(name, "\\:*?\"<>") != nullptr;
    }

    /// Whether `key` is `relative` followed by `name`, a name of ASCII characters only; compared
    /// without making the path, so that a rescan finds an unchanged file's row without allocating.
    /// False for any other name, which the caller then decodes and looks up.
    bool isAsciiPath(const QString& key, const QString& relative, const char* name, size_t length)
    {
      if (size_t(key.size()) != size_t(relative.size()) + length)
        return false;
      const QChar* chars = key.constData();
      if (std::memcmp(chars, relative.constData(), size_t(relative.size()) * sizeof(QChar)) != 0)
        return false;
      chars += relative.size();
      for (size_t i = 0; i < length; ++i) {
        const auto byte = static_cast<unsigned char>(name[i]);
        if (byte >= 0x80 || chars[i].unicode() != byte)
          return false;
      }
      return true;
    }

    /// Whether this process may read the file: decided from the mode bits where they settle it, so
    /// that a rescan costs one system call per file; access(2) otherwise (groups, lists).
    bool isReadable(int dirFd, const char* name, const struct stat& st)
    {
      static const uid_t user = geteuid();
      if (user == 0)
        return true;
      if (st.st_uid == user)
        return st.st_mode & S_IRUSR;
      return faccessat(dirFd, name, R_OK, AT_EACCESS) == 0;
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
    explicit D(const QString& root)
        : rootPath(canonicalRoot(root))
    {
    }

    void loadFileList();
    void saveFileList(const FileList& list);
    void publish() BASTION_REQUIRES(fileListMutex);

    /// A file found by the scan that must be hashed.
    struct Pending
    {
      QString path;
      QDateTime modified;
      /// A symbolic link that led to a regular file below the root when the scan met it.
      bool link = false;
    };

    /// One rebuild; the caller holds `rebuildMutex`.
    FileList rebuild(ProgressSender* progress) BASTION_REQUIRES(rebuildMutex);
    /// Runs the rebuilds asked for with `rebuildRequested` while no other is running, without
    /// waiting for one that is.
    void serveRebuildRequests() BASTION_NO_THREAD_SAFETY_ANALYSIS;
    /// One level of the directory scan of the folder open as `folder` (closed here); `relative`
    /// begins and ends with '/'. `cursor` walks `old` alongside the scan, which meets paths mostly
    /// in the list's order, so most lookups are one comparison. The rows of `old` whose file is
    /// unchanged go to `kept`, the files to hash to `toHash`.
    void scan(const RootDirectory& root, int folder, const QString& relative, int depth, const FileList& old,
              FileList::const_iterator& cursor, std::vector<FileList::const_iterator>& kept, QList<Pending>& toHash)
        BASTION_REQUIRES(fileListMutex, removeQueueMutex);
    /// Hashes one file through `root`; false (logged) when it is not a regular file below the root
    /// or cannot be read to its end.
    bool hash(const RootDirectory& root, const Pending& pending, QByteArray& block, FileInfo& row,
              ProgressSender* progress) const;

    /// Held for a whole rebuild, so that two never run side by side; the file list lock is taken only
    /// for the scan and for entering the result, never while files are hashed.
    Bastion::Mutex rebuildMutex;
    std::atomic<bool> rebuildRequested{false};

    Bastion::Mutex fileListMutex;
    FileList fileList BASTION_GUARDED_BY(fileListMutex);
    /// True when the saved array differs from `fileList` (a download added a row, or a rebuild was
    /// stopped before saving).
    bool fileListUnsaved BASTION_GUARDED_BY(fileListMutex) = false;
    /// True from a rebuild's scan until its result is entered.
    bool rebuilding BASTION_GUARDED_BY(fileListMutex) = false;
    /// Rows of downloads that finished while a rebuild hashed: newer than anything its scan saw.
    FileList enteredDuringRebuild BASTION_GUARDED_BY(fileListMutex);
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

  void AssetBase::D::scan(const RootDirectory& root, int folder, const QString& relative, int depth,
                          const FileList& old, FileList::const_iterator& cursor,
                          std::vector<FileList::const_iterator>& kept, QList<Pending>& toHash)
  {
    std::unique_ptr<DIR, DirCloser> dir(fdopendir(folder));
    if (!dir) {
      ::close(folder);
      return;
    }
    // The names go into one block per folder, each ended by its zero byte: nothing is allocated per
    // file, which on a rescan of unchanged files would cost as much as the rest of the work.
    std::vector<char> names;
    std::vector<size_t> starts;
    // Each scan reads its own directory stream, which is all readdir needs to be safe across threads.
    while (const dirent* entry = readdir(dir.get())) { // NOLINT(concurrency-mt-unsafe)
      const char* name = entry->d_name;
      if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0)
        continue;
      starts.push_back(names.size());
      names.insert(names.end(), name, name + std::strlen(name) + 1);
    }
    std::sort(starts.begin(), starts.end(),
              [&](size_t a, size_t b) { return std::strcmp(names.data() + a, names.data() + b) < 0; });
    const int folderFd = dirfd(dir.get());
    for (const size_t start : starts) {
      const char* encoded = names.data() + start;
      const size_t length = std::strlen(encoded);
      if (isFiltered(encoded, length))
        continue;
      struct stat st;
      if (fstatat(folderFd, encoded, &st, AT_SYMLINK_NOFOLLOW) != 0)
        continue;
      if (S_ISDIR(st.st_mode)) {
        const QString name = QFile::decodeName(QByteArray(encoded, int(length)));
        if (depth >= FileListDepthLimit) {
          Bastion::error("AssetBase::buildFileList # Not listing below %s: deeper than %d folders",
                         QFile::encodeName(rootPath + relative + name).constData(), FileListDepthLimit);
          continue;
        }
        // Opened from the folder just listed and never through a link, so the walk stays below the
        // root whatever is renamed or swapped meanwhile.
        const int child = ::openat(folderFd, encoded, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
        if (child >= 0)
          scan(root, child, relative + name + '/', depth + 1, old, cursor, kept, toHash);
        continue;
      }
      // Made only when needed: an unchanged file whose row is at the cursor never needs it.
      QString path;
      const auto makePath = [&] {
        if (path.isEmpty())
          path = relative + QFile::decodeName(QByteArray(encoded, int(length)));
        return path;
      };
      const bool link = S_ISLNK(st.st_mode);
      // A link is listed when it leads to a regular file below the root, judged as a transfer of the
      // file would judge it; a linked folder could lead back into itself and is never walked.
      if (link && (!root.stat(RootDirectory::encode(makePath()), st) || !S_ISREG(st.st_mode)))
        continue;
      if (!S_ISREG(st.st_mode) || !isReadable(folderFd, encoded, st))
        continue;
      if (!removeQueue.isEmpty() && removeQueue.contains(makePath()))
        continue;
      auto previous = old.cend();
      if (cursor != old.cend() && isAsciiPath(cursor.key(), relative, encoded, length))
        previous = cursor;
      else
        previous = cursor != old.cend() && cursor.key() == makePath() ? cursor : old.constFind(makePath());
      if (previous != old.cend())
        cursor = std::next(previous);
      // The same test as comparing the row's time with modificationTime(st), without making one.
      if (previous != old.cend() && previous->time.isValid() &&
          previous->time.toMSecsSinceEpoch() == modificationMSecs(st))
        kept.push_back(previous);
      else
        toHash.append({makePath(), modificationTime(st), link});
    }
  }

  bool AssetBase::D::hash(const RootDirectory& root, const Pending& pending, QByteArray& block, FileInfo& row,
                          ProgressSender* progress) const
  {
    const QString localName = rootPath + pending.path;
    // Non-blocking, so that a FIFO or a device swapped in after the scan cannot stall the rebuild in
    // open(); a regular file found by the scan is opened only if it still is one, never through a
    // link.
    const int fd = pending.link ? root.open(RootDirectory::encode(pending.path), O_RDONLY | O_NONBLOCK)
                                : root.open(RootDirectory::encode(pending.path), O_RDONLY | O_NONBLOCK | O_NOFOLLOW, 0,
                                            RootDirectory::Links::Refused);
    if (fd < 0) {
      tell(progress, QStringLiteral("Failed to open: %1").arg(pending.path));
      Bastion::error("Failed to open %s", localName.toUtf8().constData());
      return false;
    }
    struct stat st;
    if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
      ::close(fd);
      tell(progress, QStringLiteral("Not a regular file: %1").arg(pending.path));
      Bastion::error("AssetBase::buildFileList # Not hashing %s: not a regular file", localName.toUtf8().constData());
      return false;
    }
    QCryptographicHash hash(QCryptographicHash::Md5);
    qint64 size = 0;
    ssize_t got;
    while ((got = ::read(fd, block.data(), size_t(block.size()))) != 0) {
      if (got < 0 && errno == EINTR)
        continue;
      if (got < 0)
        break;
      hash.addData(block.constData(), int(got));
      size += got;
    }
    const int readError = errno;
    ::close(fd);
    if (got < 0) {
      // Not listed, so it is hashed again at the next rescan; a checksum of what could be read would
      // make every download of the file fail.
      tell(progress, QStringLiteral("Failed to read: %1").arg(pending.path));
      Bastion::error("AssetBase::buildFileList # Failed to read %s: %s", localName.toUtf8().constData(),
                     qt_error_string(readError).toUtf8().constData());
      return false;
    }
    // The time seen by the scan, before hashing: a change during the hashing shows as a newer time at
    // the next rescan and is hashed again.
    row.time = pending.modified;
    row.md5 = hash.result();
    row.size = size;
    row.stamp = Bastion::TimeStamp::getTime();
    return true;
  }

  AssetBase::AssetBase(const QString& root)
      : d(new D(root))
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
    FileList list;
    {
      Bastion::Guard rebuildGuard(d->rebuildMutex);
      d->rebuildRequested = false;
      list = d->rebuild(progress);
    }
    d->serveRebuildRequests();
    return list;
  }

  void AssetBase::D::serveRebuildRequests()
  {
    // A request made while a rebuild ran is served by whoever finishes one after it: its maker did
    // not wait.
    while (rebuildRequested && rebuildMutex.tryLock()) {
      rebuildRequested = false;
      rebuild(nullptr);
      rebuildMutex.unlock();
    }
  }

  AssetBase::FileList AssetBase::D::rebuild(ProgressSender* progress)
  {
    tell(progress, QStringLiteral("Scanning directory tree..."));
    const RootDirectory root(rootPath);
    FileList result;
    QList<Pending> toHash;
    // Whether the scan found every listed file unchanged and nothing new: then the list stays as it
    // is, and no copy of it is made (on a large tree, making one costs about as much as the scan).
    bool unchanged = false;
    {
      Bastion::Guard listGuard(fileListMutex);
      Bastion::Guard queueGuard(removeQueueMutex);
      rebuilding = true;
      enteredDuringRebuild.clear();
      const int top = root.open("/", O_RDONLY | O_DIRECTORY | O_NONBLOCK);
      FileList::const_iterator cursor = fileList.cbegin();
      std::vector<FileList::const_iterator> kept;
      kept.reserve(size_t(fileList.size()));
      if (top >= 0)
        scan(root, top, QStringLiteral("/"), 0, fileList, cursor, kept, toHash);
      unchanged = toHash.isEmpty() && kept.size() == size_t(fileList.size());
      if (!unchanged) {
        for (const FileList::const_iterator& row : kept)
          result.insert(result.cend(), row.key(), row.value());
      }
    }

    QByteArray block(FileHashBlockSize, Qt::Uninitialized);
    for (const Pending& pending : toHash) {
      if (!running)
        break;
      FileInfo row;
      if (!hash(root, pending, block, row, progress))
        continue;
      result.insert(pending.path, row);
      tell(progress, QStringLiteral("Generated checksums: %1").arg(pending.path));
    }

    Bastion::Guard listGuard(fileListMutex);
    // After an unchanged scan the list is already what it found, plus the rows of downloads that
    // finished meanwhile, which entered them into it and published it.
    if (!unchanged) {
      for (auto it = enteredDuringRebuild.cbegin(); it != enteredDuringRebuild.cend(); ++it)
        result.insert(it.key(), it.value());
    }
    // An unchanged list keeps its published snapshot: copying it again would cost more than the scan.
    // Without hashing, the new list holds old rows only, unchanged: it differs when it lost some.
    const bool differs =
        !unchanged && (!toHash.isEmpty() || !enteredDuringRebuild.isEmpty() || result.size() != fileList.size());
    const bool changed = fileListUnsaved || differs;
    rebuilding = false;
    enteredDuringRebuild.clear();
    if (differs) {
      fileList = result;
      publish();
    }
    if (running) {
      // An unchanged list is not written again: rewriting every row costs more than the whole rescan.
      if (changed)
        saveFileList(fileList);
      fileListUnsaved = false;
    } else {
      fileListUnsaved = true;
    }
    tell(progress, QStringLiteral("Checksum list generated"));
    // The published snapshot is never changed and its strings are its own, so handing out a shared
    // copy of it costs nothing and releases nothing on two threads that Qt counted inside its library.
    Bastion::Guard guard(snapshotMutex);
    return *snapshot;
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
      if (d->rebuilding)
        d->enteredDuringRebuild.insert(deepCopy(path), row);
      d->fileListUnsaved = true;
      d->publish();
    }
    Bastion::Guard guard(d->downloadMutex);
    const bool removed = d->downloadList.remove(path) > 0;
    if (removed && d->downloadList.isEmpty()) {
      // A rebuild that is hashing already does this one's work when it ends: the connection that
      // finished the download must not wait for it.
      d->rebuildRequested = true;
      d->serveRebuildRequests();
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

  void AssetBase::addFileToRemoveQueue(const QString& path, const std::shared_ptr<ConnectionThread>& connection)
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
    const RootDirectory root(d->rootPath);
    QString relative = FileTransferCommand::canonicalPath(path);
    if (relative.isEmpty() || !root.remove(RootDirectory::encode(relative), RootDirectory::Links::Refused))
      return false;
    // rmdir only takes empty folders; the walk follows no link and stops below the root.
    for (relative.truncate(relative.lastIndexOf('/')); !relative.isEmpty();
         relative.truncate(relative.lastIndexOf('/'))) {
      if (!root.removeDirectory(RootDirectory::encode(relative)))
        break;
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
