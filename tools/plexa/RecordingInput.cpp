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
        , m_firstFile(recording.fileName())
        , m_firstStartNs(recording.startWallNs())
    {
    }

    bool RecordingInput::firstFileRewritten() const
    {
      Recording first;
      if (!first.open(m_firstFile))
        return false; // gone, or a new header not yet whole: looked at again at the next poll
      const bool sameFile = m_recording.fileName() == m_firstFile;
      return first.startWallNs() != m_firstStartNs || (sameFile && first.fileSize() < m_recording.stoppedAt());
    }

    bool RecordingInput::next(Recording::Record& record)
    {
      m_problem.clear();
      QElapsedTimer waitingForNext;
      for (;;) {
        if (m_recording.next(record))
          return true;
        if (m_recording.endedCleanly()) {
          if (m_recording.nextFile().isEmpty()) {
            if (!m_follow)
              return false;
          } else {
            QString error;
            if (m_recording.openNextPart(&error))
              continue;
            if (!waitingForNext.isValid())
              waitingForNext.start();
            if (!m_follow || waitingForNext.elapsed() >= NextFileWaitMs) {
              m_problem = error;
              return false;
            }
          }
        } else if (!m_follow) {
          m_problem = QString("%1: %2").arg(m_recording.fileName(), m_recording.stopReason());
          return false;
        }
        if (!m_wait(PollMs))
          return false;
        // A recorder started again on the same file (after a clean end or a crash) rewrites it:
        // the new recording is read on from its start, its snapshot bringing the tree up to date.
        if (firstFileRewritten() && m_recording.open(m_firstFile)) {
          m_firstStartNs = m_recording.startWallNs();
          continue;
        }
        m_recording.refresh();
      }
    }
  }
}
