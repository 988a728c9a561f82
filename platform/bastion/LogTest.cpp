#include "bastion/Log.hpp"
#include "bastion/LogCapture.hpp"

#include <QByteArray>
#include <QProcess>
#include <QProcessEnvironment>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

using Bastion::LogLevel;

TEST(Log, HandlerGetsTheExactFormattedText)
{
  Bastion::LogCapture log;
  Bastion::error("Foo::bar # Lost %d of %s", 3, "peer\nname");
  Bastion::warning("plain");
  Bastion::info("%lld|%u|%.2f", -1234567890123LL, 42u, 0.5);
  Bastion::debug("%s", "");
  const QByteArray longText(2000, 'q');
  Bastion::info("long %s end", longText.constData());
  const auto lines = log.lines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0].first, LogLevel::Error);
  EXPECT_EQ(lines[0].second, QByteArray("Foo::bar # Lost 3 of peer\nname"));
  EXPECT_EQ(lines[1].first, LogLevel::Warning);
  EXPECT_EQ(lines[1].second, QByteArray("plain"));
  EXPECT_EQ(lines[2].first, LogLevel::Info);
  EXPECT_EQ(lines[2].second, QByteArray("-1234567890123|42|0.50"));
  EXPECT_EQ(lines[3].first, LogLevel::Debug);
  EXPECT_TRUE(lines[3].second.isEmpty());
  EXPECT_EQ(lines[4].second, "long " + longText + " end");
}

TEST(Log, LinesBelowTheThresholdAreDropped)
{
  Bastion::LogCapture log(LogLevel::Warning);
  EXPECT_EQ(Bastion::logLevel(), LogLevel::Warning);
  Bastion::debug("d");
  Bastion::info("i");
  Bastion::warning("w");
  Bastion::error("e");
  EXPECT_EQ(log.texts(), (std::vector<QByteArray>{"w", "e"}));
  Bastion::setLogLevel(LogLevel::Error);
  Bastion::warning("w2");
  Bastion::error("e2");
  Bastion::setLogLevel(LogLevel::Debug);
  Bastion::debug("d2");
  EXPECT_EQ(log.texts(), (std::vector<QByteArray>{"w", "e", "e2", "d2"}));
}

TEST(Log, SetLogHandlerReturnsThePreviousOneAndCaptureRestoresIt)
{
  const LogLevel levelBefore = Bastion::logLevel();
  int outerCalls = 0;
  Bastion::LogHandler original = Bastion::setLogHandler([&](LogLevel, const QByteArray&) { ++outerCalls; });
  Bastion::setLogLevel(LogLevel::Info);
  {
    Bastion::LogCapture log;
    Bastion::info("inside");
    EXPECT_TRUE(log.contains(LogLevel::Info, "inside"));
  }
  EXPECT_EQ(Bastion::logLevel(), LogLevel::Info);
  Bastion::info("outside");
  EXPECT_EQ(outerCalls, 1);
  Bastion::LogHandler mine = Bastion::setLogHandler(original);
  ASSERT_TRUE(bool(mine));
  mine(LogLevel::Info, "direct");
  EXPECT_EQ(outerCalls, 2);
  Bastion::setLogLevel(levelBefore);
}

TEST(Log, EscapingKeepsPeerTextOnOneLine)
{
  EXPECT_EQ(Bastion::escapeLogText("a\nb"), QByteArray("a\\nb"));
  EXPECT_EQ(Bastion::escapeLogText("\x1b[31mred"), QByteArray("\\x1b[31mred"));
  EXPECT_EQ(Bastion::escapeLogText("back\\slash"), QByteArray("back\\\\slash"));
  EXPECT_EQ(Bastion::escapeLogText(QByteArray("\r\t\0\x7f", 4)), QByteArray("\\r\\t\\x00\\x7f"));
  // UTF-8 passes through untouched.
  EXPECT_EQ(Bastion::escapeLogText("gr\xc3\xbc\xc3\x9f"), QByteArray("gr\xc3\xbc\xc3\x9f"));
  // Escaping is reversible: a literal "\n" from a peer cannot pass for a real newline.
  EXPECT_NE(Bastion::escapeLogText("\\n"), Bastion::escapeLogText("\n"));

  // The default handler prints the escaped text, one line per call.
  const LogLevel levelBefore = Bastion::logLevel();
  Bastion::LogHandler previous = Bastion::setLogHandler({});
  Bastion::setLogLevel(LogLevel::Info);
  testing::internal::CaptureStderr();
  Bastion::warning("Login # Unknown user: %s", "bob\nerror: forged \x1b[2J");
  const std::string printed = testing::internal::GetCapturedStderr();
  Bastion::setLogHandler(previous);
  Bastion::setLogLevel(levelBefore);
  EXPECT_EQ(printed, "warning: Login # Unknown user: bob\\nerror: forged \\x1b[2J\n");
}

// Runs only as the child of the next test, which sets BASTION_LOG_LEVEL for it.
TEST(Log, ChildReportsInitialLevel)
{
  if (!std::getenv("BASTION_LOG_TEST_CHILD"))
    GTEST_SKIP() << "helper of LevelComesFromTheEnvironment";
  std::printf("initial-level=%d\n", int(Bastion::logLevel()));
}

TEST(Log, LevelComesFromTheEnvironment)
{
  const struct
  {
    const char* value;
    LogLevel level;
  } cases[] = {{"error", LogLevel::Error}, {"WARNING", LogLevel::Warning}, {"debug", LogLevel::Debug},
               {"info", LogLevel::Info},   {"nonsense", LogLevel::Info},   {nullptr, LogLevel::Info}};
  for (const auto& c : cases) {
    QProcess child;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("BASTION_LOG_TEST_CHILD", "1");
    if (c.value)
      env.insert("BASTION_LOG_LEVEL", c.value);
    else
      env.remove("BASTION_LOG_LEVEL");
    child.setProcessEnvironment(env);
    child.start("/proc/self/exe", {"--gtest_filter=Log.ChildReportsInitialLevel"});
    ASSERT_TRUE(child.waitForFinished(30000)) << (c.value ? c.value : "(unset)");
    const QByteArray out = child.readAllStandardOutput();
    const QByteArray expected = "initial-level=" + QByteArray::number(int(c.level)) + "\n";
    EXPECT_TRUE(out.contains(expected)) << (c.value ? c.value : "(unset)") << ": " << out.constData();
  }
}
