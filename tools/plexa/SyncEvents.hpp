#pragma once

namespace Plexa
{
  namespace Cli
  {
    /// Events by which `plexa set` gets `plexa serve` to send something back: every bundle of the
    /// reply acknowledges all the bundles the server has applied, the values sent before the
    /// request among them. The payload is sent back unchanged.
    namespace SyncEvents
    {
      constexpr const char* Request = "plexa.sync";
      constexpr const char* Reply = "plexa.synced";
    }
  }
}
