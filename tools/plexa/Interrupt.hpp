#pragma once

#include <csignal>

namespace Plexa
{
  namespace Cli
  {
    /// Ctrl-C and SIGTERM as a flag that update loops poll. While an object lives, the first such
    /// signal only sets the flag (the handler does nothing else, so it is safe whatever the
    /// program was doing) and puts the default action back, so that a second one ends a program
    /// that no longer listens. SIGPIPE is ignored: a closed output pipe shows as a failed write.
    ///
    /// One object at a time; `requested` may be read from any thread.
    class Interrupt
    {
    public:
      Interrupt();
      /// Puts the previous handlers back.
      ~Interrupt();
      Interrupt(const Interrupt&) = delete;
      Interrupt& operator=(const Interrupt&) = delete;

      /// True once a signal arrived.
      static bool requested();
      /// Sets the flag as the signal would (tests, and commands that end themselves the same way).
      static void request();

    private:
      struct sigaction m_previousInt;
      struct sigaction m_previousTerm;
      struct sigaction m_previousPipe;
    };
  }
}
