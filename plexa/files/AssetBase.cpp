#include "plexa/files/AssetBase.hpp"

#include "plexa/files/FileListThread.hpp"
#include "plexa/files/FileTransferFormat.hpp"
#include "plexa/files/ProgressSender.hpp"
#include "plexa/files/RootDirectory.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/Mutex.hpp"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegExp>
#include <QSettings>

#include <atomic>

namespace Plexa
{
  namespace
  {
    bool sameFile(const AssetBase::FileInfo& a, const AssetBase::FileInfo& b)
    {
      return a.time == b.time && a.md5 == b.md5 && a.size == b.size;
    }

    bool sameList(const AssetBase::FileList& a, const AssetBase::FileList& b)
    {
      if (a.size() != b.size())
        return false;
      for (auto ia = a.cbegin(), ib = b.cbegin(); ia != a.cend(); ++ia, ++ib)
        if (ia.key() != ib.key() || !sameFile(ia.value(), ib.value()))
          return false;
      return true;
    }

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

    /// Modification time as QFileInfo::lastModified reports it (milliseconds, truncated), so that
    /// the row made for a received file survives the next rescan unchanged.
    QDateTime modificationTime(const struct stat& st)
    {
      return QDateTime::fromMSecsSinceEpoch(qint64(st.st_mtim.tv_sec) * 1000 + st.st_mtim.tv_nsec / 1000000);
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
    void scan(const QString& relative, const FileList& old, FileList& result, QStringList& toHash)
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

    // Filters of the scan: temporary download files, and names that the transfer lines cannot carry.
    // Built per scan, since QRegExp keeps match state and is not to be shared between threads.
    static constexpr const char* TemporaryFilter = "*.filesync.part";
    static constexpr const char* ReservedCharacterFilter = "*[\\:*?\"<>]*";
  };

  void AssetBase::D::loadFileList()
  {
    QSettings store(QStringLiteral("Brandwick"), QStringLiteral("Cache"));
    const int count = store.beginReadArray(settingsArray(rootPath));
    FileList loaded;
    const Bastion::TimeStamp now = Bastion::TimeStamp::getTime();
    for (int i = 0; i < count; ++i) {
      store.setArrayIndex(i);
      FileInfo row;
      row.size = store.value(QStringLiteral("size")).toLongLong();
      row.md5 = store.value(QStringLiteral("MD5")).toByteArray();
      row.time = store.value(QStringLiteral("ts")).toDateTime();
      row.stamp = now;
      loaded.insert(store.value(QStringLiteral("file")).toString(), row);
    }
    store.endArray();
    Bastion::Guard guard(fileListMutex);
    fileList = loaded;
    publish();
  }

  void AssetBase::D::saveFileList(const FileList& list)
  {
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
    auto published = std::make_shared<const FileList>(fileList);
    Bastion::Guard guard(snapshotMutex);
    snapshot = std::move(published);
  }

  void AssetBase::D::scan(const QString& relative, const FileList& old, FileList& result, QStringList& toHash)
  {
    const QRegExp temporary(QString::fromLatin1(TemporaryFilter), Qt::CaseSensitive, QRegExp::Wildcard);
    const QRegExp reserved(QString::fromLatin1(ReservedCharacterFilter), Qt::CaseSensitive, QRegExp::Wildcard);
    const QDir dir(rootPath + relative);
    const QFileInfoList entries =
      dir.entryInfoList(QDir::Files | QDir::Readable | QDir::Dirs | QDir::NoDotAndDotDot | QDir::Hidden, QDir::Name);
    for (const QFileInfo& entry : entries) {
      const QString name = entry.fileName();
      if (temporary.exactMatch(name) || reserved.exactMatch(name))
        continue;
      if (entry.isDir()) {
        // A linked folder could lead out of the root or back into itself.
        if (!entry.isSymLink())
          scan(relative + name + '/', old, result, toHash);
        continue;
      }
      if (!entry.isFile())
        continue;
      if (entry.isSymLink() && !entry.canonicalFilePath().startsWith(rootPath + '/'))
        continue;
      const QString path = relative + name;
      if (removeQueue.contains(path))
        continue;
      auto previous = old.constFind(path);
      if (previous != old.cend() && previous->time == entry.lastModified())
        result.insert(path, *previous);
      else
        toHash.append(path);
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
    QStringList toHash;
    {
      Bastion::Guard queueGuard(d->removeQueueMutex);
      d->scan(QStringLiteral("/"), d->fileList, result, toHash);
    }

    QByteArray block(FileHashBlockSize, Qt::Uninitialized);
    for (const QString& path : toHash) {
      if (!d->running)
        break;
      const QString localName = d->rootPath + path;
      QFile file(localName);
      if (!file.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        tell(progress, QStringLiteral("Failed to open: %1").arg(path));
        Bastion::error("Failed to open %s", localName.toUtf8().constData());
        continue;
      }
      QCryptographicHash hash(QCryptographicHash::Md5);
      qint64 got;
      while ((got = file.read(block.data(), block.size())) > 0)
        hash.addData(block.constData(), int(got));
      FileInfo row;
      row.time = QFileInfo(file).lastModified();
      row.md5 = hash.result();
      row.size = file.size();
      row.stamp = Bastion::TimeStamp::getTime();
      result.insert(path, row);
      tell(progress, QStringLiteral("Generated checksums: %1").arg(path));
    }

    const bool changed = d->fileListUnsaved || !sameList(result, d->fileList);
    d->fileList = result;
    d->publish();
    if (d->running) {
      // An unchanged list is not written again: rewriting every row costs more than the whole rescan.
      if (changed)
        d->saveFileList(result);
      d->fileListUnsaved = false;
    } else {
      d->fileListUnsaved = true;
    }
    tell(progress, QStringLiteral("Checksum list generated"));
    return result;
  }

  bool AssetBase::waitForFileList(int timeoutMs)
  {
    return d->thread->waitEnd(timeoutMs);
  }

  AssetBase::FileList AssetBase::fileList() const
  {
    Bastion::Guard guard(d->snapshotMutex);
    return *d->snapshot;
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
    row.time = QDateTime::currentDateTime();
    row.md5 = QByteArray::fromHex(md5Hex.toLatin1());
    row.size = size;
    row.totalParts = parts;
    row.currentParts = 0;
    row.hash = std::make_shared<QCryptographicHash>(QCryptographicHash::Md5);
    row.stamp = owner;
    d->downloadList.insert(path, row);
    return true;
  }

  bool AssetBase::isDownloading(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    return d->downloadList.contains(path);
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
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.find(path);
    if (it != d->downloadList.end())
      it->hash->addData(data);
  }

  QString AssetBase::downloadListMD5(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it == d->downloadList.cend() ? QString() : QString::fromLatin1(it->md5.toHex());
  }

  QString AssetBase::downloadListPartMD5(const QString& path) const
  {
    Bastion::Guard guard(d->downloadMutex);
    auto it = d->downloadList.constFind(path);
    return it == d->downloadList.cend() ? QString() : QString::fromLatin1(it->hash->result().toHex());
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
      row.time = root.stat(RootDirectory::encode(path), st) ? modificationTime(st) : QDateTime::currentDateTime();
      row.md5 = download.md5;
      row.size = download.size;
      row.stamp = Bastion::TimeStamp::getTime();
      Bastion::Guard guard(d->fileListMutex);
      d->fileList.insert(path, row);
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
    d->removeQueue[path].append(connection);
  }

  AssetBase::RemoveQueue AssetBase::removeQueue() const
  {
    Bastion::Guard guard(d->removeQueueMutex);
    return d->removeQueue;
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
