#include "plexa/files/FileTransferHandler.hpp"
#include "plexa/files/FileTransferFormat.hpp"
#include "plexa/files/FileTransferTestSupport.hpp"
#include "plexa/files/RootDirectory.hpp"
#include "plexa/net/NetFormat.hpp"

#include "bastion/BGThread.hpp"
#include "bastion/Guard.hpp"
#include "bastion/LogCapture.hpp"

#include <gtest/gtest.h>

#include <atomic>
#include <sys/syscall.h>
#include <thread>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  Bastion::Mutex g_syncMutex;
  /// "fdatasync <file>" and "fsync <file>" for every such call of the process, in order.
  QStringList g_syncs;
  /// Makes fdatasync fail with EIO, as a failing disk would.
  std::atomic<bool> g_failDataSync{false};

  void recordSync(const char* call, int fd)
  {
    const QString file = QFile::symLinkTarget(QStringLiteral("/proc/self/fd/%1").arg(fd));
    Bastion::Guard lock(g_syncMutex);
    g_syncs.append(QString::fromLatin1(call) + ' ' + file);
  }

  QStringList syncs()
  {
    Bastion::Guard lock(g_syncMutex);
    return g_syncs;
  }
}

// These stand in for the C library's calls of the library under test, so that the tests see when
// data and folders are flushed.
extern "C" int fdatasync(int fd)
{
  recordSync("fdatasync", fd);
  if (g_failDataSync) {
    errno = EIO;
    return -1;
  }
  return int(syscall(SYS_fdatasync, fd));
}

extern "C" int fsync(int fd)
{
  recordSync("fsync", fd);
  return int(syscall(SYS_fsync, fd));
}

namespace
{
  /// A handler with its store over a temporary root, connected to a RawPeer that plays the other end.
  class FileTransferHandlerTest : public ::testing::TestWithParam<bool>
  {
  protected:
    void SetUp() override
    {
      RootDirectory::setKernelResolveEnabled(GetParam());
      ASSERT_TRUE(writeFile(root() + "/known.txt", "known"));
      ASSERT_TRUE(writeFile(m_outside.path() + "/secret", "secret"));
      ASSERT_TRUE(QFile::link(m_outside.path(), root() + "/out"));
      ASSERT_TRUE(QFile::link(m_outside.path() + "/secret", root() + "/secret-link"));
      m_store.reset(new NotifyingStore(root()));
      ASSERT_TRUE(m_store->waitForFileList(10000));
      std::tie(m_handler, m_peer) = connectPair<TestHandler, RawPeer>(
          [&](Bastion::TCPSocket* socket) { return std::make_shared<TestHandler>(socket, true, *m_store, root()); },
          [] { return std::make_shared<RawPeer>(nullptr, false); });
      ASSERT_TRUE(m_handler && m_peer);
    }
    void TearDown() override
    {
      m_peer.reset();
      m_handler.reset();
      m_store.reset();
      RootDirectory::setKernelResolveEnabled(true);
    }
    QString root() const { return m_root.path(); }
    QString canonical(const QString& path) const { return m_store->rootPath() + path; }
    /// Asks for /known.txt and waits for the answer: everything the peer sent before has been handled
    /// and anything the handler answered before arrived first.
    bool roundTrip(int linesBefore)
    {
      m_peer->send("sendfileinfo \"/known.txt\"\n");
      return m_peer->waitLines(linesBefore + 1);
    }
    QString knownInfo() const { return QStringLiteral("fileinfo 5 \"/known.txt\" 1 %1").arg(md5Hex("known")); }
    static QByteArray fileInfo(const QString& path, const QByteArray& content, qint64 parts)
    {
      return QStringLiteral("fileinfo %1 \"%2\" %3 %4\n")
          .arg(QString::number(content.size()), path, QString::number(parts), md5Hex(content))
          .toUtf8();
    }
    static QByteArray part(const QString& path, const QByteArray& bytes, qint64 number)
    {
      return QStringLiteral("filepart \"%1\" %2 %3\n").arg(path).arg(bytes.size()).arg(number).toUtf8() + bytes;
    }

    QTemporaryDir m_root, m_outside;
    std::unique_ptr<NotifyingStore> m_store;
    std::shared_ptr<TestHandler> m_handler;
    std::shared_ptr<RawPeer> m_peer;
  };
}

