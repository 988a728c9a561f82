#include "ProgressBar.hpp"

#include <cmath>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      constexpr double TerminalInterval = 0.1;
      constexpr double PlainInterval = 1.0;
      constexpr int MinBarWidth = 10;

      struct Figures
      {
        QString percent;
        QString amount;
        QString rate;
        QString left;
      };

      Figures figures(int64_t done, int64_t total, double elapsed)
      {
        Figures f;
        const double fraction = total > 0 ? qBound(0.0, double(done) / double(total), 1.0) : 1.0;
        f.percent = QString("%1%").arg(int(std::floor(fraction * 100.0)), 3);
        f.amount = ProgressBar::formatBytes(done) + " / " + ProgressBar::formatBytes(total);
        const double rate = elapsed > 0 ? double(done) / elapsed : 0.0;
        f.rate = rate > 0 ? ProgressBar::formatBytes(int64_t(rate)) + "/s" : QString("-- B/s");
        f.left = ProgressBar::formatDuration(rate > 0 ? double(total - done) / rate : -1.0) + " left";
        return f;
      }
    }

    ProgressBar::ProgressBar(bool terminal, int columns)
        : m_terminal(terminal)
        , m_columns(columns)
    {
    }

    ProgressBar::File& ProgressBar::file(const QString& path, double now)
    {
      auto it = m_files.find(path);
      if (it == m_files.end()) {
        it = m_files.insert(path, File());
        it->start = now;
      }
      return *it;
    }

    QString ProgressBar::update(const QString& path, int64_t done, int64_t total, double now)
    {
      File& f = file(path, now);
      f.done = done;
      f.total = total;
      if (m_terminal) {
        if (m_lastDrawn >= 0 && now - m_lastDrawn < TerminalInterval)
          return QString();
        m_lastDrawn = now;
        const QString line = barLine(path, done, total, now - f.start, m_columns);
        // Pad over whatever longer line was drawn before.
        QString text = "\r" + line.leftJustified(m_drawnWidth);
        m_drawnWidth = line.size();
        return text;
      }
      if (f.lastShown >= 0 && now - f.lastShown < PlainInterval)
        return QString();
      f.lastShown = now;
      return plainLine(path, done, total, now - f.start) + "\n";
    }

    QString ProgressBar::finish(const QString& path, const QString& outcome, double now)
    {
      const File f = file(path, now);
      m_files.remove(path);
      const double elapsed = now - f.start;
      const QString rate =
          elapsed > 0 && f.done > 0 ? ", " + formatBytes(int64_t(double(f.done) / elapsed)) + "/s" : QString();
      const QString line =
          QString("%1: %2 in %3%4 - %5").arg(path, formatBytes(f.done), formatDuration(elapsed), rate, outcome);
      if (!m_terminal)
        return line + "\n";
      QString text = clear() + line + "\n";
      // Another file's line is drawn again at its next report.
      m_lastDrawn = -1;
      return text;
    }

    QString ProgressBar::clear()
    {
      if (!m_terminal || m_drawnWidth == 0)
        return QString();
      QString text = "\r" + QString(m_drawnWidth, ' ') + "\r";
      m_drawnWidth = 0;
      return text;
    }

    QString ProgressBar::formatBytes(int64_t bytes)
    {
      if (bytes < 1024)
        return QString("%1 B").arg(bytes);
      static const char* const units[] = {"KiB", "MiB", "GiB", "TiB"};
      double value = double(bytes) / 1024.0;
      int unit = 0;
      while (value >= 1024.0 && unit < 3) {
        value /= 1024.0;
        ++unit;
      }
      return QString("%1 %2").arg(value, 0, 'f', 1).arg(units[unit]);
    }

    QString ProgressBar::formatDuration(double seconds)
    {
      if (!std::isfinite(seconds) || seconds < 0 || seconds > 360000.0 * 24)
        return "--:--";
      const long long whole = (long long)std::ceil(seconds);
      const long long h = whole / 3600;
      const long long m = (whole / 60) % 60;
      const long long s = whole % 60;
      if (h > 0)
        return QString("%1:%2:%3").arg(h).arg(m, 2, 10, QChar('0')).arg(s, 2, 10, QChar('0'));
      return QString("%1:%2").arg(m).arg(s, 2, 10, QChar('0'));
    }

    QString ProgressBar::barLine(const QString& label, int64_t done, int64_t total, double elapsed, int columns)
    {
      const Figures f = figures(done, total, elapsed);
      const QString tail = QString(" %1  %2  %3  %4").arg(f.percent, f.amount, f.rate, f.left);
      // The label gets up to a third of the line, shortened from the left: the file name is the
      // end of the path.
      QString name = label;
      const int maxLabel = qMax(8, columns / 3);
      if (name.size() > maxLabel)
        name = "..." + name.right(maxLabel - 3);
      // One column stays free: some terminals wrap a line that fills the last one.
      const int barWidth = columns - name.size() - tail.size() - 4;
      if (barWidth < MinBarWidth)
        return (name + tail).left(qMax(columns - 1, 0));
      const double fraction = total > 0 ? qBound(0.0, double(done) / double(total), 1.0) : 1.0;
      const int filled = int(std::floor(fraction * barWidth));
      return name + " [" + QString(filled, '#') + QString(barWidth - filled, '-') + "]" + tail;
    }

    QString ProgressBar::plainLine(const QString& label, int64_t done, int64_t total, double elapsed)
    {
      const Figures f = figures(done, total, elapsed);
      return QString("%1: %2 (%3), %4, %5").arg(label, f.amount, f.percent.trimmed(), f.rate, f.left);
    }
  }
}
