#include "plexa/receive/NodeChangeSender.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "plexa/bundle/BundleOutput.hpp"
#include "plexa/receive/AttributeStorage.hpp"
#include "plexa/remote/AttributeWalk.hpp"
#include "plexa/session/BundleDispatcher.hpp"
#include "plexa/session/SessionFormat.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include <algorithm>

namespace Plexa
{
  namespace
  {
    struct Publication
    {
      bool published = false;
      bool cached = false;
    };

    /// The last answer of `publicationOf` on this thread, with what it was read from.
    struct PublicationMemo
    {
      const SyncFlags* flags = nullptr;
      const AttributeCache* cache = nullptr;
      uint64_t flagsVersion = 0;
      uint64_t cacheVersion = 0;
      uint32_t symbol = 0;
      Publication answer;
    };
    thread_local PublicationMemo publicationMemo;

    /// Whether `symbol` is published, and whether the cache has its attribute. Every session's
    /// sender hears each change of the tree in turn and asks this of the same tables: the answer
    /// is kept while neither table has changed, so a change costs two table lookups under their
    /// locks once, not once per session.
    Publication publicationOf(RemoteNode& node, uint32_t symbol)
    {
      const SyncFlags& flags = node.syncFlags();
      const AttributeCache& cache = node.attributeCache();
      // Read before the tables: a change of either meanwhile leaves a version behind that the
      // next call does not find.
      const uint64_t flagsVersion = flags.version();
      const uint64_t cacheVersion = cache.version();
      PublicationMemo& memo = publicationMemo;
      if (memo.symbol == symbol && memo.flags == &flags && memo.cache == &cache && memo.flagsVersion == flagsVersion &&
          memo.cacheVersion == cacheVersion)
        return memo.answer;
      Publication answer;
      answer.published = (flags.getFlags(symbol) & SyncFlags::Publish) != 0;
      answer.cached = answer.published && cache.find(symbol) != nullptr;
      memo = {&flags, &cache, flagsVersion, cacheVersion, symbol, answer};
      return answer;
    }
  }

  NodeChangeSender::NodeChangeSender(RemoteNode& node, AttributeStorage& storage, TypeRegistry& types)
      : BundleSender(ModuleNames::SymbolRegistry)
      , m_node(node)
      , m_storage(storage)
      , m_types(types)
  {
    m_changeListener = m_node.addAttributeChangeListener([this](const NodeWatcher::Event& e) { onAttributeChange(e); });
    m_eventListener = m_node.addEventListener([this](const RemoteNode::Event& e) { onEvent(e); });
    // The node drops its own listeners as it goes; the ids must not be used after that.
    m_deletedListener = m_node.addListener([this] { detach(); }, Carafe::Attribute::RoleDeleted);
  }

  NodeChangeSender::~NodeChangeSender()
  {
    if (m_changeListener >= 0)
      m_node.removeAttributeChangeListener(m_changeListener);
    if (m_eventListener >= 0)
      m_node.removeEventLIstener(m_eventListener);
    if (m_deletedListener >= 0)
      m_node.removeListener(m_deletedListener);
  }

  void NodeChangeSender::detach()
  {
    m_changeListener = -1;
    m_eventListener = -1;
    m_deletedListener = -1;
  }

  void NodeChangeSender::initialize(BundleDispatcher& dispatcher)
  {
    m_newType = dispatcher.messageTypeFor(ModuleNames::AttributeNew);
    m_updateType = dispatcher.messageTypeFor(ModuleNames::AttributeUpdate);
    m_removeType = dispatcher.messageTypeFor(ModuleNames::AttributeRemove);
    m_eventType = dispatcher.messageTypeFor(ModuleNames::OneWayEvent);
  }

  uint32_t NodeChangeSender::messageType(NodeWatcher::EventType type) const
  {
    switch (type) {
    case NodeWatcher::AttributeAdded:
      return m_newType;
    case NodeWatcher::AttributeChanged:
      return m_updateType;
    case NodeWatcher::AttributeRemoved:
      return m_removeType;
    default:
      Bastion::error("NodeChangeSender::messageType # Found an invalid event type %d", int(type));
      return 0xFFFFFFFFu;
    }
  }

  // ---------------------------------------------------------------------------------------------
  // Collecting

