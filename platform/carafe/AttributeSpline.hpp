#pragma once

#include "carafe/Attribute.hpp"
#include "carafe/ValueLayers.hpp"

#include "quiver/Vector2T.hpp"

#include <vector>

namespace Carafe
{
  /// An attribute holding the control points of a curve. Text form: the points comma-separated,
  /// each "(x, y)".
  class AttributeSpline : public Attribute
  {
  public:
    using ValueType = std::vector<Quiver::Vector2f>;

    AttributeSpline() = default;
    ~AttributeSpline() override;

    const std::vector<Quiver::Vector2f>& points() const { return m_layers.value(); }
    /// Replaces all points on `layer`; role-2 listeners run if the effective points changed.
    void setPoints(const std::vector<Quiver::Vector2f>& points, int layer = LayerApplication);
    int topLayer() const { return m_layers.topLayer(); }

    void setAsDefaults() override;
    QString asText() const override;

  private:
    ValueLayers<std::vector<Quiver::Vector2f>> m_layers;
  };
}
