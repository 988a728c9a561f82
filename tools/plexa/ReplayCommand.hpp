#pragma once

#include "Command.hpp"

namespace Plexa
{
  namespace Cli
  {
    /// `plexa replay FILE`: serves a recording as a live peer, with the recorded timing.
    class ReplayCommand : public Command
    {
    public:
      using Command::Command;

      QString name() const override { return "replay"; }
      QString summary() const override;
      QString arguments() const override { return "FILE"; }
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;
      int run(const QCommandLineParser& parser) override;
    };
  }
}
