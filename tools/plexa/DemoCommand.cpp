#include "DemoCommand.hpp"

#include "DemoRun.hpp"
#include "Interrupt.hpp"

namespace Plexa
{
  namespace Cli
  {
    QString DemoCommand::summary() const
    {
      return "show two peers keeping a scene in sync, with a summary (start here)";
    }

    QString DemoCommand::arguments() const
    {
      return QString();
    }

    QString DemoCommand::description() const
    {
      return "Runs a serving peer and a client peer in this process, on a free 127.0.0.1 port. The server\n"
             "publishes a small scene and animates it; the client mirrors it, changes a few values of its\n"
             "own, receives a sliced event and fetches files from the server's shared folder (a temporary\n"
             "one). Ends with a summary table; the exit status is 0 only when both trees ended identical\n"
             "and every file was verified.";
    }

    void DemoCommand::addOptions(QCommandLineParser& parser)
    {
      parser.addOption({"seconds", "How long the scene is animated (default 3).", "SECONDS", "3"});
    }

    int DemoCommand::run(const QCommandLineParser& parser)
    {
      bool ok = false;
      const double seconds = parser.value("seconds").toDouble(&ok);
      if (!ok || !(seconds > 0) || seconds > 3600)
        return fail(ExitUsage,
                    QString("--seconds takes a number of seconds above 0, not '%1'").arg(parser.value("seconds")));
      Interrupt interrupt;
      DemoRun demo(console, seconds, timeoutSeconds());
      return demo.run();
    }
  }
}
