#include "plexa/record/Recorder.hpp"

#include "plexa/record/RecordFormat.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"
#include "carafe/Node.hpp"

#include <QDateTime>

#include <xxhash.h>

#include <algorithm>

#ifndef PLEXA_VERSION_TEXT
#define PLEXA_VERSION_TEXT "unknown"
#endif

namespace Plexa
{
  uint32_t RecordFormat::checksum(const char* bytes, size_t size)
  {
    return uint32_t(XXH3_64bits(bytes, size));
  }

  Recorder::Recorder(RemoteNode& node, const RecorderOptions& options)
      : m_node(node)
      , m_options(options)
  {
    m_options.bufferBytes = std::max<int64_t>(m_options.bufferBytes, 4096);
  }

  Recorder::~Recorder()
  {
    close();
  }

  bool Recorder::open(const QString& fileName, QString* error)
  {
    close();
    m_error.clear();
    m_clock.start();
    if (!startFile(fileName, error))
      return false;
    m_listener =
        m_node.addAttributeChangeListener([this](const NodeWatcher::Event& e) { onWatcherEvent(e.type, e.symbol); });
    return true;
  }

  bool Recorder::startFile(const QString& fileName, QString* error)
  {
    m_file.setFileName(fileName);
    if (!m_file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
      if (error)
        *error = QString("cannot write %1: %2").arg(fileName, m_file.errorString());
      return false;
    }
    m_fileBytes = 0;
    m_buffer.clear();
    m_buffer.reserve(int(m_options.bufferBytes) + 4096);
    writeHeader();
    writeSnapshot();
    if (!flush()) {
      if (error)
        *error = m_error;
      return false;
    }
    return true;
  }

  bool Recorder::split(const QString& fileName, QString* error)
  {
    if (!isOpen())
      return false;
    finishFile(fileName);
    if (!startFile(fileName, error)) {
      close();
      return false;
    }
    return true;
  }

  void Recorder::close()
  {
    if (m_listener >= 0) {
      m_node.removeAttributeChangeListener(m_listener);
      m_listener = -1;
    }
    if (isOpen())
      finishFile(QString());
    m_cache.clear();
  }

  void Recorder::finishFile(const QString& nextFile)
  {
    const uint32_t start = beginRecord(RecordFormat::End);
    BundleWriterCore writer(m_buffer);
    writer.writeValue(uint64_t(m_values));
    writer.writeValue(uint64_t(m_events));
    writer.writeString(nextFile);
    endRecord(start);
    if (flush())
      m_file.close();
  }

  bool Recorder::flush()
  {
    if (!isOpen())
      return false;
    m_peakBuffer = std::max<int64_t>(m_peakBuffer, m_buffer.size());
    if (m_buffer.isEmpty())
      return true;
    const int64_t written = m_file.write(m_buffer);
    if (written != m_buffer.size() || !m_file.flush()) {
      fail(QString("cannot write %1: %2").arg(m_file.fileName(), m_file.errorString()));
      return false;
    }
    m_fileBytes += written;
    m_buffer.resize(0);
    return true;
  }

  void Recorder::fail(const QString& message)
  {
    m_error = message;
    Bastion::error("Recorder # %s; recording stopped", qPrintable(message));
    m_buffer.resize(0);
    m_file.close();
    if (m_listener >= 0) {
      m_node.removeAttributeChangeListener(m_listener);
      m_listener = -1;
    }
  }

  void Recorder::writeHeader()
  {
    BundleWriterCore writer(m_buffer);
    writer.write(RecordFormat::Magic, sizeof(RecordFormat::Magic));
    writer.writeValue(RecordFormat::Version);
    const uint32_t lengthAt = writer.beginBlock();
    const uint32_t bodyAt = writer.size();
    const QDateTime now = QDateTime::currentDateTimeUtc();
    // Wall-clock nanoseconds of the moment the monotonic times count from.
    const int64_t startNs = (now.toMSecsSinceEpoch() - m_clock.elapsed()) * 1000000;
    writer.writeValue(startNs);
    writer.writeString(QString(PLEXA_VERSION_TEXT));
    writer.writeString(m_options.source);
    writer.writeString(QString::fromUtf8(m_node.name()));
    writer.endBlock(lengthAt);
    const uint32_t sum = RecordFormat::checksum(m_buffer.constData() + bodyAt, writer.size() - bodyAt);
    writer.writeValue(sum);
  }

  uint32_t Recorder::beginRecord(uint32_t kind)
  {
    BundleWriterCore writer(m_buffer);
    const uint32_t start = writer.size();
    writer.writeValue(uint64_t(0)); // length and checksum, filled in by endRecord
    writer.writeValue(kind);
    m_now = m_clock.nsecsElapsed();
    writer.writeValue(m_now);
    return start;
  }

  bool Recorder::endRecord(uint32_t start)
  {
    const uint32_t body = start + RecordFormat::FrameSize;
    if (uint32_t(m_buffer.size()) - body > RecordFormat::MaxRecordBytes) {
      // A reader would stop at it and lose everything after it: it is left out instead.
      Bastion::warning("Recorder # a record of %u bytes is over the limit of %u bytes and left out",
                       uint32_t(m_buffer.size()) - body, RecordFormat::MaxRecordBytes);
      m_buffer.resize(int(start));
      return false;
    }
    const uint32_t frame[2] = {uint32_t(m_buffer.size()) - body,
                               RecordFormat::checksum(m_buffer.constData() + body, size_t(m_buffer.size()) - body)};
    std::memcpy(m_buffer.data() + start, frame, sizeof(frame));
    if (m_buffer.size() >= m_options.bufferBytes)
      flush();
    if (!m_inSnapshot)
      maybeSnapshot();
    return true;
  }

