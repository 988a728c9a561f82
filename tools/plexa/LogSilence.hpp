#pragma once

#include "bastion/Log.hpp"

namespace Plexa
{
  namespace Cli
  {
    /// Drops the library's log lines while it lives. A command that is ending closes its own
    /// connections, and what the library says about that (a handshake or a read cut short) is no
    /// news to the person who ended it.
    class LogSilence
    {
    public:
      LogSilence();
      /// Puts the previous handler back.
      ~LogSilence();
      LogSilence(const LogSilence&) = delete;
      LogSilence& operator=(const LogSilence&) = delete;

    private:
      Bastion::LogHandler m_previous;
    };
  }
}
