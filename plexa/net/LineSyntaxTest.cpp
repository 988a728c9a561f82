#include "plexa/net/LineSyntax.hpp"
#include "plexa/net/NetFormat.hpp"

#include <QRegExp>

#include <gtest/gtest.h>

using Plexa::LineSyntax;

namespace
{
  // Lines chosen around every boundary of the three patterns.
  const char* const Samples[] = {
      "ping",
      "ping ",
      "ping  ",
      "ping x",
      "ping 42 x",
      "pingx",
      "Ping",
      " ping",
      "pong",
      "pong ",
      "pong 42",
      "pong  a",
      "pongy",
      "pon",
      "",
      "Orrery 2.7.2",
      "Orrery 1.9.0",
      "Orrery 2.0.4-corvanta",
      "Orrery 2.7.2-",
      "Orrery 2.7.2-a-b",
      "Orrery 3.0.0",
      "Orrery 2.7",
      "Orrery 2..2",
      "Orrery 2.7.2 ",
      "Orrery 2.7.2x",
      "orrery 2.7.2",
      "Orrery  2.7.2",
      "Orrery 2.07.0002",
      "Orrery 2.99999999999.1",
      "Orrery 1.9.1-",
      "Orrery 2.a.1",
  };
}

TEST(LineSyntax, AgreesWithTheProtocolPatterns)
{
  QRegExp ping(Plexa::NetFormat::PingPattern);
  QRegExp pong(Plexa::NetFormat::PongPattern);
  QRegExp version(Plexa::NetFormat::VersionPattern);
  for (const char* sample : Samples) {
    const QString line = QString::fromUtf8(sample);
    EXPECT_EQ(LineSyntax::isPing(line), ping.exactMatch(line)) << sample;
    QString payload = "stale";
    EXPECT_EQ(LineSyntax::matchPong(line, payload), pong.exactMatch(line)) << sample;
    if (pong.exactMatch(line)) {
      EXPECT_EQ(payload, pong.cap(1)) << sample;
    }
    LineSyntax::Version parsed;
    ASSERT_EQ(LineSyntax::parseVersion(line, parsed), version.exactMatch(line)) << sample;
    if (version.exactMatch(line)) {
      EXPECT_EQ(parsed.major, version.cap(1).toInt()) << sample;
      EXPECT_EQ(parsed.minor, version.cap(2).toInt()) << sample;
      EXPECT_EQ(parsed.patch, version.cap(3).toInt()) << sample;
      EXPECT_EQ(parsed.suffix, version.cap(5)) << sample;
    }
  }
}
