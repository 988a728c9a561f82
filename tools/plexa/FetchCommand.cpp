#include "FetchCommand.hpp"

#include "Console.hpp"
#include "Interrupt.hpp"
#include "ProgressBar.hpp"

#include "plexa/app/Peer.hpp"

#include <QCryptographicHash>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>


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
             "the peer does not have gets no answer: it is given up after --timeout, and so is a file of\n"
             "which no part arrives for that long. Parts are kept in a\n"
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

    int FetchCommand::prepare(const QCommandLineParser& parser, const QStringList& arguments)
    {
      m_paths.clear();
      for (const QString& argument : arguments) {
        const QString path = argument.startsWith('/') ? argument : "/" + argument;
        const QStringList parts = path.mid(1).split('/');
        if (parts.contains(QString()) || parts.contains("..") || parts.contains("."))
          return fail(ExitUsage, QString("'%1' is not a path inside the peer's shared folder").arg(argument));
        if (!m_paths.contains(path))
          m_paths << path;
      }
      m_into = QDir::cleanPath(QFileInfo(parser.value("into")).absoluteFilePath());
      if (!QDir().mkpath(m_into))
        return fail(ExitFailure, QString("cannot create the folder %1").arg(m_into));
      return ExitOk;
    }

    int FetchCommand::setUp(PeerOptions& options)
    {
      // Downloads land in a staging folder next to their place (same file system, so moving them
      // is a rename); it goes with everything in it when the command ends, also on Ctrl-C.
      m_staging.reset(new QTemporaryDir(m_into + "/.plexa-fetch-XXXXXX"));
      if (!m_staging->isValid())
        return fail(ExitFailure, QString("cannot write into %1: %2").arg(m_into, m_staging->errorString()));
      options.fileRoot = m_staging->path();
      options.fetchStallMs = timeoutMs();
      return ExitOk;
    }

    int FetchCommand::interruptedWhileConnecting()
    {
      return fail(ExitInterrupted, "interrupted; temporary files removed");
    }

    void FetchCommand::done(MirrorNode&)
    {
      m_staging.reset();
    }

    double FetchCommand::now() const
    {
      return double(m_clock.nsecsElapsed()) / 1e9;
    }

    void FetchCommand::show(const QString& text)
    {
      if (text.endsWith('\n'))
        console.outBytes(text.toUtf8());
      else if (!text.isEmpty())
        console.outInPlace(text);
    }

    void FetchCommand::fetched(const QString& path, FetchResult result)
    {
      --m_pending;
      QString why;
      switch (result) {
      case FetchResult::Verified: {
        const QString target = m_into + path;
        if (moveIntoPlace(m_staging->path() + path, target, why)) {
          ++m_verified;
          show(m_progress->finish(path, QString("verified, md5 %1, saved as %2").arg(md5Of(target), target), now()));
          return;
        }
        show(m_progress->finish(path, "verified, but not saved", now()));
        break;
      }
      case FetchResult::Failed:
        why = "the download failed (checksum mismatch, or the connection ended)";
        show(m_progress->finish(path, "failed", now()));
        break;
      case FetchResult::TimedOut:
        why = QString("the peer did not answer within %1 s; it does not have this file (or shares no folder)")
                  .arg(timeoutSeconds());
        show(m_progress->clear());
        break;
      case FetchResult::Refused:
        why = "the download was refused here: the file is being downloaded already (or too many files are at once)";
        show(m_progress->finish(path, "refused", now()));
        break;
      case FetchResult::Stalled:
        why = QString("the peer stopped sending it: no part arrived for %1 s").arg(timeoutSeconds());
        show(m_progress->finish(path, "stalled", now()));
        break;
      }
      fail(ExitFailure, QString("%1: %2").arg(path, why));
    }

    int FetchCommand::connected(MirrorNode&, Peer& peer)
    {
      // The callbacks use members only: a fetch still running when the command stops early may
      // call back until the peer is gone, and the command outlives the peer.
      m_clock.start();
      m_progress.reset(new ProgressBar(console.outIsTerminal(), console.columns()));
      m_pending = int(m_paths.size());
      m_verified = 0;
      peer.setFetchProgressCallback([this](const QString& path, int64_t done, int64_t total) {
        show(m_progress->update(path, done, total, now()));
      });
      for (const QString& path : m_paths) {
        m_progress->update(path, 0, 0, now());
        peer.fetch(path, timeoutMs(), [this](const QString& got, FetchResult result) { fetched(got, result); });
      }
      while (m_pending > 0) {
        if (Interrupt::requested()) {
          show(m_progress->clear());
          return fail(ExitInterrupted, "interrupted; temporary files removed");
        }
        peer.waitAndUpdate(PollMs);
      }
      return m_verified == m_paths.size() ? ExitOk : ExitFailure;
    }
  }
}
