#include "plexa/files/PlexaSettings.hpp"
#include "plexa/files/FileTestSupport.hpp"

#include "bastion/LogCapture.hpp"
#include "bastion/PlatformUtils.hpp"

#include <gtest/gtest.h>

using namespace Plexa;

namespace
{
  QString settingsFile()
  {
    return Bastion::PlatformUtils::getModuleUserDataPath("Brandwick", false) + "/plexa.ini";
  }

  int guardsEntered(const Bastion::LogCapture& log)
  {
    return log.countContaining("FileWriter # begin PlexaSettings::sync");
  }

  class PlexaSettingsTest : public ::testing::Test
  {
  protected:
    void SetUp() override { removeSettingsFile(); }
    void TearDown() override { removeSettingsFile(); }
    static void removeSettingsFile()
    {
      QDir(settingsFile()).removeRecursively();
      QFile::remove(settingsFile());
    }
  };
}

TEST_F(PlexaSettingsTest, GroupsShareOneFileButNotTheirKeys)
{
  {
    PlexaSettings vanta(true);
    vanta.setValue("key", "from vanta");
    vanta.sync();
    PlexaSettings config(false);
    config.setValue("other", 42);
    config.sync();
    EXPECT_EQ(vanta.status(), QSettings::NoError);
    EXPECT_EQ(vanta.fileName(), settingsFile());
  }
  PlexaSettings vanta(true), config(false);
  EXPECT_EQ(vanta.value("key").toString(), "from vanta");
  EXPECT_FALSE(vanta.contains("other"));
  EXPECT_EQ(config.value("other").toInt(), 42);
  EXPECT_FALSE(config.contains("key"));

  QSettings raw(settingsFile(), QSettings::IniFormat);
  EXPECT_EQ(raw.childGroups(), QStringList({"config", "vanta"}));
  EXPECT_EQ(raw.value("vanta/key").toString(), "from vanta");
}

TEST_F(PlexaSettingsTest, RefusedWriteIsRetriedOnceInsideWriterGuard)
{
  PlexaSettings settings(true);
  settings.setValue("key", 1);
  // Running as root, permissions would not stop the write: a folder where the file goes does.
  ASSERT_TRUE(QDir().mkpath(settingsFile()));
  Bastion::LogCapture log;
  settings.sync();
  EXPECT_EQ(settings.status(), QSettings::AccessError);
  EXPECT_EQ(guardsEntered(log), 1);
  EXPECT_EQ(log.countContaining("FileWriter # end PlexaSettings::sync"), 1);

  // Failing before and still not writable: one more retry per call.
  log.clear();
  settings.sync();
  EXPECT_EQ(guardsEntered(log), 1);

  // Failing before but writable now: the write goes through without the guard, and the store keeps
  // the error status that QSettings never resets.
  ASSERT_TRUE(QDir().rmdir(settingsFile()));
  log.clear();
  settings.sync();
  EXPECT_EQ(guardsEntered(log), 0);
  EXPECT_EQ(PlexaSettings(true).value("key").toInt(), 1);
}

TEST_F(PlexaSettingsTest, NoUserDataFolderMeansNoFile)
{
  const QByteArray oldData = qgetenv("XDG_DATA_HOME"), oldHome = qgetenv("HOME");
  QTemporaryDir tmp;
  // A plain file where the data folder should be, then no usable home at all.
  ASSERT_TRUE(PlexaTest::writeFile(tmp.path() + "/file", "not a folder"));
  for (const QByteArray& home : {QByteArray(), QByteArray("relative")}) {
    qputenv("XDG_DATA_HOME", home.isNull() ? QFile::encodeName(tmp.path() + "/file") : QByteArray("relative"));
    if (!home.isNull())
      qputenv("HOME", home);
    Bastion::LogCapture log;
    {
      PlexaSettings settings(false);
      settings.setValue("key", "value");
      settings.sync();
      EXPECT_EQ(settings.status(), QSettings::AccessError);
      EXPECT_EQ(settings.fileName(), QString());
    }
    EXPECT_EQ(log.countContaining("PlexaSettings # No user data folder"), 1);
    EXPECT_FALSE(QFileInfo::exists("/plexa.ini"));
    EXPECT_FALSE(QFileInfo::exists("relative"));
  }
  qputenv("XDG_DATA_HOME", oldData);
  qputenv("HOME", oldHome);
}
