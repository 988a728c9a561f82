#pragma once

#include "AddressArgument.hpp"

#include <QByteArray>
#include <QString>

struct mg_context;
struct mg_connection;

namespace Plexa
{
  namespace Cli
  {
    class InspectorHub;

    /// The inspector's web server: the page's own files, compiled into the program, at "/", and
    /// the page's WebSocket at "/socket", on threads of its own (the embedded HTTP library's).
    /// It serves nothing else: no file of the file system is ever read.
    ///
    /// Requests whose Host header is not this server's address, or whose Origin is another site
    /// (a web page elsewhere trying to reach the inspector through the viewer's browser), are
    /// refused with 403 and logged.
    class InspectorServer
    {
    public:
      /// Worker threads of the HTTP library: one per open page, and a few for the files.
      static constexpr int Threads = 12;

      explicit InspectorServer(InspectorHub& hub);
      /// Stops the server: closes the pages and joins every thread.
      ~InspectorServer();
      InspectorServer(const InspectorServer&) = delete;
      InspectorServer& operator=(const InspectorServer&) = delete;

      /// Listens at `address` (port 0: a free one). False, with the reason in `error`.
      bool start(const AddressArgument& address, QString* error);
      /// The port listened on, once started.
      int port() const { return m_port; }

      /// Why a request with these Host and Origin headers (null: absent) is refused, or empty when
      /// it is this server's own page. `listenHost` and `port` are the server's.
      static QString refusal(const QString& listenHost, int port, const char* host, const char* origin);

    private:
      static int beginRequest(mg_connection* connection);
      static int serveFile(mg_connection* connection, void* self);
      static int socketConnect(const mg_connection* connection, void* self);
      static void socketReady(mg_connection* connection, void* self);
      static int socketData(mg_connection* connection, int bits, char* data, size_t size, void* self);
      static void socketClose(const mg_connection* connection, void* self);
      static int logMessage(const mg_connection* connection, const char* message);

      InspectorHub& m_hub;
      mg_context* m_context = nullptr;
      QString m_host;
      int m_port = 0;
    };
  }
}
