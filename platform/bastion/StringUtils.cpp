#include "bastion/StringUtils.hpp"

#include <cxxabi.h>

#include <cstdlib>

namespace Bastion
{
  QString StringUtils::demangle(const char* raw)
  {
    if (!raw)
      return QString();
    if (*raw == '*')
      ++raw;
    int status = 0;
    char* readable = abi::__cxa_demangle(raw, nullptr, nullptr, &status);
    if (status != 0 || !readable) {
      std::free(readable);
      return QString::fromUtf8(raw);
    }
    QString result = QString::fromUtf8(readable);
    std::free(readable);
    return result;
  }
}
