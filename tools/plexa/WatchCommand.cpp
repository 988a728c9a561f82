#include "WatchCommand.hpp"

#include "AddressArgument.hpp"
#include "ClientConnection.hpp"
#include "Console.hpp"
#include "Interrupt.hpp"
#include "MirrorNode.hpp"
#include "SyncEvents.hpp"
#include "WatchFormat.hpp"

#include "plexa/app/Peer.hpp"

#include <cmath>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr int PollMs = 100;

      WatchEvent::Kind kindOf(NodeWatcher::EventType type)
      {
        switch (type) {
        case NodeWatcher::AttributeAdded:
          return WatchEvent::Added;
        case NodeWatcher::AttributeRemoved:
          return WatchEvent::Removed;
        case NodeWatcher::AttributeChanged:
          return WatchEvent::Changed;
        case NodeWatcher::NodeAdded:
          return WatchEvent::NodeAdded;
        case NodeWatcher::NodeRemoved:
          return WatchEvent::NodeRemoved;
        }
        return WatchEvent::Changed;
      }
    }

    QString WatchCommand::summary() const
    {
      return "mirror a peer's tree and print every change as it arrives";
    }

    QString WatchCommand::arguments() const
    {
      return "HOST:PORT";
    }

    QString WatchCommand::description() const
    {
      return "Mirrors the tree of the peer at HOST:PORT and prints every addition, change, removal and event\n"
             "as it arrives: the present tree first, as additions. Reconnects when the connection drops;\n"
             "Ctrl-C stops. With --json, one JSON object per line, for scripts.\n"
             "\n"
             "Example: plexa watch 127.0.0.1:5000 --json | jq .path";
    }

    void WatchCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOption({"json", "One JSON object per line: time, kind, path, type, value (events: name, items)."});
      parser.addPositionalArgument("HOST:PORT", "Address of the peer.");
    }

    int WatchCommand::run(const QCommandLineParser& parser)
    {
      const QStringList positional = parser.positionalArguments();
      if (positional.size() != 1)
        return fail(ExitUsage, "takes one HOST:PORT (see plexa watch --help)");
      AddressArgument address;
      QString error;
      if (!AddressArgument::parse(positional.at(0), false, address, &error))
        return fail(ExitUsage, error);
      const bool json = parser.isSet("json");

      Interrupt interrupt;
      // Declared before the mirror, which reports its contents as removed when it goes: by then
      // `silent` is set and nothing more is printed.
      bool silent = false;
      const auto print = [&](const WatchEvent& event) {
        const QDateTime now = QDateTime::currentDateTime();
        if (silent)
          return;
        if (json)
          console.outBytes(WatchFormat::jsonLine(event, now));
        else
          console.out(WatchFormat::readable(event, now));
      };
      MirrorNode mirror("tree");
      struct Silence
      {
        bool& silent;
        ~Silence() { silent = true; }
      } silenceAtEnd{silent};
      mirror.addAttributeChangeListener([&](const NodeWatcher::Event& e) {
        QByteArray path;
        mirror.symbolRegistry().lookup(e.symbol, path);
        print(WatchFormat::attributeEvent(kindOf(e.type), QString::fromUtf8(path), mirror.attributeCache().find(e.symbol)));
      });
      mirror.setRemoteEventCallback([&](const QByteArray& name, const Bastion::BinaryData& data) {
        // The answers plexa serve gives plexa set reach every session; they are no news here.
        if (name != SyncEvents::Reply && name != SyncEvents::Request)
          print(WatchFormat::remoteEvent(name, data));
      });

      Peer peer(mirror);
      peer.setConnectionCallback([&](const QString&, bool connected) {
        WatchEvent event;
        event.kind = connected ? WatchEvent::Connected : WatchEvent::Disconnected;
        event.name = address.toString();
        print(event);
      });
      ClientConnection connection(peer, address, console);
      switch (connection.connectAndMirror(timeoutSeconds(), &error)) {
      case ClientConnection::Mirrored:
        break;
      case ClientConnection::TimedOut:
        return fail(ExitFailure, error);
      case ClientConnection::Interrupted:
        return ExitOk;
      }
      peer.setRetryCallback([&](double secondsLeft) {
        console.status(QString("connection to %1 lost; next attempt in %2 s")
                         .arg(address.toString())
                         .arg(int(std::ceil(secondsLeft))));
      });
      // Until Ctrl-C, or until nobody reads the output any more.
      while (!Interrupt::requested() && !console.outputBroken())
        peer.waitAndUpdate(PollMs);
      connection.finish();
      return ExitOk;
    }
  }
}