TEST_P(FileTransferHandlerTest, ServingRefusesPathsThatLeaveTheRoot)
{
  Bastion::LogCapture log;
  for (const char* path : {"/../secret", "/a/../known.txt", "/out/secret", "/secret-link"}) {
    m_peer->send(QByteArray("sendfileinfo \"") + path + "\"\n");
    m_peer->send(QByteArray("sendparts \"") + path + "\"\n");
  }
  m_peer->send("sendfileinfo \"/missing.txt\"\n");
  ASSERT_TRUE(roundTrip(0));
  // The first line that came back answers the last request: nothing was sent for the others.
  EXPECT_EQ(m_peer->lines(), QStringList({knownInfo()}));
  for (const char* path : {"/../secret", "/a/../known.txt", "/out/secret", "/secret-link"})
    EXPECT_GE(log.countContaining(QByteArray("'") + path + "': the path leads outside the root folder"), 1) << path;
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "FileTransferHandler::commitUpload#  file '" +
                                                         QFile::encodeName(root()) +
                                                         "/missing.txt' doesn't exist. Not uploaded"));
  // The refused uploads were never queued; the linked ones fail at the open, also without a byte sent.
  m_peer->send("sendparts \"/known.txt\"\n");
  ASSERT_TRUE(m_peer->waitLines(2));
  EXPECT_EQ(m_peer->received().at(1).line, "filepart \"/known.txt\" 5 1");
  EXPECT_EQ(m_peer->received().at(1).bytes, "known");
}

// The subclass's shutdown() ends a waiting upload before the connection and its writer go: no
// step of it runs (and holds the file) once shutdown() has returned.
TEST_P(FileTransferHandlerTest, ShutdownEndsAWaitingUploadFirst)
{
  ASSERT_TRUE(writeFile(root() + "/large.bin", QByteArray(40 << 20, 'x')));
  const QString large = QFileInfo(root() + "/large.bin").canonicalFilePath();
  const auto openCount = [&] {
    int count = 0;
    for (const QFileInfo& fd : QDir("/proc/self/fd").entryInfoList(QDir::System | QDir::Files))
      count += fd.symLinkTarget() == large;
    return count;
  };
  m_peer->holdAtFirstPart();
  m_peer->send("sendparts \"/large.bin\"\n");
  ASSERT_TRUE(m_peer->heldSignal.wait());
  ASSERT_TRUE(Bastion::waitUntil([&] { return m_handler->bufferedDataSize() > UploadBufferLimit; }));
  EXPECT_EQ(openCount(), 1);
  m_handler->shutdown();
  EXPECT_EQ(openCount(), 0);
}

TEST_P(FileTransferHandlerTest, UnlistedFileIsAnnouncedWithoutChecksum)
{
  ASSERT_TRUE(writeFile(root() + "/new.txt", "fresh"));
  m_peer->send("sendfileinfo \"/new.txt\"\n");
  ASSERT_TRUE(m_peer->waitLines(1));
  EXPECT_EQ(m_peer->lines(), QStringList({"fileinfo 5 \"/new.txt\" 1 "}));
}

TEST_P(FileTransferHandlerTest, RefusedAnnouncementsChangeNothing)
{
  Bastion::LogCapture log;
  m_peer->send(fileInfo("/a..b", "x", 1));
  m_peer->send(fileInfo("/x/../y", "x", 1));
  m_peer->send("fileinfo 99999999999999999999 \"/big\" 1 " + md5Hex("x").toLatin1() + "\n");
  ASSERT_TRUE(roundTrip(0));
  EXPECT_TRUE(
      log.contains(Bastion::LogLevel::Error, "Filename can't contain '..' and it has to start with '/': /a..b"));
  EXPECT_TRUE(
      log.contains(Bastion::LogLevel::Error, "Filename can't contain '..' and it has to start with '/': /x/../y"));
  EXPECT_EQ(log.countContaining("out of range for '/big'"), 1);
  EXPECT_FALSE(m_store->isDownloading("/a..b"));
  EXPECT_FALSE(m_store->isDownloading("/big"));
  EXPECT_EQ(m_peer->lines(), QStringList({knownInfo()}));

  // A second announcement of a file being downloaded is refused whoever sends it.
  m_peer->send(fileInfo("/twice", "abc", 1));
  m_peer->send(fileInfo("/twice", "abc", 1));
  ASSERT_TRUE(roundTrip(2));
  EXPECT_EQ(m_peer->lines().mid(1), QStringList({"sendparts \"/twice\"", knownInfo()}));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "File '/twice' is being downloaded already"));
}

