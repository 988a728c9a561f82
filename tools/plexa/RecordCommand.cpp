#include "RecordCommand.hpp"

#include "Console.hpp"
#include "Interrupt.hpp"
#include "MirrorNode.hpp"
#include "SyncEvents.hpp"

#include "plexa/app/Peer.hpp"
#include "plexa/record/Recorder.hpp"

#include <QElapsedTimer>
#include <QFileInfo>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr int PollMs = 100;
      /// Milliseconds between two redraws of the status line.
      constexpr int StatusMs = 500;
      /// Milliseconds between two writes of the buffered records: what a crash can lose.
      constexpr int FlushMs = 250;

      bool parseBytes(const QString& text, int64_t& out)
      {
        bool ok = false;
        out = text.toLongLong(&ok);
        return ok && out > 0;
      }
    }

    QString RecordCommand::summary() const
    {
      return "record a peer's tree and events into a file";
    }

    QString RecordCommand::arguments() const
    {
      return "HOST:PORT FILE";
    }

    QString RecordCommand::description() const
    {
      return "Mirrors the tree of the peer at HOST:PORT and writes it into FILE: the tree as it is, then\n"
             "every addition, change, removal and event with the time it arrived. Ctrl-C ends the\n"
             "recording cleanly; so do --for and --max-size. Read it with plexa dump FILE, plexa watch\n"
             "FILE, or serve it again with plexa replay FILE.\n"
             "\n"
             "Example: plexa record 127.0.0.1:5000 session.plexrec --for 60";
    }

    void RecordCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOptions({
          {"for", "Stop after this many seconds.", "SECONDS"},
          {"max-size", "Stop once the file holds this many bytes.", "BYTES"},
          {"split", "Go on in a new file (FILE with .1, .2... before its extension) at this size.", "BYTES"},
          {"snapshot-every", "Seconds between full snapshots of the tree (default 60).", "SECONDS"},
      });
      parser.addPositionalArgument("HOST:PORT", "Address of the peer.");
      parser.addPositionalArgument("FILE", "The recording to write.");
    }

    QString RecordCommand::partName(const QString& fileName, int index)
    {
      const QFileInfo info(fileName);
      const QString suffix = info.suffix();
      const QString base = suffix.isEmpty() ? fileName : fileName.left(fileName.size() - suffix.size() - 1);
      return QString("%1.%2%3").arg(base).arg(index).arg(suffix.isEmpty() ? QString() : "." + suffix);
    }

    int RecordCommand::prepare(const QCommandLineParser& parser, const QStringList& arguments)
    {
      m_file = arguments.at(0);
      bool ok = true;
      if (parser.isSet("for")) {
        m_forSeconds = parser.value("for").toDouble(&ok);
        if (!ok || m_forSeconds <= 0)
          return fail(ExitUsage, "--for takes a number of seconds above 0");
      }
      if (parser.isSet("max-size") && !parseBytes(parser.value("max-size"), m_maxSize))
        return fail(ExitUsage, "--max-size takes a number of bytes above 0");
      if (parser.isSet("split") && !parseBytes(parser.value("split"), m_splitSize))
        return fail(ExitUsage, "--split takes a number of bytes above 0");
      m_snapshotSeconds = RecorderOptions().snapshotSeconds;
      if (parser.isSet("snapshot-every")) {
        m_snapshotSeconds = parser.value("snapshot-every").toDouble(&ok);
        if (!ok || m_snapshotSeconds <= 0)
          return fail(ExitUsage, "--snapshot-every takes a number of seconds above 0");
      }
      return ExitOk;
    }

    int RecordCommand::connected(MirrorNode& mirror, Peer& peer)
    {
      RecorderOptions options;
      options.source = address().toString();
      options.snapshotSeconds = m_snapshotSeconds;
      Recorder recorder(mirror, options);
      QString error;
      if (!recorder.open(m_file, &error))
        return fail(ExitFailure, error);
      mirror.setRemoteEventCallback([&recorder](const QByteArray& name, const Bastion::BinaryData& data) {
        if (name != SyncEvents::Reply && name != SyncEvents::Request)
          recorder.recordEvent(name, data);
      });

      QElapsedTimer clock;
      clock.start();
      int64_t lastStatus = 0;
      int64_t lastFlush = 0;
      uint64_t lastValues = 0;
      int64_t bytesBefore = 0; // in the finished parts of a split recording
      int part = 0;
      QString current = m_file;
      QString reason = "interrupted";
      while (!Interrupt::requested()) {
        peer.waitAndUpdate(PollMs);
        if (!recorder.isOpen()) {
          mirror.setRemoteEventCallback(MirrorNode::RemoteEventCallback());
          return fail(ExitFailure, recorder.errorString());
        }
        if (m_forSeconds > 0 && clock.elapsed() >= m_forSeconds * 1000.0) {
          reason = "--for reached";
          break;
        }
        if (m_maxSize > 0 && bytesBefore + recorder.fileBytes() >= m_maxSize) {
          reason = "--max-size reached";
          break;
        }
        if (m_splitSize > 0 && recorder.fileBytes() >= m_splitSize) {
          bytesBefore += recorder.fileBytes();
          current = partName(m_file, ++part);
          if (!recorder.split(current, &error)) {
            mirror.setRemoteEventCallback(MirrorNode::RemoteEventCallback());
            return fail(ExitFailure, error);
          }
        }
        if (clock.elapsed() - lastFlush >= FlushMs) {
          recorder.flush();
          lastFlush = clock.elapsed();
        }
        if (console.errIsTerminal() && clock.elapsed() - lastStatus >= StatusMs) {
          const double seconds = (clock.elapsed() - lastStatus) / 1000.0;
          console.status(QString("recording %1: %2 values (%3/s), %4 events, %5 bytes")
                             .arg(current)
                             .arg(recorder.valueCount())
                             .arg(qint64((recorder.valueCount() - lastValues) / std::max(seconds, 0.001)))
                             .arg(recorder.eventCount())
                             .arg(bytesBefore + recorder.fileBytes()));
          lastStatus = clock.elapsed();
          lastValues = recorder.valueCount();
        }
      }
      mirror.setRemoteEventCallback(MirrorNode::RemoteEventCallback());
      recorder.close();
      if (!recorder.errorString().isEmpty())
        return fail(ExitFailure, recorder.errorString());
      console.err(QString("recorded %1 values and %2 events in %3 s into %4 (%5 bytes%6); %7")
                      .arg(recorder.valueCount())
                      .arg(recorder.eventCount())
                      .arg(clock.elapsed() / 1000.0, 0, 'f', 1)
                      .arg(m_file)
                      .arg(bytesBefore + recorder.fileBytes())
                      .arg(part ? QString(", %1 more files").arg(part) : QString())
                      .arg(reason));
      return ExitOk;
    }
  }
}
