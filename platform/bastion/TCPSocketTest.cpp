#include "bastion/TCPSocket.hpp"
#include "bastion/TCPServerSocket.hpp"
#include "bastion/TestGate.hpp"

#include <gtest/gtest.h>

#include <sys/socket.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <numeric>
#include <thread>
#include <vector>

using namespace Bastion;
using Clock = std::chrono::steady_clock;

namespace
{
  constexpr auto Deadline = std::chrono::seconds(10);

  /// A connected pair over 127.0.0.1.
  struct Pair
  {
    TCPServerSocket server;
    TCPSocket client;
    std::unique_ptr<TCPSocket> accepted;

    Pair()
    {
      EXPECT_EQ(server.open("127.0.0.1", 0, 8), 0);
      EXPECT_EQ(client.open("127.0.0.1", server.localPort()), 0);
      EXPECT_TRUE(server.isPendingConnection(5000000));
      accepted.reset(server.accept());
      EXPECT_TRUE(accepted);
    }

    /// Unblocks whatever is stuck on either end, so a failing test ends instead of hanging.
    void breakUp()
    {
      client.close();
      if (accepted)
        accepted->close();
    }
  };

  template <typename T>
  bool finishes(std::future<T>& f, Pair& pair)
  {
    if (f.wait_for(Deadline) == std::future_status::ready)
      return true;
    pair.breakUp();
    return false;
  }

  std::vector<char> pattern(int size)
  {
    std::vector<char> v(size_t(size), 0);
    for (int i = 0; i < size; ++i)
      v[size_t(i)] = char(i * 7 + i / 251);
    return v;
  }
}

TEST(TCPSocket, ReadsExactSizesWhateverTheWriteSplitAndCountsBytes)
{
  Pair p;
  ASSERT_TRUE(p.accepted);
  EXPECT_EQ(p.client.peerAddress(), QByteArray("127.0.0.1"));
  EXPECT_EQ(p.client.peerPort(), p.server.localPort());
  EXPECT_EQ(p.accepted->peerAddress(), QByteArray("127.0.0.1"));
  EXPECT_GT(p.accepted->peerPort(), 0);

  const int total = 600000;
  const std::vector<char> data = pattern(total);
  auto writer = std::async(std::launch::async, [&] {
    const int splits[] = {1, 7, 3, 100000, 13, 70000};
    int off = 0;
    for (int i = 0; off < total; ++i) {
      int n = std::min(splits[i % 6], total - off);
      if (p.client.write(data.data() + off, n) != n)
        return false;
      off += n;
    }
    return true;
  });

  std::vector<char> got(size_t(total), 0);
  char dummy = 0;
  EXPECT_EQ(p.accepted->read(&dummy, 0), 0);
  EXPECT_EQ(p.accepted->read(&dummy, -5), 0);
  const int reads[] = {1, 1, 1, 5, 65536, 200000, 3, 90000};
  int off = 0;
  for (int i = 0; off < total; ++i) {
    int n = std::min(reads[i % 8], total - off);
    ASSERT_EQ(p.accepted->read(got.data() + off, n), n) << "at " << off;
    off += n;
  }
  ASSERT_TRUE(finishes(writer, p));
  EXPECT_TRUE(writer.get());
  EXPECT_TRUE(got == data);
  EXPECT_EQ(p.client.bytesSent(), uint64_t(total));
  EXPECT_EQ(p.accepted->bytesReceived(), uint64_t(total));
  EXPECT_EQ(p.client.bytesReceived(), 0u);
}

TEST(TCPSocket, PeerCloseMidReadReturnsTheBytesThatCame)
{
  Pair p;
  ASSERT_TRUE(p.accepted);
  char buf[100];
  auto reader = std::async(std::launch::async, [&] { return p.client.read(buf, 100); });
  ASSERT_EQ(p.accepted->write("0123456789", 10), 10);
  p.accepted->close();
  ASSERT_TRUE(finishes(reader, p));
  EXPECT_EQ(reader.get(), 10);
  EXPECT_EQ(QByteArray(buf, 10), QByteArray("0123456789"));
  EXPECT_EQ(p.client.read(buf, 1), 0);
  // Writing to a peer that is gone fails, without SIGPIPE ending the test.
  std::vector<char> big(1 << 20, 'x');
  int written = int(big.size());
  for (int i = 0; i < 50 && written == int(big.size()); ++i)
    written = p.client.write(big.data(), int(big.size()));
  EXPECT_LT(written, int(big.size()));
}

