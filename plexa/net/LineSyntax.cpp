#include "plexa/net/LineSyntax.hpp"

namespace Plexa
{
  namespace
  {
    /// A word followed either by nothing or by a blank and at least one character.
    bool matchWordWithOptionalRest(const QString& line, const QLatin1String& word, QString& rest)
    {
      if (!line.startsWith(word))
        return false;
      if (line.size() == word.size()) {
        rest.clear();
        return true;
      }
      if (line.size() < word.size() + 2 || line[word.size()] != QLatin1Char(' '))
        return false;
      rest = line.mid(word.size() + 1);
      return true;
    }

    /// Reads one or more ASCII digits at `pos`; false when there are none.
    bool readNumber(const QString& line, int& pos, int& value)
    {
      const int start = pos;
      while (pos < line.size() && line[pos] >= QLatin1Char('0') && line[pos] <= QLatin1Char('9'))
        ++pos;
      if (pos == start)
        return false;
      bool ok = false;
      value = line.midRef(start, pos - start).toInt(&ok);
      if (!ok)
        value = 0;
      return true;
    }
  }

  bool LineSyntax::isPing(const QString& line)
  {
    QString rest;
    return matchWordWithOptionalRest(line, QLatin1String("ping"), rest);
  }

  bool LineSyntax::matchPong(const QString& line, QString& payload)
  {
    return matchWordWithOptionalRest(line, QLatin1String("pong"), payload);
  }

  bool LineSyntax::parseVersion(const QString& line, Version& version)
  {
    const QLatin1String prefix("Orrery ");
    if (!line.startsWith(prefix) || line.size() < prefix.size() + 1)
      return false;
    int pos = prefix.size();
    const QChar major = line[pos];
    if (major != QLatin1Char('1') && major != QLatin1Char('2'))
      return false;
    Version parsed;
    parsed.major = major.unicode() - '0';
    ++pos;
    if (pos >= line.size() || line[pos] != QLatin1Char('.'))
      return false;
    ++pos;
    if (!readNumber(line, pos, parsed.minor) || pos >= line.size() || line[pos] != QLatin1Char('.'))
      return false;
    ++pos;
    if (!readNumber(line, pos, parsed.patch))
      return false;
    if (pos < line.size()) {
      // "-" and at least one character of suffix.
      if (line[pos] != QLatin1Char('-') || pos + 1 >= line.size())
        return false;
      parsed.suffix = line.mid(pos + 1);
    }
    version = parsed;
    return true;
  }
}
