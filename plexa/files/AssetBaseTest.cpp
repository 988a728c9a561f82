#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTestSupport.hpp"
#include "plexa/files/FileTransferFormat.hpp"
#include "plexa/files/ProgressSender.hpp"

#include "bastion/LogCapture.hpp"

#include <QSettings>

#include <gtest/gtest.h>

#include <atomic>
#include <sys/stat.h>
#include <thread>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  /// Records every progress text; an optional hook runs on each one (on the rebuilding thread).
  class RecordingProgress : public ProgressSender
  {
  public:
    void transferInfo(const QString& text) override
    {
      texts.append(text);
      if (hook)
        hook(text);
    }
    int hashed() const { return texts.filter(QStringLiteral("Generated checksums: ")).size(); }

    QStringList texts;
    std::function<void(const QString&)> hook;
  };

  class CountingStore : public AssetBase
  {
  public:
    using AssetBase::AssetBase;
    void transferFinished() override { ++finished; }
    std::atomic<int> finished{0};
  };

  class AssetBaseTest : public ::testing::Test
  {
  protected:
    QString file(const QString& path) const { return m_root.path() + path; }
    QString root() const { return m_root.path(); }
    bool put(const QString& path, const QByteArray& bytes, qint64 mtime = 1600000000)
    {
      return writeFile(file(path), bytes) && setModificationTime(file(path), mtime);
    }
    /// The saved rows of `rootPath`, read back through QSettings: path -> md5 hex.
    static QMap<QString, QString> savedRows(const QString& rootPath)
    {
      QSettings store(QStringLiteral("Brandwick"), QStringLiteral("Cache"));
      QMap<QString, QString> rows;
      const int count = store.beginReadArray(QStringLiteral("FileList/") + rootPath);
      for (int i = 0; i < count; ++i) {
        store.setArrayIndex(i);
        rows.insert(store.value("file").toString(), QString::fromLatin1(store.value("MD5").toByteArray().toHex()));
      }
      store.endArray();
      return rows;
    }

    QTemporaryDir m_root;
  };
}

TEST_F(AssetBaseTest, RebuildHashesOnlyNewOrChangedFiles)
{
  ASSERT_TRUE(put("/a.txt", "alpha"));
  ASSERT_TRUE(put("/sub/deeper/b.bin", randomBytes(10000, 1)));
  ASSERT_TRUE(put("/.hidden", "h"));
  AssetBase store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  EXPECT_EQ(store.md5("/a.txt"), md5Hex("alpha"));
  EXPECT_EQ(store.md5("/sub/deeper/b.bin"), md5Hex(randomBytes(10000, 1)));
  EXPECT_EQ(store.md5("/.hidden"), md5Hex("h"));
  EXPECT_EQ(store.md5("/missing"), QString());
  EXPECT_EQ(store.fileList().value("/sub/deeper/b.bin").size, 10000);

  RecordingProgress nothingChanged;
  store.buildFileList(&nothingChanged);
  EXPECT_EQ(nothingChanged.hashed(), 0);
  EXPECT_EQ(nothingChanged.texts.first(), "Scanning directory tree...");
  EXPECT_EQ(nothingChanged.texts.last(), "Checksum list generated");

  // Same modification time: the row is kept even though the bytes differ. New time, same bytes:
  // hashed again. A new file is hashed, a deleted one drops out.
  ASSERT_TRUE(put("/a.txt", "ALPHA"));
  ASSERT_TRUE(put("/sub/deeper/b.bin", randomBytes(10000, 1), 1600000100));
  ASSERT_TRUE(put("/c.txt", "gamma"));
  ASSERT_TRUE(QFile::remove(file("/.hidden")));
  RecordingProgress changed;
  const AssetBase::FileList list = store.buildFileList(&changed);
  EXPECT_EQ(changed.texts, QStringList({"Scanning directory tree...", "Generated checksums: /c.txt",
                                        "Generated checksums: /sub/deeper/b.bin", "Checksum list generated"}));
  EXPECT_EQ(store.md5("/a.txt"), md5Hex("alpha"));
  EXPECT_EQ(store.md5("/c.txt"), md5Hex("gamma"));
  EXPECT_EQ(list.keys(), QStringList({"/a.txt", "/c.txt", "/sub/deeper/b.bin"}));
  EXPECT_EQ(store.fileList().keys(), list.keys());
}