  void NodeChangeSender::onAttributeChange(const NodeWatcher::Event& e)
  {
    if (stopIgnoring(e))
      return;
    if (e.type == NodeWatcher::NodeAdded || e.type == NodeWatcher::NodeRemoved)
      return;

    if (e.type == NodeWatcher::AttributeRemoved) {
      // Whatever the filters below decide, the record must stop writing into the attribute that
      // is going away: a path the peer announced but this side does not publish would otherwise
      // keep a deserializer bound to a deleted attribute.
      Bastion::Guard lock(m_changeMutex);
      if (PlexaSessionAttribute* session = m_storage.findBySymbol(e.symbol)) {
        session->deserializer = PlexaSessionAttribute::createDummyDeserializer(session->peerSize);
        session->dropSerializer();
        session->receivedSequence = 0;
        session->reAdded = true;
      }
    }

    const Publication publication = publicationOf(m_node, e.symbol);
    if (!publication.published)
      return;
    if (!publication.cached) {
      Bastion::error("NodeChangeSender::onAttributeChange # Got an attribute change event but can't find the actual "
                     "attribute");
      return;
    }

    Bastion::Guard lock(m_changeMutex);
    PlexaSessionAttribute* session = m_storage.findBySymbol(e.symbol);
    if (!session && e.type == NodeWatcher::AttributeAdded && !pathOf(e.symbol).isNull())
      session = m_storage.createForSymbol(e.symbol);
    if (!session) {
      Bastion::error("NodeChangeSender::onAttributeChange # Could not find a session attribute for the given change");
      return;
    }
    // The record of a busy session's attribute is rarely in the cache: its flag is only read once
    // the peer has removed anything at all.
    if ((e.type == NodeWatcher::AttributeRemoved || e.type == NodeWatcher::AttributeChanged) &&
        m_storage.anyRemovedByPeer() && session->removedByPeer)
      return;
    m_queue.push_back(e);
  }

  void NodeChangeSender::onEvent(const RemoteNode::Event& event)
  {
    Bastion::Guard lock(m_eventMutex);
    m_events.push_back(event);
  }

  void NodeChangeSender::sendInitialValues()
  {
    Bastion::SymbolRegistry& registry = m_node.symbolRegistry();
    std::vector<uint32_t> symbols;
    AttributeCache& cache = m_node.attributeCache();
    const std::vector<uint32_t> pending = m_node.nodeWatcher().pendingSymbols();
    walkAttributesWithPath(m_node, [&](Carafe::Attribute&, const QByteArray& path) {
      // An attribute added since the watcher's last update is still pending there (its sync
      // flags are not applied yet); the watcher reports its addition at its next update.
      const uint32_t symbol = registry.lookup(path);
      if (symbol != 0 && cache.find(symbol) && !std::binary_search(pending.begin(), pending.end(), symbol))
        symbols.push_back(symbol);
    });
    for (uint32_t symbol : symbols)
      onAttributeChange({NodeWatcher::AttributeAdded, symbol});
  }

  void NodeChangeSender::ignoreOne(const NodeWatcher::Event& event)
  {
    const uint64_t key = packed(event);
    uint64_t none = NoRequest;
    if (m_ignoredCount.load(std::memory_order_acquire) == 0 &&
        m_ignoredOne.compare_exchange_strong(none, key, std::memory_order_acq_rel))
      return;
    Bastion::Guard lock(m_changeMutex);
    if (m_ignoredOne.load(std::memory_order_acquire) == key ||
        std::find(m_ignored.begin(), m_ignored.end(), event) != m_ignored.end())
      Bastion::warning("NodeChangeSender::ignoreOne # Called for an already ignored symbol");
    else
      m_ignored.push_back(event);
    m_ignoredCount.store(m_ignored.size(), std::memory_order_release);
  }

  bool NodeChangeSender::stopIgnoring(const NodeWatcher::Event& event)
  {
    const uint64_t key = packed(event);
    uint64_t expected = key;
    if (m_ignoredOne.load(std::memory_order_acquire) == key &&
        m_ignoredOne.compare_exchange_strong(expected, NoRequest, std::memory_order_acq_rel))
      return true;
    // Requests are made and used up on the update thread, so a count of 0 read here cannot miss
    // a request that concerns this event.
    if (m_ignoredCount.load(std::memory_order_acquire) == 0)
      return false;
    Bastion::Guard lock(m_changeMutex);
    const auto it = std::find(m_ignored.begin(), m_ignored.end(), event);
    if (it == m_ignored.end())
      return false;
    *it = m_ignored.back();
    m_ignored.pop_back();
    m_ignoredCount.store(m_ignored.size(), std::memory_order_release);
    return true;
  }

