// Fetching files from the peer's file root over 127.0.0.1: every way a fetch can end.

#include "plexa/app/Peer.hpp"
#include "plexa/app/PeerTestSupport.hpp"

#include "bastion/LogCapture.hpp"
#include "plexa/files/FileTestSupport.hpp"
#include "plexa/files/FileTransferTestSupport.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <gtest/gtest.h>

#include <map>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  class PeerFetchTest : public ::testing::Test
  {
  protected:
    void SetUp() override
    {
      ASSERT_TRUE(writeFile(m_serverRoot.path() + "/hello.txt", "hello, world\n"));
      ASSERT_TRUE(writeFile(m_serverRoot.path() + "/deep/er/data.bin", randomBytes(300000, 7)));
      ASSERT_TRUE(writeFile(m_serverRoot.path() + "/changed.txt", "as listed"));
      PeerOptions serverOptions;
      serverOptions.fileRoot = m_serverRoot.path();
      m_server.reset(new Peer(m_serverNode, serverOptions));
      ASSERT_TRUE(m_server->waitForFileList(30000));
      // Changed after the list was made: the peer announces the listed checksum, then sends
      // what the file holds now.
      ASSERT_TRUE(writeFile(m_serverRoot.path() + "/changed.txt", "not as listed any more"));
      ASSERT_TRUE(m_server->listen("127.0.0.1", 0));

      PeerOptions clientOptions;
      clientOptions.fileRoot = m_clientRoot.path();
      m_client.reset(new Peer(m_clientNode, clientOptions));
      ASSERT_TRUE(m_client->waitForFileList(30000));
      m_client->setFetchProgressCallback([this](const QString& path, int64_t done, int64_t total) {
        m_progress[path] = {done, total};
      });
      m_client->connectTo("127.0.0.1", m_server->listeningPort());
      ASSERT_TRUE(pump([&] { return m_client->sessionCount() == 1 && m_server->sessionCount() == 1; }));
    }
    void TearDown() override
    {
      m_client.reset();
      m_server.reset();
    }

    bool pump(const std::function<bool()>& done) { return pumpUntil({m_server.get(), m_client.get()}, done, 30000); }

    /// Fetches `path` and waits for its one result.
    bool fetch(const QString& path, int timeoutMs, FetchResult& result)
    {
      int calls = 0;
      m_client->fetch(path, timeoutMs, [&](const QString& got, FetchResult r) {
        EXPECT_EQ(got, path);
        result = r;
        ++calls;
      });
      const bool ended = pump([&] { return calls > 0; });
      // Nothing more comes for it.
      m_client->waitAndUpdate(0);
      EXPECT_LE(calls, 1);
      return ended;
    }

    QTemporaryDir m_serverRoot, m_clientRoot;
    RemoteNode m_serverNode{nullptr, "scene"};
    RemoteNode m_clientNode{nullptr, "scene"};
    std::unique_ptr<Peer> m_server, m_client;
    std::map<QString, std::pair<int64_t, int64_t>> m_progress;
  };
}

TEST_F(PeerFetchTest, FilesArriveVerifiedWithTheirProgress)
{
  FetchResult result = FetchResult::Failed;
  ASSERT_TRUE(fetch("/hello.txt", 5000, result));
  EXPECT_EQ(result, FetchResult::Verified);
  EXPECT_EQ(readFile(m_clientRoot.path() + "/hello.txt"), QByteArray("hello, world\n"));
  EXPECT_EQ(m_progress["/hello.txt"], std::make_pair(int64_t(13), int64_t(13)));

  ASSERT_TRUE(fetch("/deep/er/data.bin", 5000, result));
  EXPECT_EQ(result, FetchResult::Verified);
  EXPECT_EQ(readFile(m_clientRoot.path() + "/deep/er/data.bin"), randomBytes(300000, 7));
  EXPECT_EQ(m_progress["/deep/er/data.bin"], std::make_pair(int64_t(300000), int64_t(300000)));

  // Another spelling of a path names the same file.
  ASSERT_TRUE(QFile::remove(m_clientRoot.path() + "/hello.txt"));
  ASSERT_TRUE(fetch("//./hello.txt", 5000, result));
  EXPECT_EQ(result, FetchResult::Verified);
  EXPECT_EQ(readFile(m_clientRoot.path() + "/hello.txt"), QByteArray("hello, world\n"));
}

TEST_F(PeerFetchTest, AFileThatDoesNotMatchItsChecksumFails)
{
  Bastion::LogCapture log;
  FetchResult result = FetchResult::Verified;
  ASSERT_TRUE(fetch("/changed.txt", 5000, result));
  EXPECT_EQ(result, FetchResult::Failed);
  EXPECT_TRUE(log.contains(Bastion::LogLevel::Error, "File Download for '/changed.txt' failed"));
  EXPECT_FALSE(QFileInfo::exists(m_clientRoot.path() + "/changed.txt"));
}

