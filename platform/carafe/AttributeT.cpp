#include "carafe/AttributeT.hpp"

namespace Carafe
{
  template class AttributeT<bool>;
  template class AttributeT<int>;
  template class AttributeT<unsigned int>;
  template class AttributeT<long>;
  template class AttributeT<unsigned long>;
  template class AttributeT<float>;
  template class AttributeT<double>;
  template class AttributeT<QString>;
  template class AttributeT<QStringList>;
  template class AttributeT<Bastion::Color>;
  template class AttributeT<Bastion::ColorPMA>;
  template class AttributeT<Bastion::TimeStamp>;
  template class AttributeT<Quiver::Vector2T<int>>;
  template class AttributeT<Quiver::Vector2T<float>>;
  template class AttributeT<Quiver::Vector3T<int>>;
  template class AttributeT<Quiver::Vector3T<float>>;
  template class AttributeT<Quiver::Vector4T<int>>;
  template class AttributeT<Quiver::Vector4T<float>>;
  template class AttributeT<Quiver::RectT<int>>;
  template class AttributeT<Quiver::RectT<float>>;
  template class AttributeT<Quiver::RectT<double>>;
  template class AttributeT<Quiver::SizeT<int>>;
  template class AttributeT<Quiver::SizeT<float>>;
  template class AttributeT<Quiver::Matrix2T<float>>;
  template class AttributeT<Quiver::Matrix3T<float>>;
  template class AttributeT<Quiver::Matrix4T<float>>;

  AttributeT<Quiver::Vector2f, Separate>::AttributeT()
  {
    // First listeners of the components: the vector is up to date before their other listeners run.
    m_x.addListener([this] { componentChanged(); }, RoleChanged);
    m_y.addListener([this] { componentChanged(); }, RoleChanged);
  }

  AttributeT<Quiver::Vector2f, Separate>::~AttributeT()
  {
    beginDestruction();
  }

  void AttributeT<Quiver::Vector2f, Separate>::setValue(const Quiver::Vector2f& v, int layer)
  {
    const Quiver::Vector2f before = m_value;
    struct Batch
    {
      bool& flag;
      ~Batch() { flag = false; }
    };
    {
      // Component changes update the vector quietly; the vector reports once below.
      m_settingBoth = true;
      Batch batch{m_settingBoth};
      m_x.setValue(v.x, layer);
      m_y.setValue(v.y, layer);
    }
    if (m_value != before)
      fireChanged();
  }

  void AttributeT<Quiver::Vector2f, Separate>::componentChanged()
  {
    m_value = Quiver::Vector2f(m_x.value(), m_y.value());
    if (!m_settingBoth)
      fireChanged();
  }

  void AttributeT<Quiver::Vector2f, Separate>::setAsDefaults()
  {
    m_x.setAsDefaults();
    m_y.setAsDefaults();
  }

  QString AttributeT<Quiver::Vector2f, Separate>::asText() const
  {
    return toText(m_value);
  }
}
