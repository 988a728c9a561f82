#include "AttributeJson.hpp"

#include "plexa/types/CarafeAttributes.hpp"

#include <QJsonArray>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>
#include <vector>

namespace Plexa
{
  namespace Cli
  {
    namespace
    {
      // ---- value codecs: Codec<T>::write(value) -> JSON, Codec<T>::read(json, value, error) ----

      template <typename T, typename Enable = void>
      struct Codec;

      template <>
      struct Codec<bool>
      {
        static QJsonValue write(bool v) { return QJsonValue(v); }
        static bool read(const QJsonValue& json, bool& out, QString& error)
        {
          if (!json.isBool()) {
            error = "expected true or false";
            return false;
          }
          out = json.toBool();
          return true;
        }
      };

      template <typename I>
      struct Codec<I, std::enable_if_t<std::is_integral<I>::value && !std::is_same<I, bool>::value>>
      {
        // Doubles hold every integer up to 2^53 exactly; larger 64-bit values go as text.
        static constexpr double ExactLimit = 9007199254740992.0;

        static QJsonValue write(I v)
        {
          if (sizeof(I) < 8 || std::fabs(double(v)) <= ExactLimit)
            return QJsonValue(double(v));
          return QJsonValue(QString::number(v));
        }

        static bool read(const QJsonValue& json, I& out, QString& error)
        {
          const auto fail = [&error] {
            // Through 64-bit types: QString::arg would print an 8-bit type as a character.
            using Wide = std::conditional_t<std::is_signed<I>::value, qlonglong, qulonglong>;
            error = QString("expected an integer from %1 to %2")
                        .arg(Wide(std::numeric_limits<I>::min()))
                        .arg(Wide(std::numeric_limits<I>::max()));
            return false;
          };
          if (json.isString()) {
            bool ok = false;
            const QString text = json.toString().trimmed();
            if constexpr (std::is_signed<I>::value) {
              const qlonglong v = text.toLongLong(&ok);
              if (!ok || v < qlonglong(std::numeric_limits<I>::min()) || v > qlonglong(std::numeric_limits<I>::max()))
                return fail();
              out = I(v);
            } else {
              const qulonglong v = text.startsWith('-') ? 0 : text.toULongLong(&ok);
              if (!ok || v > qulonglong(std::numeric_limits<I>::max()))
                return fail();
              out = I(v);
            }
            return true;
          }
          if (!json.isDouble())
            return fail();
          const double d = json.toDouble();
          // The bounds are powers of two, which a double holds exactly.
          const double upper = std::ldexp(1.0, std::numeric_limits<I>::digits);
          const double lower = std::is_signed<I>::value ? -upper : 0.0;
          if (!std::isfinite(d) || std::floor(d) != d || d < lower || d >= upper)
            return fail();
          out = I(d);
          return true;
        }
      };

      template <typename F>
      struct Codec<F, std::enable_if_t<std::is_floating_point<F>::value>>
      {
        static QJsonValue write(F v)
        {
          // JSON has no spelling for these.
          if (std::isnan(v))
            return QJsonValue("nan");
          if (std::isinf(v))
            return QJsonValue(v > 0 ? "inf" : "-inf");
          return QJsonValue(std::is_same<F, float>::value ? AttributeJson::floatValue(float(v)) : double(v));
        }

        static bool read(const QJsonValue& json, F& out, QString& error)
        {
          if (json.isDouble()) {
            out = F(json.toDouble());
            return true;
          }
          const QString text = json.toString().toLower();
          if (json.isString() && text == "nan") {
            out = std::numeric_limits<F>::quiet_NaN();
            return true;
          }
          if (json.isString() && (text == "inf" || text == "+inf" || text == "-inf")) {
            out = text == "-inf" ? -std::numeric_limits<F>::infinity() : std::numeric_limits<F>::infinity();
            return true;
          }
          error = "expected a number";
          return false;
        }
      };

