#include "bastion/StringUtils.hpp"

#include <cxxabi.h>

#include <cstdlib>
#include <cstring>

namespace Bastion
{
  QByteArray StringUtils::errorText(int error)
  {
    char buffer[256];
    // The GNU strerror_r (g++ and clang++ define _GNU_SOURCE) returns the text, which is either
    // a constant string or written into `buffer`.
    return QByteArray(strerror_r(error, buffer, sizeof(buffer)));
  }

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
