#include "WatchFormat.hpp"

#include "bastion/BinaryData.hpp"
#include "carafe/AttributeT.hpp"

#include <QJsonDocument>
#include <QJsonObject>

#include <gtest/gtest.h>

using Plexa::Cli::WatchEvent;
using Plexa::Cli::WatchFormat;

namespace
{
  const QDateTime When = QDateTime(QDate(2024, 5, 6), QTime(7, 8, 9, 12), Qt::UTC);

  QJsonObject parsedLine(const QByteArray& line)
  {
    EXPECT_TRUE(line.endsWith('\n'));
    EXPECT_EQ(line.count('\n'), 1);
    return QJsonDocument::fromJson(line).object();
  }
}

TEST(WatchFormat, AttributeEventsShowPathTypeAndValueInBothForms)
{
  Carafe::AttributeT<Quiver::Vector3f> position(Quiver::Vector3f(1, 0.5f, -2));
  Carafe::AttributeT<QString> name(QString("key \"light\""));

  const WatchEvent added = WatchFormat::attributeEvent(WatchEvent::Added, "light/position", &position);
  EXPECT_EQ(WatchFormat::readable(added, When), "07:08:09.012 added   light/position (vec3f) = [1,0.5,-2]");
  const QJsonObject json = parsedLine(WatchFormat::jsonLine(added, When));
  EXPECT_EQ(json.value("time"), "2024-05-06T07:08:09.012Z");
  EXPECT_EQ(json.value("kind"), "added");
  EXPECT_EQ(json.value("path"), "light/position");
  EXPECT_EQ(json.value("type"), "vec3f");
  EXPECT_EQ(json.value("value"), QJsonValue(QJsonArray{1, 0.5, -2}));

  const WatchEvent changed = WatchFormat::attributeEvent(WatchEvent::Changed, "light/name", &name);
  EXPECT_EQ(WatchFormat::readable(changed, When), "07:08:09.012 changed light/name = \"key \\\"light\\\"\"");
  EXPECT_EQ(parsedLine(WatchFormat::jsonLine(changed, When)).value("value"), "key \"light\"");

  // A removed attribute is gone: only its path is left.
  const WatchEvent removed = WatchFormat::attributeEvent(WatchEvent::Removed, "light/name", nullptr);
  EXPECT_EQ(WatchFormat::readable(removed, When), "07:08:09.012 removed light/name");
  EXPECT_EQ(parsedLine(WatchFormat::jsonLine(removed, When)),
            (QJsonObject{{"time", "2024-05-06T07:08:09.012Z"}, {"kind", "removed"}, {"path", "light/name"}}));

  WatchEvent node = WatchFormat::attributeEvent(WatchEvent::NodeAdded, "light", nullptr);
  EXPECT_EQ(WatchFormat::readable(node, When), "07:08:09.012 node-added light/");
  WatchEvent peer;
  peer.kind = WatchEvent::Disconnected;
  peer.name = "127.0.0.1:5000";
  EXPECT_EQ(WatchFormat::readable(peer, When), "07:08:09.012 disconnected 127.0.0.1:5000");
  EXPECT_EQ(parsedLine(WatchFormat::jsonLine(peer, When)).value("peer"), "127.0.0.1:5000");
}

TEST(WatchFormat, EventPayloadsAreDecodedItemByItem)
{
  Bastion::BinaryData payload;
  payload.writeInt32(-3);
  payload.writeInt64(int64_t(1) << 60);
  payload.writeInt64(42);
  payload.writeFloat(0.9f);
  payload.writeDouble(-1.25);
  payload.writeString("text");
  payload.writeBlob(QByteArray("\x01\x02\x03", 3));
  payload.setPosition(8);

  const WatchEvent event = WatchFormat::remoteEvent("snapshot", payload);
  EXPECT_EQ(payload.position(), 8);
  EXPECT_TRUE(event.payloadComplete);
  EXPECT_EQ(event.payloadBytes, payload.size());
  EXPECT_EQ(event.items,
            (QJsonArray{-3, "1152921504606846976", 42, 0.9, -1.25, "text", QJsonObject{{"blob", "AQID"}}}));
  EXPECT_EQ(WatchFormat::readable(event, When),
            QString("07:08:09.012 event   snapshot (%1 bytes) -3, \"1152921504606846976\", 42, 0.9, -1.25, \"text\", "
                    "<3-byte blob>")
                .arg(payload.size()));
  const QJsonObject json = parsedLine(WatchFormat::jsonLine(event, When));
  EXPECT_EQ(json.value("name"), "snapshot");
  EXPECT_EQ(json.value("items"), event.items);
  EXPECT_FALSE(json.contains("complete"));

  // A payload cut inside its third item keeps the first two and says so.
  const Bastion::BinaryData cut(payload.toByteArray().left(30));
  const WatchEvent partial = WatchFormat::remoteEvent("cut", cut);
  EXPECT_FALSE(partial.payloadComplete);
  EXPECT_EQ(partial.items, (QJsonArray{-3, "1152921504606846976"}));
  EXPECT_TRUE(WatchFormat::readable(partial, When).endsWith("\"1152921504606846976\", <unreadable rest>"));
  EXPECT_EQ(parsedLine(WatchFormat::jsonLine(partial, When)).value("complete"), false);

  const WatchEvent empty = WatchFormat::remoteEvent("ping", Bastion::BinaryData());
  EXPECT_EQ(WatchFormat::readable(empty, When), "07:08:09.012 event   ping (0 bytes)");
}

TEST(WatchFormat, LongPayloadsAreShortenedForPeopleOnly)
{
  Bastion::BinaryData payload;
  for (int i = 0; i < 100; ++i)
    payload.writeInt32(1000 + i);
  const WatchEvent event = WatchFormat::remoteEvent("many", payload);
  const QString line = WatchFormat::readable(event, When);
  EXPECT_TRUE(line.endsWith("...")) << line.toStdString();
  EXPECT_LT(line.size(), 260);
  EXPECT_EQ(event.items.size(), 100);
}