      template <>
      struct Codec<QString>
      {
        static QJsonValue write(const QString& v) { return QJsonValue(v); }
        static bool read(const QJsonValue& json, QString& out, QString& error)
        {
          if (!json.isString()) {
            error = "expected a string";
            return false;
          }
          out = json.toString();
          return true;
        }
      };

      template <>
      struct Codec<Bastion::TimeStamp>
      {
        static QJsonValue write(const Bastion::TimeStamp& v) { return QJsonValue(v.secondsD()); }
        static bool read(const QJsonValue& json, Bastion::TimeStamp& out, QString& error)
        {
          // Seconds; the fixed-point value has 39 integer bits.
          const double limit = std::ldexp(1.0, 63 - Bastion::TimeStamp::FractionBits);
          if (!json.isDouble() || !std::isfinite(json.toDouble()) || std::fabs(json.toDouble()) >= limit) {
            error = "expected a number of seconds";
            return false;
          }
          out = Bastion::TimeStamp::createSeconds(json.toDouble());
          return true;
        }
      };

      /// Reads every item of a JSON array with `readItem(item, index)`; the error names the item.
      template <typename ReadItem>
      bool readItems(const QJsonValue& json, const char* expected, QString& error, ReadItem readItem)
      {
        if (!json.isArray()) {
          error = QString("expected %1").arg(expected);
          return false;
        }
        const QJsonArray items = json.toArray();
        for (int i = 0; i < items.size(); ++i) {
          if (!readItem(items.at(i), i)) {
            error = QString("item %1: %2").arg(i + 1).arg(error);
            return false;
          }
        }
        return true;
      }

      template <typename E>
      struct Codec<std::vector<E>>
      {
        static QJsonValue write(const std::vector<E>& v)
        {
          QJsonArray items;
          for (const E& e : v)
            items.append(Codec<E>::write(e));
          return items;
        }
        static bool read(const QJsonValue& json, std::vector<E>& out, QString& error)
        {
          std::vector<E> result;
          const bool ok = readItems(json, "an array", error, [&](const QJsonValue& item, int) {
            E e{};
            if (!Codec<E>::read(item, e, error))
              return false;
            result.push_back(e);
            return true;
          });
          if (ok)
            out.swap(result);
          return ok;
        }
      };

      template <>
      struct Codec<QStringList>
      {
        static QJsonValue write(const QStringList& v) { return QJsonArray::fromStringList(v); }
        static bool read(const QJsonValue& json, QStringList& out, QString& error)
        {
          std::vector<QString> items;
          if (!Codec<std::vector<QString>>::read(json, items, error))
            return false;
          out = QStringList(items.begin(), items.end());
          return true;
        }
      };

      template <>
      struct Codec<Bastion::MemGrid8u>
      {
        static QJsonValue write(const Bastion::MemGrid8u& grid)
        {
          QJsonArray rows;
          for (int y = 0; y < grid.height(); ++y) {
            QJsonArray row;
            for (int x = 0; x < grid.width(); ++x)
              row.append(int(grid.line(y)[x]));
            rows.append(row);
          }
          return rows;
        }
        static bool read(const QJsonValue& json, Bastion::MemGrid8u& out, QString& error)
        {
          const QJsonArray rows = json.toArray();
          const int width = rows.isEmpty() ? 0 : rows.at(0).toArray().size();
          Bastion::MemGrid8u grid;
          if (!grid.resize(width, rows.size())) {
            error = "the grid is too large";
            return false;
          }
          const bool ok =
              readItems(json, "an array of rows of integers from 0 to 255", error, [&](const QJsonValue& row, int y) {
                if (!row.isArray() || row.toArray().size() != width) {
                  error = QString("expected a row of %1 integers from 0 to 255").arg(width);
                  return false;
                }
                return readItems(row, "a row", error, [&](const QJsonValue& cell, int x) {
                  return Codec<uint8_t>::read(cell, grid.line(y)[x], error);
                });
              });
          if (ok)
            out = grid;
          return ok;
        }
      };

      // ---- fixed-size values made of equal scalars (vectors, sizes, rectangles, colours, matrices) ----

