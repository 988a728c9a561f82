#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <memory>
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
    QString fileName() const;

    /// The next whole record; false at the end of what can be read (see `stopReason`).
    bool next(Record& record);
    /// Goes on reading at `offset` (an offset `next` gave, or `firstRecordOffset`).
    bool seek(int64_t offset);
    int64_t firstRecordOffset() const;

    /// The file's snapshots: from the index in the end record when the file has a whole one (a
    /// few reads at its end), else by reading the whole file once (`scanSnapshots`).
    std::vector<SnapshotMark> snapshots();
    /// Reads the whole file once (from the first record) and lists its snapshots; the read
    /// position is then at the first record again.
    std::vector<SnapshotMark> scanSnapshots();
    /// Reads the end record at the end of the file, without reading the rest: its snapshot index
    /// and where the next file of a split recording is (as `nextPartPath`). False when the file does not end with a
    /// whole end record that carries an index (a file cut, still being written, or indexing no snapshot).
    bool readIndex(std::vector<SnapshotMark>& snapshots, QString& nextPartPath);

    /// Takes in what was appended to the file since it was opened or last refreshed (a recording
    /// still being written): when reading stopped at the end of the written part, `next` tries
    /// again from there. True when the file grew.
    bool refresh();

    /// After `next` returned false: true when the file ended with the recorder's end record (and
    /// nothing after it), else `stopReason` tells why reading stopped.
    bool endedCleanly() const;
    /// Where the readable part of the file ends: the offset behind the last whole record.
    int64_t stoppedAt() const;
    /// "" after a clean end, else e.g. "record cut at byte 1234 (file ends at 1250)".
    QString stopReason() const;
    /// The next file of a split recording as the end record names it; empty when none.
    QString nextFile() const;
    /// Where the next file of a split recording is read from: the file name the end record gives,
    /// in this file's folder (a recording names no other folder). Empty when none.
    QString nextPartPath() const;
    /// After `next` returned false at an end record naming a next file: opens that file (see
    /// `open`), so that `next` goes on in it. False when there is none or it cannot be read yet.
    bool openNextPart(QString* error = nullptr);

    int64_t fileSize() const;
    /// Wall-clock nanoseconds since 1970 (UTC) at which the monotonic times start.
    int64_t startWallNs() const;
    QString plexaVersion() const;
    QString source() const;
    QString rootName() const;

  private:
    struct D;
    std::unique_ptr<D> d;
  };
}