  void Recorder::maybeSnapshot()
  {
    const bool bySize = m_options.snapshotBytes > 0 && fileBytes() - m_lastSnapshotBytes >= m_options.snapshotBytes;
    const bool byTime =
        m_options.snapshotSeconds > 0 && double(m_now - m_lastSnapshotNs) >= m_options.snapshotSeconds * 1e9;
    if (isOpen() && (bySize || byTime))
      writeSnapshot();
  }

  const Recorder::Cached* Recorder::cached(uint32_t symbol, Carafe::Attribute* attribute)
  {
    auto it = m_cache.find(symbol);
    if (it != m_cache.end() && it->second.attribute == attribute)
      return &it->second;
    Cached entry;
    entry.attribute = attribute;
    uint32_t size = 0;
    entry.serializer = m_types.createSerializer(attribute, entry.typeId, size);
    if (!entry.serializer)
      return nullptr;
    return &(m_cache[symbol] = std::move(entry));
  }

  bool Recorder::writeEntry(BundleWriterCore& writer, uint32_t symbol, const QByteArray& path,
                            Carafe::Attribute* object)
  {
    if (dynamic_cast<Carafe::Node*>(object)) {
      writer.writeValue(symbol);
      writer.writeValue(RecordFormat::NodeTypeId);
      writer.writeBinary(path);
      return true;
    }
    const Cached* entry = cached(symbol, object);
    if (!entry)
      return false; // a class that cannot cross a connection either
    writer.writeValue(symbol);
    writer.writeValue(entry->typeId);
    writer.writeBinary(path);
    const uint32_t at = writer.beginBlock();
    entry->serializer(writer);
    writer.endBlock(at);
    return true;
  }

  void Recorder::writeSnapshot()
  {
    m_inSnapshot = true;
    const uint32_t start = beginRecord(RecordFormat::Snapshot);
    BundleWriterCore writer(m_buffer);
    const uint32_t countAt = writer.size();
    writer.writeValue(uint32_t(0));
    uint32_t count = 0;
    std::function<void(Carafe::Node&, const QByteArray&)> walk = [&](Carafe::Node& node, const QByteArray& prefix) {
      for (Carafe::Attribute* child : node.attributes()) {
        const QByteArray path = prefix.isEmpty() ? child->name() : prefix + '/' + child->name();
        const uint32_t symbol = m_node.symbolRegistry().lookupOrDefine(path);
        if (writeEntry(writer, symbol, path, child))
          ++count;
        if (auto* childNode = dynamic_cast<Carafe::Node*>(child))
          walk(*childNode, path);
      }
    };
    walk(m_node, QByteArray());
    writer.writeDataAt(countAt, &count, 4);
    endRecord(start);
    m_lastSnapshotNs = m_clock.nsecsElapsed();
    m_lastSnapshotBytes = fileBytes();
    m_inSnapshot = false;
  }

  void Recorder::onWatcherEvent(int type, uint32_t symbol)
  {
    if (!isOpen())
      return;
    switch (type) {
    case NodeWatcher::AttributeChanged: {
      // The hot path: an attribute seen before is still the one cached, as its removal (or its
      // node's) would have dropped the entry.
      auto it = m_cache.find(symbol);
      const Cached* entry = it != m_cache.end() ? &it->second : nullptr;
      if (!entry) {
        Carafe::Attribute* attribute = m_node.attributeCache().find(symbol);
        entry = attribute ? cached(symbol, attribute) : nullptr;
      }
      if (!entry)
        return;
      const uint32_t start = beginRecord(RecordFormat::Changed);
      BundleWriterCore writer(m_buffer);
      writer.writeValue(symbol);
      const uint32_t at = writer.beginBlock();
      entry->serializer(writer);
      writer.endBlock(at);
      if (endRecord(start))
        ++m_values;
      return;
    }
    case NodeWatcher::AttributeAdded:
    case NodeWatcher::NodeAdded: {
      Carafe::Attribute* object = m_node.attributeCache().find(symbol);
      QByteArray path;
      if (!object || !m_node.symbolRegistry().lookup(symbol, path))
        return;
      m_cache.erase(symbol);
      const uint32_t start = beginRecord(RecordFormat::Added);
      BundleWriterCore writer(m_buffer);
      if (!writeEntry(writer, symbol, path, object)) {
        m_buffer.resize(int(start));
        return;
      }
      if (endRecord(start) && type == NodeWatcher::AttributeAdded)
        ++m_values;
      return;
    }
    default: {
      if (type == NodeWatcher::NodeRemoved)
        m_cache.clear(); // whatever was under the node went with it
      else
        m_cache.erase(symbol);
      const uint32_t start = beginRecord(RecordFormat::Removed);
      BundleWriterCore(m_buffer).writeValue(symbol);
      endRecord(start);
    }
    }
  }

  void Recorder::recordEvent(const QByteArray& name, const Bastion::BinaryData& payload)
  {
    if (!isOpen())
      return;
    const uint32_t start = beginRecord(RecordFormat::Event);
    BundleWriterCore writer(m_buffer);
    writer.writeBinary(name);
    writer.writeValue(uint32_t(payload.size()));
    writer.write(payload.data(), uint32_t(payload.size()));
    if (endRecord(start))
      ++m_events;
  }
}
