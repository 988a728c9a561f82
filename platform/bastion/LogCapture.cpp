#include "bastion/LogCapture.hpp"

#include "bastion/Guard.hpp"

namespace Bastion
{
  LogCapture::LogCapture(LogLevel level)
      : m_previousLevel(logLevel())
  {
    setLogLevel(level);
    m_previous = setLogHandler([this](LogLevel l, const QByteArray& text) {
      Guard lock(m_mutex);
      m_lines.emplace_back(l, text);
    });
  }

  LogCapture::~LogCapture()
  {
    setLogHandler(std::move(m_previous));
    setLogLevel(m_previousLevel);
  }

  std::vector<std::pair<LogLevel, QByteArray>> LogCapture::lines() const
  {
    Guard lock(m_mutex);
    return m_lines;
  }

  std::vector<QByteArray> LogCapture::texts() const
  {
    Guard lock(m_mutex);
    std::vector<QByteArray> out;
    out.reserve(m_lines.size());
    for (auto& l : m_lines)
      out.push_back(l.second);
    return out;
  }

  bool LogCapture::contains(const QByteArray& text) const
  {
    Guard lock(m_mutex);
    for (auto& l : m_lines)
      if (l.second == text)
        return true;
    return false;
  }

  bool LogCapture::contains(LogLevel level, const QByteArray& text) const
  {
    Guard lock(m_mutex);
    for (auto& l : m_lines)
      if (l.first == level && l.second == text)
        return true;
    return false;
  }

  int LogCapture::countContaining(const QByteArray& part) const
  {
    Guard lock(m_mutex);
    int n = 0;
    for (auto& l : m_lines)
      if (l.second.contains(part))
        ++n;
    return n;
  }

  void LogCapture::clear()
  {
    Guard lock(m_mutex);
    m_lines.clear();
  }
}
