#pragma once

#include <QJsonValue>
#include <QString>
#include <QStringList>

#include <cstdint>

namespace Carafe
{
  class Attribute;
}

namespace Plexa
{
  namespace Cli
  {
    /// Values of the attribute types that cross a connection, as JSON, under short type names
    /// ("float", "vec3f", "color", "string[]", ...; `typeNames()` lists them, README.md shows each
    /// one's JSON form).
    ///
    /// Numbers are JSON numbers; 64-bit integers beyond 2^53 are written as strings and read from
    /// either. Vectors, sizes, rectangles and colours are flat arrays of their components (a
    /// colour may leave out alpha), matrices arrays of rows, lists arrays of their elements, a
    /// byte grid an array of rows of 0..255, a time stamp its seconds. A float that is not finite
    /// is written as the string "nan", "inf" or "-inf".
    ///
    /// Stateless; any thread.
    class AttributeJson
    {
    public:
      /// Every type name, in the order of the protocol's type ids.
      static QStringList typeNames();
      static bool isTypeName(const QString& type);
      /// The protocol's type id of a type name, 0 for an unknown name.
      static uint32_t typeId(const QString& type);

      /// The type name of `attribute`'s class; empty for nodes, aliases and classes not listed.
      static QString typeName(const Carafe::Attribute& attribute);
      /// The value of `attribute` (which must have a type name) as JSON; null otherwise.
      static QJsonValue value(const Carafe::Attribute& attribute);

      /// Sets `attribute`'s value from `json` on the application layer. False, with the reason in
      /// `error` and the attribute unchanged, when `json` is not a value of the attribute's type.
      static bool assign(Carafe::Attribute& attribute, const QJsonValue& json, QString* error);

      /// A new attribute of `type` holding `json` (owned by the caller), or null with the reason
      /// in `error`.
      static Carafe::Attribute* create(const QString& type, const QJsonValue& json, QString* error);

      /// The type that a value written without one stands for: a boolean is a "bool", a string a
      /// "string", an integer in 32 bits an "int", any other number a "double", a non-empty array
      /// of strings a "stringlist". Empty for everything else.
      static QString inferType(const QJsonValue& json);
      /// True when `json` written without its type reads back as a value of `type` equal to it:
      /// the cases of `inferType`, a "double" only when not integral.
      static bool canOmitType(const QString& type, const QJsonValue& json);
      /// True for the types whose JSON value is an array of strings.
      static bool isStringListType(const QString& type);
      /// True for the types whose JSON value is a string.
      static bool isStringType(const QString& type);

      /// The double whose shortest text is the shortest text that reads back as `value` (0.9f
      /// gives 0.9, not 0.8999999761581421): how every float is shown, in dump, watch and the
      /// inspector page alike, and still the same float when read back. `value` must be finite.
      static double floatValue(float value);
    };
  }
}
