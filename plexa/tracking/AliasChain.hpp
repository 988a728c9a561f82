#pragma once

#include "carafe/AttributeAlias.hpp"

namespace Plexa
{
  /// Follows an alias chain: the first object that is not an alias, or null when the chain ends
  /// in nothing. A plain attribute or node is its own final target. The attribute library
  /// refuses targets that close a cycle, so the walk ends.
  inline Carafe::Attribute* finalTarget(Carafe::Attribute* attribute)
  {
    while (auto* alias = dynamic_cast<Carafe::AttributeAlias*>(attribute))
      attribute = alias->attribute();
    return attribute;
  }
}
