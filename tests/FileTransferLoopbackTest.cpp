// File transfer between a listening server of file transfer handlers and client handlers over
// 127.0.0.1.

#include "plexa/files/FileTransferTestSupport.hpp"

#include "bastion/LogCapture.hpp"

#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include <fcntl.h>
#include <unistd.h>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  /// One client: its own root, store and handler, connected to the fixture's server.
  struct Client
  {
    QTemporaryDir root;
    std::unique_ptr<NotifyingStore> store;
    std::shared_ptr<TestHandler> handler;

    bool connect(int port)
    {
      store.reset(new NotifyingStore(root.path()));
      handler = std::make_shared<TestHandler>(nullptr, false, *store, root.path());
      handler->setReconnect(false);
      handler->connectToHost(QStringLiteral("127.0.0.1"), port);
      return store->waitForFileList(10000) && handler->connectedSignal.wait();
    }
    ~Client()
    {
      handler.reset();
      store.reset();
    }

    /// Requests every file and waits until each one has arrived with the expected bytes.
    bool fetch(const QMap<QString, QByteArray>& files, int timeoutMs = 60000)
    {
      for (auto it = files.cbegin(); it != files.cend(); ++it)
        handler->requestFileInfo(it.key());
      const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
      for (;;) {
        const int seen = store->finished.count();
        if (arrived(files))
          return true;
        const auto left =
            std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0 || !store->finished.wait(seen + 1, int(left.count())))
          return arrived(files);
      }
    }
    bool arrived(const QMap<QString, QByteArray>& files) const
    {
      for (auto it = files.cbegin(); it != files.cend(); ++it)
        if (store->isDownloading(it.key()) || readFile(root.path() + it.key()) != it.value())
          return false;
      return true;
    }
  };

  class FileTransferLoopbackTest : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      m_files.insert("/empty", QByteArray());
      m_files.insert("/one", "1");
      m_files.insert("/exact.bin", randomBytes(65536, 1));
      m_files.insert("/over.bin", randomBytes(65537, 2));
      m_files.insert("/mib.bin", randomBytes(3 * 1024 * 1024 + 123, 3));
      m_files.insert("/a/b/c/d/deep.bin", randomBytes(100000, 4));
      for (int i = 0; i < 40; ++i)
        m_files.insert(QStringLiteral("/many/f%1.txt").arg(i), randomBytes(i * 997, 100 + i));
      for (auto it = m_files.cbegin(); it != m_files.cend(); ++it)
        ASSERT_TRUE(writeFile(m_root.path() + it.key(), it.value()));
      ASSERT_TRUE(writeFile(m_root.path() + "/big.bin", randomBytes(32 * 1024 * 1024 + 1, 5)));
      m_store.reset(new AssetBase(m_root.path()));
      ASSERT_TRUE(m_store->waitForFileList(30000));
      m_server.reset(new FileServer(*m_store, m_root.path()));
      m_server->run(QStringLiteral("127.0.0.1"), 0);
      ASSERT_TRUE(Bastion::waitUntil([&] { return m_server->localPort() != 0; }));
    }
    void TearDown() override
    {
      m_server.reset();
      m_store.reset();
    }

    QTemporaryDir m_root;
    QMap<QString, QByteArray> m_files;
    std::unique_ptr<AssetBase> m_store;
    std::unique_ptr<FileServer> m_server;
  };
}

TEST_F(FileTransferLoopbackTest, FetchesFilesOfEverySizeBackToBack)
{
  Client client;
  ASSERT_TRUE(client.connect(m_server->localPort()));
  ASSERT_TRUE(client.fetch(m_files));
  for (auto it = m_files.cbegin(); it != m_files.cend(); ++it) {
    EXPECT_EQ(client.store->md5(it.key()), md5Hex(it.value())) << it.key().toStdString();
    EXPECT_FALSE(QFileInfo::exists(client.root.path() + it.key() + ".filesync.part"));
  }
  EXPECT_EQ(client.handler->progressOf("/mib.bin"), m_files.value("/mib.bin").size());
  EXPECT_EQ(m_server->instances().size(), 1u);
}

TEST_F(FileTransferLoopbackTest, TwoClientsFetchAtOnce)
{
  Client first, second;
  ASSERT_TRUE(first.connect(m_server->localPort()));
  ASSERT_TRUE(second.connect(m_server->localPort()));
  QMap<QString, QByteArray> some;
  for (const char* path : {"/mib.bin", "/over.bin", "/a/b/c/d/deep.bin", "/many/f7.txt"})
    some.insert(path, m_files.value(path));
  bool firstDone = false;
  std::thread other([&] { firstDone = first.fetch(some); });
  EXPECT_TRUE(second.fetch(some));
  other.join();
  EXPECT_TRUE(firstDone);
}

TEST_F(FileTransferLoopbackTest, ReplacesExistingFileAtomically)
{
  Client client;
  ASSERT_TRUE(writeFile(client.root.path() + "/mib.bin", "old version"));
  ASSERT_TRUE(client.connect(m_server->localPort()));
  const int oldFd = ::open(QFile::encodeName(client.root.path() + "/mib.bin").constData(), O_RDONLY);
  ASSERT_GE(oldFd, 0);
  ASSERT_TRUE(client.fetch({{"/mib.bin", m_files.value("/mib.bin")}}));
  // The new file was renamed over the old one: a reader that had it open still sees all of it.
  char buffer[32] = {};
  EXPECT_EQ(::pread(oldFd, buffer, sizeof buffer, 0), 11);
  EXPECT_STREQ(buffer, "old version");
  ::close(oldFd);
}

TEST_F(FileTransferLoopbackTest, FileAbove32MiBIsAnnouncedOnePartShort)
{
  Bastion::LogCapture log;
  Client client;
  ASSERT_TRUE(client.connect(m_server->localPort()));
  client.handler->requestFileInfo("/big.bin");
  ASSERT_TRUE(client.store->finished.wait(1, 60000));
  const QByteArray temporary = QFile::encodeName(client.root.path()) + "/big.bin.filesync.part";
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "md5 mismatch for '" + temporary + "'"));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "File Download for '/big.bin' failed"));
  EXPECT_FALSE(QFileInfo::exists(client.root.path() + "/big.bin"));
  EXPECT_FALSE(QFileInfo::exists(temporary));
  // The 513th part follows on the stream; a later fetch on the same connection is served after it.
  ASSERT_TRUE(client.fetch({{"/one", "1"}}));
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "received file part 513 but we expected 0: '/big.bin'"));
  EXPECT_FALSE(QFileInfo::exists(client.root.path() + "/big.bin"));
}