      /// `count` scalars in memory order; `rows` > 0 writes them as that many rows; the last
      /// `optional` may be left out when read (they keep the value type's default).
      template <typename T>
      struct Layout
      {
        static constexpr int count = 0;
      };

      template <typename S, int N, int Rows = 0, int Optional = 0>
      struct ScalarLayout
      {
        using Scalar = S;
        static constexpr int count = N;
        static constexpr int rows = Rows;
        static constexpr int optional = Optional;
      };

      template <typename E>
      struct Layout<Quiver::Vector2T<E>> : ScalarLayout<E, 2>
      {
      };
      template <typename E>
      struct Layout<Quiver::Vector3T<E>> : ScalarLayout<E, 3>
      {
      };
      template <typename E>
      struct Layout<Quiver::Vector4T<E>> : ScalarLayout<E, 4>
      {
      };
      template <typename E>
      struct Layout<Quiver::SizeT<E>> : ScalarLayout<E, 2>
      {
      };
      template <typename E>
      struct Layout<Quiver::RectT<E>> : ScalarLayout<E, 4>
      {
      };
      template <>
      struct Layout<Bastion::Color> : ScalarLayout<float, 4, 0, 1>
      {
      };
      template <>
      struct Layout<Bastion::ColorPMA> : ScalarLayout<float, 4, 0, 1>
      {
      };
      template <>
      struct Layout<Quiver::Matrix2f> : ScalarLayout<float, 4, 2>
      {
      };
      template <>
      struct Layout<Quiver::Matrix3f> : ScalarLayout<float, 9, 3>
      {
      };
      template <>
      struct Layout<Quiver::Matrix4f> : ScalarLayout<float, 16, 4>
      {
      };

      template <typename T>
      struct Codec<T, std::enable_if_t<(Layout<T>::count > 0)>>
      {
        using S = typename Layout<T>::Scalar;
        static constexpr int N = Layout<T>::count;
        static constexpr int Rows = Layout<T>::rows;
        static_assert(sizeof(T) == sizeof(S) * N && std::is_trivially_copyable<T>::value,
                      "the value is exactly its scalars");

        static QString expected()
        {
          const char* kind = std::is_integral<S>::value ? "integers" : "numbers";
          if (Rows > 0)
            return QString("expected %1 rows of %1 %2").arg(Rows).arg(kind);
          if (Layout<T>::optional > 0)
            return QString("expected an array of %1 to %2 %3").arg(N - Layout<T>::optional).arg(N).arg(kind);
          return QString("expected an array of %1 %2").arg(N).arg(kind);
        }

        static QJsonValue write(const T& v)
        {
          S scalars[N];
          std::memcpy(scalars, &v, sizeof(T));
          QJsonArray flat;
          for (const S& s : scalars)
            flat.append(Codec<S>::write(s));
          if (Rows == 0)
            return flat;
          QJsonArray rows;
          for (int r = 0; r < Rows; ++r) {
            QJsonArray row;
            for (int c = 0; c < N / Rows; ++c)
              row.append(flat.at(r * (N / Rows) + c));
            rows.append(row);
          }
          return rows;
        }

        static bool read(const QJsonValue& json, T& out, QString& error)
        {
          QJsonArray items = json.toArray();
          // Matrices: rows of numbers, or all numbers in one array.
          if (Rows > 0 && items.size() == Rows && items.at(0).isArray()) {
            QJsonArray flat;
            for (const QJsonValue row : items) {
              if (!row.isArray() || row.toArray().size() != N / Rows) {
                error = expected();
                return false;
              }
              for (const QJsonValue cell : row.toArray())
                flat.append(cell);
            }
            items = flat;
          }
          if (!json.isArray() || items.size() < N - Layout<T>::optional || items.size() > N) {
            error = expected();
            return false;
          }
          const T defaults{};
          S scalars[N];
          std::memcpy(scalars, &defaults, sizeof(T));
          for (int i = 0; i < items.size(); ++i) {
            if (!Codec<S>::read(items.at(i), scalars[i], error)) {
              error = QString("item %1: %2").arg(i + 1).arg(error);
              return false;
            }
          }
          std::memcpy(static_cast<void*>(&out), scalars, sizeof(T));
          return true;
        }
      };

