#include "bastion/PlatformUtils.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

#include <QDir>

namespace Bastion
{
  namespace
  {
    struct HookState
    {
      Mutex mutex;
      PlatformUtils::FirewallHook hook BASTION_GUARDED_BY(mutex);
    };

    HookState& hookState()
    {
      static HookState s;
      return s;
    }

    QString envPath(const char* name)
    {
      return QString::fromLocal8Bit(qgetenv(name));
    }

    /// A relative base folder would depend on the working directory of whoever runs the program.
    QString absoluteOrEmpty(const QString& path)
    {
      return QDir::isAbsolutePath(path) ? path : QString();
    }
  }

  QString PlatformUtils::getModuleUserDataPath(const QString& module, bool systemWide)
  {
    QString base;
    if (systemWide) {
      for (const QString& entry : envPath("XDG_DATA_DIRS").split(QLatin1Char(':'))) {
        base = absoluteOrEmpty(entry);
        if (!base.isEmpty())
          break;
      }
      if (base.isEmpty())
        base = QStringLiteral("/usr/local/share");
    } else {
      base = absoluteOrEmpty(envPath("XDG_DATA_HOME"));
      if (base.isEmpty()) {
        const QString home = absoluteOrEmpty(envPath("HOME"));
        if (home.isEmpty()) {
          error("PlatformUtils::getModuleUserDataPath # no folder for %s: HOME is not an absolute path",
                module.toUtf8().constData());
          return QString();
        }
        base = home + QStringLiteral("/.local/share");
      }
    }
    QString path = QDir::cleanPath(base + QLatin1Char('/') + module);
    while (path.size() > 1 && path.endsWith(QLatin1Char('/')))
      path.chop(1);
    if (!QDir().mkpath(path)) {
      error("PlatformUtils::getModuleUserDataPath # cannot create %s", path.toUtf8().constData());
      return QString();
    }
    return path;
  }

  bool PlatformUtils::openFirewallPortTCP(int port, const QString& ruleName)
  {
    FirewallHook hook;
    {
      HookState& s = hookState();
      Guard g(s.mutex);
      hook = s.hook;
    }
    if (hook)
      return hook(port, ruleName);
    info("PlatformUtils::openFirewallPortTCP # port %d (%s): no firewall to configure", port,
         ruleName.toUtf8().constData());
    return true;
  }

  PlatformUtils::FirewallHook PlatformUtils::setFirewallHook(FirewallHook hook)
  {
    HookState& s = hookState();
    Guard g(s.mutex);
    std::swap(hook, s.hook);
    return hook;
  }
}
