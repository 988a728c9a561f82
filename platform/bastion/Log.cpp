#include "bastion/Log.hpp"

#include "bastion/Guard.hpp"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace Bastion
{
  namespace
  {
    LogLevel initialLevel()
    {
      // qgetenv, unlike getenv, is ordered with Qt's own changes of the environment.
      const QByteArray level = qgetenv("BASTION_LOG_LEVEL");
      const char* env = level.constData();
      if (!strcasecmp(env, "error"))
        return LogLevel::Error;
      if (!strcasecmp(env, "warning"))
        return LogLevel::Warning;
      if (!strcasecmp(env, "debug"))
        return LogLevel::Debug;
      return LogLevel::Info;
    }

    const char* levelName(LogLevel level)
    {
      switch (level) {
      case LogLevel::Error:
        return "error";
      case LogLevel::Warning:
        return "warning";
      case LogLevel::Info:
        return "info";
      case LogLevel::Debug:
        return "debug";
      }
      return "log";
    }

    void defaultHandler(LogLevel level, const QByteArray& text)
    {
      QByteArray line = QByteArray(levelName(level)) + ": " + escapeLogText(text) + "\n";
      std::fwrite(line.constData(), 1, size_t(line.size()), stderr);
    }

    struct LogState
    {
      Mutex mutex;
      LogHandler handler BASTION_GUARDED_BY(mutex) = defaultHandler;
      std::atomic<int> level{int(initialLevel())};
    };

    LogState& state()
    {
      // Never destroyed: threads may still log while static destructors run at exit.
      static LogState* s = new LogState();
      return *s;
    }

    void emit(LogLevel level, const char* fmt, va_list args)
    {
      LogState& s = state();
      if (int(level) > s.level.load(std::memory_order_relaxed))
        return;
      char small[512];
      va_list copy;
      va_copy(copy, args);
      int n = std::vsnprintf(small, sizeof(small), fmt, copy);
      va_end(copy);
      QByteArray text;
      if (n < 0) {
        text = "(log format error)";
      } else if (n < int(sizeof(small))) {
        text = QByteArray(small, n);
      } else {
        text.resize(n);
        std::vsnprintf(text.data(), size_t(n) + 1, fmt, args);
      }
      Guard lock(s.mutex);
      s.handler(level, text);
    }
  }

  LogHandler setLogHandler(LogHandler handler)
  {
    LogState& s = state();
    Guard lock(s.mutex);
    LogHandler previous = std::move(s.handler);
    s.handler = handler ? std::move(handler) : LogHandler(defaultHandler);
    return previous;
  }

  void setLogLevel(LogLevel level)
  {
    state().level.store(int(level));
  }

  LogLevel logLevel()
  {
    return LogLevel(state().level.load());
  }

  QByteArray escapeLogText(const QByteArray& line)
  {
    QByteArray out;
    out.reserve(line.size());
    for (char ch : line) {
      unsigned char c = static_cast<unsigned char>(ch);
      if (c == '\\') {
        out += "\\\\";
      } else if (c == '\n') {
        out += "\\n";
      } else if (c == '\r') {
        out += "\\r";
      } else if (c == '\t') {
        out += "\\t";
      } else if (c < 0x20 || c == 0x7f) {
        char buf[8];
        std::snprintf(buf, sizeof(buf), "\\x%02x", c);
        out += buf;
      } else {
        out += ch;
      }
    }
    return out;
  }

#define BASTION_LOG_FUNCTION(name, level)                                                                              \
  void name(const char* fmt, ...)                                                                                      \
  {                                                                                                                    \
    va_list args;                                                                                                      \
    va_start(args, fmt);                                                                                               \
    emit(level, fmt, args);                                                                                            \
    va_end(args);                                                                                                      \
  }

  BASTION_LOG_FUNCTION(error, LogLevel::Error)
  BASTION_LOG_FUNCTION(warning, LogLevel::Warning)
  BASTION_LOG_FUNCTION(info, LogLevel::Info)
  BASTION_LOG_FUNCTION(debug, LogLevel::Debug)
}
