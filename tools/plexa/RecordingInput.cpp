#include "RecordingInput.hpp"

#include <QElapsedTimer>

namespace Plexa
{
  namespace Cli
  {
    RecordingInput::RecordingInput(Recording& recording, bool follow, const Wait& wait)
        : m_recording(recording)
        , m_follow(follow)
        , m_wait(wait)
    {
    }

    bool RecordingInput::next(Recording::Record& record)
    {
      m_problem.clear();
      QElapsedTimer waitingForNext;
      for (;;) {
        if (m_recording.next(record))
          return true;
        if (m_recording.endedCleanly()) {
          if (m_recording.nextFile().isEmpty())
            return false;
          QString error;
          if (m_recording.openNextPart(&error))
            continue;
          if (!waitingForNext.isValid())
            waitingForNext.start();
          if (!m_follow || waitingForNext.elapsed() >= NextFileWaitMs) {
            m_problem = error;
            return false;
          }
        } else if (!m_follow) {
          m_problem = QString("%1: %2").arg(m_recording.fileName(), m_recording.stopReason());
          return false;
        }
        if (!m_wait(PollMs))
          return false;
        m_recording.refresh();
      }
    }
  }
}
