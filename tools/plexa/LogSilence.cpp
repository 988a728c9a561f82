#include "LogSilence.hpp"

namespace Plexa
{
  namespace Cli
  {
    LogSilence::LogSilence()
        : m_previous(Bastion::setLogHandler([](Bastion::LogLevel, const QByteArray&) {}))
    {
    }

    LogSilence::~LogSilence()
    {
      Bastion::setLogHandler(m_previous);
    }
  }
}
