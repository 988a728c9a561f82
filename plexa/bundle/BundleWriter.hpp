#pragma once

#include "plexa/bundle/BundleOutput.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"

#include <QByteArray>

#include <cstdint>

namespace Plexa
{
  /// The working buffer of one sender: the bundle under construction (it starts as 16 zero header
  /// bytes) and a writer over it. A sender writes records through `core()` at any time and emits
  /// them with `close` during a send pass; the buffer is then reused for the next bundle.
  ///
  /// Not copyable or movable (the writer points at the buffer). Not thread-safe.
  class BundleWriter
  {
  public:
    BundleWriter();
    BundleWriter(const BundleWriter&) = delete;
    BundleWriter& operator=(const BundleWriter&) = delete;

    /// Writes records into the bundle under construction.
    BundleWriterCore& core() { return m_core; }
    /// The bundle under construction, header included.
    const QByteArray& data() const { return m_data; }
    /// True while no record has been written since the last close.
    bool isEmpty() const;

    /// Starts a bundle of `messageType` for `output`: fills the header's type, the output's current
    /// send counter and its acknowledged number. Records written before still belong to the bundle.
    void open(uint32_t messageType, const BundleOutput& output);

    /// Emits the bundle into `output` when at least one record was written: completes the header
    /// (payload size, `messageType`, the output's current send counter and acknowledged number),
    /// adds it, and shrinks the buffer back to the bare header. Returns whether a bundle was
    /// emitted; an empty buffer emits nothing and leaves the send counter alone.
    bool close(uint32_t messageType, BundleOutput& output);

  private:
    void writeHeader(uint32_t messageType, const BundleOutput& output);

    QByteArray m_data;
    BundleWriterCore m_core;
  };
}
