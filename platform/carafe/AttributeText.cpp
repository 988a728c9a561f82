#include "carafe/AttributeText.hpp"

namespace Carafe
{
  QString toText(bool v)
  {
    return v ? QStringLiteral("true") : QStringLiteral("false");
  }

  QString toText(int v)
  {
    return QString::number(v);
  }

  QString toText(unsigned int v)
  {
    return QString::number(v);
  }

  QString toText(long v)
  {
    return QString::number(v);
  }

  QString toText(unsigned long v)
  {
    return QString::number(v);
  }

  QString toText(float v)
  {
    return QString::number(double(v));
  }

  QString toText(double v)
  {
    return QString::number(v);
  }

  QString toText(const QString& v)
  {
    return v;
  }

  QString toText(const QStringList& v)
  {
    return v.join(", ");
  }

  QString toText(const Bastion::Color& v)
  {
    return QString("rgba(%1, %2, %3, %4)").arg(v.r).arg(v.g).arg(v.b).arg(v.a);
  }

  QString toText(const Bastion::ColorPMA& v)
  {
    return QString("rgba_pma(%1, %2, %3, %4)").arg(v.r).arg(v.g).arg(v.b).arg(v.a);
  }

  QString toText(const Bastion::TimeStamp& v)
  {
    return QString::number(v.secondsD(), 'f', 6);
  }

  QString toText(const Bastion::MemGrid8u& v)
  {
    return QString("%1x%2").arg(v.width()).arg(v.height());
  }
}
