#include "Command.hpp"

#include "AddressArgument.hpp"
#include "Console.hpp"
#include "InspectorPage.hpp"

#include "plexa/app/Peer.hpp"

namespace Plexa
{
  namespace Cli
  {
    Command::Command(Console& console)
        : console(console)
    {
    }

    Command::~Command() = default;

    int Command::fail(int status, const QString& message)
    {
      console.err(QString("plexa %1: %2").arg(name(), message));
      return status;
    }

    void Command::warn(const QString& message)
    {
      console.err(QString("plexa %1: warning: %2").arg(name(), message));
    }

    QCommandLineOption Command::listenOption()
    {
      const QString fallback = QString("127.0.0.1:%1").arg(AddressArgument::DefaultPort);
      return {"listen", QString("Address to listen on (default %1; port 0 picks a free one).").arg(fallback),
              "HOST:PORT", fallback};
    }

    void Command::reportListening(const AddressArgument& address, Peer& peer)
    {
      const AddressArgument bound = address.withPort(peer.listeningPort());
      if (!address.isLoopback())
        warn(QString("listening on %1, which other machines can reach; the protocol has no encryption: anyone who "
                     "can reach this port and knows the shared key can read and change the tree")
                 .arg(bound.toString()));
      console.out(QString("listening on %1").arg(bound.toString()));
      peer.setConnectionCallback([this, &peer](const QString& peerAddress, bool connected) {
        console.out(QString("%1 %2 (%3 connected)")
                        .arg(connected ? "connected" : "disconnected", peerAddress)
                        .arg(peer.sessionCount()));
      });
    }

    QList<QCommandLineOption> Command::pageOptions(const QString& fallback)
    {
      const QString http = "Serve the inspector page at this address, for a browser" +
                           (fallback.isEmpty() ? QString(" (port 0 picks a free one).")
                                               : QString(" (default %1; port 0 picks a free one).").arg(fallback));
      return {{"http", http, "HOST:PORT", fallback},
              {"read-only", "The inspector page shows the tree but refuses edits."}};
    }

    int Command::startPage(InspectorPage& page, const QCommandLineParser& parser, MirrorNode& tree, Peer& peer,
                           int role, const QString& treeAddress)
    {
      AddressArgument address;
      QString error;
      if (!AddressArgument::parse(parser.value("http"), true, address, &error))
        return fail(ExitUsage, "--http: " + error);
      if (!page.start(address, tree, peer, Inspector::Role(role), treeAddress, &error))
        return fail(ExitFailure, error);
      if (!address.isLoopback())
        warn(QString("the inspector page at %1 can be reached by other machines; anyone who reaches it can read%2 "
                     "the tree")
                 .arg(page.url(), parser.isSet("read-only") ? "" : " and change"));
      console.out(QString("inspector page at %1").arg(page.url()));
      return ExitOk;
    }
  }
}
