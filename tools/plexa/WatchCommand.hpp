#pragma once

#include "Command.hpp"

namespace Plexa
{
  namespace Cli
  {
    class WatchCommand : public Command
    {
    public:
      using Command::Command;

      QString name() const override { return "watch"; }
      QString summary() const override;
      QString arguments() const override;
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;
      int run(const QCommandLineParser& parser) override;
    };
  }
}
