#pragma once

#include <QHash>
#include <QString>

#include <cstdint>

namespace Plexa
{
  namespace Cli
  {
    /// Progress of file downloads as text: on a terminal one line redrawn in place, with a bar,
    /// the bytes, the rate and the time left; otherwise plain lines, at most one per file and
    /// second. It only makes text: the caller writes it. Times are seconds on any one clock.
    ///
    /// Not thread-safe: one thread at a time.
    class ProgressBar
    {
    public:
      /// `columns`: terminal width the redrawn line must fit in.
      ProgressBar(bool terminal, int columns);

      /// Text to write for a progress report of `path`: on a terminal "\r" and the line (no
      /// newline), otherwise a whole line ending in "\n"; empty when too little time passed since
      /// the last text (0.1 s on a terminal, 1 s per file otherwise). The first report of a path
      /// starts its clock.
      QString update(const QString& path, int64_t done, int64_t total, double now);
      /// The last text of `path`, always a whole line: bytes, time taken, rate and `outcome`.
      QString finish(const QString& path, const QString& outcome, double now);
      /// Text that blanks a redrawn line, so that other output can follow; empty when none is
      /// showing.
      QString clear();

      /// "512 B", "1.5 KiB", "12.3 MiB", "1.0 GiB".
      static QString formatBytes(int64_t bytes);
      /// "m:ss" or "h:mm:ss", rounded up; "--:--" when unknown (negative or not finite).
      static QString formatDuration(double seconds);
      /// The redrawn line: label, bar, per cent, bytes done and total, rate, time left; fitted
      /// into `columns` (the label is shortened from the left, then the bar dropped).
      static QString barLine(const QString& label, int64_t done, int64_t total, double elapsed, int columns);
      /// One plain line with the same figures.
      static QString plainLine(const QString& label, int64_t done, int64_t total, double elapsed);

    private:
      struct File
      {
        double start = 0;
        double lastShown = -1;
        int64_t done = 0;
        int64_t total = 0;
      };

      File& file(const QString& path, double now);

      bool m_terminal;
      int m_columns;
      double m_lastDrawn = -1;
      int m_drawnWidth = 0;
      QHash<QString, File> m_files;
    };
  }
}
