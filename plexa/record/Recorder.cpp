#include "plexa/record/Recorder.hpp"

#include "plexa/record/RecordFormat.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"
#include "carafe/Node.hpp"

#include <QDateTime>
#include <QElapsedTimer>
#include <QFile>

#include <xxhash.h>

#include <algorithm>
#include <cstring>
#include <ctime>
#include <unordered_map>
#include <vector>

#ifndef PLEXA_VERSION_TEXT
#define PLEXA_VERSION_TEXT "unknown"
#endif

namespace Plexa
{
  uint32_t RecordFormat::checksum(const char* bytes, size_t size)
  {
    return uint32_t(XXH3_64bits(bytes, size));
  }

  namespace
  {
    constexpr uint32_t NoBatch = 0xffffffffu;

    /// The monotonic clock at its coarse resolution (a few milliseconds): far cheaper to read than
    /// the precise one, so every value may look at it to see whether its batch is still current.
    int64_t coarseTick()
    {
#ifdef CLOCK_MONOTONIC_COARSE
      timespec ts;
      clock_gettime(CLOCK_MONOTONIC_COARSE, &ts);
      return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
#else
      return 0; // batches then end by size and at flush() only
#endif
    }
  }

  struct Recorder::D
  {
    struct Cached
    {
      Carafe::Attribute* attribute = nullptr;
      uint32_t typeId = 0;
      Serializer serializer;
    };

    D(RemoteNode& node, const RecorderOptions& options)
        : node(node)
        , options(options)
    {
    }

    void onWatcherEvent(int type, uint32_t symbol);
    bool startFile(const QString& fileName, QString* error);
    void finishFile(const QString& nextFile);
    bool flush();
    void fail(const QString& message);
    void writeHeader();
    void writeSnapshot();
    /// One snapshot entry or addition: false when the object cannot be recorded.
    bool writeEntry(BundleWriterCore& writer, uint32_t symbol, const QByteArray& path, Carafe::Attribute* object);
    const Cached* cached(uint32_t symbol, Carafe::Attribute* attribute);
    uint32_t beginRecord(uint32_t kind);
    /// Starts an item of the present batch (a new batch when there is none, the present one is
    /// full or its clock tick has passed); returns the offset of its head word.
    uint32_t beginItem(uint32_t kind);
    /// Fills in the item's head word; false (logged, the item dropped) when the batch would go
    /// over the format's record size limit.
    bool endItem(uint32_t item);
    void endBatch();
    /// Fills in the frame; false (logged, the record dropped) when the body is over the format's
    /// size limit.
    bool endRecord(uint32_t start);
    void maybeSnapshot();
    void recordEvent(const QByteArray& name, const Bastion::BinaryData& payload);
    bool isOpen() const { return file.isOpen(); }
    int64_t fileBytes() const { return writtenBytes + buffer.size(); }

    RemoteNode& node;
    RecorderOptions options;
    TypeRegistry types;
    QFile file;
    QByteArray buffer;
    QElapsedTimer clock;
    long listener = -1;
    QString error;
    std::unordered_map<uint32_t, Cached> cache;
    /// The snapshots of the present file, for the index in its end record.
    std::vector<RecordFormat::IndexEntry> snapshots;
    bool indexDropped = false;

    int64_t writtenBytes = 0;
    int64_t peakBuffer = 0;
    int64_t lastSnapshotBytes = 0;
    int64_t lastSnapshotNs = 0;
    /// The time of the record being written.
    int64_t now = 0;
    uint64_t values = 0;
    uint64_t events = 0;
    /// No periodic snapshot now: one is being written, or the end record (which must stay last).
    bool holdSnapshots = false;
    /// Offset in `buffer` of the batch being collected, NoBatch when none is; the coarse clock
    /// tick it began in.
    uint32_t batchStart = NoBatch;
    int64_t batchTick = 0;
  };

  Recorder::Recorder(RemoteNode& node, const RecorderOptions& options)
      : d(new D(node, options))
  {
    d->options.bufferBytes = std::max<int64_t>(d->options.bufferBytes, 4096);
  }

  Recorder::~Recorder()
  {
    close();
  }

