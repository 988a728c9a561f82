#pragma once

#include "Command.hpp"

namespace Plexa
{
  namespace Cli
  {
    /// `plexa demo [--seconds S]`: a `DemoRun` with its summary; the first thing a newcomer runs.
    class DemoCommand : public Command
    {
    public:
      using Command::Command;

      QString name() const override { return "demo"; }
      QString summary() const override;
      QString arguments() const override;
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;
      int run(const QCommandLineParser& parser) override;
    };
  }
}