      // ---- attribute classes: how to reach the value ----

      template <typename A>
      struct Access
      {
        using Value = typename A::ValueType;
        static Value get(const A& a) { return a.value(); }
        static void set(A& a, const Value& v) { a.setValue(v); }
      };

      template <>
      struct Access<Carafe::AttributeAsset>
      {
        using Value = QString;
        static Value get(const Carafe::AttributeAsset& a) { return a.source(); }
        static void set(Carafe::AttributeAsset& a, const Value& v) { a.setSource(v); }
      };

      template <>
      struct Access<Carafe::AttributeSpline>
      {
        using Value = std::vector<Quiver::Vector2f>;
        static Value get(const Carafe::AttributeSpline& a) { return a.points(); }
        static void set(Carafe::AttributeSpline& a, const Value& v) { a.setPoints(v); }
      };

      struct Entry
      {
        const char* name;
        uint32_t id;
        bool (*matches)(const Carafe::Attribute&);
        QJsonValue (*write)(const Carafe::Attribute&);
        bool (*assign)(Carafe::Attribute&, const QJsonValue&, QString&);
        Carafe::Attribute* (*create)();
      };

      template <typename A>
      Entry entry(const char* name, uint32_t id)
      {
        using V = typename Access<A>::Value;
        return Entry{
            name,
            id,
            [](const Carafe::Attribute& a) { return dynamic_cast<const A*>(&a) != nullptr; },
            [](const Carafe::Attribute& a) { return Codec<V>::write(Access<A>::get(static_cast<const A&>(a))); },
            [](Carafe::Attribute& a, const QJsonValue& json, QString& error) {
              V v{};
              if (!Codec<V>::read(json, v, error))
                return false;
              Access<A>::set(static_cast<A&>(a), v);
              return true;
            },
            []() -> Carafe::Attribute* { return new A(); }};
      }

      template <typename T>
      using Simple = Carafe::AttributeT<T>;
      template <typename E>
      using List = Carafe::AttributeContainer<std::vector<E>>;

      /// The table, by type id. No listed class derives from another, so the first class match
      /// is the only one.
      const std::vector<Entry>& table()
      {
        static const std::vector<Entry> entries = {
            entry<Simple<bool>>("bool", 1),
            entry<Simple<Bastion::Color>>("color", 2),
            entry<Simple<float>>("float", 3),
            entry<Simple<double>>("double", 4),
            entry<Simple<int>>("int", 9),
            entry<Simple<unsigned int>>("uint", 10),
            entry<Simple<long>>("long", 11),
            entry<Simple<unsigned long>>("ulong", 12),
            entry<Simple<Quiver::Recti>>("recti", 13),
            entry<Simple<Quiver::Rectf>>("rectf", 14),
            entry<Simple<Quiver::Rectd>>("rectd", 15),
            entry<Simple<Quiver::Vector2i>>("vec2i", 16),
            entry<Simple<Quiver::Vector2f>>("vec2f", 17),
            entry<Simple<Quiver::Vector3i>>("vec3i", 19),
            entry<Simple<Quiver::Vector3f>>("vec3f", 20),
            entry<Simple<Quiver::Vector4i>>("vec4i", 22),
            entry<Simple<Quiver::Vector4f>>("vec4f", 23),
            entry<Simple<Quiver::Matrix2f>>("mat2", 26),
            entry<Simple<Quiver::Matrix3f>>("mat3", 29),
            entry<Simple<Quiver::Matrix4f>>("mat4", 32),
            entry<Simple<Bastion::TimeStamp>>("timestamp", 34),
            entry<Simple<QString>>("string", 35),
            entry<Simple<QStringList>>("stringlist", 36),
            entry<List<float>>("float[]", 40),
            entry<List<Quiver::Vector2f>>("vec2f[]", 41),
            entry<List<int>>("int[]", 42),
            entry<List<unsigned int>>("uint[]", 43),
            entry<List<QString>>("string[]", 44),
            entry<Carafe::AttributeGrid<unsigned char>>("grid", 45),
            entry<Carafe::AttributeSpline>("spline", 46),
            entry<Carafe::AttributeEnum>("enum", 47),
            entry<Simple<Bastion::ColorPMA>>("colorpma", 48),
            entry<Carafe::AttributeT<Quiver::Vector2f, Carafe::Separate>>("vec2f-separate", 49),
            entry<Simple<Quiver::Sizef>>("sizef", 50),
            entry<Carafe::AttributeAsset>("asset", 51),
            entry<Simple<Quiver::Sizei>>("sizei", 52),
        };
        return entries;
      }

