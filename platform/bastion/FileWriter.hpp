#pragma once

#include "bastion/ThreadSafety.hpp"

#include <QByteArray>

namespace Bastion
{
  /// A scope guard around a file write: while one lives, it holds a process-wide recursive mutex,
  /// so guarded writes never interleave (nested guards on one thread are fine). Logs a debug line
  /// on entry and on exit. Create and destroy it on the same thread.
  class FileWriter
  {
  public:
    /// `name` says who writes (for the log and `current()`); copied.
    // The write mutex is taken here and released in the destructor, a span the analysis, which
    // looks at one function at a time, cannot follow.
    explicit FileWriter(const char* name) BASTION_NO_THREAD_SAFETY_ANALYSIS;
    ~FileWriter() BASTION_NO_THREAD_SAFETY_ANALYSIS;
    FileWriter(const FileWriter&) = delete;
    FileWriter& operator=(const FileWriter&) = delete;

    /// The name of the innermost live guard, empty when none lives. Any thread.
    static QByteArray current();

  private:
    QByteArray m_name;
    FileWriter* m_outer;
  };
}
