#include "plexa/files/PlexaSettings.hpp"

#include "bastion/FileWriter.hpp"
#include "bastion/PlatformUtils.hpp"

namespace Plexa
{
  PlexaSettings::PlexaSettings(bool vanta)
    : QSettings(QString("%1/%2").arg(Bastion::PlatformUtils::getModuleUserDataPath("Brandwick", false),
                                     QStringLiteral("plexa.ini")),
                QSettings::IniFormat)
  {
    beginGroup(vanta ? QStringLiteral("vanta") : QStringLiteral("config"));
  }

  void PlexaSettings::sync()
  {
    const Status before = status();
    QSettings::sync();
    if (status() != QSettings::AccessError)
      return;
    // QSettings keeps an error status once set; a store that was failing already and now claims to be
    // writable is not helped by a second attempt.
    if (before != QSettings::NoError && isWritable())
      return;
    Bastion::FileWriter writer("PlexaSettings::sync");
    QSettings::sync();
  }
}
