#pragma once

#include "plexa/bundle/Bundle.hpp"

#include <QString>

#include <memory>
#include <vector>

namespace Plexa
{
  class ConnectionThread;

  /// Where a bundle block's bytes come from. `readData` blocks until exactly `size` bytes have
  /// been stored at `buffer` and returns true, or returns false when the connection failed (a
  /// failed read has already ended the connection). `abort` ends the connection for data that
  /// cannot be read at all; afterwards the stream is out of step and nothing more is read.
  class BundleByteSource
  {
  public:
    virtual ~BundleByteSource() = default;
    virtual bool readData(unsigned char* buffer, int size) = 0;
    virtual void abort() = 0;
  };

  /// Where a complete block goes: the session's controller, which queues the list for its update
  /// thread. Called on the connection thread.
  class BundleListScheduler
  {
  public:
    virtual ~BundleListScheduler() = default;
    virtual void scheduleProcess(const std::vector<Bundle>& bundles) = 0;
  };

  /// Outcome of `readBundleBlock`.
  enum class BundleBlockResult
  {
    /// The line does not open a bundle block; nothing was read.
    NotABlock,
    /// All announced bundles were read into the list.
    Complete,
    /// The block was cut short (a logged failed read or an unreadable size); the list is empty and
    /// the connection has ended.
    Failed
  };

  /// A bundle's payload is read in pieces of at most this many bytes, so the memory held for a
  /// bundle follows the bytes that actually arrived, never the size its header announces.
  constexpr int BundleReadChunkBytes = 64 * 1024;

  /// Largest whole bundle (header included) a byte array can hold; a header announcing more is a
  /// failed read that ends the connection.
  constexpr qint64 MaxBundleBytes = qint64(0x7fffffff) - 64;

  /// Reads the bundle block opened by `line` ("plexa2 " followed by the decimal count N, as
  /// QString::toInt reads it: blanks around it and a '+' are accepted) from `source`.
  /// A line that is not such a line gives NotABlock without reading. A negative N throws
  /// std::length_error before anything is read. On a failed read it logs the warning
  /// "processPlexa2 # Failed to read Bundle header" or "processPlexa2 # Failed to read Bundle"
  /// and drops what was read of the block.
  BundleBlockResult readBundleBlock(const QString& line, BundleByteSource& source, std::vector<Bundle>& bundles);

  /// The receiving end of the bundle framing, for a connection thread's command handler: reads the
  /// block opened by `line` from `connection` and hands the complete list to
  /// `scheduler->scheduleProcess` (an empty list too). Returns false when the line is not a bundle
  /// block; true when it was, also when the block was cut short (nothing is scheduled then, and the
  /// connection has stopped). A negative count leaves it as std::length_error, which the
  /// connection thread catches. Runs on the connection thread.
  bool processPlexa2(const std::shared_ptr<BundleListScheduler>& scheduler, ConnectionThread& connection,
                     const QString& line);
}
