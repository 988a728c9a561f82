#include "DumpCommand.hpp"

#include "AttributeJson.hpp"
#include "Console.hpp"
#include "MirrorNode.hpp"
#include "TreeJson.hpp"
#include "TreePath.hpp"
#include "WatchFormat.hpp"

#include "plexa/record/RecordingPlayer.hpp"

#include <QDateTime>

#include <limits>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      /// "path (type) = value" for every attribute under `node`, in tree order.
      void listAttributes(const Carafe::Node& node, Console& console)
      {
        TreePath::walk(
            node,
            [&console](const Carafe::Attribute& attribute, const QString& path) {
              const QString type = AttributeJson::typeName(attribute);
              if (type.isEmpty())
                console.out(QString("%1 = %2").arg(path, attribute.asText()));
              else
                console.out(
                    QString("%1 (%2) = %3").arg(path, type, WatchFormat::compact(AttributeJson::value(attribute))));
            },
            [&console](const QString& path) { console.out(path + "/ (empty)"); });
      }
    }

    QString DumpCommand::summary() const
    {
      return "print a peer's tree once";
    }

    QString DumpCommand::arguments() const
    {
      return "HOST:PORT";
    }

    QString DumpCommand::description() const
    {
      return "Mirrors the tree of the peer at HOST:PORT, prints it and exits: one line per attribute\n"
             "(path, type, value as plexa set takes it), or with --json a tree file for plexa serve --tree.\n"
             "\n"
             "Example: plexa dump 127.0.0.1:5000 --json > scene.json";
    }

    void DumpCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOption({"json", "Print the tree as JSON, as plexa serve --tree reads it."});
      parser.addOption({"at",
                        "With a recording: the tree at this time, in seconds since the start of the recording or as an "
                        "ISO 8601 date and time (default: the end).",
                        "TIME"});
      parser.addPositionalArgument("HOST:PORT", "Address of the peer, or a recording made by plexa record.");
    }

    int DumpCommand::prepare(const QCommandLineParser& parser, const QStringList&)
    {
      m_json = parser.isSet("json");
      if (parser.isSet("at"))
        return fail(ExitUsage, "--at reads a recording only");
      return ExitOk;
    }

    int DumpCommand::connected(MirrorNode& mirror, Peer&)
    {
      print(mirror);
      return ExitOk;
    }

    void DumpCommand::print(const Carafe::Node& tree)
    {
      if (m_json)
        console.outBytes(TreeJson::saveText(tree));
      else
        listAttributes(tree, console);
    }

    int DumpCommand::runOnRecording(const QCommandLineParser& parser, const QString& fileName)
    {
      m_json = parser.isSet("json");
      Recording recording;
      QString error;
      if (!recording.open(fileName, &error))
        return fail(ExitFailure, error);
      int64_t atNs = std::numeric_limits<int64_t>::max();
      if (parser.isSet("at")) {
        const QString text = parser.value("at");
        bool ok = false;
        const double seconds = text.toDouble(&ok);
        const QDateTime time = QDateTime::fromString(text, Qt::ISODateWithMs);
        if (ok && seconds >= 0 && seconds < 1e9)
          atNs = int64_t(seconds * 1e9);
        else if (!ok && time.isValid())
          atNs = time.toMSecsSinceEpoch() * 1000000 - recording.startWallNs();
        else
          return fail(ExitUsage, "--at takes seconds since the start of the recording or an ISO 8601 time");
      }
      MirrorNode tree("tree");
      RecordingPlayer player(tree);
      player.playUntil(recording, atNs);
      if (!recording.stopReason().isEmpty())
        warn(QString("%1: %2").arg(recording.fileName(), recording.stopReason()));
      print(tree);
      return ExitOk;
    }
  }
}
