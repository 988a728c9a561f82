#include "DumpCommand.hpp"

#include "AttributeJson.hpp"
#include "Console.hpp"
#include "MirrorNode.hpp"
#include "TreeJson.hpp"
#include "TreePath.hpp"
#include "WatchFormat.hpp"

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
      parser.addPositionalArgument("HOST:PORT", "Address of the peer.");
    }

    int DumpCommand::prepare(const QCommandLineParser& parser, const QStringList&)
    {
      m_json = parser.isSet("json");
      return ExitOk;
    }

    int DumpCommand::connected(MirrorNode& mirror, Peer&)
    {
      if (m_json)
        console.outBytes(TreeJson::saveText(mirror));
      else
        listAttributes(mirror, console);
      return ExitOk;
    }
  }
}
