#pragma once

#include "ClientCommand.hpp"

#include <memory>

namespace Plexa
{
  namespace Cli
  {
    class InspectorPage;

    /// `plexa inspect HOST:PORT [--http ADDR] [--read-only]`: mirrors the peer's tree and serves
    /// a page that shows it live and lets a person change it, until Ctrl-C.
    class InspectCommand : public ClientCommand
    {
    public:
      explicit InspectCommand(Console& console);
      ~InspectCommand() override;

      QString name() const override { return "inspect"; }
      QString summary() const override;
      QString arguments() const override { return "HOST:PORT"; }
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;

    protected:
      int prepare(const QCommandLineParser& parser, const QStringList& arguments) override;
      int beforeConnecting(MirrorNode& mirror, Peer& peer) override;
      int connected(MirrorNode& mirror, Peer& peer) override;
      int interruptedWhileConnecting() override;
      void beforeStopping() override;

    private:
      const QCommandLineParser* m_parser = nullptr;
      std::unique_ptr<InspectorPage> m_page;
    };
  }
}
