#pragma once

#include <QByteArray>
#include <QString>

#include <cstdio>

namespace Plexa
{
  namespace Cli
  {
    /// Where the program's text goes: results on the output stream, diagnostics on the error
    /// stream, and on a terminal one status line (a countdown, a progress bar) redrawn in place
    /// on the stream that is a terminal. Every write is flushed at once, so that a script reading
    /// a pipe sees each line as it happens.
    ///
    /// Application thread only.
    class Console
    {
    public:
      /// `out` and `err` are not owned; tests pass files of their own.
      explicit Console(FILE* out = stdout, FILE* err = stderr);

      bool outIsTerminal() const { return m_outTerminal; }
      bool errIsTerminal() const { return m_errTerminal; }
      /// Width of the output terminal, 80 when unknown.
      int columns() const;

      /// One line of results (a newline is added).
      void out(const QString& line);
      /// Bytes of results as they are (a JSON line brings its own newline).
      void outBytes(const QByteArray& bytes);
      /// Text that redraws a line on the output terminal ("\r..."), as a progress bar makes it.
      void outInPlace(const QString& text);
      /// One diagnostic line (a newline is added).
      void err(const QString& line);
      /// A status line: redrawn in place when the error stream is a terminal, else written as a
      /// line of its own.
      void status(const QString& text);

      /// True once a write to the output stream failed (a closed pipe): nobody reads any more.
      bool outputBroken() const { return m_broken; }

    private:
      void clearStatus();
      void write(FILE* file, const QByteArray& bytes);

      FILE* m_out;
      FILE* m_err;
      bool m_outTerminal;
      bool m_errTerminal;
      int m_statusWidth = 0;
      bool m_broken = false;
    };
  }
}
