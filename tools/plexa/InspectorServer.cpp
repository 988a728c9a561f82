#include "InspectorServer.hpp"

#include "InspectorHub.hpp"

#include "bastion/Log.hpp"

#include <QFile>
#include <QUrl>

#include <arpa/inet.h>
#include <civetweb.h>

#include <cstring>
#include <memory>

static void initInspectorResources()
{
  Q_INIT_RESOURCE(inspector);
}

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      /// The page's files: name and content type. Nothing else is served.
      struct PageFile
      {
        const char* path;
        const char* resource;
        const char* type;
      };
      constexpr PageFile PageFiles[] = {
          {"/", ":/inspector/index.html", "text/html; charset=utf-8"},
          {"/index.html", ":/inspector/index.html", "text/html; charset=utf-8"},
          {"/inspector.js", ":/inspector/inspector.js", "text/javascript; charset=utf-8"},
          {"/inspector.css", ":/inspector/inspector.css", "text/css; charset=utf-8"},
      };

      /// The page's state, kept with its connection.
      struct Socket
      {
        std::shared_ptr<InspectorBrowser> browser;
      };

      /// "host" or "[v6]" as written in a Host header or URL, without the port; false when the
      /// port is not `port`.
      bool splitHost(const QString& hostAndPort, int port, QString& host)
      {
        // Without a port, HTTP's own.
        const int colon = hostAndPort.lastIndexOf(':');
        const bool hasPort = colon > 0 && !hostAndPort.endsWith(']');
        bool ok = !hasPort;
        if ((hasPort ? hostAndPort.mid(colon + 1).toInt(&ok) : 80) != port || !ok)
          return false;
        host = (hasPort ? hostAndPort.left(colon) : hostAndPort).toLower();
        if (host.startsWith('[') && host.endsWith(']'))
          host = host.mid(1, host.size() - 2);
        return true;
      }

      bool isAddressLiteral(const QString& host)
      {
        unsigned char bytes[16];
        const QByteArray text = host.toLatin1();
        return inet_pton(AF_INET, text.constData(), bytes) == 1 || inet_pton(AF_INET6, text.constData(), bytes) == 1;
      }
    }

    InspectorServer::InspectorServer(InspectorHub& hub)
        : m_hub(hub)
    {
      initInspectorResources();
    }

    InspectorServer::~InspectorServer()
    {
      if (m_context)
        mg_stop(m_context);
    }

    bool InspectorServer::start(const AddressArgument& address, QString* error)
    {
      // The page runs its own script only, talks to its own server only, and is never framed by
      // another site's page.
      static const char* const SecurityHeaders = "Content-Security-Policy: default-src 'self'; connect-src 'self'; "
                                                 "frame-ancestors 'none'\r\nX-Content-Type-Options: nosniff";
      mg_init_library(0);
      const bool v6 = address.host().contains(':');
      const QByteArray ports =
          (v6 ? "[" + address.host() + "]" : address.host()).toUtf8() + ':' + QByteArray::number(address.port());
      const QByteArray threads = QByteArray::number(Threads);
      const char* options[] = {"listening_ports",
                               ports.constData(),
                               "num_threads",
                               threads.constData(),
                               "enable_websocket_ping_pong",
                               "yes",
                               "request_timeout_ms",
                               "10000",
                               "websocket_timeout_ms",
                               "10000",
                               "enable_directory_listing",
                               "no",
                               "additional_header",
                               SecurityHeaders,
                               nullptr};
      mg_callbacks callbacks;
      std::memset(&callbacks, 0, sizeof(callbacks));
      callbacks.begin_request = &InspectorServer::beginRequest;
      callbacks.log_message = &InspectorServer::logMessage;
      char startError[256] = {0};
      mg_init_data init;
      std::memset(&init, 0, sizeof(init));
      init.callbacks = &callbacks;
      init.user_data = this;
      init.configuration_options = options;
      mg_error_data errorData;
      std::memset(&errorData, 0, sizeof(errorData));
      errorData.text = startError;
      errorData.text_buffer_size = sizeof(startError);
      m_context = mg_start2(&init, &errorData);
      if (!m_context) {
        if (error)
          *error = QString("cannot serve the page at %1: %2").arg(address.toString(), QString::fromUtf8(startError));
        return false;
      }
      mg_server_port bound[4];
      const int count = mg_get_server_ports(m_context, 4, bound);
      m_port = count > 0 ? bound[0].port : address.port();
      m_host = address.host();
      for (const PageFile& file : PageFiles)
        mg_set_request_handler(m_context, file.path, &InspectorServer::serveFile, this);
      mg_set_websocket_handler(m_context, "/socket", &InspectorServer::socketConnect, &InspectorServer::socketReady,
                               &InspectorServer::socketData, &InspectorServer::socketClose, this);
      return true;
    }

    QString InspectorServer::refusal(const QString& listenHost, int port, const char* host, const char* origin)
    {
      // The Host header names this server: an address literal or localhost, or the name it was
      // started with. A name that only resolves here (DNS rebinding) is refused.
      QString name;
      if (!host || !splitHost(QString::fromUtf8(host), port, name))
        return QString("Host '%1' is not this server's address").arg(host ? host : "");
      const QString listen = listenHost.toLower();
      const bool known = name == "localhost" || isAddressLiteral(name) || name == listen;
      if (!known)
        return QString("Host '%1' is not this server's address").arg(host);
      if (!origin)
        return QString();
      // A page of this server sends its own origin; a page of any other site sends its.
      const QUrl url(QString::fromUtf8(origin));
      if (url.scheme() != "http" || url.host().toLower() != name || url.port(80) != port)
        return QString("Origin '%1' is not this server's page").arg(origin);
      return QString();
    }

    int InspectorServer::beginRequest(mg_connection* connection)
    {
      const InspectorServer* self = static_cast<const InspectorServer*>(mg_get_user_data(mg_get_context(connection)));
      const QString reason =
          refusal(self->m_host, self->m_port, mg_get_header(connection, "Host"), mg_get_header(connection, "Origin"));
      if (reason.isEmpty())
        return 0;
      const mg_request_info* request = mg_get_request_info(connection);
      Bastion::warning("InspectorServer # Refused a request from %s: %s", request->remote_addr,
                       reason.toUtf8().constData());
      mg_send_http_error(connection, 403, "%s", "Forbidden: this is not the inspector's page\n");
      return 403;
    }

    int InspectorServer::serveFile(mg_connection* connection, void*)
    {
      const mg_request_info* request = mg_get_request_info(connection);
      const char* path = request->local_uri ? request->local_uri : "";
      for (const PageFile& file : PageFiles) {
        if (std::strcmp(path, file.path) != 0)
          continue;
        if (std::strcmp(request->request_method, "GET") != 0) {
          mg_send_http_error(connection, 405, "%s", "Only GET\n");
          return 405;
        }
        QFile resource(file.resource);
        resource.open(QIODevice::ReadOnly);
        const QByteArray body = resource.readAll();
        mg_send_http_ok(connection, file.type, body.size());
        mg_write(connection, body.constData(), size_t(body.size()));
        return 200;
      }
      mg_send_http_error(connection, 404, "%s", "Not found\n");
      return 404;
    }

    int InspectorServer::socketConnect(const mg_connection* connection, void* self)
    {
      InspectorServer* server = static_cast<InspectorServer*>(self);
      auto* socket = new Socket;
      mg_connection* writable = const_cast<mg_connection*>(connection);
      socket->browser = server->m_hub.addBrowser([writable](const QByteArray& message) {
        return mg_websocket_write(writable, MG_WEBSOCKET_OPCODE_TEXT, message.constData(), size_t(message.size())) > 0;
      });
      if (!socket->browser) {
        delete socket;
        Bastion::warning("InspectorServer # Refused a page from %s: %d pages are open already (the limit)",
                         mg_get_request_info(connection)->remote_addr, InspectorHub::MaxBrowsers);
        return 1;
      }
      mg_set_user_connection_data(connection, socket);
      return 0;
    }

    void InspectorServer::socketReady(mg_connection* connection, void*)
    {
      // Messages go out from here on: the handshake's answer has been sent.
      Socket* socket = static_cast<Socket*>(mg_get_user_connection_data(connection));
      if (socket)
        socket->browser->start();
    }

    int InspectorServer::socketData(mg_connection* connection, int bits, char* data, size_t size, void* self)
    {
      Socket* socket = static_cast<Socket*>(mg_get_user_connection_data(connection));
      const int opcode = bits & 0x0f;
      if (!socket || opcode == MG_WEBSOCKET_OPCODE_CONNECTION_CLOSE)
        return 0;
      if (opcode != MG_WEBSOCKET_OPCODE_TEXT && opcode != MG_WEBSOCKET_OPCODE_BINARY)
        return 1;
      InspectorServer* server = static_cast<InspectorServer*>(self);
      const bool keep = server->m_hub.receive(*socket->browser, QByteArray(data, int(qMin<size_t>(size, INT_MAX))));
      if (!keep)
        Bastion::warning("InspectorServer # Closed the page of %s: a message of %zu bytes (at most %d)",
                         mg_get_request_info(connection)->remote_addr, size, InspectorHub::MaxBrowserMessageBytes);
      return keep ? 1 : 0;
    }

    void InspectorServer::socketClose(const mg_connection* connection, void* self)
    {
      Socket* socket = static_cast<Socket*>(mg_get_user_connection_data(connection));
      if (!socket)
        return;
      static_cast<InspectorServer*>(self)->m_hub.removeBrowser(socket->browser);
      delete socket;
      mg_set_user_connection_data(connection, nullptr);
    }

    int InspectorServer::logMessage(const mg_connection*, const char* message)
    {
      Bastion::info("InspectorServer # %s", message);
      return 1;
    }
  }
}
