// Arbitrary bytes as the line stream a file transfer handler receives: the handler runs on one end
// of a socket pair with a temporary root and a shared store, the fuzzer performs the client's
// handshake on the other end, sends the input as it is, closes its sending side and drains what
// the handler answers (file infos, parts of the files in the root). Nothing may crash, hang, write
// outside the root or leave the handler unable to end.

#include "plexa/files/FileTransferTestSupport.hpp"
#include "plexa/net/SharedKey.hpp"

#include "bastion/Log.hpp"
#include "bastion/TCPSocket.hpp"

#include <QDir>

#include <cstdint>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

using namespace Plexa;
using namespace PlexaTest;

namespace
{
  struct Fixture
  {
    Fixture()
    {
      Bastion::setLogHandler([](Bastion::LogLevel, const QByteArray&) {});
      writeFile(root.path() + "/small.txt", "small");
      writeFile(root.path() + "/dir/part.bin", randomBytes(70000, 1));
      writeFile(outside.path() + "/secret", "secret");
      QFile::link(outside.path(), root.path() + "/out");
      store.reset(new AssetBase(root.path()));
      store->waitForFileList();
    }
    QTemporaryDir root, outside;
    std::unique_ptr<AssetBase> store;
  };

  bool readExactly(int fd, char* buffer, int size)
  {
    while (size > 0) {
      const ssize_t n = ::read(fd, buffer, size_t(size));
      if (n <= 0)
        return false;
      buffer += n;
      size -= int(n);
    }
    return true;
  }

  bool readLine(int fd, QByteArray& line)
  {
    line.clear();
    char c;
    while (::read(fd, &c, 1) == 1) {
      if (c == '\n')
        return true;
      line.append(c);
    }
    return false;
  }

  /// The client side of the handshake, by hand.
  bool handshake(int fd)
  {
    QByteArray version;
    QByteArray challenge(64, '\0');
    if (!readLine(fd, version) || !readExactly(fd, challenge.data(), challenge.size()))
      return false;
    const QByteArray answer = SharedKey::answer(challenge, SharedKey::current());
    const QByteArray hello = "Orrery 2.7.2\nquill\n" + answer;
    QByteArray ok;
    return writeAllFd(fd, hello.constData(), size_t(hello.size())) && readLine(fd, ok) && ok == "ok";
  }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
  static Fixture fixture;
  int fds[2];
  if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
    return 0;
  auto handler =
      std::make_shared<TestHandler>(new Bastion::TCPSocket(fds[0]), true, *fixture.store, fixture.root.path());
  handler->setUsePing(false);
  handler->run();
  if (handshake(fds[1])) {
    std::thread drain([fd = fds[1]] {
      char buffer[65536];
      while (::read(fd, buffer, sizeof buffer) > 0) {
      }
    });
    writeAllFd(fds[1], reinterpret_cast<const char*>(data), size);
    ::shutdown(fds[1], SHUT_WR);
    handler->disconnectedSignal.wait(1, 5000);
    handler.reset();
    ::shutdown(fds[1], SHUT_RDWR);
    drain.join();
  }
  handler.reset();
  ::close(fds[1]);
  // Nothing may have been created next to the root's target outside it.
  if (QDir(fixture.outside.path()).entryList(QDir::NoDotAndDotDot | QDir::AllEntries).size() != 1)
    __builtin_trap();
  return 0;
}