// A rescan finds old rows by walking the list alongside the folders, falling back to a lookup when
// the walk meets them in another order ("/a/x" is walked before "/a-b" but sorts after it) or a
// row goes missing: the list it returns is still exactly the files present, with their rows.
// Names beyond ASCII are found too (in UTF-8, "\u00e9" is the bytes that spell "\u00c3\u00a9" in
// Latin-1: neither may be taken for the other's row).
TEST_F(AssetBaseTest, RescanKeepsExactlyThePresentRowsWhateverTheWalkOrder)
{
  const QStringList paths{
      "/a-b", "/a/x", "/a/y", "/b", "/c/d/e", "/c/f", "/z", QStringLiteral("/\u00c3\u00a9"), QStringLiteral("/\u00e9")};
  for (int i = 0; i < paths.size(); ++i)
    ASSERT_TRUE(put(paths[i], "file " + QByteArray::number(i)));
  AssetBase store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  ASSERT_EQ(store.fileList().keys(), paths);

  RecordingProgress unchanged;
  EXPECT_EQ(store.buildFileList(&unchanged).keys(), paths);
  EXPECT_EQ(unchanged.hashed(), 0);
  ASSERT_TRUE(put(QStringLiteral("/\u00e9"), "file 8", 1600000100));
  RecordingProgress touched;
  store.buildFileList(&touched);
  EXPECT_EQ(touched.texts.filter("Generated checksums: "), QStringList(QStringLiteral("Generated checksums: /\u00e9")));

  // Rows gone from the middle and the start, nothing new: no hashing, the rest kept.
  for (const QString& gone : {paths[2], paths[0], paths[7]})
    ASSERT_TRUE(QFile::remove(file(gone)));
  RecordingProgress removed;
  const AssetBase::FileList list = store.buildFileList(&removed);
  EXPECT_EQ(removed.hashed(), 0);
  EXPECT_EQ(list.keys(), QStringList({"/a/x", "/b", "/c/d/e", "/c/f", "/z", paths[8]}));
  for (const QString& path : list.keys())
    EXPECT_EQ(list.value(path).md5.toHex(), md5Hex("file " + QByteArray::number(paths.indexOf(path))).toLatin1())
        << path.toUtf8().constData();
  EXPECT_EQ(store.fileList().keys(), list.keys());
  EXPECT_EQ(savedRows(store.rootPath()).keys(), list.keys());

  // Now the walk meets the rows in order until one is missing, in the middle and at the end.
  for (const QString& gone : {paths[3], paths[8]}) {
    ASSERT_TRUE(QFile::remove(file(gone)));
    QStringList expected = store.fileList().keys();
    expected.removeOne(gone);
    RecordingProgress progress;
    EXPECT_EQ(store.buildFileList(&progress).keys(), expected) << gone.toStdString();
    EXPECT_EQ(progress.hashed(), 0);
    EXPECT_EQ(savedRows(store.rootPath()).keys(), expected);
  }
}

TEST_F(AssetBaseTest, SavedListSurvivesRestartUnderCanonicalRoot)
{
  ASSERT_TRUE(put("/a.txt", "alpha"));
  ASSERT_TRUE(put("/d/b.txt", "beta"));
  QTemporaryDir links;
  const QString link = links.path() + "/link";
  ASSERT_TRUE(QFile::link(root(), link));
  const QString canonical = QFileInfo(root()).canonicalFilePath();
  {
    AssetBase store(link + "//");
    EXPECT_EQ(store.rootPath(), canonical);
    ASSERT_TRUE(store.waitForFileList(10000));
  }
  const QMap<QString, QString> saved = savedRows(canonical);
  EXPECT_EQ(saved.value("/a.txt"), md5Hex("alpha"));
  EXPECT_EQ(saved.value("/d/b.txt"), md5Hex("beta"));
  EXPECT_EQ(saved.size(), 2);

  // The content changes behind the store's back with the same time: a restarted store keeps the
  // saved checksum, which shows the row came from the settings and was not hashed again.
  ASSERT_TRUE(put("/a.txt", "ALPHA"));
  AssetBase again(root());
  EXPECT_EQ(again.md5("/a.txt"), md5Hex("alpha"));
  ASSERT_TRUE(again.waitForFileList(10000));
  EXPECT_EQ(again.md5("/a.txt"), md5Hex("alpha"));
  EXPECT_EQ(again.md5("/d/b.txt"), md5Hex("beta"));
}

