#pragma once

#include "ClientCommand.hpp"

#include "WatchFormat.hpp"

namespace Plexa
{
  namespace Cli
  {
    /// `plexa watch HOST:PORT [--json]`: every addition, change, removal and event of the peer's
    /// tree as it arrives, until Ctrl-C or until nobody reads the output.
    class WatchCommand : public ClientCommand
    {
    public:
      using ClientCommand::ClientCommand;

      QString name() const override { return "watch"; }
      QString summary() const override;
      QString arguments() const override;
      QString description() const override;
      void addOptions(QCommandLineParser& parser) override;

    protected:
      int prepare(const QCommandLineParser& parser, const QStringList& arguments) override;
      int beforeConnecting(MirrorNode& mirror, Peer& peer) override;
      int interruptedWhileConnecting() override;
      void done(MirrorNode& mirror) override;
      int connected(MirrorNode& mirror, Peer& peer) override;
      bool readsRecordings() const override { return true; }
      int runOnRecording(const QCommandLineParser& parser, const QString& fileName) override;

    private:
      void print(const WatchEvent& event);
      /// Prints the mirror's changes and the peer's events from now on.
      void listen(MirrorNode& mirror);
      void printRemoteEvent(const QByteArray& name, const Bastion::BinaryData& data);

      /// The time printed: now, or while reading a recording the recorded time.
      QDateTime m_recordedTime;

      bool m_json = false;
      long m_listener = -1;
    };
  }
}
