#pragma once

#include <QCommandLineParser>
#include <QString>

namespace Plexa
{
  class Peer;

  namespace Cli
  {
    class AddressArgument;
    class Console;
    class InspectorPage;
    class MirrorNode;

    /// Exit statuses of every command.
    enum ExitStatus
    {
      ExitOk = 0,
      /// Something did not work out: no connection, a file not fetched, trees that differ.
      ExitFailure = 1,
      /// The command line itself is wrong.
      ExitUsage = 2,
      /// Ctrl-C or SIGTERM ended a command that had more to do (128 + SIGINT, as shells count).
      ExitInterrupted = 130
    };

    /// One subcommand of `plexa`. `CommandLine` adds the options every command shares (--help,
    /// --timeout, --verbose, --key), then the command's own, parses, and calls `run`.
    class Command
    {
    public:
      /// `console` must outlive the command.
      explicit Command(Console& console);
      virtual ~Command();
      Command(const Command&) = delete;
      Command& operator=(const Command&) = delete;

      virtual QString name() const = 0;
      /// One line for the list of commands.
      virtual QString summary() const = 0;
      /// What follows "plexa NAME [options]" in the usage line.
      virtual QString arguments() const = 0;
      /// A few lines under the usage line: what the command does, with an example.
      virtual QString description() const = 0;
      virtual void addOptions(QCommandLineParser& parser) = 0;
      /// Runs the command; the options are parsed and the shared ones already checked.
      virtual int run(const QCommandLineParser& parser) = 0;

      /// Set by `CommandLine` from --timeout before `run`.
      void setTimeoutSeconds(double seconds) { m_timeoutSeconds = seconds; }

    protected:
      /// Writes "plexa NAME: MESSAGE" on the error stream and returns `status`.
      int fail(int status, const QString& message);
      /// The same as a warning that does not end the command.
      void warn(const QString& message);

      /// The --listen option of the commands that serve a tree (default 127.0.0.1 and the default port).
      static QCommandLineOption listenOption();
      /// Once `peer` listens at `address`: prints the address it got (with the port picked for port
      /// 0), warns when other machines can reach it, and prints connections as they come and go.
      void reportListening(const AddressArgument& address, Peer& peer);

      /// The --http option (`fallback`: its default, empty for none) and --read-only of the
      /// commands that serve the inspector page.
      static QList<QCommandLineOption> pageOptions(const QString& fallback);
      /// Starts `page` at --http's address showing `tree`, prints its address and warns when other
      /// machines can reach it. ExitOk, or the status to end with (having said why).
      int startPage(InspectorPage& page, const QCommandLineParser& parser, MirrorNode& tree, Peer& peer, int role,
                    const QString& treeAddress);

      double timeoutSeconds() const { return m_timeoutSeconds; }
      int timeoutMs() const { return int(m_timeoutSeconds * 1000.0); }

      Console& console;

    private:
      double m_timeoutSeconds = 10.0;
    };
  }
}
