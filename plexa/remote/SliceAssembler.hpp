#pragma once

#include "bastion/Mutex.hpp"

#include <QByteArray>

#include <cstdint>
#include <map>
#include <utility>
#include <vector>

namespace Bastion
{
  class BinaryData;
}

namespace Plexa
{
  /// Reassembles events that the peer sent in slices ("event-slice-begin", then one
  /// "event-slice" per part, in any order). Slices are kept apart per sender id.
  ///
  /// The peer decides every size, so nothing it says is trusted: a begin record with a slice
  /// size of 0 or less, a total of 0 or less, an unreadable field or more than `MaxSlices` slices
  /// is dropped with a warning; an event's buffer is allocated only when its first valid slice
  /// arrives; and the bytes held by unfinished events are capped (`setMaxBytes`), the oldest
  /// unfinished event being dropped with a warning to make room. Offsets are computed in 64 bits.
  ///
  /// Thread-safe; the completed event is handed back to the caller, which dispatches it after
  /// the assembler's lock is released.
  class SliceAssembler
  {
  public:
    /// One event being received.
    struct SlicedEvent
    {
      QByteArray name;
      int sliceSize = 0;
      int totalSize = 0;
      /// Number of slices not yet received.
      int missing = 0;
      /// One flag per slice index; empty until the first slice arrives.
      std::vector<bool> received;
      /// Zero-filled, totalSize bytes; empty until the first slice arrives.
      QByteArray buffer;
      /// Creation order, to find the oldest unfinished event.
      uint64_t age = 0;
      /// Bytes charged against the cap.
      int64_t heldBytes = 0;
    };

    /// Default cap on the bytes held by unfinished sliced events of one node. Stops a peer from
    /// exhausting memory with begin records (or first slices) of events it never finishes.
    static constexpr int64_t DefaultMaxBytes = int64_t(256) << 20;
    /// Largest slice count accepted. Stops a tiny slice size from turning a modest total into
    /// millions of bookkeeping entries.
    static constexpr int64_t MaxSlices = int64_t(1) << 22;

    /// Bytes at most held by unfinished events (at least 1).
    void setMaxBytes(int64_t bytes);
    int64_t maxBytes() const;
    /// Bytes now held by unfinished events.
    int64_t heldBytes() const;
    /// Number of unfinished events.
    int pendingCount() const;

    /// Reads an "event-slice-begin" payload: int32 slice id, string name, int32 slice size, total
    /// size (an int64 item read as 32 bits). An existing entry under the same key is kept.
    void begin(long senderId, Bastion::BinaryData& data);

    /// Reads an "event-slice" payload: int32 slice id, int32 index, blob. When it was the last
    /// missing slice, returns true and hands over the event's name and bytes; the entry is gone.
    bool slice(long senderId, Bastion::BinaryData& data, QByteArray& name, QByteArray& bytes);

  private:
    using Key = std::pair<long, int>;

    void erase(std::map<Key, SlicedEvent>::iterator it) BASTION_REQUIRES(m_mutex);
    /// Drops the oldest unfinished events other than `keep` until `extra` more bytes fit.
    /// False when they cannot fit even with every other event dropped.
    bool makeRoom(int64_t extra, const Key& keep) BASTION_REQUIRES(m_mutex);

    mutable Bastion::Mutex m_mutex;
    std::map<Key, SlicedEvent> m_events BASTION_GUARDED_BY(m_mutex);
    std::map<uint64_t, Key> m_byAge BASTION_GUARDED_BY(m_mutex);
    uint64_t m_nextAge BASTION_GUARDED_BY(m_mutex) = 0;
    int64_t m_heldBytes BASTION_GUARDED_BY(m_mutex) = 0;
    int64_t m_maxBytes BASTION_GUARDED_BY(m_mutex) = DefaultMaxBytes;
  };
}
