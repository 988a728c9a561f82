#include "plexa/session/BundleReceiver.hpp"

namespace Plexa
{
  BundleReceiver::~BundleReceiver() = default;
}