TEST(TCPSocket, CloseFromAnotherThreadFailsBlockedReadAndWriteAtOnce)
{
  Pair p;
  ASSERT_TRUE(p.accepted);
  char buf[16];
  auto reader = std::async(std::launch::async, [&] { return p.client.read(buf, 16); });
  // The peer never reads, so this write fills the socket buffers and blocks.
  std::vector<char> big(64 << 20, 'y');
  auto writer = std::async(std::launch::async, [&] { return p.client.write(big.data(), int(big.size())); });
  EXPECT_TRUE(waitUntil([&] { return p.client.bytesSent() > 0; }));
  EXPECT_EQ(reader.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);

  p.client.close();
  EXPECT_FALSE(p.client.isOpen());
  ASSERT_TRUE(finishes(reader, p));
  ASSERT_TRUE(finishes(writer, p));
  EXPECT_EQ(reader.get(), 0);
  EXPECT_LT(writer.get(), int(big.size()));
  p.client.close();
  EXPECT_EQ(p.client.read(buf, 1), 0);
  EXPECT_EQ(p.client.write(buf, 1), 0);
  // The peer sees the end of the stream.
  EXPECT_LT(p.accepted->read(big.data(), int(big.size())), int(big.size()));

  // The same object connects again.
  const uint64_t sentBefore = p.client.bytesSent();
  ASSERT_EQ(p.client.open("127.0.0.1", p.server.localPort()), 0);
  EXPECT_TRUE(p.client.isOpen());
  EXPECT_EQ(p.client.open("127.0.0.1", p.server.localPort()), EISCONN);
  ASSERT_TRUE(p.server.isPendingConnection(5000000));
  std::unique_ptr<TCPSocket> second(p.server.accept());
  ASSERT_TRUE(second);
  ASSERT_EQ(p.client.write("ok", 2), 2);
  ASSERT_EQ(second->read(buf, 2), 2);
  EXPECT_EQ(QByteArray(buf, 2), QByteArray("ok"));
  EXPECT_EQ(p.client.bytesSent(), sentBefore + 2);
}

TEST(TCPSocket, TimeoutsFailLikeErrorsAndLeaveTheSocketOpen)
{
  Pair p;
  ASSERT_TRUE(p.accepted);
  p.client.setReadTimeout(50);
  EXPECT_EQ(p.client.readTimeout(), 50);
  ASSERT_EQ(p.accepted->write("abc", 3), 3);
  char buf[10];
  const auto start = Clock::now();
  EXPECT_EQ(p.client.read(buf, 10), 3);
  EXPECT_GE(Clock::now() - start, std::chrono::milliseconds(45));
  EXPECT_LT(Clock::now() - start, Deadline);
  EXPECT_TRUE(p.client.isOpen());
  ASSERT_EQ(p.accepted->write("defg", 4), 4);
  EXPECT_EQ(p.client.read(buf, 4), 4);
  EXPECT_EQ(QByteArray(buf, 4), QByteArray("defg"));

  p.accepted->setWriteTimeout(50);
  std::vector<char> big(64 << 20, 'z');
  auto writer = std::async(std::launch::async, [&] { return p.accepted->write(big.data(), int(big.size())); });
  ASSERT_TRUE(finishes(writer, p));
  const int written = writer.get();
  EXPECT_GT(written, 0);
  EXPECT_LT(written, int(big.size()));
  EXPECT_TRUE(p.accepted->isOpen());
  // Without a limit a read waits for its bytes.
  p.client.setReadTimeout(0);
  auto reader = std::async(std::launch::async, [&] { return p.client.read(buf, 1); });
  ASSERT_TRUE(finishes(reader, p));
  EXPECT_EQ(reader.get(), 1);
}

TEST(TCPSocket, ConnectFailuresAreErrnoValuesAndCloseAbortsAnAttempt)
{
  int freePort = 0;
  {
    TCPServerSocket gone;
    ASSERT_EQ(gone.open("127.0.0.1", 0, 1), 0);
    freePort = gone.localPort();
  }
  TCPSocket s;
  EXPECT_EQ(s.open("127.0.0.1", freePort), ECONNREFUSED);
  EXPECT_FALSE(s.isOpen());
  EXPECT_EQ(s.open("127.0.0.1", 70000), EHOSTUNREACH);

  // A listener whose accept queue is full drops further SYNs: connecting hangs there.
  TCPServerSocket full;
  ASSERT_EQ(full.open("127.0.0.1", 0, 0), 0);
  std::vector<std::unique_ptr<TCPSocket>> queued;
  int result = 0;
  for (int i = 0; i < 16 && result == 0; ++i) {
    queued.emplace_back(new TCPSocket);
    queued.back()->setConnectTimeout(300);
    result = queued.back()->open("127.0.0.1", full.localPort());
  }
  ASSERT_EQ(result, ETIMEDOUT);

  TCPSocket aborted;
  const auto start = Clock::now();
  auto attempt = std::async(std::launch::async, [&] { return aborted.open("127.0.0.1", full.localPort()); });
  // close() only aborts an attempt already under way, so repeat it until the attempt gives up.
  while (attempt.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready &&
         Clock::now() - start < Deadline)
    aborted.close();
  ASSERT_EQ(attempt.wait_for(std::chrono::seconds(15)), std::future_status::ready);
  EXPECT_EQ(attempt.get(), ECONNABORTED);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_FALSE(aborted.isOpen());
}

