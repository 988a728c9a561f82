#pragma once

namespace Plexa
{
  namespace Cli
  {
    /// Events by which `plexa set` learns that `plexa serve` applied its values: a session applies
    /// what it receives in order, so once the reply to a request sent after the values arrives,
    /// the values are in the peer's tree. The payload is one int32 token, sent back unchanged.
    namespace SyncEvents
    {
      constexpr const char* Request = "plexa.sync";
      constexpr const char* Reply = "plexa.synced";
    }
  }
}
