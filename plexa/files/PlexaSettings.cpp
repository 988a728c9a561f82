#include "plexa/files/PlexaSettings.hpp"

#include "bastion/FileWriter.hpp"
#include "bastion/PlatformUtils.hpp"

#include "bastion/Log.hpp"

namespace Plexa
{
  namespace
  {
    QString settingsFile()
    {
      const QString folder = Bastion::PlatformUtils::getModuleUserDataPath(QStringLiteral("Brandwick"), false);
      if (!folder.isEmpty())
        return folder + QStringLiteral("/plexa.ini");
      // Without a folder the name would come out as "/plexa.ini", at the top of the file system.
      Bastion::error("PlexaSettings # No user data folder: the settings are neither read nor saved");
      return QString();
    }
  }

  PlexaSettings::PlexaSettings(bool vanta)
      : QSettings(settingsFile(), QSettings::IniFormat)
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