  std::vector<RemoteNode::Event> NodeChangeSender::getEvents()
  {
    std::vector<RemoteNode::Event> events;
    bool first = false;
    {
      Bastion::Guard lock(m_eventMutex);
      events.swap(m_events);
      first = !m_initialized;
      m_initialized = true;
    }
    if (first)
      events.insert(events.begin(), RemoteNode::Event{m_node.symbolRegistry().lookupOrDefine("initialized"), {}});
    return events;
  }

  void NodeChangeSender::collapseChanges()
  {
    m_batch.clear();
    {
      Bastion::Guard lock(m_changeMutex);
      m_batch.swap(m_queue);
    }
    // An attribute the peer announced and this side removed again before its next pass (its
    // copy arrived here and the application took it out at once) is the peer's too: the peer
    // must hear the removal, though it never heard of the addition.
    m_compressor.compress(m_batch, m_changes, [this](uint32_t symbol) {
      const PlexaSessionAttribute* session = m_storage.findBySymbol(symbol);
      return session && session->peerTypeId != 0;
    });
  }

  // ---------------------------------------------------------------------------------------------
  // Writing

  void NodeChangeSender::writeUpdates(BundleOutput& output)
  {
    collapseChanges();
    const std::vector<RemoteNode::Event> events = getEvents();
    sendSymbols(m_changes, events, output);
    sendChanges(m_changes, output);
    sendEvents(events, output);
  }

  QByteArray NodeChangeSender::pathOf(uint32_t symbol) const
  {
    QByteArray path;
    if (!m_node.symbolRegistry().lookup(symbol, path))
      return QByteArray();
    return path;
  }

  void NodeChangeSender::announce(uint32_t symbol, const QByteArray& path)
  {
    BundleWriterCore& w = m_writer.core();
    w.writeValue(symbol);
    w.writeBinary(path);
    m_announced.insert(symbol);
  }

  void NodeChangeSender::sendSymbols(const std::vector<ChangeData>& changes,
                                     const std::vector<RemoteNode::Event>& events, BundleOutput& output)
  {
    m_writer.open(BundleSender::messageType(), output);
    for (const ChangeData& change : changes) {
      // Announced symbols first: most changes of a pass concern attributes the peer knows, and
      // records are never deleted during a session, so an announced one still has its record.
      if (m_announced.count(change.symbol))
        continue;
      if (!m_storage.findBySymbol(change.symbol)) {
        Bastion::error("NodeChangeSender::sendChanges # Missing PlexaSessionAttribute when sending an attribute event. "
                       "Will ignore");
        continue;
      }
      const QByteArray path = pathOf(change.symbol);
      if (path.isEmpty()) {
        Bastion::error("NodeChangeSender # found an AttributeChange that points to an unknown symbol");
        continue;
      }
      announce(change.symbol, path);
    }
    for (const RemoteNode::Event& event : events) {
      if (m_announced.count(event.symbol))
        continue;
      const QByteArray path = pathOf(event.symbol);
      if (path.isEmpty()) {
        Bastion::error("NodeChangeSender # found an AttributeChange that points to an unknown symbol");
        continue;
      }
      announce(event.symbol, path);
    }
    m_writer.close(BundleSender::messageType(), output);
  }

  void NodeChangeSender::sendChanges(const std::vector<ChangeData>& changes, BundleOutput& output)
  {
    bool open = false;
    int currentType = -1;
    for (const ChangeData& change : changes) {
      PlexaSessionAttribute* session = m_storage.findBySymbol(change.symbol);
      if (!session) {
        Bastion::error("NodeChangeSender::sendChanges # Missing PlexaSessionAttribute when sending an attribute event. "
                       "Will ignore");
        continue;
      }
      if (int(change.type) > 2) {
        Bastion::error("NodeChangeSender # found a change with an unknown type: %d", int(change.type));
        continue;
      }
      if (int(change.type) != currentType) {
        if (open)
          m_writer.close(messageType(NodeWatcher::EventType(currentType)), output);
        currentType = int(change.type);
        m_writer.open(messageType(change.type), output);
        open = true;
      }
      switch (change.type) {
      case NodeWatcher::AttributeAdded:
        sendAdded(*session, change.changedSinceAdded, output);
        break;
      case NodeWatcher::AttributeChanged:
        sendChanged(*session, output);
        break;
      default:
        sendRemoved(*session, output);
        break;
      }
    }
    if (open)
      m_writer.close(messageType(NodeWatcher::EventType(currentType)), output);
  }