// Parts and announcements that are refused line after line log a bounded number of lines, each
// with a bounded prefix of the peer's path.
TEST_P(FileTransferHandlerTest, RefusedLinesInAFloodLogBoundedLines)
{
  Bastion::LogCapture log;
  const QString path = '/' + QString(300, QChar('p'));
  QByteArray flood;
  for (int i = 0; i < 3 * NetFormat::LogBurstLines; ++i)
    flood += part(path, "x", 2) + fileInfo("/twice", "abc", 1);
  m_peer->send(flood);
  ASSERT_TRUE(roundTrip(1));
  EXPECT_EQ(log.countContaining("received file part 2 but we expected 0: '/ppp"), NetFormat::LogBurstLines);
  EXPECT_EQ(log.countContaining("File '/twice' is being downloaded already"), NetFormat::LogBurstLines);
  for (const QByteArray& text : log.texts())
    EXPECT_LT(text.size(), 300) << text.constData();
}

TEST_P(FileTransferHandlerTest, ReceivedFileIsVerifiedAndMovedIntoPlace)
{
  Bastion::LogCapture log;
  const QByteArray first = randomBytes(65536, 3), second = randomBytes(7, 4);
  ASSERT_TRUE(writeFile(root() + "/deep/er/f.bin", "old content"));
  ASSERT_TRUE(writeFile(root() + "/deep/er/f.bin.filesync.part", "stale leftover"));
  m_peer->send(fileInfo("/deep/er/f.bin", first + second, 2));
  ASSERT_TRUE(m_peer->waitLines(1));
  EXPECT_EQ(m_peer->lines().at(0), "sendparts \"/deep/er/f.bin\"");
  // Out of order, and not booked: consumed and dropped.
  m_peer->send(part("/deep/er/f.bin", second, 2));
  m_peer->send(part("/other", second, 1));
  m_peer->send(part("/deep/er/f.bin", first, 1));
  ASSERT_TRUE(roundTrip(1));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "received file part 2 but we expected 1: '/deep/er/f.bin'"));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "received file part 1 but we expected 0: '/other'"));
  EXPECT_FALSE(QFileInfo::exists(root() + "/other.filesync.part"));
  // Part 1 started the temporary file afresh; the old file stays until the whole file checks out.
  EXPECT_EQ(readFile(root() + "/deep/er/f.bin.filesync.part"), first);
  EXPECT_EQ(readFile(root() + "/deep/er/f.bin"), "old content");
  EXPECT_EQ(m_store->currentParts("/deep/er/f.bin"), 1);

  const int syncsBefore = syncs().size();
  m_peer->send(part("/deep/er/f.bin", second, 2));
  ASSERT_TRUE(m_store->finished.wait());
  EXPECT_EQ(readFile(root() + "/deep/er/f.bin"), first + second);
  // The data reached the disk under the temporary name, then the folder with the new name did.
  const QStringList flushed = syncs().mid(syncsBefore);
  const int data = flushed.indexOf("fdatasync " + canonical("/deep/er/f.bin.filesync.part"));
  EXPECT_GE(data, 0) << flushed.join(", ").toStdString();
  EXPECT_GT(flushed.indexOf("fsync " + canonical("/deep/er"), data), data) << flushed.join(", ").toStdString();
  EXPECT_FALSE(QFileInfo::exists(root() + "/deep/er/f.bin.filesync.part"));
  EXPECT_EQ(m_store->md5("/deep/er/f.bin"), md5Hex(first + second));
  EXPECT_EQ(m_handler->progressOf("/deep/er/f.bin"), first.size() + second.size());

  // An empty file: announced with 0 parts, finished by its single empty part.
  m_peer->send(fileInfo("/empty", QByteArray(), 0));
  m_peer->send("filepart \"/empty\" 0 1\n");
  ASSERT_TRUE(m_store->finished.wait(2));
  EXPECT_TRUE(QFileInfo(root() + "/empty").isFile());
  EXPECT_EQ(QFileInfo(root() + "/empty").size(), 0);
}

