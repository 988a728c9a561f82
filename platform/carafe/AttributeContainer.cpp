#include "carafe/AttributeContainer.hpp"

namespace Carafe
{
  template class AttributeContainer<std::vector<float>>;
  template class AttributeContainer<std::vector<Quiver::Vector2f>>;
  template class AttributeContainer<std::vector<int>>;
  template class AttributeContainer<std::vector<unsigned int>>;
  template class AttributeContainer<std::vector<QString>>;
}