  bool Recorder::open(const QString& fileName, QString* error)
  {
    close();
    d->error.clear();
    d->clock.start();
    if (!d->startFile(fileName, error))
      return false;
    D* self = d.get();
    d->listener = d->node.addAttributeChangeListener(
        [self](const NodeWatcher::Event& e) { self->onWatcherEvent(e.type, e.symbol); });
    return true;
  }

  bool Recorder::split(const QString& fileName, QString* error)
  {
    if (!isOpen())
      return false;
    d->finishFile(fileName);
    if (!d->startFile(fileName, error)) {
      close();
      return false;
    }
    return true;
  }

  void Recorder::close()
  {
    if (d->listener >= 0) {
      d->node.removeAttributeChangeListener(d->listener);
      d->listener = -1;
    }
    if (isOpen())
      d->finishFile(QString());
    d->cache.clear();
  }

  bool Recorder::flush()
  {
    return d->flush();
  }

  void Recorder::recordEvent(const QByteArray& name, const Bastion::BinaryData& payload)
  {
    d->recordEvent(name, payload);
  }

  bool Recorder::isOpen() const
  {
    return d->isOpen();
  }

  QString Recorder::errorString() const
  {
    return d->error;
  }

  int64_t Recorder::fileBytes() const
  {
    return d->fileBytes();
  }

  uint64_t Recorder::valueCount() const
  {
    return d->values;
  }

  uint64_t Recorder::eventCount() const
  {
    return d->events;
  }

  int64_t Recorder::elapsedNs() const
  {
    d->endBatch();
    return d->clock.nsecsElapsed();
  }

  int64_t Recorder::peakBufferBytes() const
  {
    return d->peakBuffer;
  }