TEST_P(FileTransferHandlerTest, FailedDownloadLeavesOldFileAlone)
{
  Bastion::LogCapture log;
  ASSERT_TRUE(writeFile(root() + "/f.txt", "old"));
  QByteArray announcement = fileInfo("/f.txt", "right", 1);
  m_peer->send(announcement);
  ASSERT_TRUE(m_peer->waitLines(1));
  m_peer->send(part("/f.txt", "wrong", 1));
  ASSERT_TRUE(m_store->finished.wait());
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error,
                           "md5 mismatch for '" + QFile::encodeName(root()) + "/f.txt.filesync.part'"));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "File Download for '/f.txt' failed"));
  EXPECT_EQ(readFile(root() + "/f.txt"), "old");
  EXPECT_FALSE(QFileInfo::exists(root() + "/f.txt.filesync.part"));
  EXPECT_FALSE(m_store->isDownloading("/f.txt"));

  // The right bytes, but they cannot be flushed to the disk.
  g_failDataSync = true;
  m_peer->send(announcement + part("/f.txt", "right", 1));
  ASSERT_TRUE(m_store->finished.wait(2));
  g_failDataSync = false;
  EXPECT_EQ(log.countContaining("File Download for '/f.txt' failed"), 2);
  EXPECT_EQ(readFile(root() + "/f.txt"), "old");
  EXPECT_FALSE(QFileInfo::exists(root() + "/f.txt.filesync.part"));
}

TEST_P(FileTransferHandlerTest, OnlyTheFileThatWasReceivedLandsUnderItsName)
{
  Bastion::LogCapture log;
  // The temporary file is replaced behind the download's back: the rest of the parts still go into
  // the file they were written to, and the stranger at its name is not moved into place.
  const QByteArray content = randomBytes(65536 + 100, 11);
  m_peer->send(fileInfo("/s", content, 2) + part("/s", content.left(65536), 1));
  ASSERT_TRUE(roundTrip(1));
  ASSERT_TRUE(QFile::rename(root() + "/s.filesync.part", root() + "/elsewhere"));
  ASSERT_TRUE(writeFile(root() + "/s.filesync.part", "planted"));
  m_peer->send(part("/s", content.mid(65536), 2));
  ASSERT_TRUE(m_store->finished.wait());
  EXPECT_EQ(log.countContaining("'" + QFile::encodeName(canonical("/s.filesync.part")) +
                                "' is no longer the file that was received"),
            1);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "File Download for '/s' failed"));
  EXPECT_FALSE(QFileInfo::exists(root() + "/s"));
  EXPECT_EQ(readFile(root() + "/elsewhere"), content);
  EXPECT_EQ(m_store->md5("/s"), QString());

  // Bytes that match the checksum but not the announced size are not the announced file either.
  m_peer->send("fileinfo 5 \"/short\" 1 " + md5Hex("abc").toLatin1() + "\n" + part("/short", "abc", 1));
  ASSERT_TRUE(m_store->finished.wait(2));
  EXPECT_EQ(log.countContaining("short.filesync.part' has 3 bytes, 5 were announced"), 1);
  EXPECT_FALSE(QFileInfo::exists(root() + "/short"));
  EXPECT_FALSE(QFileInfo::exists(root() + "/short.filesync.part"));
}

TEST_P(FileTransferHandlerTest, ReceivingThroughLinkOutOfRootFails)
{
  Bastion::LogCapture log;
  m_peer->send(fileInfo("/out/planted", "evil", 1));
  ASSERT_TRUE(m_peer->waitLines(1));
  m_peer->send(part("/out/planted", "evil", 1));
  ASSERT_TRUE(roundTrip(1));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error,
                           "Failed to open " + QFile::encodeName(root()) + "/out/planted.filesync.part"));
  EXPECT_EQ(QDir(m_outside.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries), QStringList({"secret"}));
  EXPECT_EQ(m_store->currentParts("/out/planted"), 0);
}

