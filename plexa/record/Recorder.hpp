#pragma once

#include "plexa/types/TypeRegistry.hpp"

#include <QByteArray>
#include <QElapsedTimer>
#include <QFile>
#include <QString>

#include <cstdint>
#include <unordered_map>

namespace Bastion
{
  class BinaryData;
}

namespace Carafe
{
  class Attribute;
  class Node;
}

namespace Plexa
{
  class BundleWriterCore;
  class RemoteNode;

  struct RecorderOptions
  {
    /// Bytes collected in memory before they are written to the file: the recorder never holds
    /// more than this plus one record (a snapshot is one record as big as the tree's values).
    int64_t bufferBytes = int64_t{1024} * 1024;
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
  /// Periodic snapshots follow the options. docs/recording.md describes the file.
  ///
  /// Records are collected in a buffer of `bufferBytes` and written when it is full, at
  /// `flush()` and at `close()`. A failed write (full disk) closes the file and keeps the
  /// error; the records before the failed write stay readable.
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
    /// Writes the buffered records to the file.
    bool flush();

    /// Records an event of the peer (a sliced one once put together). An event over the format's
    /// record size limit (256 MiB) is left out with a logged warning.
    void recordEvent(const QByteArray& name, const Bastion::BinaryData& payload);

    bool isOpen() const { return m_file.isOpen(); }
    /// The reason the recording stopped by itself (a failed write), empty when it did not.
    QString errorString() const { return m_error; }
    /// Bytes in the present file, buffered ones included.
    int64_t fileBytes() const { return m_fileBytes + m_buffer.size(); }
    /// Attribute values (additions and changes, snapshot entries not counted) and events recorded
    /// since construction.
    uint64_t valueCount() const { return m_values; }
    uint64_t eventCount() const { return m_events; }
    /// Monotonic nanoseconds since `open`: the time the next record gets.
    int64_t elapsedNs() const { return m_clock.nsecsElapsed(); }
    /// The most bytes the buffer held.
    int64_t peakBufferBytes() const { return m_peakBuffer; }

  private:
    struct Cached
    {
      Carafe::Attribute* attribute = nullptr;
      uint32_t typeId = 0;
      Serializer serializer;
    };

    void onWatcherEvent(int type, uint32_t symbol);
    bool startFile(const QString& fileName, QString* error);
    void finishFile(const QString& nextFile);
    void writeHeader();
    void writeSnapshot();
    /// One snapshot entry or addition: false when the object cannot be recorded.
    bool writeEntry(BundleWriterCore& writer, uint32_t symbol, const QByteArray& path, Carafe::Attribute* object);
    const Cached* cached(uint32_t symbol, Carafe::Attribute* attribute);
    uint32_t beginRecord(uint32_t kind);
    /// Fills in the frame; false (logged, the record dropped) when the body is over the format's
    /// size limit.
    bool endRecord(uint32_t start);
    void maybeSnapshot();
    void fail(const QString& message);

    RemoteNode& m_node;
    RecorderOptions m_options;
    TypeRegistry m_types;
    QFile m_file;
    QByteArray m_buffer;
    QElapsedTimer m_clock;
    long m_listener = -1;
    QString m_error;
    std::unordered_map<uint32_t, Cached> m_cache;

    int64_t m_fileBytes = 0;
    int64_t m_peakBuffer = 0;
    int64_t m_lastSnapshotBytes = 0;
    int64_t m_lastSnapshotNs = 0;
    /// The time of the record being written.
    int64_t m_now = 0;
    uint64_t m_values = 0;
    uint64_t m_events = 0;
    bool m_inSnapshot = false;
  };
}
