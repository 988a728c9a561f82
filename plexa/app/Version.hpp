#pragma once

#include <QString>

namespace Plexa
{
  /// Version of the Plexa library loaded at run time, "MAJOR.MINOR.PATCH". It may be newer than the
  /// headers the application was compiled with, within the same major version (the soname's).
  QString version();

  /// The version line this library sends in the connection handshake, e.g. "Orrery 2.7.2".
  QString protocolVersion();
}
