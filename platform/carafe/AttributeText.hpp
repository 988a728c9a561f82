#pragma once

#include "bastion/Color.hpp"
#include "bastion/ColorPMA.hpp"
#include "bastion/MemGrid8u.hpp"
#include "bastion/TimeStamp.hpp"
#include "quiver/MatrixNT.hpp"
#include "quiver/RectT.hpp"
#include "quiver/SizeT.hpp"
#include "quiver/Vector2T.hpp"
#include "quiver/Vector3T.hpp"
#include "quiver/Vector4T.hpp"

#include <QString>
#include <QStringList>

#include <vector>

namespace Carafe
{
  /// Text forms of attribute values, as `Attribute::asText` shows them: numbers as
  /// `QString::number` writes them, vectors "(x, y)", lists comma-separated, colours
  /// "rgba(r, g, b, a)" and "rgba_pma(r, g, b, a)".
  QString toText(bool v);
  QString toText(int v);
  QString toText(unsigned int v);
  QString toText(long v);
  QString toText(unsigned long v);
  QString toText(float v);
  QString toText(double v);
  QString toText(const QString& v);
  QString toText(const QStringList& v);
  QString toText(const Bastion::Color& v);
  QString toText(const Bastion::ColorPMA& v);
  /// Seconds with six decimals.
  QString toText(const Bastion::TimeStamp& v);
  /// "WxH".
  QString toText(const Bastion::MemGrid8u& v);

  template <typename T>
  QString toText(const Quiver::Vector2T<T>& v)
  {
    return QString("(%1, %2)").arg(toText(v.x), toText(v.y));
  }

  template <typename T>
  QString toText(const Quiver::Vector3T<T>& v)
  {
    return QString("(%1, %2, %3)").arg(toText(v.x), toText(v.y), toText(v.z));
  }

  template <typename T>
  QString toText(const Quiver::Vector4T<T>& v)
  {
    return QString("(%1, %2, %3, %4)").arg(toText(v.x), toText(v.y), toText(v.z), toText(v.w));
  }

  /// "(low.x, low.y, high.x, high.y)".
  template <typename T>
  QString toText(const Quiver::RectT<T>& v)
  {
    return QString("(%1, %2, %3, %4)").arg(toText(v.low.x), toText(v.low.y), toText(v.high.x), toText(v.high.y));
  }

  template <typename T>
  QString toText(const Quiver::SizeT<T>& v)
  {
    return QString("(%1, %2)").arg(toText(v.width), toText(v.height));
  }

  /// Rows in order: "((m00, m01), (m10, m11))".
  template <typename T, int N>
  QString toText(const Quiver::MatrixNT<T, N>& v)
  {
    QStringList rows;
    for (int r = 0; r < N; ++r) {
      QStringList row;
      for (int c = 0; c < N; ++c)
        row << toText(v.m[r][c]);
      rows << "(" + row.join(", ") + ")";
    }
    return "(" + rows.join(", ") + ")";
  }

  template <typename E>
  QString toText(const std::vector<E>& v)
  {
    QStringList items;
    for (const E& e : v)
      items << toText(e);
    return items.join(", ");
  }
}
