#include "Interrupt.hpp"

#include <cstring>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      volatile std::sig_atomic_t g_requested = 0;

      extern "C" void onSignal(int signalNumber)
      {
        g_requested = 1;
        // sigaction is async-signal-safe: the next signal of this kind takes the default action.
        struct sigaction defaults;
        std::memset(&defaults, 0, sizeof(defaults));
        defaults.sa_handler = SIG_DFL;
        sigaction(signalNumber, &defaults, nullptr);
      }
    }

    Interrupt::Interrupt()
    {
      g_requested = 0;
      struct sigaction action;
      std::memset(&action, 0, sizeof(action));
      action.sa_handler = onSignal;
      sigemptyset(&action.sa_mask);
      sigaction(SIGINT, &action, &m_previousInt);
      sigaction(SIGTERM, &action, &m_previousTerm);
      struct sigaction ignore;
      std::memset(&ignore, 0, sizeof(ignore));
      ignore.sa_handler = SIG_IGN;
      sigaction(SIGPIPE, &ignore, &m_previousPipe);
    }

    Interrupt::~Interrupt()
    {
      sigaction(SIGINT, &m_previousInt, nullptr);
      sigaction(SIGTERM, &m_previousTerm, nullptr);
      sigaction(SIGPIPE, &m_previousPipe, nullptr);
    }

    bool Interrupt::requested()
    {
      return g_requested != 0;
    }

    void Interrupt::request()
    {
      g_requested = 1;
    }
  }
}
