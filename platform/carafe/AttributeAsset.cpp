#include "carafe/AttributeAsset.hpp"

namespace Carafe
{
  AttributeAsset::~AttributeAsset()
  {
    beginDestruction();
  }

  void AttributeAsset::setSource(const QString& source, int layer)
  {
    if (m_layers.set(source, layer))
      fireChanged();
  }

  void AttributeAsset::setAsDefaults()
  {
    m_layers.makeDefault();
  }

  QString AttributeAsset::asText() const
  {
    return m_layers.value();
  }
}
