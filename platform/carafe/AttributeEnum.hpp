#pragma once

#include "carafe/Attribute.hpp"
#include "carafe/ValueLayers.hpp"

#include <QMap>

namespace Carafe
{
  /// An attribute holding an enumeration value as an int. Names are optional and used only by
  /// the text form: a value with a name shows the name, any other value its number.
  class AttributeEnum : public Attribute
  {
  public:
    using ValueType = int;

    AttributeEnum() = default;
    ~AttributeEnum() override;

    int value() const { return m_layers.value(); }
    /// Stores `v` on `layer`; role-2 listeners run if the effective value changed.
    void setValue(int v, int layer = LayerApplication);
    int topLayer() const { return m_layers.topLayer(); }

    /// Names `value` in the text form (replaces an earlier name of that value).
    void setName(int value, const QString& name);
    const QMap<int, QString>& names() const { return m_names; }

    void setAsDefaults() override;
    QString asText() const override;

  private:
    ValueLayers<int> m_layers;
    QMap<int, QString> m_names;
  };
}
