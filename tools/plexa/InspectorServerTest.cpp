#include "InspectorServer.hpp"

#include "InspectorHub.hpp"

#include "bastion/LogCapture.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

using Plexa::Cli::AddressArgument;
using Plexa::Cli::InspectorHub;
using Plexa::Cli::InspectorServer;

namespace
{
  /// Sends `request` to 127.0.0.1:`port` and returns all the server answers until it closes the
  /// connection or is silent for `silenceMs`.
  QByteArray exchange(int port, const QByteArray& request, int silenceMs = 2000)
  {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    timeval timeout{silenceMs / 1000, (silenceMs % 1000) * 1000};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof(timeout));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(uint16_t(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    QByteArray answer;
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof(address)) == 0 &&
        ::write(fd, request.constData(), size_t(request.size())) == request.size()) {
      char buffer[4096];
      ssize_t n = 0;
      while ((n = ::read(fd, buffer, sizeof(buffer))) > 0)
        answer.append(buffer, int(n));
    }
    ::close(fd);
    return answer;
  }

  QByteArray get(int port, const QByteArray& path, const QByteArray& headers)
  {
    return exchange(port, "GET " + path + " HTTP/1.1\r\n" + headers + "Connection: close\r\n\r\n");
  }
}

TEST(InspectorServer, OnlyThisServersOwnPageGetsIn)
{
  // The Host names this server; an Origin, when sent, is this server's page.
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "127.0.0.1:8080", nullptr), "");
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "localhost:8080", "http://localhost:8080"), "");
  EXPECT_EQ(InspectorServer::refusal("::1", 8080, "[::1]:8080", "http://[::1]:8080"), "");
  EXPECT_EQ(InspectorServer::refusal("0.0.0.0", 80, "192.168.1.4", "http://192.168.1.4"), "");
  EXPECT_EQ(InspectorServer::refusal("viewer.lan", 8080, "Viewer.lan:8080", nullptr), "");
  // Another site's page, through the viewer's browser: its own origin, or a name of its own that
  // resolves to this machine (DNS rebinding).
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "127.0.0.1:8080", "http://evil.example"),
            "Origin 'http://evil.example' is not this server's page");
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "127.0.0.1:8080", "http://127.0.0.1:9090"),
            "Origin 'http://127.0.0.1:9090' is not this server's page");
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "127.0.0.1:8080", "https://127.0.0.1:8080"),
            "Origin 'https://127.0.0.1:8080' is not this server's page");
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "127.0.0.1:8080", "null"),
            "Origin 'null' is not this server's page");
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "rebind.evil.example:8080", nullptr),
            "Host 'rebind.evil.example:8080' is not this server's address");
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "127.0.0.1:8081", nullptr),
            "Host '127.0.0.1:8081' is not this server's address");
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, nullptr, nullptr), "Host '' is not this server's address");
  EXPECT_EQ(InspectorServer::refusal("127.0.0.1", 8080, "127.0.0.1:8080x", nullptr),
            "Host '127.0.0.1:8080x' is not this server's address");
}

TEST(InspectorServer, ServesItsCompiledInPageAndNothingElse)
{
  Bastion::LogCapture log;
  InspectorHub hub(false);
  InspectorServer server(hub);
  AddressArgument address;
  ASSERT_TRUE(AddressArgument::parse("127.0.0.1:0", true, address, nullptr));
  QString error;
  ASSERT_TRUE(server.start(address, &error)) << error.toStdString();
  const int port = server.port();
  ASSERT_GT(port, 0);
  const QByteArray host = "Host: 127.0.0.1:" + QByteArray::number(port) + "\r\n";

  const QByteArray page = get(port, "/", host);
  EXPECT_TRUE(page.startsWith("HTTP/1.1 200 OK\r\n")) << page.left(200).toStdString();
  EXPECT_TRUE(page.contains("Content-Type: text/html; charset=utf-8\r\n"));
  EXPECT_TRUE(page.contains("Content-Security-Policy: default-src 'self'"));
  EXPECT_TRUE(page.contains("<script src=\"inspector.js\"></script>"));
  EXPECT_TRUE(get(port, "/inspector.js", host).contains("new WebSocket("));
  EXPECT_TRUE(get(port, "/inspector.css", host).startsWith("HTTP/1.1 200 OK\r\n"));
  for (const QByteArray path : {"/etc/passwd", "/../../etc/passwd", "/%2e%2e/%2e%2e/etc/passwd", "/inspector.qrc",
                                "/index.html/", "/socket.js"})
    EXPECT_TRUE(get(port, path, host).startsWith("HTTP/1.1 404 ")) << path.toStdString();
  EXPECT_TRUE(exchange(port, "POST / HTTP/1.1\r\n" + host + "Content-Length: 0\r\nConnection: close\r\n\r\n")
                  .startsWith("HTTP/1.1 405 "));

  // Another site's page, for the page or its socket, is refused and logged.
  EXPECT_TRUE(get(port, "/", host + "Origin: http://evil.example\r\n").startsWith("HTTP/1.1 403 "));
  const QByteArray upgrade = "Upgrade: websocket\r\nSec-WebSocket-Version: 13\r\nSec-WebSocket-Key: "
                             "dGhlIHNhbXBsZSBub25jZQ==\r\n";
  EXPECT_TRUE(get(port, "/socket", host + upgrade + "Origin: http://evil.example\r\n").startsWith("HTTP/1.1 403 "));
  EXPECT_TRUE(
      get(port, "/", "Host: attacker.example:" + QByteArray::number(port) + "\r\n").startsWith("HTTP/1.1 403 "));
  EXPECT_TRUE(log.contains("InspectorServer # Refused a request from 127.0.0.1: Origin 'http://evil.example' is not "
                           "this server's page"));
  const QByteArray origin = "Origin: http://127.0.0.1:" + QByteArray::number(port) + "\r\n";
  // The page's own socket upgrade goes through, and only then do messages follow.
  const QByteArray accepted =
      exchange(port, "GET /socket HTTP/1.1\r\n" + host + upgrade + origin + "Connection: Upgrade\r\n\r\n", 300);
  EXPECT_TRUE(accepted.startsWith("HTTP/1.1 101 ")) << accepted.toStdString();
  EXPECT_TRUE(accepted.contains("{\"op\":\"batch\",\"snapshot\":true,")) << accepted.toStdString();
}
