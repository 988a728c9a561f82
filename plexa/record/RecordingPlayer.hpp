#pragma once

#include "plexa/record/Recording.hpp"

#include <QByteArray>

#include <cstdint>
#include <functional>
#include <memory>

namespace Bastion
{
  class BinaryData;
}

namespace Plexa
{
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
    RecordingPlayer(const RecordingPlayer&) = delete;
    RecordingPlayer& operator=(const RecordingPlayer&) = delete;

    void setEventCallback(const EventCallback& callback);
    /// Called after each item of a batch record is applied, before the next one: a replay that
    /// must send every change on its own (none merged with a later one of the same attribute)
    /// updates its peer here. The tree may change meanwhile.
    void setItemCallback(const std::function<void()>& callback);

    /// Attributes and nodes the player creates at most (default 1,000,000): a crafted file cannot
    /// grow the tree, and the memory it takes, beyond this. Entries past it are skipped, with one
    /// logged line per record.
    static constexpr int64_t DefaultMaxCreated = 1000000;
    void setMaxCreated(int64_t count);

    /// Applies one record; false (logged) when it does not decode. End and unknown records are
    /// ignored (true).
    bool apply(const Recording::Record& record);
    int64_t createdCount() const;

    /// Plays the records up to (and including) `timeNs` into the player's node, starting at the
    /// last snapshot at or before that time (a time before the first snapshot gives the first),
    /// found through the file's snapshot index when it has one. A split recording is followed
    /// into its next files: `recording` may end up reading a later file than the one it had
    /// open. The read position ends behind the last record applied.
    void playUntil(Recording& recording, int64_t timeNs);

  private:
    struct D;
    std::unique_ptr<D> d;
  };
}
