#include "Console.hpp"

#include <sys/ioctl.h>
#include <unistd.h>

namespace Plexa
{
  namespace Cli
  {
    Console::Console(FILE* out, FILE* err)
        : m_out(out)
        , m_err(err)
        , m_outTerminal(isatty(fileno(out)) == 1)
        , m_errTerminal(isatty(fileno(err)) == 1)
    {
    }

    int Console::columns() const
    {
      struct winsize size = {};
      if (m_outTerminal && ioctl(fileno(m_out), TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
      return 80;
    }

    void Console::out(const QString& line)
    {
      outBytes(line.toUtf8() + "\n");
    }

    void Console::outBytes(const QByteArray& bytes)
    {
      clearStatus();
      write(m_out, bytes);
    }

    void Console::outInPlace(const QString& text)
    {
      clearStatus();
      write(m_out, text.toUtf8());
    }

    void Console::err(const QString& line)
    {
      clearStatus();
      write(m_err, line.toUtf8() + "\n");
    }

    void Console::status(const QString& text)
    {
      if (!m_errTerminal) {
        write(m_err, text.toUtf8() + "\n");
        return;
      }
      const QString padded = text.leftJustified(m_statusWidth);
      m_statusWidth = text.size();
      write(m_err, "\r" + padded.toUtf8());
    }

    void Console::clearStatus()
    {
      if (m_statusWidth == 0)
        return;
      write(m_err, "\r" + QByteArray(m_statusWidth, ' ') + "\r");
      m_statusWidth = 0;
    }

    void Console::write(FILE* file, const QByteArray& bytes)
    {
      const bool ok = std::fwrite(bytes.constData(), 1, size_t(bytes.size()), file) == size_t(bytes.size()) &&
                      std::fflush(file) == 0;
      if (!ok && file == m_out)
        m_broken = true;
    }
  }
}
