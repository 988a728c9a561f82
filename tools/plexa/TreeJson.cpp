#include "TreeJson.hpp"

#include "AttributeJson.hpp"

#include "carafe/AttributeAlias.hpp"
#include "carafe/Node.hpp"

#include <QFile>
#include <QJsonDocument>
#include <QJsonParseError>

#include <memory>

namespace Plexa
{
  namespace Cli
  {
    const QString TreeJson::TypeKey = QStringLiteral("$type");

    namespace
    {
      const QString ValueKey = QStringLiteral("value");

      QString childPath(const QString& prefix, const QString& name)
      {
        return prefix.isEmpty() ? name : prefix + "/" + name;
      }

      /// The attribute that `json` describes, or null with `error` set.
      Carafe::Attribute* makeAttribute(const QJsonValue& json, QString& error)
      {
        QString type;
        QJsonValue value = json;
        if (json.isObject()) {
          const QJsonObject object = json.toObject();
          const QJsonValue typeValue = object.value(TreeJson::TypeKey);
          if (!typeValue.isString() || !AttributeJson::isTypeName(typeValue.toString())) {
            error = QString("%1 is not a type name (known types: %2)")
                        .arg(typeValue.isString() ? "'" + typeValue.toString() + "'"
                                                  : QString("\"%1\"").arg(TreeJson::TypeKey),
                             AttributeJson::typeNames().join(", "));
            return nullptr;
          }
          for (const QString& key : object.keys()) {
            if (key != TreeJson::TypeKey && key != ValueKey) {
              error = QString("unexpected member \"%1\" beside \"%2\"").arg(key, TreeJson::TypeKey);
              return nullptr;
            }
          }
          if (!object.contains(ValueKey)) {
            error = QString("missing \"%1\"").arg(ValueKey);
            return nullptr;
          }
          type = object.value(TreeJson::TypeKey).toString();
          value = object.value(ValueKey);
        } else {
          type = AttributeJson::inferType(json);
          if (type.isEmpty()) {
            error = QString("cannot tell the type of this value; write it as {\"%1\": TYPE, \"value\": ...}")
                        .arg(TreeJson::TypeKey);
            return nullptr;
          }
        }
        return AttributeJson::create(type, value, &error);
      }

      bool buildNode(const QJsonObject& object, Carafe::Node& node, const QString& prefix, QString& error)
      {
        for (auto it = object.begin(); it != object.end(); ++it) {
          const QString path = childPath(prefix, it.key());
          if (it.key().isEmpty() || it.key().contains('/')) {
            error = QString("%1: a name must not be empty or contain '/'").arg(path);
            return false;
          }
          const QJsonValue json = it.value();
          if (json.isObject() && !json.toObject().contains(TreeJson::TypeKey)) {
            // The node is owned by its host from here on, also when building it fails.
            auto* child = new Carafe::Node(&node, it.key().toUtf8());
            if (!buildNode(json.toObject(), *child, path, error))
              return false;
            continue;
          }
          QString reason;
          std::unique_ptr<Carafe::Attribute> attribute(makeAttribute(json, reason));
          if (!attribute) {
            error = QString("%1: %2").arg(path, reason);
            return false;
          }
          if (!node.addAttribute(it.key().toUtf8(), attribute.get())) {
            error = QString("%1: the node refused this name").arg(path);
            return false;
          }
          // The node owns it now.
          static_cast<void>(attribute.release());
        }
        return true;
      }

      QJsonValue saveAttribute(const Carafe::Attribute& attribute);

      QJsonObject saveNode(const Carafe::Node& node)
      {
        QJsonObject object;
        for (const Carafe::Attribute* child : node.attributes())
          object.insert(QString::fromUtf8(child->name()), saveAttribute(*child));
        return object;
      }

      QJsonValue saveAttribute(const Carafe::Attribute& attribute)
      {
        if (auto* node = dynamic_cast<const Carafe::Node*>(&attribute))
          return saveNode(*node);
        const Carafe::Attribute* target = &attribute;
        if (auto* alias = dynamic_cast<const Carafe::AttributeAlias*>(&attribute)) {
          // An alias of a node could lead back to an ancestor: only plain targets are written.
          target = alias->finalTarget();
          if (!target || dynamic_cast<const Carafe::Node*>(target))
            return QJsonObject{{TreeJson::TypeKey, "unsupported"}, {"text", "alias"}};
        }
        const QString type = AttributeJson::typeName(*target);
        if (type.isEmpty())
          return QJsonObject{{TreeJson::TypeKey, "unsupported"}, {"text", target->asText()}};
        QJsonValue value = AttributeJson::value(*target);
        if (AttributeJson::canOmitType(type, value))
          return value;
        return QJsonObject{{TreeJson::TypeKey, type}, {ValueKey, value}};
      }
    }

    namespace
    {
      /// `TreeJson::load`; `positioned` tells whether `error` begins with "LINE:COLUMN: ".
      bool loadTree(const QByteArray& json, Carafe::Node& into, QString& error, bool& positioned)
      {
        QJsonParseError parseError;
        const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
        positioned = parseError.error != QJsonParseError::NoError || !document.isObject();
        if (positioned) {
          int line = 1;
          int column = 1;
          QString reason = "the tree must be a JSON object";
          if (parseError.error != QJsonParseError::NoError) {
            TreeJson::lineAndColumn(json, parseError.offset, line, column);
            reason = parseError.errorString();
          }
          error = QString("%1:%2: %3").arg(line).arg(column).arg(reason);
          return false;
        }

        // Built aside first, so that a failure leaves `into` as it was.
        Carafe::Node staging;
        if (!buildNode(document.object(), staging, QString(), error))
          return false;
        for (const Carafe::Attribute* child : staging.attributes()) {
          if (into.attribute(child->name())) {
            error = QString("%1: already exists").arg(QString::fromUtf8(child->name()));
            return false;
          }
        }
        for (const Carafe::Attribute* child : staging.attributes()) {
          const QByteArray name = child->name();
          Carafe::Attribute* taken = staging.takeAttribute(name);
          if (!into.addAttribute(name, taken))
            delete taken;
        }
        return true;
      }
    }

    bool TreeJson::load(const QByteArray& json, Carafe::Node& into, QString* error)
    {
      QString reason;
      bool positioned = false;
      if (loadTree(json, into, reason, positioned))
        return true;
      if (error)
        *error = reason;
      return false;
    }

    bool TreeJson::loadFile(const QString& fileName, Carafe::Node& into, QString* error)
    {
      QFile file(fileName);
      QString reason;
      bool positioned = false;
      if (!file.open(QIODevice::ReadOnly))
        reason = file.errorString();
      else if (loadTree(file.readAll(), into, reason, positioned))
        return true;
      if (error)
        *error = fileName + (positioned ? ":" : ": ") + reason;
      return false;
    }

    QJsonObject TreeJson::save(const Carafe::Node& node)
    {
      return saveNode(node);
    }

    QByteArray TreeJson::saveText(const Carafe::Node& node)
    {
      return QJsonDocument(save(node)).toJson(QJsonDocument::Indented);
    }

    void TreeJson::lineAndColumn(const QByteArray& text, int offset, int& line, int& column)
    {
      line = 1;
      column = 1;
      const int end = qBound(0, offset, text.size());
      for (int i = 0; i < end; ++i) {
        const unsigned char byte = static_cast<unsigned char>(text.at(i));
        if (byte == '\n') {
          ++line;
          column = 1;
        } else if ((byte & 0xC0) != 0x80) {
          // UTF-8 continuation bytes belong to the character before them.
          ++column;
        }
      }
    }
  }
}
