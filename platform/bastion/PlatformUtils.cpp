#include "bastion/PlatformUtils.hpp"

#include "bastion/Log.hpp"

#include <QDir>

#include <mutex>

namespace Bastion
{
  namespace
  {
    std::mutex s_hookMutex;
    PlatformUtils::FirewallHook s_hook;

    QString envPath(const char* name)
    {
      return QString::fromLocal8Bit(qgetenv(name));
    }
  }

  QString PlatformUtils::getModuleUserDataPath(const QString& module, bool systemWide)
  {
    QString base;
    if (systemWide) {
      base = envPath("XDG_DATA_DIRS").section(QLatin1Char(':'), 0, 0);
      if (base.isEmpty())
        base = QStringLiteral("/usr/local/share");
    } else {
      base = envPath("XDG_DATA_HOME");
      if (base.isEmpty())
        base = envPath("HOME") + QStringLiteral("/.local/share");
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
      std::lock_guard<std::mutex> g(s_hookMutex);
      hook = s_hook;
    }
    if (hook)
      return hook(port, ruleName);
    info("PlatformUtils::openFirewallPortTCP # port %d (%s): no firewall to configure", port,
         ruleName.toUtf8().constData());
    return true;
  }

  PlatformUtils::FirewallHook PlatformUtils::setFirewallHook(FirewallHook hook)
  {
    std::lock_guard<std::mutex> g(s_hookMutex);
    std::swap(hook, s_hook);
    return hook;
  }
}
