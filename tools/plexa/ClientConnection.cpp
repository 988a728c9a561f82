#include "ClientConnection.hpp"

#include "Console.hpp"
#include "Interrupt.hpp"

#include "plexa/app/Peer.hpp"

#include <QElapsedTimer>

#include <cmath>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      /// Longest wait between two looks at the interrupt flag and the clock.
      constexpr int PollMs = 50;
    }

    ClientConnection::ClientConnection(Peer& peer, const AddressArgument& address, Console& console)
        : m_peer(peer)
        , m_address(address)
        , m_console(console)
    {
    }

    ClientConnection::Outcome ClientConnection::connectAndMirror(double timeoutSeconds, QString* error)
    {
      QElapsedTimer clock;
      clock.start();
      m_peer.setRetryCallback([&](double secondsLeft) {
        const double givingUp = timeoutSeconds - double(clock.elapsed()) / 1000.0;
        m_console.status(QString("cannot reach %1 yet; next attempt in %2 s, giving up in %3 s")
                             .arg(m_address.toString())
                             .arg(int(std::ceil(secondsLeft)))
                             .arg(int(std::ceil(qMax(0.0, givingUp)))));
      });
      m_peer.connectTo(m_address.host(), m_address.port());
      Outcome outcome = Mirrored;
      while (m_peer.initializedSessionCount() == 0) {
        if (Interrupt::requested()) {
          outcome = Interrupted;
          break;
        }
        const qint64 left = qint64(timeoutSeconds * 1000.0) - clock.elapsed();
        if (left <= 0) {
          outcome = TimedOut;
          if (error)
            *error = m_peer.sessionCount() > 0
                         ? QString("connected to %1, but its tree did not arrive within %2 s")
                               .arg(m_address.toString())
                               .arg(timeoutSeconds)
                         : QString("could not connect to %1 within %2 s (is plexa serve running there, with the same "
                                   "shared key and room for another connection?)")
                               .arg(m_address.toString())
                               .arg(timeoutSeconds);
          break;
        }
        m_peer.waitAndUpdate(int(qMin<qint64>(left, PollMs)));
      }
      m_peer.setRetryCallback(Peer::RetryCallback());
      return outcome;
    }

    void ClientConnection::finish(int maxMs)
    {
      m_peer.flush(maxMs);
      m_peer.stop();
    }
  }
}
