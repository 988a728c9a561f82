#pragma once

#include <QByteArray>
#include <QDateTime>
#include <QJsonArray>
#include <QJsonValue>
#include <QString>

namespace Bastion
{
  class BinaryData;
}

namespace Carafe
{
  class Attribute;
}

namespace Plexa
{
  namespace Cli
  {
    /// One thing `plexa watch` reports.
    struct WatchEvent
    {
      enum Kind
      {
        Added,
        Changed,
        Removed,
        NodeAdded,
        NodeRemoved,
        Event,
        Connected,
        Disconnected
      };

      Kind kind = Changed;
      /// Attribute or node path, event name, or peer address (Connected, Disconnected).
      QString name;
      /// Added, Changed: the attribute's type name (empty if it has none) and value.
      QString type;
      QJsonValue value;
      /// Event: the payload's items (see `WatchFormat::payloadItems`), its size in bytes, and
      /// whether every item could be read.
      QJsonArray items;
      int payloadBytes = 0;
      bool payloadComplete = true;
    };

    /// The two output forms of `plexa watch`: a line for people, or one JSON object per line for
    /// scripts. Values are shown in the JSON form `plexa set` takes. Stateless.
    class WatchFormat
    {
    public:
      /// An attribute event; `attribute` may be null (removed, or not found any more).
      static WatchEvent attributeEvent(WatchEvent::Kind kind, const QString& path, const Carafe::Attribute* attribute);
      /// An event from the peer and its payload.
      static WatchEvent remoteEvent(const QByteArray& name, const Bastion::BinaryData& payload);

      /// "12:00:01.234 changed light/intensity = 0.75" and the like, without a newline.
      static QString readable(const WatchEvent& event, const QDateTime& time);
      /// {"time": ISO 8601 UTC with milliseconds, "kind": ..., ...} and a newline.
      static QByteArray jsonLine(const WatchEvent& event, const QDateTime& time);

      /// The items of a payload in order: numbers and strings as themselves (64-bit integers
      /// beyond 2^53 as strings), a blob as {"blob": base64}. `complete` is false when an item
      /// could not be read (the items before it are returned).
      static QJsonArray payloadItems(const Bastion::BinaryData& payload, bool* complete);
      /// One JSON value as compact text ("0.75", "\"text\"", "[1,2]").
      static QString compact(const QJsonValue& value);
    };
  }
}