TEST_F(AssetBaseTest, FiltersAndRemoveQueueHideFiles)
{
  ASSERT_TRUE(put("/kept.txt", "k"));
  ASSERT_TRUE(put("/x.bin.filesync.part", "partial"));
  for (const char* name : {"/a:b", "/q?.txt", "/s*", "/l<", "/g>", "/quote\"", "/back\\slash"})
    ASSERT_TRUE(put(name, "reserved")) << name;
  ASSERT_TRUE(put("/queued/gone.txt", "still on disk"));
  AssetBase store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  store.addFileToRemoveQueue("/queued/gone.txt", nullptr);
  EXPECT_FALSE(store.md5("/queued/gone.txt").isEmpty());
  store.buildFileList(nullptr);
  EXPECT_EQ(store.fileList().keys(), QStringList({"/kept.txt"}));
  EXPECT_TRUE(QFile::exists(file("/queued/gone.txt")));
  EXPECT_EQ(store.removeQueue().keys(), QStringList({"/queued/gone.txt"}));
  EXPECT_TRUE(store.removeFromRemoveQueue("/queued/gone.txt"));
  EXPECT_FALSE(store.removeFromRemoveQueue("/queued/gone.txt"));
  store.buildFileList(nullptr);
  EXPECT_EQ(store.fileList().keys(), QStringList({"/kept.txt", "/queued/gone.txt"}));
}

TEST_F(AssetBaseTest, FileThatCannotBeOpenedIsSkipped)
{
  AssetBase store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  ASSERT_TRUE(put("/a.txt", "alpha"));
  ASSERT_TRUE(put("/b.txt", "beta"));
  // Files are hashed in name order: /b.txt disappears between the scan and its hashing.
  RecordingProgress progress;
  progress.hook = [&](const QString& text) {
    if (text == "Generated checksums: /a.txt")
      QFile::remove(file("/b.txt"));
  };
  Bastion::LogCapture log;
  store.buildFileList(&progress);
  EXPECT_TRUE(progress.texts.contains("Failed to open: /b.txt"));
  EXPECT_TRUE(
      log.contains(Bastion::LogLevel::Error, "Failed to open " + QFile::encodeName(store.rootPath() + "/b.txt")));
  EXPECT_EQ(store.fileList().keys(), QStringList({"/a.txt"}));
  EXPECT_EQ(savedRows(store.rootPath()).keys(), QStringList({"/a.txt"}));
}

// Files swapped after the scan: for a link out of the root, a FIFO (which would block a plain open
// for good) and a folder turned into a link out of the root, nothing is hashed and nothing hangs.
TEST_F(AssetBaseTest, HashingStaysBelowTheRootAndTakesOnlyRegularFiles)
{
  QTemporaryDir outside;
  ASSERT_TRUE(writeFile(outside.path() + "/secret", "secret"));
  ASSERT_TRUE(writeFile(outside.path() + "/e.txt", "outside e"));
  AssetBase store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  for (const char* path : {"/a.txt", "/b.txt", "/c.txt", "/d/e.txt"})
    ASSERT_TRUE(put(path, path));
  RecordingProgress progress;
  progress.hook = [&](const QString& text) {
    if (text != "Generated checksums: /a.txt")
      return;
    QFile::remove(file("/b.txt"));
    QFile::link(outside.path() + "/secret", file("/b.txt"));
    QFile::remove(file("/c.txt"));
    mkfifo(QFile::encodeName(file("/c.txt")).constData(), 0666);
    QDir(file("/d")).removeRecursively();
    QFile::link(outside.path(), file("/d"));
  };
  Bastion::LogCapture log;
  store.buildFileList(&progress);
  EXPECT_EQ(store.fileList().keys(), QStringList({"/a.txt"}));
  EXPECT_EQ(log.countContaining("Failed to open " + QFile::encodeName(store.rootPath() + "/b.txt")), 1);
  EXPECT_EQ(
      log.countContaining("Not hashing " + QFile::encodeName(store.rootPath() + "/c.txt") + ": not a regular file"), 1);
  EXPECT_EQ(log.countContaining("Failed to open " + QFile::encodeName(store.rootPath() + "/d/e.txt")), 1);
}

