#include "carafe/AttributeSpline.hpp"

#include "carafe/AttributeText.hpp"

namespace Carafe
{
  AttributeSpline::~AttributeSpline()
  {
    beginDestruction();
  }

  void AttributeSpline::setPoints(const std::vector<Quiver::Vector2f>& points, int layer)
  {
    if (m_layers.set(points, layer))
      fireChanged();
  }

  void AttributeSpline::setAsDefaults()
  {
    m_layers.makeDefault();
  }

  QString AttributeSpline::asText() const
  {
    return toText(m_layers.value());
  }
}