      const Entry* byName(const QString& type)
      {
        for (const Entry& e : table())
          if (type == QLatin1String(e.name))
            return &e;
        return nullptr;
      }

      const Entry* byClass(const Carafe::Attribute& attribute)
      {
        for (const Entry& e : table())
          if (e.matches(attribute))
            return &e;
        return nullptr;
      }
    }

    QStringList AttributeJson::typeNames()
    {
      QStringList names;
      for (const Entry& e : table())
        names << e.name;
      return names;
    }

    bool AttributeJson::isTypeName(const QString& type)
    {
      return byName(type) != nullptr;
    }

    uint32_t AttributeJson::typeId(const QString& type)
    {
      const Entry* e = byName(type);
      return e ? e->id : 0;
    }

    QString AttributeJson::typeName(const Carafe::Attribute& attribute)
    {
      const Entry* e = byClass(attribute);
      return e ? QString(e->name) : QString();
    }

    QJsonValue AttributeJson::value(const Carafe::Attribute& attribute)
    {
      const Entry* e = byClass(attribute);
      return e ? e->write(attribute) : QJsonValue();
    }

    bool AttributeJson::assign(Carafe::Attribute& attribute, const QJsonValue& json, QString* error)
    {
      QString reason;
      const Entry* e = byClass(attribute);
      if (!e)
        reason = "this kind of attribute cannot be set";
      else if (e->assign(attribute, json, reason))
        return true;
      if (error)
        *error = reason;
      return false;
    }

    Carafe::Attribute* AttributeJson::create(const QString& type, const QJsonValue& json, QString* error)
    {
      QString reason;
      const Entry* e = byName(type);
      if (!e) {
        if (error)
          *error = QString("unknown type '%1' (known types: %2)").arg(type, typeNames().join(", "));
        return nullptr;
      }
      Carafe::Attribute* attribute = e->create();
      if (e->assign(*attribute, json, reason))
        return attribute;
      delete attribute;
      if (error)
        *error = reason;
      return nullptr;
    }

    QString AttributeJson::inferType(const QJsonValue& json)
    {
      if (json.isBool())
        return "bool";
      if (json.isString())
        return "string";
      if (json.isDouble()) {
        const double d = json.toDouble();
        const bool isInt = std::floor(d) == d && d >= double(std::numeric_limits<int>::min()) &&
                           d <= double(std::numeric_limits<int>::max());
        return isInt ? "int" : "double";
      }
      if (json.isArray() && !json.toArray().isEmpty()) {
        for (const QJsonValue item : json.toArray())
          if (!item.isString())
            return QString();
        return "stringlist";
      }
      return QString();
    }

    bool AttributeJson::canOmitType(const QString& type, const QJsonValue& json)
    {
      const QString inferred = inferType(json);
      return !inferred.isEmpty() && inferred == type;
    }

    bool AttributeJson::isStringListType(const QString& type)
    {
      return type == "stringlist" || type == "string[]";
    }

    bool AttributeJson::isStringType(const QString& type)
    {
      return type == "string" || type == "asset";
    }

    double AttributeJson::floatValue(float value)
    {
      // The shortest digits that read back as the same float, then the double nearest to them.
      // Both conversions ignore the locale.
      char text[32];
      const std::to_chars_result written = std::to_chars(text, text + sizeof(text), value);
      double result = double(value);
      if (written.ec == std::errc())
        std::from_chars(text, written.ptr, result);
      return result;
    }
  }
}
