#include "plexa/record/RecordingPlayer.hpp"

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/record/RecordFormat.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"
#include "carafe/Node.hpp"

#include <QFileInfo>
#include <QStringList>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <unordered_map>
#include <vector>

namespace Plexa
{
  namespace
  {
    const char* const DamagedRecord = "damaged record";

    void need(bool condition)
    {
      if (!condition)
        throw std::out_of_range(DamagedRecord);
    }

    const char* kindName(uint32_t kind)
    {
      switch (kind) {
      case RecordFormat::Snapshot:
        return "snapshot";
      case RecordFormat::Added:
        return "addition";
      case RecordFormat::Changed:
        return "change";
      case RecordFormat::Removed:
        return "removal";
      case RecordFormat::Event:
        return "event";
      case RecordFormat::Batch:
        return "batch";
      default:
        return "unknown";
      }
    }
  }

  struct RecordingPlayer::D
  {
    struct Known
    {
      QByteArray path;
      uint32_t typeId = 0;
      /// The path's symbol in the node's registry, 0 until the node has defined it.
      uint32_t localSymbol = 0;
      Carafe::Attribute* attribute = nullptr;
      Deserializer deserializer;
    };

    explicit D(RemoteNode& node)
        : node(node)
    {
    }

    bool apply(const Recording::Record& record);
    void applyEntry(BundleReaderCore& reader, uint32_t end, std::vector<uint32_t>* seen);
    /// Reads the value block at the reader into `known`'s attribute (if it is in the tree).
    void readValueBlock(BundleReaderCore& reader, uint32_t end, Known& known, bool onlyIfDifferent);
    /// Reads the value from the reader's position to `valueEnd` into `known`'s attribute.
    void readValue(BundleReaderCore& reader, uint32_t valueEnd, Known& known, bool onlyIfDifferent);
    void applyChange(BundleReaderCore& reader, uint32_t end, bool block);
    void applyRemoval(BundleReaderCore& reader);
    void applyBatch(BundleReaderCore& reader, uint32_t end);
    Carafe::Attribute* find(const QByteArray& path) const;
    /// True when one more object may be created; logs the cap once per record otherwise.
    bool mayCreate(const QByteArray& path);
    void removeAt(const QByteArray& path);

    RemoteNode& node;
    TypeRegistry types;
    EventCallback eventCallback;
    std::function<void()> itemCallback;
    std::unordered_map<uint32_t, Known> bySymbol;
    int64_t maxCreated = DefaultMaxCreated;
    int64_t created = 0;
    /// The record being applied already logged a warning: one line per record at most.
    bool warned = false;
  };

  RecordingPlayer::RecordingPlayer(RemoteNode& node)
      : d(new D(node))
  {
  }

  RecordingPlayer::~RecordingPlayer() = default;

  void RecordingPlayer::setEventCallback(const EventCallback& callback)
  {
    d->eventCallback = callback;
  }

  void RecordingPlayer::setItemCallback(const std::function<void()>& callback)
  {
    d->itemCallback = callback;
  }

  void RecordingPlayer::setMaxCreated(int64_t count)
  {
    d->maxCreated = count;
  }

  int64_t RecordingPlayer::createdCount() const
  {
    return d->created;
  }

  bool RecordingPlayer::apply(const Recording::Record& record)
  {
    return d->apply(record);
  }

  Carafe::Attribute* RecordingPlayer::D::find(const QByteArray& path) const
  {
    Carafe::Attribute* at = &node;
    for (const QByteArray& part : path.split('/')) {
      auto* node = dynamic_cast<Carafe::Node*>(at);
      at = node ? node->attribute(part) : nullptr;
      if (!at)
        return nullptr;
    }
    return at;
  }

  bool RecordingPlayer::D::mayCreate(const QByteArray& path)
  {
    if (created < maxCreated)
      return true;
    if (!warned)
      Bastion::warning("RecordingPlayer # %s not created: the recording has more than %lld attributes and nodes",
                       path.constData(), (long long)maxCreated);
    warned = true;
    return false;
  }

  void RecordingPlayer::D::removeAt(const QByteArray& path)
  {
    const int slash = path.lastIndexOf('/');
    auto* parent = slash < 0 ? &node : dynamic_cast<Carafe::Node*>(find(path.left(slash)));
    if (parent)
      parent->removeAttribute(path.mid(slash + 1));
  }

  void RecordingPlayer::D::readValueBlock(BundleReaderCore& reader, uint32_t end, Known& known, bool onlyIfDifferent)
  {
    const uint32_t length = reader.readValue<uint32_t>();
    need(length % 4 == 0 && uint64_t(reader.position) + length <= end);
    readValue(reader, reader.position + length, known, onlyIfDifferent);
  }

