#pragma once

#include "plexa/record/Recording.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include <QByteArray>

#include <functional>
#include <unordered_map>

namespace Bastion
{
  class BinaryData;
}

namespace Carafe
{
  class Attribute;
}

namespace Plexa
{
  class BundleReaderCore;
  class RemoteNode;

  /// Applies the records of a recording to a `RemoteNode`, so that its tree goes through the
  /// recorded additions, changes and removals (its watcher reports them as for a live peer), and
  /// hands the recorded events to a callback.
  ///
  /// A snapshot brings the tree to the snapshot's contents: what differs is changed, added or
  /// removed; what is equal is left alone (no change is reported for it).
  ///
  /// The records come from an untrusted file: a record that does not decode is skipped with a
  /// logged warning, never applied in part beyond the entry that failed. Paths are checked by
  /// the node as for a peer's additions. Application thread only.
  class RecordingPlayer
  {
  public:
    using EventCallback = std::function<void(const QByteArray& name, Bastion::BinaryData& payload)>;

    /// The node must outlive the player.
    explicit RecordingPlayer(RemoteNode& node);
    ~RecordingPlayer();

    void setEventCallback(const EventCallback& callback) { m_eventCallback = callback; }

    /// Attributes and nodes the player creates at most (default 1,000,000): a crafted file cannot
    /// grow the tree, and the memory it takes, beyond this. Entries past it are skipped, with one
    /// logged line per record.
    static constexpr int64_t DefaultMaxCreated = 1000000;
    void setMaxCreated(int64_t count) { m_maxCreated = count; }

    /// Applies one record; false (logged) when it does not decode. End and unknown records are
    /// ignored (true).
    bool apply(const Recording::Record& record);
    int64_t createdCount() const { return m_created; }

    /// Plays the records up to (and including) `timeNs` into the player's node, starting at the
    /// last snapshot at or before that time (a time before the first snapshot gives the first). Reads `recording` from
    /// its first record; the read position ends behind the last record applied.
    void playUntil(Recording& recording, int64_t timeNs);

  private:
    struct Known
    {
      QByteArray path;
      uint32_t typeId = 0;
      /// The path's symbol in the node's registry, 0 until the node has defined it.
      uint32_t localSymbol = 0;
      Carafe::Attribute* attribute = nullptr;
      Deserializer deserializer;
    };

    void applyEntry(BundleReaderCore& reader, uint32_t end, std::vector<uint32_t>* seen);
    /// Reads the value block at the reader into `known`'s attribute (if it is in the tree).
    void readValue(BundleReaderCore& reader, uint32_t end, Known& known, bool onlyIfDifferent);
    Carafe::Attribute* find(const QByteArray& path) const;
    /// True when one more object may be created; logs the cap once per record otherwise.
    bool mayCreate(const QByteArray& path);
    void removeAt(const QByteArray& path);

    RemoteNode& m_node;
    TypeRegistry m_types;
    EventCallback m_eventCallback;
    std::unordered_map<uint32_t, Known> m_known;
    int64_t m_maxCreated = DefaultMaxCreated;
    int64_t m_created = 0;
    /// The record being applied already logged a warning: one line per record at most.
    bool m_warned = false;
  };
}
