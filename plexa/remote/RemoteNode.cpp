#include "plexa/remote/RemoteNode.hpp"

#include "plexa/remote/AttributeWalk.hpp"
#include "plexa/tracking/AliasChain.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

#include <algorithm>
#include <climits>

namespace Plexa
{
  namespace
  {
    // Process-wide, so that slice ids of different remote nodes sharing one peer never collide.
    std::atomic<int> nextSliceId{0};

    /// Events the node sends itself about its own life. Coming from the peer they would reach the
    /// same listeners: the watcher would forget live attributes or watch some twice, and every
    /// session on the node would stop as if the node had gone.
    bool isReservedEventName(const QByteArray& name)
    {
      return name == "attribute-added" || name == "attribute-removed" || name == "destroyed";
    }

    /// Restores the remembered remote event when the dispatch ends, also by an exception.
    class RemoteEventScope
    {
    public:
      RemoteEventScope(std::atomic<const QByteArray*>& name, std::atomic<const Bastion::BinaryData*>& data,
                       const QByteArray* newName, const Bastion::BinaryData* newData)
          : m_name(name)
          , m_data(data)
          , m_oldName(name.exchange(newName))
          , m_oldData(data.exchange(newData))
      {
      }
      ~RemoteEventScope()
      {
        m_name.store(m_oldName);
        m_data.store(m_oldData);
      }
      RemoteEventScope(const RemoteEventScope&) = delete;
      RemoteEventScope& operator=(const RemoteEventScope&) = delete;

    private:
      std::atomic<const QByteArray*>& m_name;
      std::atomic<const Bastion::BinaryData*>& m_data;
      const QByteArray* m_oldName;
      const Bastion::BinaryData* m_oldData;
    };
  }

  RemoteNode::RemoteNode(Carafe::Node* host, const QByteArray& id)
      : Carafe::Node(host, id)
  {
    eventAddOut("initialized");
    eventAddOut("destroyed");
    setSyncFlags(QRegularExpression(QRegularExpression::anchoredPattern("(.*/)?id"),
                                    QRegularExpression::DotMatchesEverythingOption),
                 SyncFlags::None);
    m_syncFlagSettings.back().idRule = true;
    m_watcher = std::make_unique<NodeWatcher>(m_registry, m_cache);
    m_watcher->addListener([this](const NodeWatcher::Event& e) { handleAttributeChange(e); });
    m_watcher->startWatching(*this, true);
  }

  RemoteNode::~RemoteNode()
  {
    eventSend("destroyed");
    // Deletion listeners run while the node is still whole: the watcher reports the removal of
    // the contents to its listeners before the members go.
    beginDestruction();
  }

  void RemoteNode::update()
  {
    m_watcher->update();
    std::vector<uint32_t> symbols;
    {
      Bastion::Guard lock(m_updateMutex);
      symbols.swap(m_notifyList);
      m_notifySet.clear();
    }
    for (uint32_t symbol : symbols)
      runListeners(symbol);
  }

  void RemoteNode::processPendingAdditions()
  {
    m_watcher->update();
  }

  // ---------------------------------------------------------------------------------------------
  // Events

  void RemoteNode::eventProcess(const QByteArray& name, Bastion::BinaryData& data)
  {
    if (handlingRemoteEvent(name, data))
      Carafe::Node::eventProcess(name, data);
    else
      insertEvent(name, data);
  }

  bool RemoteNode::handlingRemoteEvent(const QByteArray& name, const Bastion::BinaryData& data) const
  {
    return m_remoteName.load() == &name && m_remoteData.load() == &data;
  }

  void RemoteNode::insertEvent(const QByteArray& name, Bastion::BinaryData& data)
  {
    const Event event{m_registry.lookupOrDefine(name), data};
    std::map<long, EventListener> listeners;
    {
      Bastion::ReadGuard lock(m_eventListenerLock);
      listeners = m_eventListeners;
    }
    for (const auto& entry : listeners)
      entry.second(event);
  }

  void RemoteNode::eventProcessSlice(const QByteArray& name, Bastion::BinaryData& data, unsigned long sliceSize)
  {
    const int64_t total = data.size();
    if (sliceSize == 0 || total == 0) {
      eventProcess(name, data);
      return;
    }
    // A slice never exceeds the payload (at most 2 GiB), so the size fits the int32 item.
    const int64_t size = int64_t(std::min<unsigned long>(sliceSize, (unsigned long)INT_MAX));
    const int64_t count = (total + size - 1) / size;
    const int sliceId = nextSliceId.fetch_add(1);

    Bastion::BinaryData begin;
    begin.writeInt32(sliceId);
    begin.writeString(name);
    begin.writeInt32(int32_t(size));
    begin.writeInt64(total);
    eventProcess("event-slice-begin", begin);

    for (int64_t i = 0; i < count; ++i) {
      const int64_t offset = i * size;
      Bastion::BinaryData slice;
      slice.writeInt32(sliceId);
      slice.writeInt32(int32_t(i));
      slice.writeBlob(data.data() + offset, int(std::min(total - offset, size)));
      eventProcess("event-slice", slice);
    }
  }