TEST(TCPServerSocket, BusyPortFailsWithErrnoAndReopenWorks)
{
  TCPServerSocket a;
  EXPECT_EQ(a.localPort(), 0);
  ASSERT_EQ(a.open("127.0.0.1", 0, 4), 0);
  const int port = a.localPort();
  EXPECT_GT(port, 0);
  EXPECT_EQ(a.open("127.0.0.1", 0, 4), EISCONN);
  TCPServerSocket b;
  EXPECT_EQ(b.open("127.0.0.1", port, 4), EADDRINUSE);
  EXPECT_FALSE(b.isOpen());
  EXPECT_EQ(b.localPort(), 0);
  a.close();
  EXPECT_EQ(b.open("127.0.0.1", port, 4), 0);
  EXPECT_EQ(b.localPort(), port);
  // An empty host listens on every interface, loopback included.
  TCPServerSocket any;
  ASSERT_EQ(any.open("", 0, 4), 0);
  TCPSocket c;
  EXPECT_EQ(c.open("127.0.0.1", any.localPort()), 0);
  EXPECT_TRUE(any.isPendingConnection(5000000));
}

TEST(TCPServerSocket, PendingConnectionIsFalseOnTimeoutAndAfterClose)
{
  TCPServerSocket server;
  ASSERT_EQ(server.open("127.0.0.1", 0, 4), 0);
  EXPECT_FALSE(server.isPendingConnection(10000));
  TCPSocket c;
  ASSERT_EQ(c.open("127.0.0.1", server.localPort()), 0);
  ASSERT_TRUE(server.isPendingConnection(5000000));
  std::unique_ptr<TCPSocket> s(server.accept());
  ASSERT_TRUE(s);
  EXPECT_TRUE(s->isOpen());

  const auto start = Clock::now();
  auto poll = std::async(std::launch::async, [&] { return server.isPendingConnection(20000000); });
  auto blockedAccept = std::async(std::launch::async, [&] { return server.accept(); });
  while (poll.wait_for(std::chrono::milliseconds(10)) != std::future_status::ready && Clock::now() - start < Deadline)
    server.close();
  ASSERT_EQ(poll.wait_for(Deadline), std::future_status::ready);
  EXPECT_FALSE(poll.get());
  ASSERT_EQ(blockedAccept.wait_for(Deadline), std::future_status::ready);
  std::unique_ptr<TCPSocket> none(blockedAccept.get());
  EXPECT_FALSE(none);
  EXPECT_LT(Clock::now() - start, std::chrono::seconds(5));
  EXPECT_FALSE(server.isOpen());
  EXPECT_FALSE(server.isPendingConnection(1000));
  EXPECT_EQ(server.accept(), nullptr);
  server.close();
}

// writeSome never waits: it takes what fits, returns 0 once the peer stops reading and the
// buffers are full, -1 after close, and the bytes it did write arrive intact and in order.
TEST(TCPSocket, WriteSomeTakesWhatFitsWithoutBlocking)
{
  Pair p;
  ASSERT_TRUE(p.accepted);
  ASSERT_EQ(p.client.writeSome("hello", 5), 5);
  char buf[5];
  ASSERT_EQ(p.accepted->read(buf, 5), 5);
  EXPECT_EQ(QByteArray(buf, 5), QByteArray("hello"));

  // The peer does not read: the buffers fill, and writeSome comes back instead of blocking.
  std::vector<char> big(1 << 20);
  for (size_t i = 0; i < big.size(); ++i)
    big[i] = char(i * 31 + 7);
  int64_t total = 0;
  int last = 1;
  const auto until = Clock::now() + Deadline;
  while (last != 0 && Clock::now() < until) {
    last = p.client.writeSome(big.data() + total % int64_t(big.size()),
                              int(big.size() - size_t(total % int64_t(big.size()))));
    ASSERT_GE(last, 0);
    total += last;
  }
  EXPECT_EQ(last, 0);
  EXPECT_EQ(p.client.bytesSent(), uint64_t(total) + 5);
  // Everything written arrives in order.
  std::vector<char> got(static_cast<size_t>(total));
  ASSERT_EQ(p.accepted->read(got.data(), int(total)), int(total));
  for (int64_t i = 0; i < total; i += 4093)
    ASSERT_EQ(got[size_t(i)], big[size_t(i % int64_t(big.size()))]) << i;

  p.client.close();
  EXPECT_EQ(p.client.writeSome("x", 1), -1);
}
