#include "ServeCommand.hpp"

#include "AddressArgument.hpp"
#include "Console.hpp"
#include "InspectorPage.hpp"
#include "Interrupt.hpp"
#include "LogSilence.hpp"
#include "MirrorNode.hpp"
#include "SyncEvents.hpp"
#include "TreeJson.hpp"

#include "plexa/app/Peer.hpp"

#include <QDir>
#include <QElapsedTimer>
#include <QFileInfo>

#include <memory>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      /// Live connections at most, unless --max-connections says otherwise.
      constexpr int DefaultMaxConnections = 16;
      /// Seconds between two attempts to bind a busy address with --retry.
      constexpr int ListenRetrySeconds = 3;
      constexpr int PollMs = 100;
    }

    QString ServeCommand::summary() const
    {
      return "publish a tree (and a folder) for peers to mirror";
    }

    QString ServeCommand::description() const
    {
      return "Publishes a tree, empty or loaded from a JSON file, on a TCP port, and optionally a folder\n"
             "that peers can fetch files from. Prints connections as they come and go; Ctrl-C stops.\n"
             "The protocol has no encryption: keep to 127.0.0.1 unless the network is trusted.\n"
             "\n"
             "With --http, also serves the inspector page (see plexa inspect) for the tree it publishes.\n"
             "\n"
             "Example: plexa serve --tree scene.json --share ./assets --listen 127.0.0.1:5000";
    }

    void ServeCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOptions({
          listenOption(),
          {"tree", "Tree to publish, as JSON (default: an empty tree).", "FILE.json"},
          {"share", "Folder whose files peers may fetch.", "DIR"},
          {"max-connections", QString("Live connections at most (default %1).").arg(DefaultMaxConnections), "N",
           QString::number(DefaultMaxConnections)},
          {"retry", QString("When the address is taken, try again every %1 s (until --timeout if given).")
                        .arg(ListenRetrySeconds)},
      });
      parser.addOptions(pageOptions(QString()));
    }

    int ServeCommand::run(const QCommandLineParser& parser)
    {
      AddressArgument address;
      QString error;
      if (!AddressArgument::parse(parser.value("listen"), true, address, &error))
        return fail(ExitUsage, error);
      bool numberOk = false;
      const int maxConnections = parser.value("max-connections").toInt(&numberOk);
      if (!numberOk || maxConnections < 1)
        return fail(
            ExitUsage,
            QString("--max-connections takes a number of at least 1, not '%1'").arg(parser.value("max-connections")));
      MirrorNode tree("tree");
      if (parser.isSet("tree") && !TreeJson::loadFile(parser.value("tree"), tree, &error))
        return fail(ExitFailure, error);

      PeerOptions options;
      options.maxConnections = maxConnections;
      if (parser.isSet("share")) {
        const QFileInfo share(parser.value("share"));
        if (!share.isDir())
          return fail(ExitFailure, QString("%1: no such folder").arg(parser.value("share")));
        options.fileRoot = QDir::cleanPath(share.absoluteFilePath());
      }

      Interrupt interrupt;
      Peer peer(tree, options);
      if (!options.fileRoot.isEmpty()) {
        console.status(QString("listing %1 ...").arg(options.fileRoot));
        while (!peer.waitForFileList(PollMs)) {
          if (Interrupt::requested())
            return ExitOk;
        }
        console.out(QString("sharing %1").arg(options.fileRoot));
      }

      // Listening: a taken address is an error at once, unless --retry asks to wait for it.
      QElapsedTimer clock;
      clock.start();
      while (!peer.listen(address.host(), address.port(), &error)) {
        if (!parser.isSet("retry"))
          return fail(ExitFailure, error + " (is another server running there? --listen picks another address, "
                                           "--retry waits for this one)");
        if (parser.isSet("timeout") && clock.elapsed() >= timeoutMs())
          return fail(ExitFailure, QString("%1; gave up after %2 s").arg(error).arg(timeoutSeconds()));
        console.status(QString("%1; trying again in %2 s").arg(error).arg(ListenRetrySeconds));
        QElapsedTimer wait;
        wait.start();
        while (wait.elapsed() < qint64(ListenRetrySeconds) * 1000) {
          if (Interrupt::requested())
            return ExitOk;
          peer.waitAndUpdate(PollMs);
        }
      }
      reportListening(address, peer);
      std::unique_ptr<InspectorPage> page;
      if (parser.isSet("http")) {
        page = std::make_unique<InspectorPage>(parser.isSet("read-only"));
        const int status =
            startPage(*page, parser, tree, peer, Inspector::Server, address.withPort(peer.listeningPort()).toString());
        if (status != ExitOk)
          return status;
      }

      // `plexa set` asks to hear once its values are applied.
      tree.eventAddListener(SyncEvents::Request, [&tree](Bastion::BinaryData& data) {
        Bastion::BinaryData reply(data.toByteArray());
        tree.eventProcess(SyncEvents::Reply, reply);
      });
      while (!Interrupt::requested()) {
        peer.waitAndUpdate(PollMs);
        if (page)
          page->update();
      }
      page.reset();
      console.out("stopping");
      LogSilence quiet;
      peer.stop();
      return ExitOk;
    }
  }
}