TEST_P(FileTransferHandlerTest, OversizedPartIsReadPastAndDropped)
{
  Bastion::LogCapture log;
  m_peer->send(fileInfo("/f", randomBytes(70000, 5), 2));
  ASSERT_TRUE(m_peer->waitLines(1));
  m_peer->send(part("/f", randomBytes(70000, 5), 1));
  ASSERT_TRUE(roundTrip(1));
  EXPECT_EQ(log.countContaining("Part 1 of '/f' has 70000 bytes, more than 65536: dropped"), 1);
  EXPECT_EQ(m_store->currentParts("/f"), 0);
  EXPECT_FALSE(QFileInfo::exists(root() + "/f.filesync.part"));

  // A count that no 64-bit number holds cannot be read past: the connection ends.
  m_peer->send("filepart \"/f\" 123456789012345678901234567890 1\n");
  EXPECT_TRUE(m_handler->disconnectedSignal.wait());
  EXPECT_EQ(log.countContaining("Byte count 123456789012345678901234567890 of a part of '/f' is out of range"), 1);
  // The download that connection started went with it.
  EXPECT_FALSE(m_store->isDownloading("/f"));
}

TEST_P(FileTransferHandlerTest, UnknownLinesGoToTheConnection)
{
  Bastion::LogCapture log;
  m_peer->send("sendfileinfo \"/a?b\"\nsendparts \"relative\"\nfilepart \"/x\" -1 1\n");
  ASSERT_TRUE(roundTrip(0));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Failed to parse command 'sendfileinfo \"/a?b\"'"));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Failed to parse command 'sendparts \"relative\"'"));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "Failed to parse command 'filepart \"/x\" -1 1'"));
}

TEST_P(FileTransferHandlerTest, DroppedUploadEndsItsTask)
{
  // More than the write buffer holds, sent to a peer that stops reading and then goes away.
  ASSERT_TRUE(writeFile(root() + "/large.bin", QByteArray(48 << 20, 'x')));
  m_store->buildFileList(nullptr);
  const int tasksBefore = Bastion::BGThread::instance().taskCount();
  m_peer->send("sendparts \"/large.bin\"\n");
  ASSERT_TRUE(m_peer->waitLines(1));
  m_peer->stop();
  ASSERT_TRUE(m_handler->disconnectedSignal.wait());
  // The task notices the dropped connection and finishes instead of polling the full buffer.
  EXPECT_TRUE(Bastion::waitUntil([&] { return Bastion::BGThread::instance().taskCount() == tasksBefore; }));
}

INSTANTIATE_TEST_SUITE_P(Resolution, FileTransferHandlerTest, ::testing::Values(true, false),
                         [](const ::testing::TestParamInfo<bool>& info) {
                           return std::string(info.param ? "Kernel" : "ComponentWalk");
                         });

// A second connection names the same file in other words, or the first download's temporary file,
// or sends parts for it: none of that reaches the download, which lands with exactly its own bytes.
TEST_P(FileTransferHandlerTest, SecondConnectionCannotReachAnotherConnectionsDownload)
{
  Bastion::LogCapture log;
  std::shared_ptr<TestHandler> otherHandler;
  std::shared_ptr<RawPeer> otherPeer;
  std::tie(otherHandler, otherPeer) = connectPair<TestHandler, RawPeer>(
      [&](Bastion::TCPSocket* socket) { return std::make_shared<TestHandler>(socket, true, *m_store, root()); },
      [] { return std::make_shared<RawPeer>(nullptr, false); });
  ASSERT_TRUE(otherHandler && otherPeer);
  const QByteArray mine = randomBytes(65536 + 10, 12), foreign = randomBytes(100, 13);
  m_peer->send(fileInfo("/a", mine, 2) + part("/a", mine.left(65536), 1));
  ASSERT_TRUE(roundTrip(1));

  for (const char* path : {"/a.filesync.part", "/a.filesync.part/b", "//a", "/./a"})
    otherPeer->send(fileInfo(path, foreign, 1) + part(path, foreign, 1));
  otherPeer->send(part("/a", foreign, 2));
  otherPeer->send("sendfileinfo \"/known.txt\"\n");
  ASSERT_TRUE(otherPeer->waitLines(1));
  EXPECT_EQ(otherPeer->lines(), QStringList({knownInfo()}));
  EXPECT_EQ(log.countContaining("Refusing '/a.filesync.part': a download's temporary name"), 1);
  EXPECT_EQ(log.countContaining("Refusing '/a.filesync.part/b': a download's temporary name"), 1);
  EXPECT_EQ(log.countContaining("File '/a' is being downloaded already"), 2);
  EXPECT_EQ(log.countContaining("Refusing part 1 of '/a': another connection is downloading that file"), 2);
  EXPECT_EQ(log.countContaining("Refusing part 2 of '/a': another connection is downloading that file"), 1);
  EXPECT_EQ(m_store->currentParts("/a"), 1);

  m_peer->send(part("/a", mine.mid(65536), 2));
  ASSERT_TRUE(m_store->finished.wait());
  EXPECT_EQ(readFile(root() + "/a"), mine);
  EXPECT_EQ(m_store->md5("/a"), md5Hex(mine));
  EXPECT_FALSE(QFileInfo::exists(root() + "/a.filesync.part"));
  otherPeer.reset();
  otherHandler.reset();
}

