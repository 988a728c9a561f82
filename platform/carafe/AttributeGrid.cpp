#include "carafe/AttributeGrid.hpp"

#include "carafe/AttributeText.hpp"

namespace Carafe
{
  AttributeGrid<unsigned char>::~AttributeGrid()
  {
    beginDestruction();
  }

  void AttributeGrid<unsigned char>::setValue(const Bastion::MemGrid8u& grid, int layer)
  {
    if (m_layers.set(grid, layer))
      fireChanged();
  }

  void AttributeGrid<unsigned char>::setAsDefaults()
  {
    m_layers.makeDefault();
  }

  QString AttributeGrid<unsigned char>::asText() const
  {
    return toText(m_layers.value());
  }
}
