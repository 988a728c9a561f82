// plexa: serve, mirror, change and fetch from a tree of attributes over TCP; `plexa demo` shows it.

#include "CommandLine.hpp"
#include "Console.hpp"

#include <QCoreApplication>

int main(int argc, char* argv[])
{
  QCoreApplication application(argc, argv);
  QCoreApplication::setApplicationName("plexa");
  Plexa::Cli::Console console;
  Plexa::Cli::CommandLine commandLine(console);
  return commandLine.run(QCoreApplication::arguments());
}
