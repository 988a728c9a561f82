#pragma once

#include "plexa/bundle/Bundle.hpp"

#include <cstdint>
#include <vector>

namespace Plexa
{
  /// The collector handed to every sender during one send pass. It borrows the list being filled
  /// and the session's send counter; both must outlive the output, which lives for one pass only.
  /// Not thread-safe: one send pass runs on one thread.
  class BundleOutput
  {
  public:
    /// `bundles` receives the emitted bundles in order; `sequence` is the session's send counter
    /// (the `sequence` of the next bundle); `acknowledged` is the last dispatched peer sequence at
    /// the time the pass started, written into every bundle of the pass.
    BundleOutput(std::vector<Bundle>* bundles, uint32_t* sequence, uint32_t acknowledged);

    /// Appends `bundle` (sharing its bytes) and then advances the send counter by one.
    void add(const QByteArray& bundle);

    /// The `sequence` the next added bundle must carry.
    uint32_t sequence() const { return *m_sequence; }
    uint32_t acknowledged() const { return m_acknowledged; }
    const std::vector<Bundle>& bundles() const { return *m_bundles; }

  private:
    std::vector<Bundle>* m_bundles;
    uint32_t* m_sequence;
    uint32_t m_acknowledged;
  };
}
