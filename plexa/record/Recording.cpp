#include "plexa/record/Recording.hpp"

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/record/RecordFormat.hpp"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cstring>

namespace Plexa
{
  namespace
  {
    /// Bytes read from the file at a time.
    constexpr int64_t ChunkBytes = int64_t{1024} * 1024;

    uint32_t wordAt(const char* bytes)
    {
      uint32_t value;
      std::memcpy(&value, bytes, 4);
      return value;
    }

    /// The file `next` names, in the folder of `fileName`: a recording names no other folder.
    QString partPath(const QString& fileName, const QString& next)
    {
      const QString name = QFileInfo(next).fileName();
      return name.isEmpty() ? QString() : QFileInfo(fileName).dir().filePath(name);
    }

    bool validLength(uint32_t length)
    {
      return length >= RecordFormat::BodyHeaderSize && length % 4 == 0 && length <= RecordFormat::MaxRecordBytes;
    }
  }

  struct Recording::D
  {
    /// Makes `count` bytes from the read position available in the buffer; false at end of file.
    bool fill(int64_t count);
    void stop(const QString& reason)
    {
      cleanEnd = false;
      stopReason = reason;
    }

    QFile file;
    int64_t fileSize = 0;
    int64_t firstRecord = 0;
    // buffer holds the file's bytes from bufferOffset; at indexes the read position in it.
    QByteArray buffer;
    int64_t bufferOffset = 0;
    int at = 0;
    QByteArray body;

    bool cleanEnd = false;
    int64_t stoppedAt = 0;
    QString stopReason;
    QString nextFile;
    int64_t startWallNs = 0;
    QString plexaVersion;
    QString source;
    QString rootName;
    /// The files of a split recording read so far (canonical paths): a file naming one of them as
    /// its next is a loop, not a next part.
    QStringList parts;
  };

  Recording::Recording()
      : d(new D)
  {
  }

  Recording::~Recording() = default;

