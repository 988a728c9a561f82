#pragma once

#include "plexa/tracking/NodeWatcher.hpp"

#include <cstdint>
#include <functional>
#include <vector>

namespace Plexa
{
  /// One reduced change.
  struct ChangeData
  {
    NodeWatcher::EventType type;
    uint32_t symbol;
    /// Meaningful on AttributeAdded only: the attribute also changed later in the same batch, so
    /// the addition must carry the current value.
    bool changedSinceAdded;

    bool operator==(const ChangeData& o) const
    {
      return type == o.type && symbol == o.symbol && changedSinceAdded == o.changedSinceAdded;
    }
  };

  /// Reduces a batch of watcher events to the smallest list of changes that brings the peer to
  /// the same state:
  ///
  ///   Changed, ..., Changed        one Changed, at the position of the last one
  ///   Added, Changed...            one Added (changedSinceAdded), at the Added's position
  ///   Added, ..., Removed          nothing, or the last Removed when the peer holds the attribute
  ///   Changed, Removed             one Removed
  ///   Removed, Added               both, in that order
  ///   Removed, Added, Removed      the first Removed
  ///   Added, Removed, Added        the last Added
  ///   Changed, Added               both (the change before an addition is kept)
  ///
  /// Kept records stay in the order of the input events that produced them; node events pass
  /// through in place. Linear in the batch size. Not thread-safe: one compressor per sender; the
  /// scratch buffers are reused between calls to avoid allocations.
  class AttributeChangeCompressor
  {
  public:
    /// Tells whether the peer holds an attribute of its own at the symbol's path (it announced
    /// it), so that an addition and removal within one batch must still reach it as a removal.
    using PeerHolds = std::function<bool(uint32_t symbol)>;

    /// Clears `out` and fills it with the reduced changes of `events`. `peerHolds` is asked only
    /// about symbols added and then removed within the batch; empty: the peer holds none.
    void compress(const std::vector<NodeWatcher::Event>& events, std::vector<ChangeData>& out,
                  const PeerHolds& peerHolds = PeerHolds());

  private:
    struct SymbolState
    {
      uint32_t symbol;
      /// Index of the first AttributeAdded of the symbol in the batch, or -1.
      int64_t firstAdded;
      /// Index of the first AttributeRemoved of the symbol in the batch, or -1.
      int64_t firstRemoved;
      /// A later change or removal has already been kept.
      bool superseded;
      /// Removed later in the batch.
      bool removed;
      /// An addition was emitted by the forward pass.
      bool added;
    };

    uint32_t slotFor(uint32_t symbol);
    void resetIndex(size_t events);
    void growIndex();

    /// Kept records of the backward pass, in reverse order.
    std::vector<ChangeData> m_scratch;
    /// The state slot of each record in m_scratch (node events: unused).
    std::vector<uint32_t> m_scratchSlots;
    /// The state slot of each input event.
    std::vector<uint32_t> m_eventSlots;
    std::vector<SymbolState> m_states;
    /// Open-addressing index from symbol to slot + 1 (0 = empty); size is a power of two.
    std::vector<uint32_t> m_index;
    std::vector<uint32_t> m_indexKeys;
  };
}
