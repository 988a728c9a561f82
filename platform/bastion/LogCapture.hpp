#pragma once

#include "bastion/Log.hpp"
#include "bastion/Mutex.hpp"

#include <QByteArray>

#include <utility>
#include <vector>

namespace Bastion
{
  /// Records every log line while it lives (the previous handler comes back on destruction), so
  /// tests can check exact texts. Thread-safe: lines may come from any thread.
  class LogCapture
  {
  public:
    explicit LogCapture(LogLevel level = LogLevel::Debug);
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;

    /// A snapshot of the lines so far, in order.
    std::vector<std::pair<LogLevel, QByteArray>> lines() const;
    /// The texts only, in order.
    std::vector<QByteArray> texts() const;
    /// True when a line with exactly this text (and this level, unless omitted) was logged.
    bool contains(const QByteArray& text) const;
    bool contains(LogLevel level, const QByteArray& text) const;
    /// Lines that contain `part` anywhere.
    int countContaining(const QByteArray& part) const;
    void clear();

  private:
    mutable Mutex m_mutex;
    std::vector<std::pair<LogLevel, QByteArray>> m_lines BASTION_GUARDED_BY(m_mutex);
    LogHandler m_previous;
    LogLevel m_previousLevel;
  };
}
