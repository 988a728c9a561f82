#include "plexa/record/RecordingPlayer.hpp"

#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/record/RecordFormat.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Log.hpp"
#include "carafe/Node.hpp"

#include <algorithm>
#include <memory>
#include <stdexcept>

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
      default:
        return "unknown";
      }
    }
  }

  RecordingPlayer::RecordingPlayer(RemoteNode& node)
      : m_node(node)
  {
  }

  RecordingPlayer::~RecordingPlayer() = default;

  Carafe::Attribute* RecordingPlayer::find(const QByteArray& path) const
  {
    Carafe::Attribute* at = &m_node;
    for (const QByteArray& part : path.split('/')) {
      auto* node = dynamic_cast<Carafe::Node*>(at);
      at = node ? node->attribute(part) : nullptr;
      if (!at)
        return nullptr;
    }
    return at;
  }

  bool RecordingPlayer::mayCreate(const QByteArray& path)
  {
    if (m_created < m_maxCreated)
      return true;
    if (!m_warned)
      Bastion::warning("RecordingPlayer # %s not created: the recording has more than %lld attributes and nodes",
                       path.constData(), (long long)m_maxCreated);
    m_warned = true;
    return false;
  }

  void RecordingPlayer::removeAt(const QByteArray& path)
  {
    const int slash = path.lastIndexOf('/');
    auto* parent = slash < 0 ? &m_node : dynamic_cast<Carafe::Node*>(find(path.left(slash)));
    if (parent)
      parent->removeAttribute(path.mid(slash + 1));
  }

  void RecordingPlayer::readValue(BundleReaderCore& reader, uint32_t end, Known& known, bool onlyIfDifferent)
  {
    const uint32_t length = reader.readValue<uint32_t>();
    const uint32_t start = reader.position;
    need(length % 4 == 0 && uint64_t(start) + length <= end);
    const uint32_t valueEnd = start + length;
    // The node's own cache knows what sits at the path now, whatever else changed the tree.
    if (!known.localSymbol)
      known.localSymbol = m_node.symbolRegistry().lookup(known.path);
    Carafe::Attribute* attribute = known.localSymbol ? m_node.attributeCache().find(known.localSymbol) : nullptr;
    if (attribute && attribute != known.attribute) {
      known.attribute = attribute;
      known.deserializer = m_types.createDeserializer(known.typeId, attribute);
    }
    if (attribute && known.deserializer) {
      bool apply = true;
      if (onlyIfDifferent) {
        uint32_t typeId = 0, size = 0;
        Serializer serializer = m_types.createSerializer(attribute, typeId, size);
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

  void RecordingPlayer::applyEntry(BundleReaderCore& reader, uint32_t end, std::vector<uint32_t>* seen)
  {
    const uint32_t symbol = reader.readValue<uint32_t>();
    const uint32_t typeId = reader.readValue<uint32_t>();
    QByteArray path;
    reader.readBinary(path, uint32_t(reader.remaining()));
    need(reader.position <= end && !path.isEmpty());
    if (seen)
      seen->push_back(symbol);

    Known& known = m_known[symbol];
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
        m_known.erase(symbol); // nothing of it is kept: the cap bounds this table too
        return;
      }
      if (!present) {
        auto node = std::make_unique<Carafe::Node>(nullptr, path.mid(path.lastIndexOf('/') + 1));
        if (m_node.addNode(path, node.get())) {
          // The tree owns it now.
          static_cast<void>(node.release());
          ++m_created;
        }
        m_node.processPendingAdditions();
      }
      return;
    }

    if (present) {
      uint32_t presentType = 0, size = 0;
      if (!m_types.createSerializer(present, presentType, size) || presentType != typeId) {
        removeAt(path);
        present = nullptr;
      }
    }
    if (present) {
      readValue(reader, end, known, true);
      return;
    }
    std::unique_ptr<Carafe::Attribute> created(mayCreate(path) ? m_types.createAttribute(typeId) : nullptr);
    if (!created) {
      if (!m_warned)
        Bastion::warning("RecordingPlayer # unknown type id %u of %s skipped", typeId, path.constData());
      m_warned = true;
      const uint32_t length = reader.readValue<uint32_t>();
      need(uint64_t(reader.position) + length <= end);
      reader.position += length;
      m_known.erase(symbol);
      return;
    }
    // The value goes in before the attribute joins the tree, as a peer's new attribute does.
    const uint32_t length = reader.readValue<uint32_t>();
    const uint32_t start = reader.position;
    need(length % 4 == 0 && uint64_t(start) + length <= end);
    Deserializer deserializer = m_types.createDeserializer(typeId, created.get());
    if (deserializer) {
      deserializer(reader);
      need(reader.position <= start + length);
      created->setAsDefaults();
    }
    reader.position = start + length;
    Carafe::Attribute* raw = created.get();
    if (m_node.addDeepAttribute(path, raw)) {
      // The tree owns it now.
      static_cast<void>(created.release());
      ++m_created;
      known.attribute = raw;
      known.deserializer = std::move(deserializer);
      m_node.processPendingAdditions();
    } else {
      m_known.erase(symbol); // a path the node refused (logged by the node)
    }
  }

  bool RecordingPlayer::apply(const Recording::Record& record)
  {
    const QByteArray& body = *record.body;
    const uint32_t end = uint32_t(body.size());
    BundleReaderCore reader(body, RecordFormat::BodyHeaderSize);
    m_warned = false;
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
        for (const auto& entry : m_known)
          if (!std::binary_search(seen.begin(), seen.end(), entry.first))
            gone.push_back(entry.second.path);
        std::sort(gone.begin(), gone.end());
        for (auto it = gone.rbegin(); it != gone.rend(); ++it)
          removeAt(*it);
        for (auto it = m_known.begin(); it != m_known.end();)
          it = std::binary_search(seen.begin(), seen.end(), it->first) ? std::next(it) : m_known.erase(it);
        return true;
      }
      case RecordFormat::Added:
        applyEntry(reader, end, nullptr);
        return true;
      case RecordFormat::Changed: {
        const uint32_t symbol = reader.readValue<uint32_t>();
        auto it = m_known.find(symbol);
        if (it != m_known.end() && it->second.typeId != RecordFormat::NodeTypeId)
          readValue(reader, end, it->second, false);
        return true;
      }
      case RecordFormat::Removed: {
        const uint32_t symbol = reader.readValue<uint32_t>();
        auto it = m_known.find(symbol);
        if (it != m_known.end()) {
          const QByteArray path = it->second.path;
          m_known.erase(it);
          removeAt(path);
        }
        return true;
      }
      case RecordFormat::Event: {
        QByteArray name;
        reader.readBinary(name, uint32_t(reader.remaining()));
        const uint32_t size = reader.readValue<uint32_t>();
        const char* bytes = static_cast<const char*>(reader.readBounded(size));
        need(!name.isEmpty() && reader.position <= end);
        if (m_eventCallback) {
          Bastion::BinaryData payload;
          payload.linkTo(bytes, int(size));
          m_eventCallback(name, payload);
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

  void RecordingPlayer::playUntil(Recording& recording, int64_t timeNs)
  {
    int64_t from = recording.firstRecordOffset();
    for (const Recording::SnapshotMark& mark : recording.scanSnapshots())
      if (mark.timeNs <= timeNs)
        from = mark.offset;
    recording.seek(from);
    Recording::Record record;
    // The first snapshot is the tree before any recorded time: a time before it gives that tree.
    bool first = true;
    while (recording.next(record)) {
      if (!first && record.timeNs > timeNs) {
        recording.seek(record.offset);
        return;
      }
      first = false;
      apply(record);
    }
  }
}
