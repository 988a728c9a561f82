// Peer program for the two-process connection tests: a listening server whose connections echo
// commands and map blocks. Usage: plexa_connection_peer <port> [shared key]
// Prints "listening <port>" once bound, then runs until its standard input closes.

#include "bastion/TCPSocket.hpp"
#include "plexa/files/ServerBase.hpp"
#include "plexa/net/ConnectionThread.hpp"

#include <QString>
#include <QStringList>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace
{
  class EchoConnection : public Plexa::ConnectionThread
  {
  public:
    using Plexa::ConnectionThread::ConnectionThread;
    ~EchoConnection() override { shutdown(); }

  protected:
    bool parse(QString line) override
    {
      if (line.startsWith("echo ")) {
        queue("echoed " + line.mid(5) + "\n");
        return true;
      }
      const QStringList words = line.split(' ');
      if (words.size() == 2 && words[0] == "map") {
        writeMapBuffer("map", readMap(words[1].toInt()));
        return true;
      }
      return false;
    }
  };

  class EchoServer : public Plexa::ServerBase
  {
  public:
    ~EchoServer() override
    {
      stop(true);
      closeConnections();
    }

  protected:
    std::shared_ptr<Plexa::ConnectionThread> createConnection(Bastion::TCPSocket* socket) override
    {
      return std::make_shared<EchoConnection>(socket, true);
    }
  };
}

int main(int argc, char** argv)
{
  if (argc < 2) {
    std::fprintf(stderr, "usage: %s <port> [shared key]\n", argv[0]);
    return 2;
  }
  if (argc > 2)
    Plexa::ConnectionThread::setSharedKey(QByteArray(argv[2]));
  EchoServer server;
  server.run("127.0.0.1", std::atoi(argv[1]));
  for (int i = 0; i < 500 && server.localPort() == 0; ++i)
    server.waitEnd(10);
  if (server.localPort() == 0) {
    std::printf("failed to listen\n");
    return 1;
  }
  std::printf("listening %d\n", server.localPort());
  std::fflush(stdout);
  std::string line;
  while (std::getline(std::cin, line)) {
  }
  return 0;
}