  Carafe::Attribute* NodeChangeSender::sendableAttribute(const PlexaSessionAttribute& session)
  {
    Carafe::Attribute* attribute = m_node.attributeCache().find(session.symbol);
    if (!attribute)
      Bastion::error("NodeChangeSender # Trying to send changes for a missing attribute with symbol %u. Ignoring",
                     session.symbol);
    return attribute;
  }

  void NodeChangeSender::sendAdded(PlexaSessionAttribute& session, bool changedSinceAdded, BundleOutput& output)
  {
    Carafe::Attribute* attribute = sendableAttribute(session);
    if (!attribute)
      return;
    if (session.reAdded && session.peerTypeId != 0) {
      Deserializer deserializer = m_types.createDeserializer(session.peerTypeId, attribute);
      if (!deserializer) {
        Bastion::error("NodeChangeSender::sendAdded # Tried to recreate a deserializer but failed. Will set it to null "
                       "deserializer");
        deserializer = PlexaSessionAttribute::createDummyDeserializer(session.peerSize);
      }
      session.deserializer = std::move(deserializer);
    }
    uint32_t typeId = 0;
    uint32_t size = 0;
    Serializer serializer = m_types.createSerializer(attribute, typeId, size);
    if (!serializer) {
      Bastion::error("NodeChangeSender::sendAdded # Found an attribute that we can't serialize at '%s'. Ignoring",
                     pathOf(session.symbol).constData());
      // Whatever was stored wrote an attribute that is no longer at the path.
      session.dropSerializer();
      return;
    }
    session.serializer = std::move(serializer);
    session.typeId = typeId;
    session.size = size;
    // The object the peer learns of at this path: when it was created for a peer (in this session
    // or an earlier one), the peer's removal deletes it, also when the peer never announces the
    // path back (it took its copy out again before its next pass). Anything else it keeps.
    session.createdMark = m_node.createdByPeerMark(attribute);

    uint32_t hasValue = 0;
    if (session.existedLocally && session.receivedSequence == 0)
      hasValue = 1;
    else
      hasValue = changedSinceAdded ? 1 : (session.reAdded ? 1 : 0);

    BundleWriterCore& w = m_writer.core();
    w.writeValue(session.symbol);
    w.writeValue(typeId);
    w.writeValue(size);
    w.writeValue(hasValue);
    if (hasValue)
      session.serializer(w);
    session.reAdded = false;
    session.removedSequence = 0;
    session.lastSentSequence = output.sequence();
  }

  void NodeChangeSender::sendChanged(PlexaSessionAttribute& session, BundleOutput& output)
  {
    if (!sendableAttribute(session))
      return;
    if (!session.serializer) {
      Bastion::error("NodeChangeSender::sendChanged # Found an attribute that we can't serialize at '%s'. Ignoring",
                     pathOf(session.symbol).constData());
      return;
    }
    session.lastSentSequence = output.sequence();
    BundleWriterCore& w = m_writer.core();
    w.writeValue(session.symbol);
    session.serializer(w);
  }

  void NodeChangeSender::sendRemoved(PlexaSessionAttribute& session, BundleOutput& output)
  {
    m_writer.core().writeValue(session.symbol);
    session.lastSentSequence = 0;
    session.removedSequence = output.sequence();
  }

  void NodeChangeSender::sendEvents(const std::vector<RemoteNode::Event>& events, BundleOutput& output)
  {
    if (events.empty())
      return;
    m_writer.open(m_eventType, output);
    BundleWriterCore& w = m_writer.core();
    for (const RemoteNode::Event& event : events) {
      w.writeValue(event.symbol);
      w.writeValue(uint32_t(event.data.size()));
      w.write(event.data.data(), uint32_t(event.data.size()));
    }
    m_writer.close(m_eventType, output);
  }
}