  void RemoteNode::handleRemoteEvent(const QByteArray& name, Bastion::BinaryData& data, long senderId)
  {
    if (name == "event-slice-begin")
      m_slices.begin(senderId, data);
    else if (name == "event-slice")
      handleSlice(senderId, data);
    else if (name == "initialized")
      eventSend("initialized");
    else
      dispatchRemoteEvent(name, data);
  }

  void RemoteNode::handleSlice(long senderId, Bastion::BinaryData& data)
  {
    QByteArray name, bytes;
    if (!m_slices.slice(senderId, data, name, bytes))
      return;
    Bastion::BinaryData payload;
    payload.linkTo(bytes.constData(), bytes.size());
    m_handlingSlices = true;
    dispatchRemoteEvent(name, payload);
    m_handlingSlices = false;
  }

  void RemoteNode::dispatchRemoteEvent(const QByteArray& name, Bastion::BinaryData& data)
  {
    if (isReservedEventName(name)) {
      Bastion::warning("RemoteNode::handleRemoteEvent # Refused an event from the peer with the reserved name '%s'",
                       name.constData());
      return;
    }
    RemoteEventScope scope(m_remoteName, m_remoteData, &name, &data);
    eventProcess(name, data);
  }

  long RemoteNode::addEventListener(const EventListener& listener)
  {
    Bastion::WriteGuard lock(m_eventListenerLock);
    const long id = m_nextEventListenerId++;
    m_eventListeners.emplace(id, listener);
    return id;
  }

  void RemoteNode::removeEventLIstener(long id)
  {
    Bastion::WriteGuard lock(m_eventListenerLock);
    m_eventListeners.erase(id);
  }

  // ---------------------------------------------------------------------------------------------
  // Watcher events and path listeners

  long RemoteNode::addAttributeChangeListener(const NodeWatcher::Listener& listener)
  {
    return m_watcher->addListener(listener);
  }

  void RemoteNode::removeAttributeChangeListener(long id)
  {
    m_watcher->removeListener(id);
  }
  void RemoteNode::ignoreOne(const NodeWatcher::Event& event)
  {
    m_watcher->ignoreOne(event);
  }
  void RemoteNode::stopIgnoring(const NodeWatcher::Event& event)
  {
    m_watcher->stopIgnoring(event);
  }

  void RemoteNode::handleAttributeChange(const NodeWatcher::Event& event)
  {
    switch (event.type) {
    case NodeWatcher::AttributeAdded:
      if (!m_pendingListeners.empty() || !m_syncFlagSettings.empty()) {
        // One lookup and at most one conversion of the path for all the patterns; none when the
        // built-in id rule is the only one.
        QByteArray path;
        if (m_registry.lookup(event.symbol, path)) {
          const bool onlyIdRule =
              m_pendingListeners.empty() && m_syncFlagSettings.size() == 1 && m_syncFlagSettings.front().idRule;
          const QString text = onlyIdRule ? QString() : QString::fromUtf8(path);
          checkForPendingListeners(event.symbol, text);
          checkForSyncFlags(event.symbol, path, text);
        }
      }
      queueNotify(event.symbol);
      break;
    case NodeWatcher::AttributeChanged:
      queueNotify(event.symbol);
      break;
    case NodeWatcher::NodeRemoved:
      if (!m_createdForPeer.empty()) {
        if (Carafe::Attribute* node = m_cache.find(event.symbol))
          m_createdForPeer.erase(node);
      }
      break;
    case NodeWatcher::AttributeRemoved: {
      // The cache still holds the attribute while its removal is reported.
      if (!m_createdForPeer.empty()) {
        if (Carafe::Attribute* attribute = m_cache.find(event.symbol))
          m_createdForPeer.erase(attribute);
      }
      Bastion::Guard lock(m_updateMutex);
      if (m_notifySet.erase(event.symbol) != 0)
        m_notifyList.erase(std::find(m_notifyList.begin(), m_notifyList.end(), event.symbol));
      break;
    }
    default:
      break;
    }
  }

  void RemoteNode::queueNotify(uint32_t symbol)
  {
    // Only symbols with path listeners can have anything to run; skipping the others keeps
    // ordinary value changes cheap. Both tables belong to the application thread.
    if (m_attributeListeners.count(symbol) == 0)
      return;
    Bastion::Guard lock(m_updateMutex);
    if (m_notifySet.insert(symbol).second)
      m_notifyList.push_back(symbol);
  }

