#pragma once

#include <QSettings>

namespace Plexa
{
  /// The library's settings file for applications: "plexa.ini" (INI format) in the "Brandwick"
  /// user-data folder, opened on the group "vanta" or "config". The library reads no key itself.
  ///
  /// Like QSettings, one object belongs to one thread; several objects on the same file may live on
  /// different threads.
  class PlexaSettings : public QSettings
  {
  public:
    /// Opens "<user data of Brandwick>/plexa.ini" and enters the group "vanta" (true) or
    /// "config" (false): every key read or written through this object lies under that group.
    /// Without a user data folder (see Bastion::PlatformUtils) no file is used: nothing is read,
    /// and `sync()` leaves the status QSettings::AccessError.
    explicit PlexaSettings(bool vanta);

    /// Writes pending changes back. When the write is refused, it is tried once more inside a
    /// Bastion::FileWriter guard named "PlexaSettings::sync" (which serialises guarded writes of
    /// the process), unless the settings were already failing before and the file is writable,
    /// in which case retrying would not help. A second failure is not reported: read `status()`.
    /// Hides QSettings::sync, which is not virtual: call it through a PlexaSettings.
    void sync();
  };
}
