#pragma once

#include <QByteArray>

#include <cstdint>

namespace Plexa
{
  /// What a sender may ask of the session while it registers: the outgoing message type of a
  /// module name. Implemented by `Core`; used on the session's update thread only.
  class BundleDispatcher
  {
  public:
    virtual ~BundleDispatcher() = default;

    /// The number this side sends `moduleName`'s bundles under. The first call for a name
    /// allocates the next number and queues a "load-module" request to the peer; later calls
    /// return the same number without a further request.
    virtual uint32_t messageTypeFor(const QByteArray& moduleName) = 0;
  };
}