  void RemoteNode::runListeners(uint32_t symbol)
  {
    auto it = m_attributeListeners.find(symbol);
    if (it == m_attributeListeners.end())
      return;
    // A copy: callbacks may register more listeners.
    const std::map<unsigned long, AttributeCallback> callbacks = it->second;
    for (const auto& entry : callbacks)
      entry.second(m_cache.find(symbol));
  }

  bool RemoteNode::matches(const QRegularExpression& pattern, const QByteArray& path) const
  {
    return pattern.match(QString::fromUtf8(path)).hasMatch();
  }

  void RemoteNode::addAttributeListener(uint32_t symbol, const PendingAttributeListener& listener)
  {
    m_attributeListeners[symbol].emplace(listener.key, listener.callback);
    queueNotify(symbol);
  }

  void RemoteNode::onChangeImpl(const QRegularExpression& pattern, AttributeCallback callback)
  {
    m_pendingListeners.push_back({pattern, std::move(callback), m_nextAttributeListenerKey++});
    const PendingAttributeListener listener = m_pendingListeners.back();
    walkAttributesWithPath(*this, [&](Carafe::Attribute&, const QByteArray& path) {
      if (matches(listener.pattern, path))
        addAttributeListener(m_registry.lookupOrDefine(path), listener);
    });
  }

  void RemoteNode::checkForPendingListeners(uint32_t symbol, const QString& path)
  {
    for (const PendingAttributeListener& listener : m_pendingListeners) {
      if (listener.pattern.match(path).hasMatch())
        addAttributeListener(symbol, listener);
    }
  }

  // ---------------------------------------------------------------------------------------------
  // Sync flags and paths

  QRegularExpression RemoteNode::makeRegExp(const QString& pattern)
  {
    QString rx = QRegularExpression::escape(pattern);
    rx.replace(QLatin1String("\\*\\*"), QLatin1String(".+"));
    rx.replace(QLatin1String("\\*"), QLatin1String("[^/]+"));
    // Anchored with \A and \z, not ^ and $: "$" would also match before a final newline, and a
    // path is any text a peer sends. "**" spans newlines too.
    return QRegularExpression(QRegularExpression::anchoredPattern(rx), QRegularExpression::DotMatchesEverythingOption);
  }

  void RemoteNode::setSyncFlags(const QRegularExpression& pattern, SyncFlags::Flag flag)
  {
    updateSyncFlags(pattern, flag);
    m_syncFlagSettings.push_back({pattern, flag});
  }

  void RemoteNode::updateSyncFlags(const QRegularExpression& pattern, SyncFlags::Flag flag)
  {
    walkAttributesWithPath(*this, [&](Carafe::Attribute&, const QByteArray& path) {
      if (matches(pattern, path))
        m_syncFlags.setFlags(m_registry.lookupOrDefine(path), flag);
    });
  }

  void RemoteNode::checkForSyncFlags(uint32_t symbol)
  {
    QByteArray path;
    if (m_registry.lookup(symbol, path))
      checkForSyncFlags(symbol, path, QString::fromUtf8(path));
  }

  void RemoteNode::checkForSyncFlags(uint32_t symbol, const QByteArray& path, const QString& text)
  {
    for (const SyncFlagSetting& setting : m_syncFlagSettings) {
      if (matches(setting, path, text))
        m_syncFlags.setFlags(symbol, setting.flag);
    }
  }

  bool RemoteNode::matches(const SyncFlagSetting& setting, const QByteArray& path, const QString& text)
  {
    if (setting.idRule)
      return path == "id" || path.endsWith("/id");
    return setting.pattern.match(text).hasMatch();
  }

  bool RemoteNode::addDeepAttribute(const QByteArray& path, Carafe::Attribute* attribute)
  {
    if (path.startsWith('/')) {
      Bastion::error("RemoteNode::addDeepAttribute # full name shouldn't start with '/': %s", path.constData());
      return false;
    }
    if (!attribute) {
      Bastion::error("RemoteNode::addDeepAttribute # got a null attribute. Ignoring");
      return false;
    }
    QList<QByteArray> parts = path.split('/');
    const QByteArray name = parts.takeLast();
    Carafe::Node* node = this;
    for (const QByteArray& part : parts) {
      if (part.isEmpty()) {
        Bastion::error("RemoteNode::addDeepAttribute # empty name in path: %s", path.constData());
        return false;
      }
      Carafe::Attribute* existing = node->attribute(part);
      if (!existing) {
        node = new Carafe::Node(node, part);
        continue;
      }
      node = dynamic_cast<Carafe::Node*>(finalTarget(existing));
      if (!node) {
        Bastion::error("RemoteNode::addDeepAttribute # Failed to add attribute. An attribute already exists on the "
                       "path where a node is expected.");
        return false;
      }
    }
    return node->addAttribute(name, attribute);
  }

  bool RemoteNode::addNode(const QByteArray& path, Carafe::Node* node)
  {
    return addDeepAttribute(path, node);
  }
}
