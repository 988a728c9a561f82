#pragma once

#include <QByteArray>
#include <QJsonObject>
#include <QString>

namespace Carafe
{
  class Node;
}

namespace Plexa
{
  namespace Cli
  {
    /// A tree of nodes and typed attributes as a JSON document.
    ///
    /// A JSON object is a node, each member a child. A child is an attribute when it is a boolean,
    /// a string, a number or an array of strings (typed as `AttributeJson::inferType` says), or an
    /// object with a "$type" member: {"$type": "vec3f", "value": [0, 1, 0]}. Any other object is a
    /// node. Members are read in the order QJsonObject keeps them (sorted by name).
    ///
    /// Saving writes the short form wherever it reads back as the same type and value, the long
    /// form otherwise; aliases are written as their target's value, attributes of classes that
    /// cannot cross a connection as {"$type": "unsupported", "text": ...} (which loading refuses).
    ///
    /// Application thread only (it walks and changes trees).
    class TreeJson
    {
    public:
      /// Key of the type member of a typed attribute.
      static const QString TypeKey;

      /// Adds the children described by `json` to `into`. All or nothing: on failure nothing is
      /// added and `error` says why, with "LINE:COLUMN: " in front for malformed JSON and
      /// "PATH: " (the child's path) for a value that does not fit.
      static bool load(const QByteArray& json, Carafe::Node& into, QString* error);
      /// The same from a file; errors begin with the file name ("tree.json:3:14: ...").
      static bool loadFile(const QString& fileName, Carafe::Node& into, QString* error);

      /// The children of `node` as a JSON object.
      static QJsonObject save(const Carafe::Node& node);
      /// `save` as indented JSON text.
      static QByteArray saveText(const Carafe::Node& node);

      /// The 1-based line and column (in characters) of byte `offset` of UTF-8 `text`.
      static void lineAndColumn(const QByteArray& text, int offset, int& line, int& column);
    };
  }
}
