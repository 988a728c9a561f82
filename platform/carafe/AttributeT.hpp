#pragma once

#include "carafe/Attribute.hpp"
#include "carafe/AttributeText.hpp"
#include "carafe/ValueLayers.hpp"

#include "quiver/Matrix2T.hpp"
#include "quiver/Matrix3T.hpp"
#include "quiver/Matrix4T.hpp"

namespace Carafe
{
  /// Tag selecting the two-vector whose components are attributes of their own.
  struct Separate
  {
  };

  /// An attribute holding one value of type T (needs `T::operator==` and a `toText(const T&)`).
  /// Instantiated in the library for bool, int, unsigned int, long, unsigned long, float, double,
  /// QString, QStringList, Color, ColorPMA, TimeStamp, `Vector2T/3T/4T<int/float>`,
  /// `RectT<int/float/double>`, `SizeT<int/float>` and `Matrix2T/3T/4T<float>`.
  template <typename T, typename Tag = void>
  class AttributeT : public Attribute
  {
  public:
    using ValueType = T;

    AttributeT() = default;
    explicit AttributeT(const T& defaultValue) { m_layers.set(defaultValue, LayerDefault); }
    ~AttributeT() override { beginDestruction(); }

    const T& value() const { return m_layers.value(); }
    /// Stores `v` on `layer` (see `Attribute`); role-2 listeners run if the effective value changed.
    void setValue(const T& v, int layer = LayerApplication)
    {
      if (m_layers.set(v, layer))
        fireChanged();
    }
    /// The highest layer holding a value.
    int topLayer() const { return m_layers.topLayer(); }

    void setAsDefaults() override { m_layers.makeDefault(); }
    QString asText() const override { return toText(m_layers.value()); }

  private:
    ValueLayers<T> m_layers;
  };

  /// A two-vector of floats whose components are attributes of their own (`x()`, `y()`): owned
  /// by the vector, not children in the tree. Changing the vector, or one component, calls the
  /// vector's role-2 listeners once; each component's own listeners run for its own change.
  template <>
  class AttributeT<Quiver::Vector2f, Separate> : public Attribute
  {
  public:
    using ValueType = Quiver::Vector2f;

    AttributeT();
    ~AttributeT() override;

    const Quiver::Vector2f& value() const { return m_value; }
    /// Sets both components on `layer`.
    void setValue(const Quiver::Vector2f& v, int layer = LayerApplication);

    AttributeT<float>& x() { return m_x; }
    AttributeT<float>& y() { return m_y; }
    const AttributeT<float>& x() const { return m_x; }
    const AttributeT<float>& y() const { return m_y; }

    void setAsDefaults() override;
    QString asText() const override;

  private:
    void componentChanged();

    AttributeT<float> m_x;
    AttributeT<float> m_y;
    Quiver::Vector2f m_value;
    bool m_settingBoth = false;
  };

  extern template class AttributeT<bool>;
  extern template class AttributeT<int>;
  extern template class AttributeT<unsigned int>;
  extern template class AttributeT<long>;
  extern template class AttributeT<unsigned long>;
  extern template class AttributeT<float>;
  extern template class AttributeT<double>;
  extern template class AttributeT<QString>;
  extern template class AttributeT<QStringList>;
  extern template class AttributeT<Bastion::Color>;
  extern template class AttributeT<Bastion::ColorPMA>;
  extern template class AttributeT<Bastion::TimeStamp>;
  extern template class AttributeT<Quiver::Vector2T<int>>;
  extern template class AttributeT<Quiver::Vector2T<float>>;
  extern template class AttributeT<Quiver::Vector3T<int>>;
  extern template class AttributeT<Quiver::Vector3T<float>>;
  extern template class AttributeT<Quiver::Vector4T<int>>;
  extern template class AttributeT<Quiver::Vector4T<float>>;
  extern template class AttributeT<Quiver::RectT<int>>;
  extern template class AttributeT<Quiver::RectT<float>>;
  extern template class AttributeT<Quiver::RectT<double>>;
  extern template class AttributeT<Quiver::SizeT<int>>;
  extern template class AttributeT<Quiver::SizeT<float>>;
  extern template class AttributeT<Quiver::Matrix2T<float>>;
  extern template class AttributeT<Quiver::Matrix3T<float>>;
  extern template class AttributeT<Quiver::Matrix4T<float>>;
}