TEST_P(FileTransferHandlerTest, DroppedConnectionClearsOnlyItsDownloads)
{
  std::shared_ptr<TestHandler> otherHandler;
  std::shared_ptr<RawPeer> otherPeer;
  std::tie(otherHandler, otherPeer) = connectPair<TestHandler, RawPeer>(
      [&](Bastion::TCPSocket* socket) { return std::make_shared<TestHandler>(socket, true, *m_store, root()); },
      [] { return std::make_shared<RawPeer>(nullptr, false); });
  ASSERT_TRUE(otherHandler && otherPeer);
  const QByteArray a = randomBytes(65536 + 10, 8), b = randomBytes(65536 + 20, 9);
  m_peer->send(fileInfo("/a.bin", a, 2) + part("/a.bin", a.left(65536), 1));
  otherPeer->send(fileInfo("/b.bin", b, 2) + part("/b.bin", b.left(65536), 1));
  ASSERT_TRUE(roundTrip(1));
  ASSERT_TRUE(otherPeer->waitLines(1));
  otherPeer->send("sendfileinfo \"/known.txt\"\n");
  ASSERT_TRUE(otherPeer->waitLines(2));
  ASSERT_TRUE(QFileInfo::exists(root() + "/a.bin.filesync.part"));
  ASSERT_TRUE(QFileInfo::exists(root() + "/b.bin.filesync.part"));

  m_peer->stop();
  ASSERT_TRUE(m_handler->disconnectedSignal.wait());
  EXPECT_FALSE(m_store->isDownloading("/a.bin"));
  EXPECT_FALSE(QFileInfo::exists(root() + "/a.bin.filesync.part"));
  EXPECT_TRUE(m_store->isDownloading("/b.bin"));

  otherPeer->send(part("/b.bin", b.mid(65536), 2));
  ASSERT_TRUE(m_store->finished.wait());
  EXPECT_EQ(readFile(root() + "/b.bin"), b);
  EXPECT_FALSE(QFileInfo::exists(root() + "/a.bin"));
  otherPeer.reset();
  otherHandler.reset();
}

class FileTransferCapsTest : public FileTransferHandlerTest
{
};

TEST_P(FileTransferCapsTest, APeerCannotGrowQueuesPastTheirCaps)
{
  Bastion::LogCapture log;
  m_peer->send("sendfileinfo \"/" + QByteArray(MaxFilePathBytes, 'p') + "\"\n");
  // Announcements nobody asked for book downloads up to the cap, the rest are refused.
  QByteArray announcements;
  for (int i = 0; i <= MaxDownloadsPerConnection; ++i)
    announcements += fileInfo(QStringLiteral("/d%1").arg(i), "x", 1);
  m_peer->send(announcements);
  ASSERT_TRUE(roundTrip(MaxDownloadsPerConnection));
  EXPECT_EQ(m_peer->lines().size(), MaxDownloadsPerConnection + 1);
  EXPECT_EQ(m_peer->lines().last(), knownInfo());
  EXPECT_FALSE(m_store->isDownloading(QStringLiteral("/d%1").arg(MaxDownloadsPerConnection)));
  EXPECT_EQ(log.countContaining("went over MaxDownloadsPerConnection (1025, limit 1024): refusing '/d1024'"), 1);
  EXPECT_EQ(log.countContaining("went over MaxFilePathBytes (4097, limit 4096)"), 1);

  // The peer stops reading: an upload fills the write buffer and waits. Meanwhile upload requests
  // queue up to their cap (a repeat is refused), and answers stop once the buffer is over its limit.
  QString deep;
  for (int i = 0; i < 15; ++i)
    deep += '/' + QString(250, QChar('a' + i));
  deep += "/f";
  ASSERT_TRUE(writeFile(root() + deep, "deep"));
  ASSERT_TRUE(writeFile(root() + "/large.bin", QByteArray(40 << 20, 'x')));
  m_peer->holdAtFirstPart();
  m_peer->send("sendparts \"/large.bin\"\n");
  ASSERT_TRUE(m_peer->heldSignal.wait());
  ASSERT_TRUE(Bastion::waitUntil([&] { return m_handler->bufferedDataSize() > UploadBufferLimit; }));
  QByteArray requests;
  for (int i = 0; i <= MaxQueuedUploads; ++i)
    requests += "sendparts \"/q" + QByteArray::number(i) + "\"\n";
  requests += "sendparts \"/q0\"\n";
  for (int i = 0; i < 400; ++i)
    requests += "sendfileinfo \"" + deep.toUtf8() + "\"\n";
  m_peer->send(requests);
  ASSERT_TRUE(Bastion::waitUntil([&] { return log.countContaining("went over FileInfoReplyBufferLimit") == 1; }));
  EXPECT_EQ(log.countContaining("went over MaxQueuedUploads (1025, limit 1024): refusing '/q1024'"), 1);
  EXPECT_EQ(log.countContaining("'/q0' is queued already"), 1);
  EXPECT_LE(m_handler->bufferedDataSize(), FileInfoReplyBufferLimit + 8192);
}

