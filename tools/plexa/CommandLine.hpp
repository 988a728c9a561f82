#pragma once

#include "Command.hpp"

#include <QStringList>

#include <memory>
#include <vector>

namespace Plexa
{
  namespace Cli
  {
    class Console;

    /// `plexa COMMAND [options] ...`: finds the command, parses its options with
    /// QCommandLineParser, handles --help and the options every command shares, and runs it.
    class CommandLine
    {
    public:
      /// `console` must outlive this object.
      explicit CommandLine(Console& console);
      ~CommandLine();

      /// Runs the command that `arguments` (program name first) name; the exit status.
      int run(const QStringList& arguments);

      /// The overview: usage and the list of commands.
      QString overview() const;
      /// `plexa --version`: the program's version, the library's and the handshake's version line.
      static QString versionText();

    private:
      Command* find(const QString& name) const;
      QString helpText(const Command& command, const QCommandLineParser& parser) const;

      Console& m_console;
      std::vector<std::unique_ptr<Command>> m_commands;
    };
  }
}
