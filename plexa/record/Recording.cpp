#include "plexa/record/Recording.hpp"

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/record/RecordFormat.hpp"

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
  }

  Recording::Recording() = default;
  Recording::~Recording() = default;

  bool Recording::open(const QString& fileName, QString* error)
  {
    auto failed = [&](const QString& reason) {
      if (error)
        *error = QString("%1: %2").arg(fileName, reason);
      m_file.close();
      return false;
    };
    m_file.close();
    m_file.setFileName(fileName);
    if (!m_file.open(QIODevice::ReadOnly))
      return failed(m_file.errorString());
    m_fileSize = m_file.size();
    m_buffer.clear();
    m_bufferOffset = 0;
    m_at = 0;
    if (!fill(16) || std::memcmp(m_buffer.constData(), RecordFormat::Magic, sizeof(RecordFormat::Magic)) != 0)
      return failed("not a recording");
    const uint32_t version = wordAt(m_buffer.constData() + 8);
    if (version == 0 || version > RecordFormat::Version)
      return failed(
          QString("recording format version %1, this program reads up to %2").arg(version).arg(RecordFormat::Version));
    const uint32_t length = wordAt(m_buffer.constData() + 12);
    if (length > RecordFormat::MaxHeaderBytes || length % 4 != 0)
      return failed("damaged header");
    if (!fill(16 + int64_t(length) + 4))
      return failed("header cut short");
    const char* body = m_buffer.constData() + 16;
    if (RecordFormat::checksum(body, length) != wordAt(body + length))
      return failed("damaged header (checksum mismatch)");
    try {
      const QByteArray header(body, int(length));
      BundleReaderCore reader(header, 0);
      m_startWallNs = reader.readValue<int64_t>();
      QString texts[3];
      for (QString& text : texts)
        reader.readString(text, uint32_t(reader.remaining()));
      m_plexaVersion = texts[0];
      m_source = texts[1];
      m_rootName = texts[2];
    } catch (const std::exception&) {
      return failed("damaged header");
    }
    m_firstRecord = 16 + int64_t(length) + 4;
    return seek(m_firstRecord);
  }

  bool Recording::seek(int64_t offset)
  {
    if (!m_file.isOpen() || offset < m_firstRecord || offset > m_fileSize || !m_file.seek(offset))
      return false;
    m_buffer.resize(0);
    m_bufferOffset = offset;
    m_at = 0;
    m_cleanEnd = false;
    m_stoppedAt = offset;
    m_stopReason.clear();
    m_nextFile.clear();
    return true;
  }

  bool Recording::fill(int64_t count)
  {
    if (m_buffer.size() - m_at >= count)
      return true;
    if (m_bufferOffset + m_at + count > m_fileSize)
      return false;
    // Drop what was read; then read at least a chunk, never beyond the end of the file.
    m_buffer.remove(0, m_at);
    m_bufferOffset += m_at;
    m_at = 0;
    const int64_t have = m_buffer.size();
    const int64_t want = std::min(std::max(count, ChunkBytes), m_fileSize - m_bufferOffset) - have;
    m_buffer.resize(int(have + want));
    const int64_t got = m_file.read(m_buffer.data() + have, want);
    if (got < 0) {
      m_buffer.resize(int(have));
      return false;
    }
    m_buffer.resize(int(have + got));
    return m_buffer.size() >= count;
  }

  void Recording::stop(const QString& reason)
  {
    m_cleanEnd = false;
    m_stopReason = reason;
  }

  bool Recording::next(Record& record)
  {
    if (!m_file.isOpen())
      return false;
    const int64_t offset = m_bufferOffset + m_at;
    if (offset != m_stoppedAt)
      return false; // stopped earlier: the same answer until a seek
    if (offset == m_fileSize) {
      if (!m_cleanEnd && m_stopReason.isEmpty())
        stop(QString("the file ends at byte %1 without the end record (the recorder did not close it)").arg(offset));
      return false;
    }
    if (!fill(RecordFormat::FrameSize)) {
      stop(QString("record cut at byte %1 (the file ends at %2)").arg(offset).arg(m_fileSize));
      return false;
    }
    const uint32_t length = wordAt(m_buffer.constData() + m_at);
    const uint32_t sum = wordAt(m_buffer.constData() + m_at + 4);
    if (length < RecordFormat::BodyHeaderSize || length % 4 != 0 || length > RecordFormat::MaxRecordBytes) {
      stop(QString("damaged record length %1 at byte %2").arg(length).arg(offset));
      return false;
    }
    if (offset + RecordFormat::FrameSize + length > m_fileSize) {
      stop(QString("record cut at byte %1 (it needs %2 bytes, the file ends at %3)")
               .arg(offset)
               .arg(RecordFormat::FrameSize + length)
               .arg(m_fileSize));
      return false;
    }
    if (!fill(RecordFormat::FrameSize + length)) {
      stop(QString("cannot read the record at byte %1: %2").arg(offset).arg(m_file.errorString()));
      return false;
    }
    const char* body = m_buffer.constData() + m_at + RecordFormat::FrameSize;
    if (RecordFormat::checksum(body, length) != sum) {
      stop(QString("damaged record at byte %1 (checksum mismatch)").arg(offset));
      return false;
    }
    m_body.resize(int(length));
    std::memcpy(m_body.data(), body, length);
    m_at += int(RecordFormat::FrameSize + length);
    m_stoppedAt = offset + RecordFormat::FrameSize + length;
    record.kind = wordAt(body);
    std::memcpy(&record.timeNs, body + 4, 8);
    record.offset = offset;
    record.body = &m_body;
    m_cleanEnd = false;
    if (record.kind == RecordFormat::End) {
      m_cleanEnd = true;
      m_nextFile.clear();
      try {
        BundleReaderCore reader(m_body, RecordFormat::BodyHeaderSize + 16);
        reader.readString(m_nextFile, uint32_t(reader.remaining()));
      } catch (const std::exception&) {
        m_nextFile.clear();
      }
    }
    return true;
  }

  std::vector<Recording::SnapshotMark> Recording::scanSnapshots()
  {
    std::vector<SnapshotMark> marks;
    if (!seek(m_firstRecord))
      return marks;
    Record record;
    while (next(record))
      if (record.kind == RecordFormat::Snapshot)
        marks.push_back({record.timeNs, record.offset});
    seek(m_firstRecord);
    return marks;
  }
}
