#pragma once

#include "AddressArgument.hpp"

#include <QString>

namespace Plexa
{
  class Peer;

  namespace Cli
  {
    class Console;

    /// The start every client command shares: connect a Peer to HOST:PORT and drive it until the
    /// peer's tree has arrived, showing the retry countdown while the host cannot be reached.
    ///
    /// Application thread only; the peer, the console and the address must outlive it.
    class ClientConnection
    {
    public:
      enum Outcome
      {
        /// A session is established and the peer's tree at its start is mirrored.
        Mirrored,
        /// Not within the time limit; `error` says how far it got.
        TimedOut,
        /// Ctrl-C.
        Interrupted
      };

      ClientConnection(Peer& peer, const AddressArgument& address, Console& console);

      /// Connects and drives `peer` until the tree is mirrored, Ctrl-C, or `timeoutSeconds`.
      Outcome connectAndMirror(double timeoutSeconds, QString* error);

      /// Before a client command ends: runs a last update and waits until its bytes are written
      /// (at most `maxMs`), then closes the connection, so that the peer sees a clean end instead
      /// of a bundle block cut short.
      void finish(int maxMs = 1000);

    private:
      Peer& m_peer;
      const AddressArgument& m_address;
      Console& m_console;
    };
  }
}
