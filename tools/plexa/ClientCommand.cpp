#include "ClientCommand.hpp"

#include "ClientConnection.hpp"
#include "Interrupt.hpp"
#include "LogSilence.hpp"
#include "MirrorNode.hpp"

#include <QFileInfo>

namespace Plexa
{
  namespace Cli
  {
    int ClientCommand::prepare(const QCommandLineParser&, const QStringList&)
    {
      return ExitOk;
    }

    int ClientCommand::setUp(PeerOptions&)
    {
      return ExitOk;
    }

    int ClientCommand::beforeConnecting(MirrorNode&, Peer&)
    {
      return ExitOk;
    }

    int ClientCommand::interruptedWhileConnecting()
    {
      return ExitInterrupted;
    }

    void ClientCommand::beforeStopping() {}

    void ClientCommand::done(MirrorNode&) {}

    int ClientCommand::runOnRecording(const QCommandLineParser&, const QString&)
    {
      return fail(ExitUsage, "does not read recordings");
    }

    int ClientCommand::run(const QCommandLineParser& parser)
    {
      const QStringList positional = parser.positionalArguments();
      const int count = int(positional.size()) - 1;
      if (readsRecordings() && count == 0 && QFileInfo(positional.at(0)).isFile())
        return runOnRecording(parser, positional.at(0));
      if (count < minArguments() || (maxArguments() >= 0 && count > maxArguments()))
        return fail(ExitUsage, QString("takes %1 (see plexa %2 --help)").arg(arguments(), name()));
      QString error;
      if (!AddressArgument::parse(positional.at(0), false, m_address, &error))
        return fail(ExitUsage, error);
      int status = prepare(parser, positional.mid(1));
      if (status != ExitOk)
        return status;

      Interrupt interrupt;
      PeerOptions options;
      status = setUp(options);
      if (status != ExitOk)
        return status;
      MirrorNode mirror("tree");
      {
        Peer peer(mirror, options);
        // The file list of this side's (empty or staging) root: quick, and needed before fetching.
        if (!options.fileRoot.isEmpty())
          peer.waitForFileList(timeoutMs());
        status = beforeConnecting(mirror, peer);
        ClientConnection connection(peer, m_address, console);
        if (status == ExitOk) {
          switch (connection.connectAndMirror(timeoutSeconds(), &error)) {
          case ClientConnection::Mirrored:
            status = connected(mirror, peer);
            connection.finish();
            break;
          case ClientConnection::TimedOut:
            status = fail(ExitFailure, error);
            break;
          case ClientConnection::Interrupted:
            status = interruptedWhileConnecting();
            break;
          }
        }
        beforeStopping();
        // The peer closes its connection as it goes.
        LogSilence quiet;
        peer.stop();
      }
      done(mirror);
      return status;
    }
  }
}
