#pragma once

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
  };
}
