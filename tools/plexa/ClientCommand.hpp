#pragma once

#include "AddressArgument.hpp"
#include "Command.hpp"

#include "plexa/app/Peer.hpp"

namespace Plexa
{
  namespace Cli
  {
    class ClientConnection;
    class MirrorNode;

    /// A command that talks to the peer at HOST:PORT (its first argument): watch, set, dump,
    /// fetch. `run` checks the address and the number of arguments, installs the Ctrl-C handler,
    /// mirrors the peer's tree through a Peer (showing the retry countdown, giving up after
    /// --timeout), hands over to `connected`, and closes the connection cleanly.
    class ClientCommand : public Command
    {
    public:
      using Command::Command;

      int run(const QCommandLineParser& parser) final;

    protected:
      /// How many arguments may follow HOST:PORT (`maxArguments` -1: any number).
      virtual int minArguments() const { return 0; }
      virtual int maxArguments() const { return 0; }
      /// Checks the arguments after HOST:PORT and the options before anything connects: ExitOk,
      /// or the status to end with (having said why).
      virtual int prepare(const QCommandLineParser& parser, const QStringList& arguments);
      /// Sets the peer's options up; Ctrl-C is caught from here on. ExitOk, or the status to end with.
      virtual int setUp(PeerOptions& options);
      /// Before the connection is made (listeners that must see the first contents). ExitOk, or
      /// the status to end with (having said why).
      virtual int beforeConnecting(MirrorNode& mirror, Peer& peer);
      /// The work, once the peer's tree is mirrored; the exit status.
      virtual int connected(MirrorNode& mirror, Peer& peer) = 0;
      /// The status when Ctrl-C came before the tree was mirrored.
      virtual int interruptedWhileConnecting();
      /// Whatever happened, before the peer stops: what uses the peer from other threads ends here.
      virtual void beforeStopping();
      /// Last, before the mirror goes (whatever happened): listeners that must not hear the
      /// mirror's contents go are taken off here.
      virtual void done(MirrorNode& mirror);

      /// Commands that also read a recording instead of a peer (watch, dump) answer true; `run`
      /// then hands a first argument naming an existing file to `runOnRecording`.
      virtual bool readsRecordings() const { return false; }
      virtual int runOnRecording(const QCommandLineParser& parser, const QString& fileName);

      const AddressArgument& address() const { return m_address; }

    private:
      AddressArgument m_address;
    };
  }
}
