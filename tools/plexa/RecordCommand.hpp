#pragma once

#include "ClientCommand.hpp"

namespace Plexa
{
  namespace Cli
  {
    /// `plexa record HOST:PORT FILE [--for S] [--max-size B] [--split B]`: mirrors the peer's tree
    /// and records it, with its events, into FILE until Ctrl-C or a limit.
    class RecordCommand : public ClientCommand
    {
    public:
      using ClientCommand::ClientCommand;

      QString name() const override { return "record"; }
      QString summary() const override;
      QString arguments() const override;
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;

      /// The name of part `index` (1, 2, ...) of a recording split from `fileName`: the number goes
      /// before the extension ("run.plexrec" gives "run.1.plexrec").
      static QString partName(const QString& fileName, int index);

    protected:
      int minArguments() const override { return 1; }
      int maxArguments() const override { return 1; }
      int prepare(const QCommandLineParser& parser, const QStringList& arguments) override;
      int connected(MirrorNode& mirror, Peer& peer) override;

    private:
      QString m_file;
      double m_forSeconds = 0;
      int64_t m_maxSize = 0;
      int64_t m_splitSize = 0;
      double m_snapshotSeconds = 0;
    };
  }
}
