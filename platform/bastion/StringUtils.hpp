#pragma once

#include <QByteArray>
#include <QString>

namespace Bastion
{
  /// Small text helpers.
  class StringUtils
  {
  public:
    /// The readable C++ name of a mangled type or symbol name (as `typeid(x).name()` gives it).
    /// One leading '*' (which some ABIs put before the names of local types) is skipped. Names
    /// that do not demangle are returned as they are; a null pointer gives an empty string.
    static QString demangle(const char* raw);
    /// The system's text for the error number `error` (an errno value). Any thread: unlike
    /// strerror, it never hands out a buffer another thread may be writing.
    static QByteArray errorText(int error);
  };
}
