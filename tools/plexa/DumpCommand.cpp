#include "DumpCommand.hpp"

#include "AttributeJson.hpp"
#include "Console.hpp"
#include "MirrorNode.hpp"
#include "TreeJson.hpp"
#include "WatchFormat.hpp"

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      /// "path (type) = value" for every attribute under `node`, in tree order.
      void listAttributes(const Carafe::Node& node, const QString& prefix, Console& console)
      {
        const std::vector<Carafe::Attribute*> children = node.attributes();
        if (children.empty() && !prefix.isEmpty())
          console.out(prefix + "/ (empty)");
        for (const Carafe::Attribute* child : children) {
          const QString path = (prefix.isEmpty() ? QString() : prefix + "/") + QString::fromUtf8(child->name());
          if (auto* childNode = dynamic_cast<const Carafe::Node*>(child)) {
            listAttributes(*childNode, path, console);
            continue;
          }
          const QString type = AttributeJson::typeName(*child);
          if (type.isEmpty())
            console.out(QString("%1 = %2").arg(path, child->asText()));
          else
            console.out(QString("%1 (%2) = %3").arg(path, type, WatchFormat::compact(AttributeJson::value(*child))));
        }
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
        listAttributes(mirror, QString(), console);
      return ExitOk;
    }
  }
}