  void RecordingPlayer::D::readValue(BundleReaderCore& reader, uint32_t valueEnd, Known& known, bool onlyIfDifferent)
  {
    const uint32_t start = reader.position;
    need(start <= valueEnd);
    const uint32_t length = valueEnd - start;
    // The node's own cache knows what sits at the path now, whatever else changed the tree.
    if (!known.localSymbol)
      known.localSymbol = node.symbolRegistry().lookup(known.path);
    Carafe::Attribute* attribute = known.localSymbol ? node.attributeCache().find(known.localSymbol) : nullptr;
    if (attribute && attribute != known.attribute) {
      known.attribute = attribute;
      known.deserializer = types.createDeserializer(known.typeId, attribute);
    }
    if (attribute && known.deserializer) {
      bool apply = true;
      if (onlyIfDifferent) {
        uint32_t typeId = 0, size = 0;
        Serializer serializer = types.createSerializer(attribute, typeId, size);
        QByteArray present;
        if (serializer && typeId == known.typeId) {
          BundleWriterCore writer(present);
          serializer(writer);
          apply = present.size() != int(length) ||
                  std::memcmp(present.constData(), reader.data->constData() + start, length) != 0;
        }
      }
      if (apply) {
        known.deserializer(reader);
        need(reader.position <= valueEnd);
      }
    }
    reader.position = valueEnd;
  }

  void RecordingPlayer::D::applyEntry(BundleReaderCore& reader, uint32_t end, std::vector<uint32_t>* seen)
  {
    const uint32_t symbol = reader.readValue<uint32_t>();
    const uint32_t typeId = reader.readValue<uint32_t>();
    QByteArray path;
    reader.readBinary(path, uint32_t(reader.remaining()));
    need(reader.position <= end && !path.isEmpty());
    if (seen)
      seen->push_back(symbol);

    Known& known = bySymbol[symbol];
    if (known.path != path && !known.path.isEmpty())
      known = Known();
    known.path = path;
    known.typeId = typeId;
    Carafe::Attribute* present = find(path);
    if (typeId == RecordFormat::NodeTypeId) {
      if (present && !dynamic_cast<Carafe::Node*>(present)) {
        removeAt(path);
        present = nullptr;
      }
      if (!present && !mayCreate(path)) {
        bySymbol.erase(symbol); // nothing of it is kept: the cap bounds this table too
        return;
      }
      if (!present) {
        auto fresh = std::make_unique<Carafe::Node>(nullptr, path.mid(path.lastIndexOf('/') + 1));
        if (node.addNode(path, fresh.get())) {
          // The tree owns it now.
          static_cast<void>(fresh.release());
          ++created;
        }
        node.processPendingAdditions();
      }
      return;
    }

    if (present) {
      uint32_t presentType = 0, size = 0;
      if (!types.createSerializer(present, presentType, size) || presentType != typeId) {
        removeAt(path);
        present = nullptr;
      }
    }
    if (present) {
      readValueBlock(reader, end, known, true);
      return;
    }
    std::unique_ptr<Carafe::Attribute> made(mayCreate(path) ? types.createAttribute(typeId) : nullptr);
    if (!made) {
      if (!warned)
        Bastion::warning("RecordingPlayer # unknown type id %u of %s skipped", typeId, path.constData());
      warned = true;
      const uint32_t length = reader.readValue<uint32_t>();
      need(uint64_t(reader.position) + length <= end);
      reader.position += length;
      bySymbol.erase(symbol);
      return;
    }
    // The value goes in before the attribute joins the tree, as a peer's new attribute does.
    const uint32_t length = reader.readValue<uint32_t>();
    const uint32_t start = reader.position;
    need(length % 4 == 0 && uint64_t(start) + length <= end);
    Deserializer deserializer = types.createDeserializer(typeId, made.get());
    if (deserializer) {
      deserializer(reader);
      need(reader.position <= start + length);
      made->setAsDefaults();
    }
    reader.position = start + length;
    Carafe::Attribute* raw = made.get();
    if (node.addDeepAttribute(path, raw)) {
      // The tree owns it now.
      static_cast<void>(made.release());
      ++created;
      known.attribute = raw;
      known.deserializer = std::move(deserializer);
      node.processPendingAdditions();
    } else {
      bySymbol.erase(symbol); // a path the node refused (logged by the node)
    }
  }

