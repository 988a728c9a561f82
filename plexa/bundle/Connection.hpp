#pragma once

#include "plexa/bundle/Bundle.hpp"

#include <vector>

namespace Plexa
{
  /// The outgoing side of a session: where each non-empty send pass goes. Called on the session's
  /// update thread; implementations only queue the bundles and never block on the network.
  class Connection
  {
  public:
    virtual ~Connection() = default;
    /// Sends `bundles` as one block, in order.
    virtual void send(const std::vector<Bundle>& bundles) = 0;
  };
}
