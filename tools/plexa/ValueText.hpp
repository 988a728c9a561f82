#pragma once

#include <QByteArray>
#include <QJsonValue>
#include <QString>

namespace Plexa
{
  namespace Cli
  {
    /// One PATH[:TYPE]=VALUE argument of `plexa set`.
    struct Assignment
    {
      /// Slash-separated, relative to the mirrored root (a leading '/' is dropped).
      QByteArray path;
      /// A type name of `AttributeJson`, or empty: the attribute's present type, else inferred.
      QString type;
      /// VALUE as written; its JSON form depends on the type (see `ValueText::parseValue`).
      QString text;
    };

    /// Turns the command line's assignments into paths, types and JSON values. Stateless.
    class ValueText
    {
    public:
      /// Parses "PATH=VALUE" or "PATH:TYPE=VALUE" (`defaultType`, when not empty, stands for a
      /// missing TYPE). False, with a one-line reason in `error`, for a missing '=', an empty or
      /// malformed path, an unknown type, or a value that `parseValue` refuses for the type given.
      static bool parseAssignment(const QString& argument, const QString& defaultType, Assignment& out, QString* error);

      /// The JSON value that `text` stands for, for an attribute of `type` (empty: not known yet).
      /// For string types the text is taken as it is. Otherwise it is read as JSON, where a list
      /// may leave out its brackets ("1,0.5,0" is [1, 0.5, 0]); text that is no JSON is a string
      /// when no type is given, and split at commas for the string list types. Empty text is the
      /// empty string, or the empty list for list types. False (with `error`) for text that a
      /// non-string type cannot take.
      static bool parseValue(const QString& text, const QString& type, QJsonValue& out, QString* error);
    };
  }
}