INSTANTIATE_TEST_SUITE_P(Kernel, FileTransferCapsTest, ::testing::Values(true));

TEST(FileTransferReconnectTest, QueuedPartsDoNotReachTheNextConnection)
{
  QTemporaryDir root;
  ASSERT_TRUE(writeFile(root.path() + "/large.bin", QByteArray(40 << 20, 'y')));
  ASSERT_TRUE(writeFile(root.path() + "/known.txt", "known"));
  NotifyingStore store(root.path());
  ASSERT_TRUE(store.waitForFileList(10000));
  Listener listener;
  const auto uploader = std::make_shared<TestHandler>(nullptr, false, store, root.path());
  uploader->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
  auto first = std::make_shared<RawPeer>(listener.accept(), true);
  first->run();
  ASSERT_TRUE(first->connectedSignal.wait());
  first->holdAtFirstPart();
  first->send("sendparts \"/large.bin\"\n");
  ASSERT_TRUE(first->heldSignal.wait());
  ASSERT_TRUE(Bastion::waitUntil([&] { return uploader->bufferedDataSize() > UploadBufferLimit; }));
  first.reset();
  ASSERT_TRUE(uploader->disconnectedSignal.wait());

  // The uploader connects again: the new peer hears the answer to its question, and not the rest
  // of a file that the old one asked for.
  const auto second = std::make_shared<RawPeer>(listener.accept(), true);
  second->run();
  ASSERT_TRUE(second->connectedSignal.wait());
  second->send("sendfileinfo \"/known.txt\"\n");
  ASSERT_TRUE(second->waitLines(1));
  EXPECT_EQ(second->lines().at(0), QStringLiteral("fileinfo 5 \"/known.txt\" 1 %1").arg(md5Hex("known")));
  uploader->shutdown();
}

// A byte count that no 64-bit number holds ends that connection only: a client reconnects.
TEST(FileTransferHandlerClient, OutOfRangeByteCountDropsOnlyTheConnection)
{
  Bastion::LogCapture log;
  QTemporaryDir root;
  NotifyingStore store(root.path());
  Listener listener;
  auto client = std::make_shared<TestHandler>(nullptr, false, store, root.path());
  client->connectToHost(QStringLiteral("127.0.0.1"), listener.port());
  auto first = std::make_shared<RawPeer>(listener.accept(), true);
  first->run();
  ASSERT_TRUE(client->connectedSignal.wait());
  first->send("filepart \"/f\" 123456789012345678901234567890 1\n");
  ASSERT_TRUE(client->disconnectedSignal.wait());
  EXPECT_EQ(log.countContaining("Byte count 123456789012345678901234567890 of a part of '/f' is out of range"), 1);
  auto second = std::make_shared<RawPeer>(listener.accept(), true);
  second->run();
  EXPECT_TRUE(client->connectedSignal.wait(2));
}
