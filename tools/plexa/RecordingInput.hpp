#pragma once

#include "plexa/record/Recording.hpp"

#include <functional>

namespace Plexa
{
  namespace Cli
  {
    /// The records of a recording for watch and replay: on across the files of a split recording
    /// and, when following, on as the file grows, like `tail -f` (polling its size). A follower
    /// also outlasts the recorder: after the file's end record it waits until the wait says stop,
    /// and reads on when a new recorder writes the first file again.
    class RecordingInput
    {
    public:
      /// Waits about `ms` milliseconds while nothing new is in the file; false to stop reading.
      using Wait = std::function<bool(int ms)>;

      /// Milliseconds between two looks at a file that is still being written.
      static constexpr int PollMs = 100;
      /// How long a follower waits for the next file of a split recording to become readable: the
      /// recorder creates it right after naming it, so one that does not come is not coming (and a
      /// file naming an earlier one as its next cannot hold the reader forever).
      static constexpr int NextFileWaitMs = 10000;

      RecordingInput(Recording& recording, bool follow, const Wait& wait);

      /// The next record; false at the end (or when the wait said stop).
      bool next(Recording::Record& record);
      /// Why reading ended before a clean end, with the file's name: the reader's reason or a next
      /// file that could not be read. Empty after a clean end or a stop by the wait.
      QString problem() const { return m_problem; }

    private:
      /// True when the first file now holds another recording than the one read (a new header,
      /// or less than was read of it).
      bool firstFileRewritten() const;

      Recording& m_recording;
      bool m_follow;
      Wait m_wait;
      /// The recording's first file, and the start time of the recording read from it.
      QString m_firstFile;
      int64_t m_firstStartNs;
      QString m_problem;
    };
  }
}
