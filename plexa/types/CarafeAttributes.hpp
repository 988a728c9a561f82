#pragma once

// The attribute classes of the default type table, in one place.
//
// gcc 12 at -O2 reports a false -Warray-bounds inside Carafe's ValueLayers::set when a caller passes
// a constant layer (the registry always writes layer 2): it cannot see that the top layer never
// exceeds 2. The warning is silenced for these headers only, so -Werror builds stay clean while
// every other warning still counts.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Warray-bounds"
#include "carafe/Attribute.hpp"
#include "carafe/AttributeAlias.hpp"
#include "carafe/AttributeAsset.hpp"
#include "carafe/AttributeContainer.hpp"
#include "carafe/AttributeEnum.hpp"
#include "carafe/AttributeGrid.hpp"
#include "carafe/AttributeSpline.hpp"
#include "carafe/AttributeT.hpp"
#include "carafe/ValueLayers.hpp"
#pragma GCC diagnostic pop
