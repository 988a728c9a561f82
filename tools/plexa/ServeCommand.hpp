#pragma once

#include "Command.hpp"

namespace Plexa
{
  namespace Cli
  {
    /// `plexa serve`: publishes a tree (empty, or loaded from JSON) and optionally a folder, and
    /// prints connections as they come and go, until Ctrl-C.
    class ServeCommand : public Command
    {
    public:
      using Command::Command;

      QString name() const override { return "serve"; }
      QString summary() const override;
      QString arguments() const override { return QString(); }
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;
      int run(const QCommandLineParser& parser) override;
    };
  }
}
