#pragma once

#include <QString>

#include <cstdint>
#include <memory>

namespace Bastion
{
  class BinaryData;
}

namespace Plexa
{
  class RemoteNode;

  struct RecorderOptions
  {
    /// Bytes collected in memory before they are written to the file: the recorder never holds
    /// more than this plus one record (a snapshot is one record as big as the tree's values).
    int64_t bufferBytes = int64_t{1024} * 1024;
    /// Values that arrive together share one batch record (one frame, one checksum, one time):
    /// a batch ends when it holds this many bytes, when the system clock's coarse tick (a few
    /// milliseconds) has passed since it began, and at `flush()`, `elapsedNs()` and `close()`.
    /// The buffer then holds at most `bufferBytes` plus one batch (or one snapshot or event).
    int64_t batchBytes = int64_t{64} * 1024;
    /// A full snapshot of the tree after this many seconds since the last one (0: never by time),
    /// so that a reader looking for time T starts near T instead of at the start of the file.
    double snapshotSeconds = 60.0;
    /// ...or after this many bytes since the last one (0: never by size).
    int64_t snapshotBytes = int64_t{64} * 1024 * 1024;
    /// Where the tree comes from (the peer's address), kept in the header for people.
    QString source;
  };

  /// Appends the life of a `RemoteNode`'s tree to a recording file: a snapshot of the tree when
  /// the file is opened, then every addition, change and removal the node's watcher reports, and
  /// the peer's events handed to `recordEvent`, each with the monotonic time since the start.
  /// Additions, changes and removals go into batch records (see `RecorderOptions::batchBytes`),
  /// whose values all carry the time the batch began. Periodic snapshots follow the options.
  /// docs/recording.md describes the file.
  ///
  /// Records are collected in a buffer of `bufferBytes` and written when it is full, at
  /// `flush()` and at `close()`: call `flush()` every fraction of a second so that a quiet stream
  /// still reaches the disk (`plexa record` does every 250 ms). A failed write (full disk) closes
  /// the file and keeps the error; the records before the failed write stay readable.
  ///
  /// Application thread only (the thread that changes the tree). The node must outlive the
  /// recorder.
  class Recorder
  {
  public:
    explicit Recorder(RemoteNode& node, const RecorderOptions& options = RecorderOptions());
    /// Closes the file.
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    /// Creates (or truncates) `fileName`, writes the header and a snapshot of the tree, and starts
    /// recording. False, with the reason in `error`, when the file cannot be written.
    bool open(const QString& fileName, QString* error = nullptr);
    /// Ends the present file with an end record naming `fileName` and goes on in that new file,
    /// which starts with a snapshot. False (recording stopped) when it cannot be written.
    bool split(const QString& fileName, QString* error = nullptr);
    /// Writes the end record and closes the file. Nothing happens when no file is open.
    void close();
    /// Ends the batch being collected and writes the buffered records to the file.
    bool flush();

    /// Records an event of the peer (a sliced one once put together). An event over the format's
    /// record size limit (256 MiB) is left out with a logged warning.
    void recordEvent(const QByteArray& name, const Bastion::BinaryData& payload);

    bool isOpen() const;
    /// The reason the recording stopped by itself (a failed write), empty when it did not.
    QString errorString() const;
    /// Bytes in the present file, buffered ones included.
    int64_t fileBytes() const;
    /// Attribute values (additions and changes, snapshot entries not counted) and events recorded
    /// since construction.
    uint64_t valueCount() const;
    uint64_t eventCount() const;
    /// Monotonic nanoseconds since `open`. Ends the batch being collected, so that the values
    /// recorded after the call carry this time or a later one.
    int64_t elapsedNs() const;
    /// The most bytes the buffer held.
    int64_t peakBufferBytes() const;

  private:
    struct D;
    std::unique_ptr<D> d;
  };
}
