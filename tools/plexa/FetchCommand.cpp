#include "FetchCommand.hpp"

#include "AddressArgument.hpp"
#include "ClientConnection.hpp"
#include "Console.hpp"
#include "Interrupt.hpp"
#include "MirrorNode.hpp"
#include "ProgressBar.hpp"

#include "plexa/app/Peer.hpp"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <map>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr int PollMs = 50;

      QString md5Of(const QString& fileName)
      {
        QFile file(fileName);
        QCryptographicHash hash(QCryptographicHash::Md5);
        if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
          return QString();
        return QString::fromLatin1(hash.result().toHex());
      }

      /// Moves a verified download from the staging folder to its place, replacing what was there.
      bool moveIntoPlace(const QString& from, const QString& to, QString& error)
      {
        if (!QDir().mkpath(QFileInfo(to).absolutePath())) {
          error = QString("cannot create the folder %1").arg(QFileInfo(to).absolutePath());
          return false;
        }
        if (QFileInfo(to).isDir()) {
          error = QString("%1 is a folder").arg(to);
          return false;
        }
        QFile::remove(to);
        if (!QFile::rename(from, to)) {
          error = QString("cannot move it to %1").arg(to);
          return false;
        }
        return true;
      }
    }

    QString FetchCommand::summary() const
    {
      return "download files from a peer's shared folder";
    }

    QString FetchCommand::arguments() const
    {
      return "HOST:PORT /remote/path...";
    }

    QString FetchCommand::description() const
    {
      return "Downloads files from the folder the peer at HOST:PORT shares (plexa serve --share), checks each\n"
             "against the checksum the peer announces, and stores it at the same path below --into. A path\n"
             "the peer does not have gets no answer: it is given up after --timeout. Parts are kept in a\n"
             "hidden folder under --into until a file is verified; Ctrl-C removes them.\n"
             "\n"
             "Example: plexa fetch 127.0.0.1:5000 /textures/wall.png /meshes/cube.obj --into ./assets";
    }

    void FetchCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOption({"into", "Folder the files are stored under (default: the current folder).", "DIR", "."});
      parser.addPositionalArgument("HOST:PORT", "Address of the peer.");
      parser.addPositionalArgument("/remote/path", "Files to fetch, relative to the peer's shared folder.",
                                   "/remote/path...");
    }

    int FetchCommand::run(const QCommandLineParser& parser)
    {
      const QStringList positional = parser.positionalArguments();
      if (positional.size() < 2)
        return fail(ExitUsage, "takes HOST:PORT and at least one /remote/path (see plexa fetch --help)");
      AddressArgument address;
      QString error;
      if (!AddressArgument::parse(positional.at(0), false, address, &error))
        return fail(ExitUsage, error);
      QStringList paths;
      for (QString path : positional.mid(1)) {
        if (!path.startsWith('/'))
          path.prepend('/');
        const QStringList parts = path.mid(1).split('/');
        if (parts.contains(QString()) || parts.contains("..") || parts.contains("."))
          return fail(ExitUsage, QString("'%1' is not a path inside the peer's shared folder").arg(positional.at(paths.size() + 1)));
        if (!paths.contains(path))
          paths << path;
      }
      const QString into = QDir::cleanPath(QFileInfo(parser.value("into")).absoluteFilePath());
      if (!QDir().mkpath(into))
        return fail(ExitFailure, QString("cannot create the folder %1").arg(into));
      // Downloads land in a staging folder next to their place (same file system, so moving them
      // is a rename); it goes with everything in it when the command ends, also on Ctrl-C, which
      // is caught from before the folder exists.
      Interrupt interrupt;
      QTemporaryDir staging(into + "/.plexa-fetch-XXXXXX");
      if (!staging.isValid())
        return fail(ExitFailure, QString("cannot write into %1: %2").arg(into, staging.errorString()));

      MirrorNode mirror("tree");
      PeerOptions options;
      options.fileRoot = staging.path();
      Peer peer(mirror, options);
      peer.waitForFileList(timeoutMs());
      ClientConnection connection(peer, address, console);
      switch (connection.connectAndMirror(timeoutSeconds(), &error)) {
      case ClientConnection::Mirrored:
        break;
      case ClientConnection::TimedOut:
        return fail(ExitFailure, error);
      case ClientConnection::Interrupted:
        return fail(ExitInterrupted, "interrupted; temporary files removed");
      }

      QElapsedTimer clock;
      clock.start();
      const auto now = [&clock] { return double(clock.nsecsElapsed()) / 1e9; };
      ProgressBar progress(console.outIsTerminal(), console.columns());
      const auto show = [&](const QString& text) {
        if (text.endsWith('\n'))
          console.outBytes(text.toUtf8());
        else if (!text.isEmpty())
          console.outInPlace(text);
      };
      peer.setFetchProgressCallback([&](const QString& path, int64_t done, int64_t total) {
        show(progress.update(path, done, total, now()));
      });

      int pending = int(paths.size());
      int verified = 0;
      for (const QString& path : paths) {
        progress.update(path, 0, 0, now());
        peer.fetch(path, timeoutMs(), [&](const QString& got, FetchResult result) {
          --pending;
          QString why;
          switch (result) {
          case FetchResult::Verified: {
            const QString target = into + got;
            if (moveIntoPlace(staging.path() + got, target, why)) {
              ++verified;
              show(progress.finish(got, QString("verified, md5 %1, saved as %2").arg(md5Of(target), target), now()));
              return;
            }
            show(progress.finish(got, "verified, but not saved", now()));
            break;
          }
          case FetchResult::Failed:
            why = "the download failed (checksum mismatch, or the connection ended)";
            show(progress.finish(got, "failed", now()));
            break;
          case FetchResult::TimedOut:
            why = QString("the peer did not answer within %1 s; it does not have this file (or shares no folder)")
                    .arg(timeoutSeconds());
            show(progress.clear());
            break;
          }
          fail(ExitFailure, QString("%1: %2").arg(got, why));
        });
      }
      while (pending > 0) {
        if (Interrupt::requested()) {
          show(progress.clear());
          return fail(ExitInterrupted, "interrupted; temporary files removed");
        }
        peer.waitAndUpdate(PollMs);
      }
      connection.finish();
      return verified == paths.size() ? ExitOk : ExitFailure;
    }
  }
}
