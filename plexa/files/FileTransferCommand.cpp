#include "plexa/files/FileTransferCommand.hpp"

#include <QLatin1String>
#include <QVector>

namespace Plexa
{
  namespace
  {
    /// A cursor over one line; every step either consumes what it expects or fails.
    class Cursor
    {
    public:
      explicit Cursor(const QString& line)
          : m_line(line)
      {
      }

      bool literal(QLatin1String text)
      {
        if (!m_line.midRef(m_pos).startsWith(text))
          return false;
        m_pos += text.size();
        return true;
      }

      bool path(QString& result)
      {
        if (!literal(QLatin1String("\"")))
          return false;
        const int start = m_pos;
        while (m_pos < m_line.size() && m_line.at(m_pos) != QLatin1Char('"')) {
          const QChar c = m_line.at(m_pos);
          if (c == QLatin1Char('?') || c == QLatin1Char('*') || c == QLatin1Char('<') || c == QLatin1Char('>') ||
              c == QLatin1Char(':'))
            return false;
          ++m_pos;
        }
        // Segments of '/' plus one or more characters, '/' included: any text of two or more
        // characters that begins with '/'.
        const int length = m_pos - start;
        if (m_pos >= m_line.size() || length < 2 || m_line.at(start) != QLatin1Char('/'))
          return false;
        result = FileTransferCommand::canonicalPath(m_line.mid(start, length));
        ++m_pos;
        return !result.isEmpty();
      }

      bool digits(QString& result, bool allowMinus)
      {
        const int start = m_pos;
        if (allowMinus && m_pos < m_line.size() && m_line.at(m_pos) == QLatin1Char('-'))
          ++m_pos;
        const int first = m_pos;
        while (m_pos < m_line.size() && m_line.at(m_pos) >= QLatin1Char('0') && m_line.at(m_pos) <= QLatin1Char('9'))
          ++m_pos;
        if (m_pos == first)
          return false;
        result = m_line.mid(start, m_pos - start);
        return true;
      }

      bool md5(QString& result)
      {
        if (m_line.size() - m_pos < 32)
          return false;
        for (int i = m_pos; i < m_pos + 32; ++i) {
          const QChar c = m_line.at(i);
          if (!((c >= QLatin1Char('0') && c <= QLatin1Char('9')) || (c >= QLatin1Char('a') && c <= QLatin1Char('f'))))
            return false;
        }
        result = m_line.mid(m_pos, 32);
        m_pos += 32;
        return true;
      }

      bool atEnd() const { return m_pos == m_line.size(); }

    private:
      const QString& m_line;
      int m_pos = 0;
    };
  }

  QString FileTransferCommand::canonicalPath(const QString& path)
  {
    QString result;
    result.reserve(path.size());
    for (const QStringRef& part : path.splitRef(QLatin1Char('/'), Qt::SkipEmptyParts)) {
      if (part == QLatin1String("."))
        continue;
      result += QLatin1Char('/');
      result += part;
    }
    return result;
  }

  FileTransferCommand FileTransferCommand::parse(const QString& line)
  {
    FileTransferCommand c;
    const QLatin1String blank(" ");
    {
      Cursor cursor(line);
      if (cursor.literal(QLatin1String("fileinfo ")) && cursor.digits(c.first, true) && cursor.literal(blank) &&
          cursor.path(c.path) && cursor.literal(blank) && cursor.digits(c.second, false) && cursor.literal(blank) &&
          cursor.md5(c.md5) && cursor.atEnd()) {
        c.kind = FileInfo;
        return c;
      }
    }
    c = FileTransferCommand();
    {
      Cursor cursor(line);
      if (cursor.literal(QLatin1String("sendfileinfo ")) && cursor.path(c.path) && cursor.atEnd()) {
        c.kind = SendFileInfo;
        return c;
      }
    }
    c = FileTransferCommand();
    {
      Cursor cursor(line);
      if (cursor.literal(QLatin1String("filepart ")) && cursor.path(c.path) && cursor.literal(blank) &&
          cursor.digits(c.first, false) && cursor.literal(blank) && cursor.digits(c.second, false) && cursor.atEnd()) {
        c.kind = FilePart;
        return c;
      }
    }
    c = FileTransferCommand();
    {
      Cursor cursor(line);
      if (cursor.literal(QLatin1String("sendparts ")) && cursor.path(c.path) && cursor.atEnd()) {
        c.kind = SendParts;
        return c;
      }
    }
    return FileTransferCommand();
  }
}
