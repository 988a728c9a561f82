#include "ValueText.hpp"

#include "AttributeJson.hpp"

#include "carafe/Attribute.hpp"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonParseError>

#include <memory>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      bool isListType(const QString& type)
      {
        return type.endsWith("[]") || type == "stringlist" || type == "spline" || type == "grid";
      }

      bool fail(QString* error, const QString& reason)
      {
        if (error)
          *error = reason;
        return false;
      }
    }

    bool ValueText::parseAssignment(const QString& argument, const QString& defaultType, Assignment& out,
                                    QString* error)
    {
      const int equals = argument.indexOf('=');
      if (equals < 0)
        return fail(error, QString("'%1' is not PATH=VALUE").arg(argument));
      QString path = argument.left(equals);
      QString type = defaultType;
      const int colon = path.lastIndexOf(':');
      if (colon >= 0) {
        type = path.mid(colon + 1);
        path = path.left(colon);
      }
      if (!type.isEmpty() && !AttributeJson::isTypeName(type))
        return fail(error, QString("unknown type '%1' in '%2' (known types: %3)")
                               .arg(type, argument, AttributeJson::typeNames().join(", ")));
      if (path.startsWith('/'))
        path.remove(0, 1);
      if (path.isEmpty() || path.split('/').contains(QString()))
        return fail(error, QString("'%1' has no valid path before '=' (names separated by '/')").arg(argument));

      Assignment result;
      result.path = path.toUtf8();
      result.type = type;
      result.text = argument.mid(equals + 1);
      if (!type.isEmpty()) {
        // A value the type cannot take is reported now, before any connection is made.
        QJsonValue value;
        QString reason;
        if (!parseValue(result.text, type, value, &reason))
          return fail(error, QString("%1: %2").arg(path, reason));
        std::unique_ptr<Carafe::Attribute> probe(AttributeJson::create(type, value, &reason));
        if (!probe)
          return fail(error, QString("%1: not a %2 value: %3").arg(path, type, reason));
      }
      out = result;
      return true;
    }

    bool ValueText::parseValue(const QString& text, const QString& type, QJsonValue& out, QString* error)
    {
      if (AttributeJson::isStringType(type)) {
        out = text;
        return true;
      }
      if (text.trimmed().isEmpty()) {
        out = isListType(type) ? QJsonValue(QJsonArray()) : QJsonValue(QString());
        return true;
      }
      // In brackets, so that a bare scalar and a list without its brackets both read as JSON.
      QJsonParseError parseError;
      const QJsonDocument document = QJsonDocument::fromJson("[" + text.toUtf8() + "]", &parseError);
      if (parseError.error == QJsonParseError::NoError) {
        // "[1, 2]" reads as [[1, 2]]: one item is the value itself; a list type takes a lone
        // item as a list of one.
        const QJsonArray items = document.array();
        out = items.size() == 1 ? items.at(0) : QJsonValue(items);
        if (isListType(type) && !out.isArray())
          out = QJsonArray{out};
        return true;
      }
      if (type.isEmpty()) {
        out = text;
        return true;
      }
      if (AttributeJson::isStringListType(type)) {
        QJsonArray items;
        for (const QString& item : text.split(','))
          items.append(item.trimmed());
        out = items;
        return true;
      }
      return fail(error, QString("'%1' is not a %2 value (%3)").arg(text, type, parseError.errorString()));
    }
  }
}
