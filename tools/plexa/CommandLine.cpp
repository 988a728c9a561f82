#include "CommandLine.hpp"

#include "Console.hpp"
#include "DemoCommand.hpp"
#include "DumpCommand.hpp"
#include "FetchCommand.hpp"
#include "InspectCommand.hpp"
#include "RecordCommand.hpp"
#include "ReplayCommand.hpp"
#include "ServeCommand.hpp"
#include "SetCommand.hpp"
#include "WatchCommand.hpp"

#include "bastion/Log.hpp"
#include "plexa/app/Version.hpp"
#include "plexa/net/SharedKey.hpp"

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr double DefaultTimeoutSeconds = 10.0;
    }

    CommandLine::CommandLine(Console& console)
        : m_console(console)
    {
      m_commands.emplace_back(new DemoCommand(console));
      m_commands.emplace_back(new ServeCommand(console));
      m_commands.emplace_back(new WatchCommand(console));
      m_commands.emplace_back(new InspectCommand(console));
      m_commands.emplace_back(new SetCommand(console));
      m_commands.emplace_back(new DumpCommand(console));
      m_commands.emplace_back(new FetchCommand(console));
      m_commands.emplace_back(new RecordCommand(console));
      m_commands.emplace_back(new ReplayCommand(console));
    }

    CommandLine::~CommandLine() = default;

    Command* CommandLine::find(const QString& name) const
    {
      for (const std::unique_ptr<Command>& command : m_commands)
        if (command->name() == name)
          return command.get();
      return nullptr;
    }

    QString CommandLine::overview() const
    {
      QString text = "Usage: plexa COMMAND [options] [arguments]\n"
                     "Keeps a tree of typed attributes identical between two processes over TCP.\n\nCommands:\n";
      for (const std::unique_ptr<Command>& command : m_commands)
        text += QString("  %1%2\n").arg(command->name().leftJustified(8), command->summary());
      text += "\n'plexa COMMAND --help' shows a command's options, 'plexa --version' (-V) the versions.";
      return text;
    }

    QString CommandLine::versionText()
    {
      // The library is loaded at run time and may come from another build than the program.
      return QString("plexa %1\nlibrary %2\nprotocol %3")
          .arg(QStringLiteral(PLEXA_TOOL_VERSION), Plexa::version(), Plexa::protocolVersion());
    }

    QString CommandLine::helpText(const Command& command, const QCommandLineParser& parser) const
    {
      // Qt's help starts with its own usage line, which cannot name the command: ours replaces it.
      QString options = parser.helpText();
      const int optionsStart = options.indexOf("Options:");
      options = optionsStart >= 0 ? options.mid(optionsStart) : options;
      const QString arguments = command.arguments().isEmpty() ? QString() : " " + command.arguments();
      return QString("Usage: plexa %1 [options]%2\n%3\n\n%4")
          .arg(command.name(), arguments, command.description(), options.trimmed());
    }

    int CommandLine::run(const QStringList& arguments)
    {
      const QString name = arguments.value(1);
      if (name.isEmpty()) {
        m_console.err(overview());
        return ExitUsage;
      }
      if (name == "help" || name == "-h" || name == "--help") {
        Command* command = find(arguments.value(2));
        if (!command) {
          m_console.out(overview());
          return ExitOk;
        }
        return run(QStringList{arguments.value(0), command->name(), "--help"});
      }
      if (name == "-V" || name == "--version") {
        m_console.out(versionText());
        return ExitOk;
      }
      Command* command = find(name);
      if (!command) {
        QStringList names;
        for (const std::unique_ptr<Command>& c : m_commands)
          names << c->name();
        m_console.err(
            QString("plexa: unknown command '%1' (commands: %2; see plexa --help)").arg(name, names.join(", ")));
        return ExitUsage;
      }

      QCommandLineParser parser;
      parser.setSingleDashWordOptionMode(QCommandLineParser::ParseAsLongOptions);
      const QCommandLineOption help({"h", "help"}, "Show this help.");
      const QCommandLineOption timeout(
          "timeout",
          QString("Seconds to wait for a connection or an answer before giving up (default %1).")
              .arg(DefaultTimeoutSeconds),
          "SECONDS", QString::number(DefaultTimeoutSeconds));
      const QCommandLineOption verbose({"v", "verbose"}, "Show the library's log lines down to info level.");
      const QCommandLineOption key("key",
                                   "Shared key of the connection handshake, when a deployment changed it; both ends "
                                   "need the same (default: $PLEXA_SHARED_KEY, else the built-in one).",
                                   "KEY");
      parser.addOption(help);
      parser.addOption(timeout);
      parser.addOption(verbose);
      parser.addOption(key);
      command->addOptions(parser);
      QStringList rest = arguments.mid(2);
      rest.prepend(arguments.value(0));
      const QString prefix = QString("plexa %1: ").arg(command->name());
      if (!parser.parse(rest)) {
        m_console.err(prefix + parser.errorText() + QString(" (see plexa %1 --help)").arg(command->name()));
        return ExitUsage;
      }
      if (parser.isSet(help)) {
        m_console.out(helpText(*command, parser));
        return ExitOk;
      }
      bool ok = false;
      const double seconds = parser.value(timeout).toDouble(&ok);
      if (!ok || !(seconds > 0) || seconds > 1e6) {
        m_console.err(prefix +
                      QString("--timeout takes a number of seconds above 0, not '%1'").arg(parser.value(timeout)));
        return ExitUsage;
      }
      command->setTimeoutSeconds(seconds);
      const QByteArray sharedKey = parser.isSet(key) ? parser.value(key).toUtf8() : qgetenv("PLEXA_SHARED_KEY");
      if (!sharedKey.isEmpty())
        SharedKey::set(sharedKey);
      // The library's own lines: warnings and errors unless asked for more, or BASTION_LOG_LEVEL.
      if (parser.isSet(verbose))
        Bastion::setLogLevel(Bastion::LogLevel::Info);
      else if (qEnvironmentVariableIsEmpty("BASTION_LOG_LEVEL"))
        Bastion::setLogLevel(Bastion::LogLevel::Warning);
      return command->run(parser);
    }
  }
}
