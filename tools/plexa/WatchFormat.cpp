#include "WatchFormat.hpp"

#include "AttributeJson.hpp"

#include "bastion/BinaryData.hpp"
#include "carafe/Attribute.hpp"

#include <QJsonDocument>
#include <QJsonObject>

#include <cmath>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      /// Longest event payload text shown to people.
      constexpr int MaxReadablePayload = 200;

      const char* kindName(WatchEvent::Kind kind)
      {
        switch (kind) {
        case WatchEvent::Added:
          return "added";
        case WatchEvent::Changed:
          return "changed";
        case WatchEvent::Removed:
          return "removed";
        case WatchEvent::NodeAdded:
          return "node-added";
        case WatchEvent::NodeRemoved:
          return "node-removed";
        case WatchEvent::Event:
          return "event";
        case WatchEvent::Connected:
          return "connected";
        case WatchEvent::Disconnected:
          return "disconnected";
        }
        return "?";
      }

      QString readablePayload(const WatchEvent& event)
      {
        QStringList parts;
        for (const QJsonValue item : event.items) {
          if (item.isObject())
            parts << QString("<%1-byte blob>")
                         .arg(QByteArray::fromBase64(item.toObject().value("blob").toString().toLatin1()).size());
          else
            parts << WatchFormat::compact(item);
        }
        if (!event.payloadComplete)
          parts << "<unreadable rest>";
        QString text = parts.join(", ");
        if (text.size() > MaxReadablePayload)
          text = text.left(MaxReadablePayload - 3) + "...";
        return text;
      }
    }

    WatchEvent WatchFormat::attributeEvent(WatchEvent::Kind kind, const QString& path,
                                           const Carafe::Attribute* attribute)
    {
      WatchEvent event;
      event.kind = kind;
      event.name = path;
      if (attribute && (kind == WatchEvent::Added || kind == WatchEvent::Changed)) {
        event.type = AttributeJson::typeName(*attribute);
        event.value = AttributeJson::value(*attribute);
      }
      return event;
    }

    WatchEvent WatchFormat::remoteEvent(const QByteArray& name, const Bastion::BinaryData& payload)
    {
      WatchEvent event;
      event.kind = WatchEvent::Event;
      event.name = QString::fromUtf8(name);
      event.payloadBytes = payload.size();
      event.items = payloadItems(payload, &event.payloadComplete);
      return event;
    }

    QString WatchFormat::readable(const WatchEvent& event, const QDateTime& time)
    {
      QString line = time.toString("HH:mm:ss.zzz") + " " + QString(kindName(event.kind)).leftJustified(7) + " ";
      switch (event.kind) {
      case WatchEvent::Added:
        line += event.name;
        if (!event.type.isEmpty())
          line += " (" + event.type + ") = " + compact(event.value);
        break;
      case WatchEvent::Changed:
        line += event.name + (event.type.isEmpty() ? QString() : " = " + compact(event.value));
        break;
      case WatchEvent::NodeAdded:
      case WatchEvent::NodeRemoved:
        line += event.name + "/";
        break;
      case WatchEvent::Event:
        line += QString("%1 (%2 bytes)").arg(event.name).arg(event.payloadBytes);
        if (!event.items.isEmpty() || !event.payloadComplete)
          line += " " + readablePayload(event);
        break;
      case WatchEvent::Removed:
      case WatchEvent::Connected:
      case WatchEvent::Disconnected:
        line += event.name;
        break;
      }
      return line;
    }

    QByteArray WatchFormat::jsonLine(const WatchEvent& event, const QDateTime& time)
    {
      QJsonObject object;
      object.insert("time", time.toUTC().toString(Qt::ISODateWithMs));
      object.insert("kind", kindName(event.kind));
      switch (event.kind) {
      case WatchEvent::Added:
      case WatchEvent::Changed:
        object.insert("path", event.name);
        object.insert("type", event.type);
        object.insert("value", event.value);
        break;
      case WatchEvent::Removed:
      case WatchEvent::NodeAdded:
      case WatchEvent::NodeRemoved:
        object.insert("path", event.name);
        break;
      case WatchEvent::Event:
        object.insert("name", event.name);
        object.insert("bytes", event.payloadBytes);
        object.insert("items", event.items);
        if (!event.payloadComplete)
          object.insert("complete", false);
        break;
      case WatchEvent::Connected:
      case WatchEvent::Disconnected:
        object.insert("peer", event.name);
        break;
      }
      return QJsonDocument(object).toJson(QJsonDocument::Compact) + "\n";
    }

    QJsonArray WatchFormat::payloadItems(const Bastion::BinaryData& payload, bool* complete)
    {
      // A copy: reading moves the position, and the caller's payload stays as it was.
      Bastion::BinaryData data(payload);
      data.rewind();
      QJsonArray items;
      bool ok = true;
      while (ok && !data.atEnd()) {
        QJsonValue item;
        switch (data.nextItemType()) {
        case Bastion::BinaryData::Int32Item: {
          int32_t v = 0;
          ok = data.readInt32(v);
          item = int(v);
          break;
        }
        case Bastion::BinaryData::Int64Item: {
          int64_t v = 0;
          ok = data.readInt64(v);
          const bool exact = v >= -(int64_t(1) << 53) && v <= (int64_t(1) << 53);
          item = exact ? QJsonValue(double(v)) : QJsonValue(QString::number(v));
          break;
        }
        case Bastion::BinaryData::FloatItem: {
          float v = 0;
          ok = data.readFloat(v);
          item = std::isfinite(v) ? QJsonValue(AttributeJson::floatValue(v)) : QJsonValue(QString::number(double(v)));
          break;
        }
        case Bastion::BinaryData::DoubleItem: {
          double v = 0;
          ok = data.readDouble(v);
          item = std::isfinite(v) ? QJsonValue(v) : QJsonValue(QString::number(v));
          break;
        }
        case Bastion::BinaryData::StringItem: {
          QString v;
          ok = data.readString(v);
          item = v;
          break;
        }
        case Bastion::BinaryData::BlobItem: {
          QByteArray v;
          ok = data.readBlob(v);
          item = QJsonObject{{"blob", QString::fromLatin1(v.toBase64())}};
          break;
        }
        default:
          ok = false;
          break;
        }
        if (ok)
          items.append(item);
      }
      if (complete)
        *complete = ok;
      return items;
    }

    QString WatchFormat::compact(const QJsonValue& value)
    {
      // QJsonDocument writes only arrays and objects: wrap the value and drop the brackets.
      const QByteArray text = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
      return QString::fromUtf8(text.mid(1, text.size() - 2));
    }
  }
}
