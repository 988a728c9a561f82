#include "bastion/PlatformUtils.hpp"
#include "bastion/LogCapture.hpp"

#include <gtest/gtest.h>

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

using namespace Bastion;

namespace
{
  /// Sets an environment variable for the scope of a test.
  class EnvScope
  {
  public:
    EnvScope(const char* name, const QByteArray& value)
        : m_name(name)
        , m_had(qEnvironmentVariableIsSet(name))
        , m_old(qgetenv(name))
    {
      if (value.isNull())
        qunsetenv(name);
      else
        qputenv(name, value);
    }
    ~EnvScope()
    {
      if (m_had)
        qputenv(m_name, m_old);
      else
        qunsetenv(m_name);
    }

  private:
    const char* m_name;
    bool m_had;
    QByteArray m_old;
  };
}

TEST(PlatformUtils, UserDataPathFollowsXdgOrHomeAndIsCreated)
{
  QTemporaryDir tmp;
  ASSERT_TRUE(tmp.isValid());
  {
    EnvScope xdg("XDG_DATA_HOME", (tmp.path() + "/xdg/").toLocal8Bit());
    const QString path = PlatformUtils::getModuleUserDataPath("Module", false);
    EXPECT_EQ(path, tmp.path() + "/xdg/Module");
    EXPECT_TRUE(QFileInfo(path).isDir());
  }
  {
    EnvScope xdg("XDG_DATA_HOME", QByteArray());
    EnvScope home("HOME", tmp.path().toLocal8Bit());
    const QString path = PlatformUtils::getModuleUserDataPath("Other", false);
    EXPECT_EQ(path, tmp.path() + "/.local/share/Other");
    EXPECT_TRUE(QFileInfo(path).isDir());
    EXPECT_FALSE(path.endsWith('/'));
    // Asking again finds the existing folder.
    EXPECT_EQ(PlatformUtils::getModuleUserDataPath("Other", false), path);
  }
  {
    EnvScope dirs("XDG_DATA_DIRS", (tmp.path() + "/sys:/usr/share").toLocal8Bit());
    EXPECT_EQ(PlatformUtils::getModuleUserDataPath("Shared", true), tmp.path() + "/sys/Shared");
  }
  {
    // Relative folders are ignored; without an absolute home there is no per-user folder at all.
    EnvScope xdg("XDG_DATA_HOME", "relative/data");
    EnvScope dirs("XDG_DATA_DIRS", ("relative:" + tmp.path() + "/sys2").toLocal8Bit());
    EnvScope home("HOME", tmp.path().toLocal8Bit());
    EXPECT_EQ(PlatformUtils::getModuleUserDataPath("Module", false), tmp.path() + "/.local/share/Module");
    EXPECT_EQ(PlatformUtils::getModuleUserDataPath("Shared", true), tmp.path() + "/sys2/Shared");
    EnvScope relativeHome("HOME", "relative-home");
    LogCapture log;
    EXPECT_TRUE(PlatformUtils::getModuleUserDataPath("Module", false).isEmpty());
    EXPECT_EQ(log.countContaining("no folder for Module: HOME is not an absolute path"), 1);
    EXPECT_FALSE(QFileInfo::exists("relative/data") || QFileInfo::exists("relative-home"));
  }
  {
    LogCapture log;
    // A plain file where the folder should be: no path, and a reason in the log.
    QFile blocker(tmp.path() + "/file");
    ASSERT_TRUE(blocker.open(QIODevice::WriteOnly));
    blocker.close();
    EnvScope xdg("XDG_DATA_HOME", (tmp.path() + "/file").toLocal8Bit());
    EXPECT_TRUE(PlatformUtils::getModuleUserDataPath("Module", false).isEmpty());
    EXPECT_EQ(log.countContaining("cannot create"), 1);
  }
}

TEST(PlatformUtils, FirewallRuleLogsByDefaultAndGoesThroughTheHook)
{
  LogCapture log;
  EXPECT_TRUE(PlatformUtils::openFirewallPortTCP(4242, "Rule name"));
  EXPECT_TRUE(log.contains(LogLevel::Info,
                           "PlatformUtils::openFirewallPortTCP # port 4242 (Rule name): no firewall to configure"));

  std::vector<std::pair<int, QString>> calls;
  auto previous = PlatformUtils::setFirewallHook([&calls](int port, const QString& name) {
    calls.emplace_back(port, name);
    return false;
  });
  EXPECT_FALSE(previous);
  EXPECT_FALSE(PlatformUtils::openFirewallPortTCP(1234, "Hooked"));
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].first, 1234);
  EXPECT_EQ(calls[0].second, QString("Hooked"));
  EXPECT_TRUE(PlatformUtils::setFirewallHook({}));
  log.clear();
  EXPECT_TRUE(PlatformUtils::openFirewallPortTCP(1, "Back"));
  EXPECT_EQ(calls.size(), 1u);
  EXPECT_EQ(log.countContaining("no firewall to configure"), 1);
}
