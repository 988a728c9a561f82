#pragma once

#include <QByteArray>

#include <functional>

namespace Bastion
{
  enum class LogLevel
  {
    Error,
    Warning,
    Info,
    Debug
  };

  /// Receives every log line that passes the level threshold: the formatted text, with no prefix
  /// and no newline. Calls are serialised, so a handler needs no lock of its own; it must not log.
  using LogHandler = std::function<void(LogLevel, const QByteArray&)>;

  /// Installs `handler` (an empty function restores the default) and returns the previous one.
  /// The default writes "<level>: <text>" to stderr with control characters escaped, so text
  /// that came from a peer cannot start a line of its own.
  LogHandler setLogHandler(LogHandler handler);

  /// Lines less severe than `level` are dropped before the handler. The initial level comes from
  /// the environment variable BASTION_LOG_LEVEL (error, warning, info, debug), default info.
  void setLogLevel(LogLevel level);
  LogLevel logLevel();

  /// printf-style logging. The format is always a literal of ours; data from outside (peer names,
  /// paths, texts) is passed as an argument, never as the format.
  void error(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
  void warning(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
  void info(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
  void debug(const char* fmt, ...) __attribute__((format(printf, 1, 2)));

  /// The text the default handler prints for `line`: control characters and backslashes become
  /// escapes ("\n", "\x1b", "\\"). Exposed for tests and for handlers that print.
  QByteArray escapeLogText(const QByteArray& line);
}