TEST_F(AssetBaseTest, FoldersDeeperThanTheLimitAreNotListed)
{
  QString deepest;
  for (int depth = 0; depth <= FileListDepthLimit; ++depth)
    deepest += "/d";
  ASSERT_TRUE(put(deepest.left(deepest.size() - 2) + "/kept", "at the limit"));
  ASSERT_TRUE(put(deepest + "/dropped", "below the limit"));
  Bastion::LogCapture log;
  AssetBase store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  EXPECT_EQ(store.fileList().keys(), QStringList({deepest.left(deepest.size() - 2) + "/kept"}));
  EXPECT_EQ(log.countContaining(QByteArray("deeper than ") + QByteArray::number(FileListDepthLimit) + " folders"), 1);
}

TEST_F(AssetBaseTest, FileThatCannotBeReadIsLeftOutAndHashedAgain)
{
  // The process's security attributes are regular files whose reads fail where no security module
  // answers them: a read error on a real file system is hard to come by.
  const QString attributes = QFileInfo("/proc/self/attr").canonicalFilePath();
  QFile probe(attributes + "/current");
  char byte;
  if (!probe.open(QIODevice::ReadOnly | QIODevice::Unbuffered) || probe.read(&byte, 1) >= 0)
    GTEST_SKIP() << "reading " << attributes.toStdString() << "/current does not fail here";
  Bastion::LogCapture log;
  const QByteArray failure = "Failed to read " + QFile::encodeName(attributes) + "/current: ";
  AssetBase store(attributes);
  ASSERT_TRUE(store.waitForFileList(10000));
  EXPECT_FALSE(store.fileList().contains("/current"));
  EXPECT_FALSE(savedRows(attributes).contains("/current"));
  EXPECT_EQ(log.countContaining(failure), 1);
  store.buildFileList(nullptr);
  EXPECT_EQ(log.countContaining(failure), 2);
  EXPECT_FALSE(store.fileList().contains("/current"));
}

TEST_F(AssetBaseTest, DownloadListBookkeeping)
{
  AssetBase store(root());
  const Bastion::TimeStamp first = Bastion::TimeStamp::fromValue(1), second = Bastion::TimeStamp::fromValue(2);
  const QString announced = md5Hex("hello world");

  EXPECT_EQ(store.totalParts("/f"), -1);
  EXPECT_EQ(store.currentParts("/f"), -1);
  EXPECT_FALSE(store.increasePartCount("/f"));
  EXPECT_FALSE(store.downloadListStartTime("/f").isValid());
  EXPECT_EQ(store.downloadListMD5("/f"), QString());
  EXPECT_EQ(store.downloadListPartMD5("/f"), QString());
  store.downloadListAddHashData("/f", QByteArray("ignored"));
  EXPECT_FALSE(store.isDownloading("/f"));

  ASSERT_TRUE(store.addFileToDownloadList("/f", 11, 1, announced, first));
  EXPECT_FALSE(store.addFileToDownloadList("/f", 99, 9, md5Hex("other"), second));
  EXPECT_TRUE(store.isDownloading("/f"));
  EXPECT_EQ(store.totalParts("/f"), 1);
  EXPECT_EQ(store.currentParts("/f"), 0);
  EXPECT_TRUE(store.downloadListStartTime("/f").isValid());
  EXPECT_EQ(store.downloadListMD5("/f"), announced);
  store.downloadListAddHashData("/f", QByteArray("hello "));
  EXPECT_EQ(store.downloadListPartMD5("/f"), md5Hex("hello "));
  store.downloadListAddHashData("/f", QByteArray("world"));
  EXPECT_TRUE(store.increasePartCount("/f"));
  EXPECT_EQ(store.currentParts("/f"), 1);
  EXPECT_EQ(store.downloadListPartMD5("/f"), announced);

  // Clearing one connection's downloads deletes the temporary files of those that got a part and
  // leaves the other connection's downloads alone.
  ASSERT_TRUE(store.addFileToDownloadList("/g", 5, 1, announced, first));
  ASSERT_TRUE(store.addFileToDownloadList("/h", 5, 1, announced, second));
  ASSERT_TRUE(writeFile(file("/f.filesync.part"), "hello world"));
  ASSERT_TRUE(writeFile(file("/g.filesync.part"), "not ours"));
  ASSERT_TRUE(writeFile(file("/h.filesync.part"), "theirs"));
  ASSERT_TRUE(store.increasePartCount("/h"));
  store.clearDownloadList(first);
  EXPECT_FALSE(store.isDownloading("/f"));
  EXPECT_FALSE(store.isDownloading("/g"));
  EXPECT_TRUE(store.isDownloading("/h"));
  EXPECT_FALSE(QFile::exists(file("/f.filesync.part")));
  EXPECT_TRUE(QFile::exists(file("/g.filesync.part")));
  EXPECT_TRUE(QFile::exists(file("/h.filesync.part")));
}

