// Arbitrary bytes as everything a peer sends on one connection, from the first byte of the
// handshake on: version lines, the login and its answer, then lines, ping/pong, map blocks and
// "plexa2" bundle blocks. The connection runs on one end of a socket pair in either role; the
// fuzzer is the peer on the other end, sends the input, closes its sending side and drains what the
// connection answers. Nothing may crash, hang, or keep the connection from ending.
//
// Input: byte 0 chooses the setup, the rest is sent as it is.
// - bit 0: the connection is the client (the input then starts with the server's version line
//   and its 64-byte challenge); otherwise it is the accepting side and the fuzzer the client.
// - bit 1: the connection uses ping/pong.
// - bit 2 (accepting side only): the fuzzer reads the connection's challenge and sends the right
//   answer right after the first "quill" line of the input, so that inputs get past the login.
//
// No sleeps, no time limits in the way: every read of the connection ends at the latest when the
// input has run out, because the fuzzer's sending side is closed then.

#include "bastion/Log.hpp"
#include "bastion/TCPSocket.hpp"
#include "plexa/bundle/BundleStream.hpp"
#include "plexa/bundle/BundleTestSupport.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/net/NetFormat.hpp"
#include "plexa/net/SharedKey.hpp"

#include <QStringList>

#include <cerrno>
#include <cstdint>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace
{
  /// A connection whose commands are bundle blocks and map blocks ("map <count>"), as the
  /// session and the applications use them.
  class FuzzConnection : public Plexa::ConnectionThread
  {
  public:
    FuzzConnection(Bastion::TCPSocket* socket, bool accepted)
        : Plexa::ConnectionThread(socket, accepted)
    {
    }
    ~FuzzConnection() override { shutdown(); }

  protected:
    bool parse(QString line) override
    {
      if (Plexa::processPlexa2(m_sink, *this, line))
        return true;
      const QStringList words = line.split(QLatin1Char(' '));
      if (words.size() != 2 || words[0] != QLatin1String("map"))
        return false;
      readMap(words[1].toInt());
      return true;
    }
    // The socket pair is the connection: a client connects nowhere.
    bool openConnection() override { return true; }

  private:
    std::shared_ptr<PlexaTest::RecordingScheduler> m_sink = std::make_shared<PlexaTest::RecordingScheduler>();
  };

  // The fuzzer's timers interrupt system calls: EINTR is no failure here.
  bool readExactly(int fd, char* buffer, int size)
  {
    while (size > 0) {
      const ssize_t n = ::read(fd, buffer, size_t(size));
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        return false;
      buffer += n;
      size -= int(n);
    }
    return true;
  }

  /// Sends everything or stops at the first failure (the connection closed its end).
  void sendAll(int fd, const char* data, size_t size)
  {
    while (size > 0) {
      const ssize_t n = ::send(fd, data, size, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR)
        continue;
      if (n <= 0)
        return;
      data += n;
      size -= size_t(n);
    }
  }

  /// What the peer sends on the accepting side when it answers the challenge: the input with the
  /// answer placed after its first "quill" line (the input as it is when it has none).
  QByteArray withAnswer(int fd, const QByteArray& input)
  {
    const QByteArray versionLine = QByteArray(Plexa::NetFormat::VersionLine) + '\n';
    QByteArray greeting(versionLine.size() + Plexa::NetFormat::ChallengeBytes, '\0');
    if (!readExactly(fd, greeting.data(), greeting.size()) || !greeting.startsWith(versionLine))
      __builtin_trap();
    const QByteArray login = QByteArray(Plexa::NetFormat::LoginName) + '\n';
    int at = 0;
    if (!input.startsWith(login)) {
      at = input.indexOf('\n' + login);
      if (at < 0)
        return input;
      ++at;
    }
    const QByteArray answer = Plexa::SharedKey::answer(greeting.mid(versionLine.size()), Plexa::SharedKey::current());
    QByteArray sent = input;
    sent.insert(at + login.size(), answer);
    return sent;
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static const bool quiet = [] {
    Bastion::setLogHandler([](Bastion::LogLevel, const QByteArray&) {});
    return true;
  }();
  (void)quiet;
  if (size < 1)
    return 0;
  const bool client = data[0] & 1;
  const bool usePing = data[0] & 2;
  const bool answer = data[0] & 4;
  QByteArray input(reinterpret_cast<const char*>(data) + 1, int(size - 1));

  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    return 0;
  auto connection = std::make_shared<FuzzConnection>(new Bastion::TCPSocket(fds[0]), !client);
  connection->setUsePing(usePing);
  connection->setReconnect(false);
  connection->run();
  if (!client && answer)
    input = withAnswer(fds[1], input);
  std::thread drain([fd = fds[1]] {
    char buffer[16384];
    for (ssize_t n = 1; n > 0 || (n < 0 && errno == EINTR);)
      n = ::read(fd, buffer, sizeof buffer);
  });
  sendAll(fds[1], input.constData(), size_t(input.size()));
  ::shutdown(fds[1], SHUT_WR);
  // The input has run out: the connection must end on its own, whatever it was reading.
  if (!connection->waitEnd(10000))
    __builtin_trap();
  connection.reset();
  drain.join();
  ::close(fds[1]);
  return 0;
}