  bool Recorder::D::startFile(const QString& fileName, QString* errorOut)
  {
    file.setFileName(fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate)) {
      if (errorOut)
        *errorOut = QString("cannot write %1: %2").arg(fileName, file.errorString());
      return false;
    }
    writtenBytes = 0;
    batchStart = NoBatch;
    snapshots.clear();
    indexDropped = false;
    buffer.clear();
    buffer.reserve(int(options.bufferBytes + options.batchBytes) + 4096);
    writeHeader();
    writeSnapshot();
    if (!flush()) {
      if (errorOut)
        *errorOut = error;
      return false;
    }
    return true;
  }

  void Recorder::D::finishFile(const QString& nextFile)
  {
    endBatch();
    const uint32_t start = beginRecord(RecordFormat::End);
    BundleWriterCore writer(buffer);
    writer.writeValue(uint64_t(values));
    writer.writeValue(uint64_t(events));
    writer.writeString(nextFile);
    // The index of the file's snapshots, so that a reader finds the one before a time without
    // reading the file; none when there were too many to keep.
    const uint32_t count = indexDropped ? 0 : uint32_t(snapshots.size());
    writer.writeValue(count);
    if (count)
      writer.write(snapshots.data(), uint32_t(count * sizeof(RecordFormat::IndexEntry)));
    // The body's own length last: a reader finds the end record from the end of the file.
    writer.writeValue(uint32_t(writer.size() + 4 - start - RecordFormat::FrameSize));
    holdSnapshots = true;
    endRecord(start);
    holdSnapshots = false;
    if (flush())
      file.close();
  }

  bool Recorder::D::flush()
  {
    if (!isOpen())
      return false;
    endBatch();
    peakBuffer = std::max<int64_t>(peakBuffer, buffer.size());
    if (buffer.isEmpty())
      return true;
    const int64_t written = file.write(buffer);
    if (written != buffer.size() || !file.flush()) {
      fail(QString("cannot write %1: %2").arg(file.fileName(), file.errorString()));
      return false;
    }
    writtenBytes += written;
    buffer.resize(0);
    return true;
  }

  void Recorder::D::fail(const QString& message)
  {
    error = message;
    Bastion::error("Recorder # %s; recording stopped", qPrintable(message));
    buffer.resize(0);
    batchStart = NoBatch;
    file.close();
    if (listener >= 0) {
      node.removeAttributeChangeListener(listener);
      listener = -1;
    }
  }

  void Recorder::D::writeHeader()
  {
    BundleWriterCore writer(buffer);
    writer.write(RecordFormat::Magic, sizeof(RecordFormat::Magic));
    writer.writeValue(RecordFormat::Version);
    const uint32_t lengthAt = writer.beginBlock();
    const uint32_t bodyAt = writer.size();
    const QDateTime wallNow = QDateTime::currentDateTimeUtc();
    // Wall-clock nanoseconds of the moment the monotonic times count from.
    const int64_t startNs = (wallNow.toMSecsSinceEpoch() - clock.elapsed()) * 1000000;
    writer.writeValue(startNs);
    writer.writeString(QString(PLEXA_VERSION_TEXT));
    writer.writeString(options.source);
    writer.writeString(QString::fromUtf8(node.name()));
    writer.endBlock(lengthAt);
    const uint32_t sum = RecordFormat::checksum(buffer.constData() + bodyAt, writer.size() - bodyAt);
    writer.writeValue(sum);
  }

  uint32_t Recorder::D::beginRecord(uint32_t kind)
  {
    BundleWriterCore writer(buffer);
    const uint32_t start = writer.size();
    writer.writeValue(uint64_t(0)); // length and checksum, filled in by endRecord
    writer.writeValue(kind);
    now = clock.nsecsElapsed();
    writer.writeValue(now);
    return start;
  }

  uint32_t Recorder::D::beginItem(uint32_t kind)
  {
    const int64_t tick = coarseTick();
    if (batchStart != NoBatch && (tick != batchTick || buffer.size() - batchStart >= options.batchBytes))
      endBatch();
    if (batchStart == NoBatch) {
      batchTick = tick;
      batchStart = beginRecord(RecordFormat::Batch);
    }
    BundleWriterCore writer(buffer);
    const uint32_t item = writer.size();
    writer.writeValue(kind); // the byte count is added by endItem
    return item;
  }

  bool Recorder::D::endItem(uint32_t item)
  {
    const uint32_t end = uint32_t(buffer.size());
    if (end - batchStart - RecordFormat::FrameSize > RecordFormat::MaxRecordBytes) {
      Bastion::warning("Recorder # a value of %u bytes is over the record limit of %u bytes and left out", end - item,
                       RecordFormat::MaxRecordBytes);
      buffer.resize(int(item));
      return false;
    }
    uint32_t head;
    std::memcpy(&head, buffer.constData() + item, 4);
    head |= (end - item - 4) << RecordFormat::ItemKindBits;
    std::memcpy(buffer.data() + item, &head, 4);
    return true;
  }

  void Recorder::D::endBatch()
  {
    if (batchStart == NoBatch)
      return;
    const uint32_t start = batchStart;
    batchStart = NoBatch;
    endRecord(start);
  }

  bool Recorder::D::endRecord(uint32_t start)
  {
    const uint32_t body = start + RecordFormat::FrameSize;
    if (uint32_t(buffer.size()) - body > RecordFormat::MaxRecordBytes) {
      // A reader would stop at it and lose everything after it: it is left out instead.
      Bastion::warning("Recorder # a record of %u bytes is over the limit of %u bytes and left out",
                       uint32_t(buffer.size()) - body, RecordFormat::MaxRecordBytes);
      buffer.resize(int(start));
      return false;
    }
    const uint32_t frame[2] = {uint32_t(buffer.size()) - body,
                               RecordFormat::checksum(buffer.constData() + body, size_t(buffer.size()) - body)};
    std::memcpy(buffer.data() + start, frame, sizeof(frame));
    if (buffer.size() >= options.bufferBytes)
      flush();
    if (!holdSnapshots)
      maybeSnapshot();
    return true;
  }

  void Recorder::D::maybeSnapshot()
  {
    const bool bySize = options.snapshotBytes > 0 && fileBytes() - lastSnapshotBytes >= options.snapshotBytes;
    const bool byTime = options.snapshotSeconds > 0 && double(now - lastSnapshotNs) >= options.snapshotSeconds * 1e9;
    if (isOpen() && (bySize || byTime))
      writeSnapshot();
  }

  const Recorder::D::Cached* Recorder::D::cached(uint32_t symbol, Carafe::Attribute* attribute)
  {
    auto it = cache.find(symbol);
    if (it != cache.end() && it->second.attribute == attribute)
      return &it->second;
    Cached entry;
    entry.attribute = attribute;
    uint32_t size = 0;
    entry.serializer = types.createSerializer(attribute, entry.typeId, size);
    if (!entry.serializer)
      return nullptr;
    return &(cache[symbol] = std::move(entry));
  }

  bool Recorder::D::writeEntry(BundleWriterCore& writer, uint32_t symbol, const QByteArray& path,
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

  void Recorder::D::writeSnapshot()
  {
    endBatch();
    holdSnapshots = true;
    const int64_t offset = fileBytes();
    const uint32_t start = beginRecord(RecordFormat::Snapshot);
    BundleWriterCore writer(buffer);
    const uint32_t countAt = writer.size();
    writer.writeValue(uint32_t(0));
    uint32_t count = 0;
    std::function<void(Carafe::Node&, const QByteArray&)> walk = [&](Carafe::Node& parent, const QByteArray& prefix) {
      for (Carafe::Attribute* child : parent.attributes()) {
        const QByteArray path = prefix.isEmpty() ? child->name() : prefix + '/' + child->name();
        const uint32_t symbol = node.symbolRegistry().lookupOrDefine(path);
        if (writeEntry(writer, symbol, path, child))
          ++count;
        if (auto* childNode = dynamic_cast<Carafe::Node*>(child))
          walk(*childNode, path);
      }
    };
    walk(node, QByteArray());
    writer.writeDataAt(countAt, &count, 4);
    const int64_t time = now;
    if (endRecord(start)) {
      if (snapshots.size() < RecordFormat::MaxIndexedSnapshots)
        snapshots.push_back({time, offset});
      else
        indexDropped = true;
    }
    lastSnapshotNs = clock.nsecsElapsed();
    lastSnapshotBytes = fileBytes();
    holdSnapshots = false;
  }

  void Recorder::D::onWatcherEvent(int type, uint32_t symbol)
  {
    if (!isOpen())
      return;
    switch (type) {
    case NodeWatcher::AttributeChanged: {
      // The hot path: an attribute seen before is still the one cached, as its removal (or its
      // node's) would have dropped the entry.
      auto it = cache.find(symbol);
      const Cached* entry = it != cache.end() ? &it->second : nullptr;
      if (!entry) {
        Carafe::Attribute* attribute = node.attributeCache().find(symbol);
        entry = attribute ? cached(symbol, attribute) : nullptr;
      }
      if (!entry)
        return;
      const uint32_t item = beginItem(RecordFormat::Changed);
      BundleWriterCore writer(buffer);
      writer.writeValue(symbol);
      entry->serializer(writer);
      if (endItem(item))
        ++values;
      return;
    }
    case NodeWatcher::AttributeAdded:
    case NodeWatcher::NodeAdded: {
      Carafe::Attribute* object = node.attributeCache().find(symbol);
      QByteArray path;
      if (!object || !node.symbolRegistry().lookup(symbol, path))
        return;
      cache.erase(symbol);
      const uint32_t item = beginItem(RecordFormat::Added);
      BundleWriterCore writer(buffer);
      if (!writeEntry(writer, symbol, path, object)) {
        buffer.resize(int(item));
        return;
      }
      if (endItem(item) && type == NodeWatcher::AttributeAdded)
        ++values;
      return;
    }
    default: {
      if (type == NodeWatcher::NodeRemoved)
        cache.clear(); // whatever was under the node went with it
      else
        cache.erase(symbol);
      const uint32_t item = beginItem(RecordFormat::Removed);
      BundleWriterCore(buffer).writeValue(symbol);
      endItem(item);
    }
    }
  }

  void Recorder::D::recordEvent(const QByteArray& name, const Bastion::BinaryData& payload)
  {
    if (!isOpen())
      return;
    endBatch();
    const uint32_t start = beginRecord(RecordFormat::Event);
    BundleWriterCore writer(buffer);
    writer.writeBinary(name);
    writer.writeValue(uint32_t(payload.size()));
    writer.write(payload.data(), uint32_t(payload.size()));
    if (endRecord(start))
      ++events;
  }
}