TEST_F(AssetBaseTest, FinishedDownloadEntersFileListAndRebuildsWhenLast)
{
  CountingStore store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  const Bastion::TimeStamp owner = Bastion::TimeStamp::fromValue(7);
  // The announced checksum differs from the bytes on disk, so any hashing of /one would show.
  ASSERT_TRUE(store.addFileToDownloadList("/one", 3, 1, md5Hex("announced"), owner));
  ASSERT_TRUE(store.addFileToDownloadList("/two", 3, 1, md5Hex("two"), owner));
  ASSERT_TRUE(put("/one", "one"));

  EXPECT_TRUE(store.removeFileFromDownloadList("/one", true));
  EXPECT_EQ(store.md5("/one"), md5Hex("announced"));
  EXPECT_EQ(store.finished, 0);
  EXPECT_FALSE(store.removeFileFromDownloadList("/one", true));

  EXPECT_TRUE(store.removeFileFromDownloadList("/two", false));
  EXPECT_EQ(store.finished, 1);
  EXPECT_EQ(store.md5("/two"), QString());
  // The row made from the download carries the file's own time, so the rebuild kept it unhashed.
  EXPECT_EQ(savedRows(store.rootPath()).value("/one"), md5Hex("announced"));
  RecordingProgress progress;
  store.buildFileList(&progress);
  EXPECT_EQ(progress.hashed(), 0);
}

TEST_F(AssetBaseTest, RemoveFileAndEmptyFoldersStopsAtRoot)
{
  ASSERT_TRUE(put("/a/b/c.txt", "c"));
  ASSERT_TRUE(put("/x/y/z.txt", "z"));
  ASSERT_TRUE(put("/x/keep.txt", "k"));
  ASSERT_TRUE(put("/top.txt", "t"));
  AssetBase store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  EXPECT_TRUE(store.removeFileAndEmptyFolders("/a/b/c.txt"));
  EXPECT_FALSE(QFileInfo::exists(file("/a")));
  EXPECT_TRUE(QFileInfo::exists(root()));
  EXPECT_TRUE(store.removeFileAndEmptyFolders("/x/y/z.txt"));
  EXPECT_FALSE(QFileInfo::exists(file("/x/y")));
  EXPECT_TRUE(QFileInfo::exists(file("/x/keep.txt")));
  EXPECT_TRUE(store.removeFileAndEmptyFolders("/top.txt"));
  EXPECT_TRUE(QFileInfo::exists(root()));
  EXPECT_FALSE(store.removeFileAndEmptyFolders("/top.txt"));

  // Nothing outside the root, and no link followed: a link is removed itself.
  QTemporaryDir outside;
  ASSERT_TRUE(writeFile(outside.path() + "/sub/secret", "secret"));
  ASSERT_TRUE(QFile::link(outside.path(), file("/out")));
  ASSERT_TRUE(QFile::link("x", file("/inner")));
  ASSERT_TRUE(QFile::link(outside.path() + "/sub/secret", file("/secret-link")));
  EXPECT_FALSE(store.removeFileAndEmptyFolders("/out/sub/secret"));
  EXPECT_FALSE(store.removeFileAndEmptyFolders("/../" + QFileInfo(outside.path()).fileName() + "/sub/secret"));
  EXPECT_TRUE(QFileInfo::exists(outside.path() + "/sub/secret"));
  EXPECT_FALSE(store.removeFileAndEmptyFolders("/inner/keep.txt"));
  EXPECT_TRUE(QFileInfo::exists(file("/x/keep.txt")));
  EXPECT_TRUE(store.removeFileAndEmptyFolders("/secret-link"));
  EXPECT_FALSE(QFileInfo(file("/secret-link")).isSymLink());
  EXPECT_EQ(readFile(outside.path() + "/sub/secret"), "secret");
}

