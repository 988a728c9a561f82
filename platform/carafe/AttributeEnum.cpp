#include "carafe/AttributeEnum.hpp"

#include "carafe/AttributeText.hpp"

namespace Carafe
{
  AttributeEnum::~AttributeEnum()
  {
    beginDestruction();
  }

  void AttributeEnum::setValue(int v, int layer)
  {
    if (m_layers.set(v, layer))
      fireChanged();
  }

  void AttributeEnum::setName(int value, const QString& name)
  {
    m_names.insert(value, name);
  }

  void AttributeEnum::setAsDefaults()
  {
    m_layers.makeDefault();
  }

  QString AttributeEnum::asText() const
  {
    auto it = m_names.constFind(m_layers.value());
    return it != m_names.constEnd() ? *it : toText(m_layers.value());
  }
}
