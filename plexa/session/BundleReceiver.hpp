#pragma once

#include "plexa/session/BundleDispatcher.hpp"

namespace Plexa
{
  class BundleReaderCore;
  struct BundleHeader;

  /// Base of everything that consumes bundles. The core's dispatcher calls `handleBundle` on the
  /// session's update thread, one bundle at a time, in the order in which they arrived.
  class BundleReceiver
  {
  public:
    BundleReceiver() = default;
    virtual ~BundleReceiver();
    BundleReceiver(const BundleReceiver&) = delete;
    BundleReceiver& operator=(const BundleReceiver&) = delete;

    /// Reads one bundle. `reader` stands behind the 16-byte header and reads the bundle's bytes up
    /// to their end; `header` is that bundle's header. Short or bad data throws the reader's
    /// std::out_of_range / std::invalid_argument, which the caller logs and then goes on with the
    /// next bundle. `session` is the session that dispatches the bundle.
    virtual void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher& session) = 0;

  protected:
    /// Whether a line about one bad record of the peer may be logged: true for the first
    /// MaxRecordLogLines calls of this receiver (which lives as long as its session); the next
    /// one logs, as `who`, that the rest are not logged. Update thread.
    bool mayLogRecord(const char* who);

  private:
    int m_recordLines = 0;
  };
}