  bool RecordingPlayer::D::apply(const Recording::Record& record)
  {
    const QByteArray& body = *record.body;
    const uint32_t end = uint32_t(body.size());
    BundleReaderCore reader(body, RecordFormat::BodyHeaderSize);
    warned = false;
    try {
      switch (record.kind) {
      case RecordFormat::Snapshot: {
        const uint32_t count = reader.readValue<uint32_t>();
        // Every entry takes at least 12 bytes: a count beyond that is a lie.
        need(count <= reader.remaining() / 12);
        std::vector<uint32_t> seen;
        seen.reserve(count);
        for (uint32_t i = 0; i < count; ++i)
          applyEntry(reader, end, &seen);
        // What the tree has and the snapshot has not went away in between.
        std::sort(seen.begin(), seen.end());
        std::vector<QByteArray> gone;
        for (const auto& entry : bySymbol)
          if (!std::binary_search(seen.begin(), seen.end(), entry.first))
            gone.push_back(entry.second.path);
        std::sort(gone.begin(), gone.end());
        for (auto it = gone.rbegin(); it != gone.rend(); ++it)
          removeAt(*it);
        for (auto it = bySymbol.begin(); it != bySymbol.end();)
          it = std::binary_search(seen.begin(), seen.end(), it->first) ? std::next(it) : bySymbol.erase(it);
        return true;
      }
      case RecordFormat::Added:
        applyEntry(reader, end, nullptr);
        return true;
      case RecordFormat::Changed:
        applyChange(reader, end, true);
        return true;
      case RecordFormat::Removed:
        applyRemoval(reader);
        return true;
      case RecordFormat::Batch:
        applyBatch(reader, end);
        return true;
      case RecordFormat::Event: {
        QByteArray name;
        reader.readBinary(name, uint32_t(reader.remaining()));
        const uint32_t size = reader.readValue<uint32_t>();
        const char* bytes = static_cast<const char*>(reader.readBounded(size));
        need(!name.isEmpty() && reader.position <= end);
        if (eventCallback) {
          Bastion::BinaryData payload;
          payload.linkTo(bytes, int(size));
          eventCallback(name, payload);
        }
        return true;
      }
      default:
        return true;
      }
    } catch (const std::exception& e) {
      Bastion::warning("RecordingPlayer # %s record at byte %lld skipped: %s", kindName(record.kind),
                       (long long)record.offset, e.what());
      return false;
    }
  }

  void RecordingPlayer::D::applyChange(BundleReaderCore& reader, uint32_t end, bool block)
  {
    const uint32_t symbol = reader.readValue<uint32_t>();
    auto it = bySymbol.find(symbol);
    if (it == bySymbol.end() || it->second.typeId == RecordFormat::NodeTypeId)
      return;
    if (block)
      readValueBlock(reader, end, it->second, false);
    else
      readValue(reader, end, it->second, false);
  }

  void RecordingPlayer::D::applyRemoval(BundleReaderCore& reader)
  {
    const uint32_t symbol = reader.readValue<uint32_t>();
    auto it = bySymbol.find(symbol);
    if (it != bySymbol.end()) {
      const QByteArray path = it->second.path;
      bySymbol.erase(it);
      removeAt(path);
    }
  }

  void RecordingPlayer::D::applyBatch(BundleReaderCore& reader, uint32_t end)
  {
    // The items before a damaged one stay applied: they are whole, as the checksum says.
    while (reader.position < end) {
      const uint32_t head = reader.readValue<uint32_t>();
      const uint32_t size = head >> RecordFormat::ItemKindBits;
      need(size % 4 == 0 && uint64_t(reader.position) + size <= end);
      const uint32_t itemEnd = reader.position + size;
      // Every kind starts with a symbol: a shorter item would reach into the next one.
      need(size >= 4);
      switch (head & RecordFormat::ItemKindMask) {
      case RecordFormat::Changed:
        applyChange(reader, itemEnd, false);
        break;
      case RecordFormat::Added:
        applyEntry(reader, itemEnd, nullptr);
        break;
      case RecordFormat::Removed:
        applyRemoval(reader);
        break;
      default:
        break; // a kind of a later version: skipped by its size
      }
      need(reader.position <= itemEnd);
      reader.position = itemEnd;
      if (itemCallback && reader.position < end)
        itemCallback();
    }
  }

  void RecordingPlayer::playUntil(Recording& recording, int64_t timeNs)
  {
    // A split recording: every file starts with a snapshot of the whole tree, so the tree at the
    // time is played from the last file that starts at or before it. The files' indexes name the
    // next one without reading them.
    std::vector<Recording::SnapshotMark> marks;
    QString nextPath;
    bool indexed = recording.readIndex(marks, nextPath);
    QStringList seen{QFileInfo(recording.fileName()).canonicalFilePath()};
    while (indexed && !nextPath.isEmpty() && !seen.contains(QFileInfo(nextPath).canonicalFilePath())) {
      Recording part;
      Recording::Record first;
      if (!part.open(nextPath) || !part.next(first) || first.timeNs > timeNs || !recording.open(nextPath))
        break;
      seen << QFileInfo(nextPath).canonicalFilePath();
      indexed = recording.readIndex(marks, nextPath);
    }
    if (!indexed)
      marks = recording.scanSnapshots();
    int64_t from = recording.firstRecordOffset();
    for (const Recording::SnapshotMark& mark : marks)
      if (mark.timeNs <= timeNs)
        from = mark.offset;
    recording.seek(from);
    Recording::Record record;
    // The first snapshot is the tree before any recorded time: a time before it gives that tree.
    bool first = true;
    for (;;) {
      while (recording.next(record)) {
        if (!first && record.timeNs > timeNs) {
          recording.seek(record.offset);
          return;
        }
        first = false;
        apply(record);
      }
      // A file without an index that names a next one: on in that one.
      if (!recording.endedCleanly() || !recording.openNextPart())
        return;
    }
  }
}
