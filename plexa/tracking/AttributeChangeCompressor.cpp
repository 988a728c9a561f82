#include "plexa/tracking/AttributeChangeCompressor.hpp"

#include <algorithm>

namespace Plexa
{
  namespace
  {
    constexpr uint32_t NoSlot = 0xFFFFFFFFu;

    bool isAttributeEvent(NodeWatcher::EventType type)
    {
      return type == NodeWatcher::AttributeAdded || type == NodeWatcher::AttributeRemoved ||
             type == NodeWatcher::AttributeChanged;
    }

    constexpr size_t MinIndexCells = 64;

    size_t cellFor(uint32_t symbol, size_t mask)
    {
      return size_t(symbol * 0x9E3779B1u) & mask;
    }
  }

  void AttributeChangeCompressor::resetIndex(size_t events)
  {
    // The table grows with the distinct symbols of a batch, not with its length: a long batch
    // over few attributes stays in the processor's caches. Clearing costs the table's size, so
    // a table left large by an earlier batch shrinks when this batch cannot need it.
    size_t cap = m_index.size() < MinIndexCells ? MinIndexCells : m_index.size();
    while (cap > MinIndexCells && cap / 4 > events)
      cap /= 2;
    if (cap != m_index.size()) {
      m_index.assign(cap, 0);
      m_indexKeys.assign(cap, 0);
    } else {
      std::fill(m_index.begin(), m_index.end(), 0);
    }
    m_states.clear();
  }

  void AttributeChangeCompressor::growIndex()
  {
    const size_t cap = m_index.size() * 2;
    m_index.assign(cap, 0);
    m_indexKeys.assign(cap, 0);
    for (size_t slot = 0; slot < m_states.size(); ++slot) {
      size_t pos = cellFor(m_states[slot].symbol, cap - 1);
      while (m_index[pos] != 0)
        pos = (pos + 1) & (cap - 1);
      m_index[pos] = uint32_t(slot + 1);
      m_indexKeys[pos] = m_states[slot].symbol;
    }
  }

  uint32_t AttributeChangeCompressor::slotFor(uint32_t symbol)
  {
    size_t mask = m_index.size() - 1;
    size_t pos = cellFor(symbol, mask);
    while (true) {
      const uint32_t entry = m_index[pos];
      if (entry == 0)
        break;
      if (m_indexKeys[pos] == symbol)
        return entry - 1;
      pos = (pos + 1) & mask;
    }
    // New symbol. Keep the table at most half full so that probes stay short.
    if ((m_states.size() + 1) * 2 > m_index.size()) {
      growIndex();
      mask = m_index.size() - 1;
      pos = cellFor(symbol, mask);
      while (m_index[pos] != 0)
        pos = (pos + 1) & mask;
    }
    m_states.push_back({symbol, -1, -1, false, false, false});
    m_index[pos] = uint32_t(m_states.size());
    m_indexKeys[pos] = symbol;
    return uint32_t(m_states.size() - 1);
  }

  void AttributeChangeCompressor::compress(const std::vector<NodeWatcher::Event>& events, std::vector<ChangeData>& out,
                                           const PeerHolds& peerHolds)
  {
    out.clear();
    m_scratch.clear();
    m_scratchSlots.clear();
    const size_t n = events.size();
    if (n == 0)
      return;

    // An AttributeRemoved at index i is dropped when an AttributeAdded of its symbol comes
    // anywhere before i. Remembering the first addition of each symbol answers that in O(1)
    // instead of scanning the batch from its start for every removal.
    resetIndex(n);
    m_eventSlots.resize(n);
    for (size_t i = 0; i < n; ++i) {
      const NodeWatcher::Event& e = events[i];
      if (!isAttributeEvent(e.type)) {
        m_eventSlots[i] = NoSlot;
        continue;
      }
      const uint32_t slot = slotFor(e.symbol);
      m_eventSlots[i] = slot;
      if (e.type == NodeWatcher::AttributeAdded && m_states[slot].firstAdded < 0)
        m_states[slot].firstAdded = int64_t(i);
      if (e.type == NodeWatcher::AttributeRemoved && m_states[slot].firstRemoved < 0)
        m_states[slot].firstRemoved = int64_t(i);
    }

    // Backwards: keep the last change of a run, drop what a later removal covers.
    for (size_t k = n; k-- > 0;) {
      const NodeWatcher::Event& e = events[k];
      const uint32_t slot = m_eventSlots[k];
      bool changedSinceAdded = false;
      if (slot != NoSlot) {
        SymbolState& st = m_states[slot];
        switch (e.type) {
        case NodeWatcher::AttributeChanged:
          if (st.superseded)
            continue;
          st.superseded = true;
          break;
        case NodeWatcher::AttributeRemoved: {
          const bool later = st.removed;
          st.superseded = true;
          st.removed = true;
          // Born and died inside this batch: the peer never hears of it, unless it holds a copy
          // of its own (it announced the path, and the addition here was that copy's arrival).
          // Then the last removal goes, when no removal before the addition already does.
          if (st.firstAdded >= 0 && st.firstAdded < int64_t(k)) {
            const bool removedBefore = st.firstRemoved < st.firstAdded;
            if (later || removedBefore || !peerHolds || !peerHolds(e.symbol))
              continue;
          }
          break;
        }
        default: // AttributeAdded
          if (st.removed)
            continue;
          changedSinceAdded = st.superseded;
          break;
        }
      }
      m_scratch.push_back({e.type, e.symbol, changedSinceAdded});
      m_scratchSlots.push_back(slot);
    }

    // Forwards (the scratch list read from its end): an addition carries the value, so changes
    // after it are dropped.
    out.reserve(m_scratch.size());
    for (size_t k = m_scratch.size(); k-- > 0;) {
      const ChangeData& c = m_scratch[k];
      const uint32_t slot = m_scratchSlots[k];
      if (slot != NoSlot) {
        if (c.type == NodeWatcher::AttributeAdded)
          m_states[slot].added = true;
        else if (c.type == NodeWatcher::AttributeChanged && m_states[slot].added)
          continue;
      }
      out.push_back(c);
    }
  }
}
