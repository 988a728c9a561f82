#pragma once

#include <QString>

#include <functional>

namespace Bastion
{
  /// Host facilities: per-user data folders and firewall rules.
  class PlatformUtils
  {
  public:
    using FirewallHook = std::function<bool(int port, const QString& ruleName)>;

    /// The folder where `module` keeps its data, created when missing, without a trailing '/'.
    /// Per user: $XDG_DATA_HOME/<module>, default $HOME/.local/share/<module>. System wide: the
    /// first entry of $XDG_DATA_DIRS, default /usr/local/share, + /<module>. Relative paths in these
    /// variables are ignored, as the base directory rules say. Empty (and logged) when the folder
    /// cannot be created, or when no absolute home folder is known.
    static QString getModuleUserDataPath(const QString& module, bool systemWide);

    /// Lets TCP connections in on `port` under the rule name `ruleName`. Linux has nothing to
    /// configure: logs at info level and returns true, or returns what the installed hook returns.
    static bool openFirewallPortTCP(int port, const QString& ruleName);
    /// Replaces the firewall action (empty: the default); returns the previous hook. For tests.
    static FirewallHook setFirewallHook(FirewallHook hook);
  };
}
