#include "plexa/app/Version.hpp"

#include "PlexaBuildVersion.hpp"
#include "plexa/net/NetFormat.hpp"

namespace Plexa
{
  QString version()
  {
    return QStringLiteral(PLEXA_BUILD_VERSION);
  }

  QString protocolVersion()
  {
    return QString::fromLatin1(NetFormat::VersionLine);
  }
}
