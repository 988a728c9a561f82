#pragma once

#include "carafe/Attribute.hpp"
#include "carafe/AttributeText.hpp"
#include "carafe/ValueLayers.hpp"

#include <vector>

namespace Carafe
{
  template <typename C>
  class AttributeContainer;

  /// An attribute holding a list of E, replaced as a whole. Instantiated in the library for E
  /// float, Vector2f, int, unsigned int and QString. Text form: items comma-separated.
  template <typename E>
  class AttributeContainer<std::vector<E>> : public Attribute
  {
  public:
    using ValueType = std::vector<E>;
    using ElementType = E;

    AttributeContainer() = default;
    ~AttributeContainer() override { beginDestruction(); }

    const std::vector<E>& value() const { return m_layers.value(); }
    /// Replaces the whole list on `layer`; role-2 listeners run if the effective list changed.
    void setValue(const std::vector<E>& v, int layer = LayerApplication)
    {
      if (m_layers.set(v, layer))
        fireChanged();
    }
    int topLayer() const { return m_layers.topLayer(); }

    void setAsDefaults() override { m_layers.makeDefault(); }
    QString asText() const override { return toText(m_layers.value()); }

  private:
    ValueLayers<std::vector<E>> m_layers;
  };

  extern template class AttributeContainer<std::vector<float>>;
  extern template class AttributeContainer<std::vector<Quiver::Vector2f>>;
  extern template class AttributeContainer<std::vector<int>>;
  extern template class AttributeContainer<std::vector<unsigned int>>;
  extern template class AttributeContainer<std::vector<QString>>;
}
