#pragma once

#include "ClientCommand.hpp"

#include "ValueText.hpp"

#include <vector>

namespace Plexa
{
  namespace Cli
  {
    /// `plexa set HOST:PORT PATH[:TYPE]=VALUE...`: checks every value against the mirrored tree,
    /// sets them all, and waits until the peer confirms (or, a peer that does not answer, until
    /// they were written).
    class SetCommand : public ClientCommand
    {
    public:
      using ClientCommand::ClientCommand;

      QString name() const override { return "set"; }
      QString summary() const override;
      QString arguments() const override;
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;

    protected:
      int minArguments() const override { return 1; }
      int maxArguments() const override { return -1; }
      int prepare(const QCommandLineParser& parser, const QStringList& arguments) override;
      int connected(MirrorNode& mirror, Peer& peer) override;

    private:
      /// Drives the peer until it has acknowledged the values (true: confirmed), or they were
      /// written and the time is up (false); sets `error` when neither happened.
      bool waitUntilApplied(MirrorNode& mirror, Peer& peer, QString& error);

      std::vector<Assignment> m_assignments;
    };
  }
}