TEST_F(PeerFetchTest, AFileThePeerDoesNotHaveTimesOut)
{
  Bastion::LogCapture log;
  FetchResult result = FetchResult::Verified;
  const auto start = Clock::now();
  ASSERT_TRUE(fetch("/missing.txt", 300, result));
  EXPECT_EQ(result, FetchResult::TimedOut);
  EXPECT_GE(secondsSince(start), 0.29);
  EXPECT_EQ(log.countContaining("/missing.txt' doesn't exist. Not uploaded"), 1);
}

TEST_F(PeerFetchTest, AFetchFailsWhenItsSessionEndsOrThereIsNone)
{
  int calls = 0;
  FetchResult result = FetchResult::Verified;
  m_client->fetch("/missing.txt", 60000, [&](const QString&, FetchResult r) {
    result = r;
    ++calls;
  });
  m_server->stop();
  ASSERT_TRUE(pump([&] { return calls > 0; }));
  EXPECT_EQ(result, FetchResult::Failed);
  EXPECT_EQ(m_client->sessionCount(), 0);

  result = FetchResult::Verified;
  ASSERT_TRUE(fetch("/hello.txt", 60000, result));
  EXPECT_EQ(result, FetchResult::Failed);
}

TEST(PeerFetchWithoutRootTest, FetchFailsAndThereIsNoFileList)
{
  RemoteNode serverNode(nullptr, "scene"), clientNode(nullptr, "scene");
  Peer server(serverNode), client(clientNode);
  EXPECT_FALSE(client.waitForFileList(0));
  ASSERT_TRUE(server.listen("127.0.0.1", 0));
  client.connectTo("127.0.0.1", server.listeningPort());
  ASSERT_TRUE(pumpUntil({&server, &client}, [&] { return client.sessionCount() == 1; }));
  int calls = 0;
  FetchResult result = FetchResult::Verified;
  client.fetch("/hello.txt", 60000, [&](const QString&, FetchResult r) {
    result = r;
    ++calls;
  });
  ASSERT_TRUE(pumpUntil({&server, &client}, [&] { return calls > 0; }));
  EXPECT_EQ(result, FetchResult::Failed);
}

TEST(PeerFetchFromAFakeServerTest, AFetchEndsInTimeWhenThePeerIsSilentOrStopsSendingParts)
{
  Bastion::LogCapture log;
  QTemporaryDir root;
  PeerOptions options;
  options.fileRoot = root.path();
  options.fetchStallMs = 300;
  RemoteNode node(nullptr, "scene");
  Peer client(node, options);
  ASSERT_TRUE(client.waitForFileList(30000));
  Listener listener;
  client.connectTo("127.0.0.1", listener.port());
  // The server shakes hands and answers pings, nothing more unless told.
  const auto server = std::make_shared<RawPeer>(listener.accept(), true);
  server->run();
  ASSERT_TRUE(pumpUntil({&client}, [&] { return client.sessionCount() == 1; }));

  std::vector<FetchResult> results;
  const auto record = [&](const QString&, FetchResult r) { results.push_back(r); };
  auto start = Clock::now();
  client.fetch("/silent", 300, record);
  ASSERT_TRUE(pumpUntil(
      {&client}, [&] { return results.size() == 1; }, 5000));
  EXPECT_EQ(results[0], FetchResult::TimedOut);

  // Announced, one part of four sent, then nothing.
  const QByteArray content = randomBytes(200000, 5);
  client.fetch("/stalls", 60000, record);
  ASSERT_TRUE(pumpUntil({&client}, [&] { return server->lines().contains("sendfileinfo \"/stalls\""); }));
  server->send(QStringLiteral("fileinfo 200000 \"/stalls\" 4 %1\n").arg(md5Hex(content)).toUtf8() +
               "filepart \"/stalls\" 65536 1\n" + content.left(65536));
  ASSERT_TRUE(pumpUntil({&client}, [&] { return server->lines().contains("sendparts \"/stalls\""); }));
  start = Clock::now();
  ASSERT_TRUE(pumpUntil(
      {&client}, [&] { return results.size() == 2; }, 5000));
  EXPECT_EQ(results[1], FetchResult::Stalled);
  EXPECT_LT(secondsSince(start), 2.0);
  EXPECT_EQ(log.countContaining("No part of '/stalls' arrived from 127.0.0.1:"), 1);
  // A late answer to the fetch that timed out books nothing.
  server->send(QStringLiteral("fileinfo 1 \"/silent\" 1 %1\n").arg(md5Hex("x")).toUtf8());
  ASSERT_TRUE(pumpUntil({&client}, [&] { return log.countContaining("'/silent' was not asked for: refused") == 1; }));
  client.stop();
}
