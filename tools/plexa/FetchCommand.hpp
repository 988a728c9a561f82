#pragma once

#include "ClientCommand.hpp"

#include "ProgressBar.hpp"

#include <QElapsedTimer>
#include <QStringList>
#include <QTemporaryDir>

#include <memory>

namespace Plexa
{
  namespace Cli
  {
    /// `plexa fetch HOST:PORT /remote/path... [--into DIR]`: downloads files from the peer's
    /// shared folder into a staging folder under DIR, and moves each verified file into place.
    class FetchCommand : public ClientCommand
    {
    public:
      using ClientCommand::ClientCommand;

      QString name() const override { return "fetch"; }
      QString summary() const override;
      QString arguments() const override;
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;

    protected:
      int minArguments() const override { return 1; }
      int maxArguments() const override { return -1; }
      int prepare(const QCommandLineParser& parser, const QStringList& arguments) override;
      int setUp(PeerOptions& options) override;
      int interruptedWhileConnecting() override;
      void done(MirrorNode& mirror) override;
      int connected(MirrorNode& mirror, Peer& peer) override;

    private:
      double now() const;
      /// Writes progress text: a redrawn line, or whole lines.
      void show(const QString& text);
      /// A fetch ended.
      void fetched(const QString& path, FetchResult result);

      QStringList m_paths;
      QString m_into;
      /// Created once Ctrl-C is caught; removed, with what is in it, when the peer has gone.
      std::unique_ptr<QTemporaryDir> m_staging;
      // While fetching.
      QElapsedTimer m_clock;
      std::unique_ptr<ProgressBar> m_progress;
      int m_pending = 0;
      int m_verified = 0;
    };
  }
}
