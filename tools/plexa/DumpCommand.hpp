#pragma once

#include "ClientCommand.hpp"

namespace Carafe
{
  class Node;
}

namespace Plexa
{
  namespace Cli
  {
    /// `plexa dump HOST:PORT [--json]`: the peer's tree once, as lines or as a tree file.
    class DumpCommand : public ClientCommand
    {
    public:
      using ClientCommand::ClientCommand;

      QString name() const override { return "dump"; }
      QString summary() const override;
      QString arguments() const override;
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;

    protected:
      int prepare(const QCommandLineParser& parser, const QStringList& arguments) override;
      int connected(MirrorNode& mirror, Peer& peer) override;
      bool readsRecordings() const override { return true; }
      int runOnRecording(const QCommandLineParser& parser, const QString& fileName) override;

    private:
      void print(const Carafe::Node& tree);

      bool m_json = false;
    };
  }
}
