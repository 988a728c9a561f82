#pragma once

#include <QByteArray>
#include <QFile>
#include <QString>

#include <cstdint>
#include <vector>

namespace Plexa
{
  /// Reads a recording file record by record (docs/recording.md describes the file).
  ///
  /// The file is untrusted: a record is handed out only when its whole body is in the file and
  /// its checksum matches, so a file cut by a crash or a full disk reads up to its last whole
  /// record, and `stopReason` then says where and why reading stopped. Opening fails only when
  /// the header itself is missing, cut or damaged.
  ///
  /// Not thread-safe; one reader per thread.
  class Recording
  {
  public:
    struct Record
    {
      uint32_t kind = 0;
      /// Monotonic nanoseconds since the start of the recording.
      int64_t timeNs = 0;
      /// Offset of the record's frame in the file.
      int64_t offset = 0;
      /// The whole body (kind and time included); valid until the next call of `next`.
      const QByteArray* body = nullptr;
    };

    struct SnapshotMark
    {
      int64_t timeNs;
      int64_t offset;
    };

    Recording();
    ~Recording();
    Recording(const Recording&) = delete;
    Recording& operator=(const Recording&) = delete;

    /// Opens `fileName` and reads its header. False, with the reason in `error`, when the file
    /// cannot be read or its header is not a whole, intact recording header of a known version.
    bool open(const QString& fileName, QString* error = nullptr);

    /// The next whole record; false at the end of what can be read (see `stopReason`).
    bool next(Record& record);
    /// Goes on reading at `offset` (an offset `next` gave, or `firstRecordOffset`).
    bool seek(int64_t offset);
    int64_t firstRecordOffset() const { return m_firstRecord; }

    /// Reads the whole file once (from the first record) and lists its snapshots; the read
    /// position is then at the first record again.
    std::vector<SnapshotMark> scanSnapshots();

    /// After `next` returned false: true when the file ended with the recorder's end record (and
    /// nothing after it), else `stopReason` tells why reading stopped.
    bool endedCleanly() const { return m_cleanEnd; }
    /// Where the readable part of the file ends: the offset behind the last whole record.
    int64_t stoppedAt() const { return m_stoppedAt; }
    /// "" after a clean end, else e.g. "record cut at byte 1234 (file ends at 1250)".
    QString stopReason() const { return m_stopReason; }
    /// The next file of a split recording, named in the end record; empty when none.
    QString nextFile() const { return m_nextFile; }

    int64_t fileSize() const { return m_fileSize; }
    /// Wall-clock nanoseconds since 1970 (UTC) at which the monotonic times start.
    int64_t startWallNs() const { return m_startWallNs; }
    QString plexaVersion() const { return m_plexaVersion; }
    QString source() const { return m_source; }
    QString rootName() const { return m_rootName; }

  private:
    /// Makes `count` bytes from the read position available in the buffer; false at end of file.
    bool fill(int64_t count);
    void stop(const QString& reason);

    QFile m_file;
    int64_t m_fileSize = 0;
    int64_t m_firstRecord = 0;
    // m_buffer holds the file's bytes from m_bufferOffset; m_at indexes the read position in it.
    QByteArray m_buffer;
    int64_t m_bufferOffset = 0;
    int m_at = 0;
    QByteArray m_body;

    bool m_cleanEnd = false;
    int64_t m_stoppedAt = 0;
    QString m_stopReason;
    QString m_nextFile;
    int64_t m_startWallNs = 0;
    QString m_plexaVersion;
    QString m_source;
    QString m_rootName;
  };
}