  bool Recording::open(const QString& fileName, QString* error)
  {
    auto failed = [&](const QString& reason) {
      if (error)
        *error = QString("%1: %2").arg(fileName, reason);
      d->file.close();
      return false;
    };
    d->file.close();
    d->file.setFileName(fileName);
    // Unbuffered: the reader keeps its own buffer, and a file still being written is read again
    // past the end it had.
    if (!d->file.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
      return failed(d->file.errorString());
    d->fileSize = d->file.size();
    d->buffer.clear();
    d->bufferOffset = 0;
    d->at = 0;
    if (!d->fill(16) || std::memcmp(d->buffer.constData(), RecordFormat::Magic, sizeof(RecordFormat::Magic)) != 0)
      return failed("not a recording");
    const uint32_t version = wordAt(d->buffer.constData() + 8);
    if (version == 0 || version > RecordFormat::Version)
      return failed(
          QString("recording format version %1, this program reads up to %2").arg(version).arg(RecordFormat::Version));
    const uint32_t length = wordAt(d->buffer.constData() + 12);
    if (length > RecordFormat::MaxHeaderBytes || length % 4 != 0)
      return failed("damaged header");
    if (!d->fill(16 + int64_t(length) + 4))
      return failed("header cut short");
    const char* body = d->buffer.constData() + 16;
    if (RecordFormat::checksum(body, length) != wordAt(body + length))
      return failed("damaged header (checksum mismatch)");
    try {
      const QByteArray header(body, int(length));
      BundleReaderCore reader(header, 0);
      d->startWallNs = reader.readValue<int64_t>();
      QString texts[3];
      for (QString& text : texts)
        reader.readString(text, uint32_t(reader.remaining()));
      d->plexaVersion = texts[0];
      d->source = texts[1];
      d->rootName = texts[2];
    } catch (const std::exception&) {
      return failed("damaged header");
    }
    d->firstRecord = 16 + int64_t(length) + 4;
    d->parts = QStringList{QFileInfo(fileName).canonicalFilePath()};
    return seek(d->firstRecord);
  }

  bool Recording::seek(int64_t offset)
  {
    if (!d->file.isOpen() || offset < d->firstRecord || offset > d->fileSize || !d->file.seek(offset))
      return false;
    d->buffer.resize(0);
    d->bufferOffset = offset;
    d->at = 0;
    d->cleanEnd = false;
    d->stoppedAt = offset;
    d->stopReason.clear();
    d->nextFile.clear();
    return true;
  }

  bool Recording::D::fill(int64_t count)
  {
    if (buffer.size() - at >= count)
      return true;
    if (bufferOffset + at + count > fileSize)
      return false;
    // Drop what was read; then read at least a chunk, never beyond the end of the file.
    buffer.remove(0, at);
    bufferOffset += at;
    at = 0;
    const int64_t have = buffer.size();
    const int64_t want = std::min(std::max(count, ChunkBytes), fileSize - bufferOffset) - have;
    buffer.resize(int(have + want));
    const int64_t got = file.read(buffer.data() + have, want);
    if (got < 0) {
      buffer.resize(int(have));
      return false;
    }
    buffer.resize(int(have + got));
    return buffer.size() >= count;
  }

  bool Recording::next(Record& record)
  {
    if (!d->file.isOpen())
      return false;
    const int64_t offset = d->bufferOffset + d->at;
    if (offset != d->stoppedAt)
      return false; // stopped earlier: the same answer until a seek
    if (offset == d->fileSize) {
      if (!d->cleanEnd && d->stopReason.isEmpty())
        d->stop(QString("the file ends at byte %1 without the end record (the recorder did not close it)").arg(offset));
      return false;
    }
    if (!d->fill(RecordFormat::FrameSize)) {
      d->stop(QString("record cut at byte %1 (the file ends at %2)").arg(offset).arg(d->fileSize));
      return false;
    }
    const uint32_t length = wordAt(d->buffer.constData() + d->at);
    const uint32_t sum = wordAt(d->buffer.constData() + d->at + 4);
    if (!validLength(length)) {
      d->stop(QString("damaged record length %1 at byte %2").arg(length).arg(offset));
      return false;
    }
    if (offset + RecordFormat::FrameSize + length > d->fileSize) {
      d->stop(QString("record cut at byte %1 (it needs %2 bytes, the file ends at %3)")
                  .arg(offset)
                  .arg(RecordFormat::FrameSize + length)
                  .arg(d->fileSize));
      return false;
    }
    if (!d->fill(RecordFormat::FrameSize + length)) {
      d->stop(QString("cannot read the record at byte %1: %2").arg(offset).arg(d->file.errorString()));
      return false;
    }
    const char* body = d->buffer.constData() + d->at + RecordFormat::FrameSize;
    if (RecordFormat::checksum(body, length) != sum) {
      d->stop(QString("damaged record at byte %1 (checksum mismatch)").arg(offset));
      return false;
    }
    d->body.resize(int(length));
    std::memcpy(d->body.data(), body, length);
    d->at += int(RecordFormat::FrameSize + length);
    d->stoppedAt = offset + RecordFormat::FrameSize + length;
    d->stopReason.clear();
    record.kind = wordAt(body);
    std::memcpy(&record.timeNs, body + 4, 8);
    record.offset = offset;
    record.body = &d->body;
    d->cleanEnd = false;
    if (record.kind == RecordFormat::End) {
      d->cleanEnd = true;
      d->nextFile.clear();
      try {
        BundleReaderCore reader(d->body, RecordFormat::BodyHeaderSize + 16);
        reader.readString(d->nextFile, uint32_t(reader.remaining()));
      } catch (const std::exception&) {
        d->nextFile.clear();
      }
    }
    return true;
  }

  bool Recording::refresh()
  {
    if (!d->file.isOpen())
      return false;
    const int64_t size = d->file.size();
    if (size <= d->fileSize)
      return false;
    d->fileSize = size;
    // A record cut at the old end may be whole now: it is read again from its start, buffered
    // bytes dropped. A clean end stays the end.
    if (!d->cleanEnd && d->file.seek(d->stoppedAt)) {
      d->buffer.resize(0);
      d->bufferOffset = d->stoppedAt;
      d->at = 0;
      d->stopReason.clear();
    }
    return true;
  }

  std::vector<Recording::SnapshotMark> Recording::scanSnapshots()
  {
    std::vector<SnapshotMark> marks;
    if (!seek(d->firstRecord))
      return marks;
    Record record;
    while (next(record))
      if (record.kind == RecordFormat::Snapshot)
        marks.push_back({record.timeNs, record.offset});
    seek(d->firstRecord);
    return marks;
  }

  std::vector<Recording::SnapshotMark> Recording::snapshots()
  {
    std::vector<SnapshotMark> marks;
    QString next;
    if (readIndex(marks, next))
      return marks;
    return scanSnapshots();
  }

  bool Recording::readIndex(std::vector<SnapshotMark>& marks, QString& nextPath)
  {
    marks.clear();
    nextPath.clear();
    if (!d->file.isOpen() || d->fileSize - d->firstRecord < RecordFormat::FrameSize + RecordFormat::BodyHeaderSize)
      return false;
    // The end record's last word is its body's length; the frame in front of the body repeats it.
    QFile tail(d->file.fileName());
    uint32_t length = 0;
    if (!tail.open(QIODevice::ReadOnly | QIODevice::Unbuffered) || !tail.seek(d->fileSize - 4) ||
        tail.read(reinterpret_cast<char*>(&length), 4) != 4 || !validLength(length))
      return false;
    const int64_t frameAt = d->fileSize - RecordFormat::FrameSize - length;
    if (frameAt < d->firstRecord || frameAt % 4 != 0 || !tail.seek(frameAt))
      return false;
    const QByteArray frame = tail.read(RecordFormat::FrameSize + length);
    if (frame.size() != int(RecordFormat::FrameSize + length) || wordAt(frame.constData()) != length)
      return false;
    const char* body = frame.constData() + RecordFormat::FrameSize;
    if (RecordFormat::checksum(body, length) != wordAt(frame.constData() + 4) || wordAt(body) != RecordFormat::End)
      return false;
    try {
      const QByteArray bodyBytes(body, int(length));
      BundleReaderCore reader(bodyBytes, RecordFormat::BodyHeaderSize + 16);
      QString nextName;
      reader.readString(nextName, uint32_t(reader.remaining()));
      nextPath = partPath(d->file.fileName(), nextName);
      const uint32_t count = reader.readValue<uint32_t>();
      // The entries and the length word fill the rest of the body exactly.
      if (count == 0 || reader.remaining() != uint64_t(count) * sizeof(RecordFormat::IndexEntry) + 4)
        return false;
      marks.reserve(count);
      int64_t lastTime = 0, lastOffset = d->firstRecord - 1;
      for (uint32_t i = 0; i < count; ++i) {
        const int64_t time = reader.readValue<int64_t>();
        const int64_t offset = reader.readValue<int64_t>();
        // In the file, in order: anything else is not an index this reader can trust.
        if (offset <= lastOffset || offset >= frameAt || offset % 4 != 0 || time < lastTime)
          return false;
        marks.push_back({time, offset});
        lastTime = time;
        lastOffset = offset;
      }
    } catch (const std::exception&) {
      marks.clear();
      return false;
    }
    return true;
  }

  QString Recording::nextPartPath() const
  {
    return partPath(d->file.fileName(), d->nextFile);
  }

  bool Recording::openNextPart(QString* error)
  {
    const QString path = nextPartPath();
    if (path.isEmpty())
      return false;
    const QStringList before = d->parts;
    if (before.contains(QFileInfo(path).canonicalFilePath())) {
      if (error)
        *error = QString("%1: named as the next file of %2, which came after it").arg(path, fileName());
      return false;
    }
    if (!open(path, error))
      return false;
    d->parts = before + d->parts;
    return true;
  }

  QString Recording::fileName() const
  {
    return d->file.fileName();
  }

  int64_t Recording::firstRecordOffset() const
  {
    return d->firstRecord;
  }

  bool Recording::endedCleanly() const
  {
    return d->cleanEnd;
  }

  int64_t Recording::stoppedAt() const
  {
    return d->stoppedAt;
  }

  QString Recording::stopReason() const
  {
    return d->stopReason;
  }

  QString Recording::nextFile() const
  {
    return d->nextFile;
  }

  int64_t Recording::fileSize() const
  {
    return d->fileSize;
  }

  int64_t Recording::startWallNs() const
  {
    return d->startWallNs;
  }

  QString Recording::plexaVersion() const
  {
    return d->plexaVersion;
  }

  QString Recording::source() const
  {
    return d->source;
  }

  QString Recording::rootName() const
  {
    return d->rootName;
  }
}