TEST_F(AssetBaseTest, FinishedDownloadDoesNotWaitForRebuildHashing)
{
  CountingStore store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  ASSERT_TRUE(put("/a.txt", "alpha"));
  ASSERT_TRUE(store.addFileToDownloadList("/dl", 3, 1, md5Hex("announced"), Bastion::TimeStamp::fromValue(1)));
  Signal hashing, release, finished;
  RecordingProgress progress;
  progress.hook = [&](const QString& text) {
    if (text == "Generated checksums: /a.txt") {
      hashing.raise();
      release.wait(1, 10000);
    }
  };
  std::thread rebuild([&] { store.buildFileList(&progress); });
  ASSERT_TRUE(hashing.wait());
  ASSERT_TRUE(put("/dl", "dl"));
  std::thread download([&] {
    store.removeFileFromDownloadList("/dl", true);
    finished.raise();
  });
  EXPECT_TRUE(finished.wait(1, 5000));
  EXPECT_EQ(store.md5("/dl"), md5Hex("announced"));
  release.raise();
  rebuild.join();
  download.join();
  // The rebuild kept the download's row, and rescanned for it as it ended.
  EXPECT_EQ(store.finished, 1);
  EXPECT_EQ(store.md5("/dl"), md5Hex("announced"));
  EXPECT_EQ(savedRows(store.rootPath()).value("/dl"), md5Hex("announced"));
  EXPECT_EQ(store.md5("/a.txt"), md5Hex("alpha"));
}

TEST_F(AssetBaseTest, Md5NeverWaitsForRebuildInProgress)
{
  ASSERT_TRUE(put("/a.txt", "alpha"));
  AssetBase store(root());
  ASSERT_TRUE(store.waitForFileList(10000));
  ASSERT_TRUE(put("/b.txt", "beta"));
  Signal inside, release;
  RecordingProgress progress;
  progress.hook = [&](const QString& text) {
    if (text == "Scanning directory tree...") {
      inside.raise();
      release.wait(1, 10000);
    }
  };
  std::thread rebuild([&] { store.buildFileList(&progress); });
  ASSERT_TRUE(inside.wait());
  // The rebuild holds the file list lock right now; lookups answer from the published list.
  EXPECT_EQ(store.md5("/a.txt"), md5Hex("alpha"));
  EXPECT_EQ(store.md5("/b.txt"), QString());
  release.raise();
  rebuild.join();
  EXPECT_EQ(store.md5("/b.txt"), md5Hex("beta"));
}

TEST_F(AssetBaseTest, ConcurrentDownloadsAndRebuildsKeepLockOrder)
{
  for (int i = 0; i < 20; ++i)
    ASSERT_TRUE(put(QStringLiteral("/f%1").arg(i), QByteArray::number(i)));
  CountingStore store(root());
  std::atomic<bool> stop{false};
  std::thread rebuilder([&] {
    while (!stop)
      store.buildFileList(nullptr);
  });
  std::thread reader([&] {
    while (!stop)
      (void)store.md5("/f3");
  });
  auto downloader = [&](int id) {
    const Bastion::TimeStamp owner = Bastion::TimeStamp::fromValue(id);
    for (int round = 0; round < 30; ++round) {
      const QString path = QStringLiteral("/dl%1-%2").arg(id).arg(round);
      if (!store.addFileToDownloadList(path, 1, 1, md5Hex("x"), owner))
        continue;
      store.downloadListAddHashData(path, "x");
      store.increasePartCount(path);
      (void)store.downloadListPartMD5(path);
      store.removeFileFromDownloadList(path, round % 2 == 0);
      store.addFileToRemoveQueue(path, nullptr);
    }
    store.clearDownloadList(owner);
  };
  std::thread d1(downloader, 1), d2(downloader, 2);
  d1.join();
  d2.join();
  stop = true;
  rebuilder.join();
  reader.join();
  EXPECT_GE(store.finished, 1);
  EXPECT_EQ(store.md5("/f3"), md5Hex("3"));
}
