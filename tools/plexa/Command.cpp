#include "Command.hpp"

#include "Console.hpp"

namespace Plexa
{
  namespace Cli
  {
    Command::Command(Console& console) : console(console) {}

    Command::~Command() = default;

    int Command::fail(int status, const QString& message)
    {
      console.err(QString("plexa %1: %2").arg(name(), message));
      return status;
    }

    void Command::warn(const QString& message)
    {
      console.err(QString("plexa %1: warning: %2").arg(name(), message));
    }
  }
}
