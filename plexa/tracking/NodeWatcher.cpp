#include "plexa/tracking/NodeWatcher.hpp"

#include "plexa/tracking/AliasChain.hpp"
#include "plexa/tracking/AttributeCache.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/FlatHash.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "carafe/AttributeAlias.hpp"
#include "carafe/ListenerHolder.hpp"
#include "carafe/Node.hpp"

#include <QVarLengthArray>

#include <algorithm>
#include <atomic>
#include <deque>
#include <set>
#include <unordered_map>

namespace Plexa
{
  namespace
  {
    QByteArray childPath(const QByteArray& path, const QByteArray& name)
    {
      if (path.isEmpty())
        return name;
      QByteArray p;
      p.reserve(path.size() + 1 + name.size());
      p += path;
      p += '/';
      p += name;
      return p;
    }

    /// The listener table, sorted by id (ids only grow, so appending keeps the order). Tables are
    /// immutable once published: a change publishes a new one.
    using ListenerTable = std::vector<std::pair<long, NodeWatcher::Listener>>;

    std::atomic<uint64_t> nextWatcherId{1};

    /// Each thread keeps the last table it dispatched with, tagged with the watcher and the table
    /// version, so that a dispatch normally takes neither the listener lock nor a reference count
    /// (one value change = one event; this is the hot path). A table replaced while a dispatch
    /// of this thread may still walk it is parked until the outermost dispatch returns.
    struct DispatchCache
    {
      uint64_t watcher = 0;
      uint64_t version = 0;
      std::shared_ptr<const ListenerTable> table;
      int depth = 0;
      std::vector<std::shared_ptr<const ListenerTable>> parked;

      void drop()
      {
        if (depth > 0 && table)
          parked.push_back(std::move(table));
        table.reset();
        watcher = 0;
      }
    };

    // Initial-exec: one load instead of a call to find the block (the library is linked, not
    // loaded at run time, and the block is small).
    thread_local DispatchCache dispatchCache __attribute__((tls_model("initial-exec")));

    /// An object added at run time whose description waits for the next update (or its first
    /// change). The temporary change listener goes away with the record or when it is claimed.
    struct PendingAdded
    {
      std::atomic<uint8_t> taken{0};
      uint32_t symbol;
      Carafe::Attribute* attribute;
      bool send;
      long listenerId;
      bool listenerRemoved = false;

      PendingAdded(uint32_t s, Carafe::Attribute* a, bool snd, long id)
          : symbol(s)
          , attribute(a)
          , send(snd)
          , listenerId(id)
      {
      }
      ~PendingAdded() { removeListener(); }
      PendingAdded(const PendingAdded&) = delete;
      PendingAdded& operator=(const PendingAdded&) = delete;

      bool claim()
      {
        uint8_t expected = 0;
        return taken.compare_exchange_strong(expected, 1);
      }

      // Called while the attribute is alive: when the record is claimed (the attribute is being
      // described, so its permanent listeners take over) or dropped from the queue by a removal.
      void removeListener()
      {
        if (!listenerRemoved) {
          listenerRemoved = true;
          attribute->removeListener(listenerId);
        }
      }
    };
  }

  class NodeWatcher::D
  {
  public:
    D(Bastion::SymbolRegistry& registry, AttributeCache& cache)
        : m_registry(registry)
        , m_cache(cache)
    {
    }
    ~D()
    {
      // Do not keep this watcher's listeners (and what they capture) alive in this thread's cache.
      if (dispatchCache.watcher == m_id)
        dispatchCache.drop();
    }

    void startWatching(Carafe::Node& root, bool send);
    void update();
    long addListener(const Listener& listener) BASTION_EXCLUDES(m_listenerLock);
    void removeListener(long id) BASTION_EXCLUDES(m_listenerLock);
    void ignoreOne(const Event& event) BASTION_EXCLUDES(m_ignoreMutex);
    void stopIgnoring(const Event& event) BASTION_EXCLUDES(m_ignoreMutex);
    bool isPendingUpdate(uint32_t symbol) const BASTION_EXCLUDES(m_queueMutex);
    std::vector<uint32_t> pendingSymbols() const BASTION_EXCLUDES(m_queueMutex);

  private:
    /// Calls the listeners without any lock of the watcher held.
    void event(EventType type, uint32_t symbol) BASTION_EXCLUDES(m_ignoreMutex, m_listenerLock);

    /// A child met by a walk, described once the walk comes to it.
    struct ChildToAdd
    {
      Carafe::Attribute* child;
      QByteArray parentPath;
    };
    using AddStack = std::vector<ChildToAdd>;

    void somethingAdded(Carafe::Attribute* attribute, const QByteArray& path, uint32_t symbol, bool send);
    void nodeAdded(Carafe::Node* node, const QByteArray& path, uint32_t symbol, bool send);
    void addChildren(AddStack& stack, bool send);
    void addOne(Carafe::Attribute* attribute, const QByteArray& path, uint32_t symbol, bool send, AddStack& stack);
    void attributeAdded(Carafe::Attribute* attribute, uint32_t symbol, bool send);
    void watchNode(Carafe::Node* node, const QByteArray& path, uint32_t symbol, bool send, AddStack& stack);
    void aliasAdded(Carafe::AttributeAlias* alias, const QByteArray& path, uint32_t symbol, bool send, AddStack& stack);
    uint32_t ensureCached(Carafe::Attribute* attribute, const QByteArray& path);

    void onChildAdded(Carafe::Node* node, const QByteArray& nodePath, Bastion::BinaryData& data);
    void onChildRemoved(const QByteArray& nodePath, Bastion::BinaryData& data);
    void processPendingAdded(PendingAdded& record);
    void processPendingAddedChanged(uint32_t symbol);
    std::shared_ptr<PendingAdded> takePending(uint32_t symbol) BASTION_EXCLUDES(m_queueMutex);

    void listen(Carafe::Attribute* object, uint32_t symbol, std::function<void()> callback, int role);
    void listenEvent(Carafe::Node* node, uint32_t symbol, const char* name,
                     std::function<void(Bastion::BinaryData&)> callback);
    void unlisten(Carafe::Attribute* object, uint32_t symbol);
    /// A listener the watcher put on an object for the path of `symbol`.
    struct Installed
    {
      long id;
      uint32_t symbol;
      bool nodeEvent;
    };
    /// The listeners of one (object, path): one for an attribute, three at most for a node.
    using InstalledList = QVarLengthArray<Installed, 3>;
    void installed(Carafe::Attribute* object, const Installed& entry);
    /// Drops the entries of (object, path) from the tables and returns them.
    InstalledList forget(Carafe::Attribute* object, uint32_t symbol);

    /// A node whose children a removal walk is taking out; the node itself follows them.
    struct NodeToRemove
    {
      /// The object as its host holds it (the node, or an alias to it); null for the node a
      /// removal started from, whose caller finishes it.
      Carafe::Attribute* attribute;
      Carafe::Node* node;
      QByteArray path;
      uint32_t symbol;
      std::vector<Carafe::Attribute*> children;
      size_t next;
    };
    using RemoveStack = std::vector<NodeToRemove>;

    void somethingRemoved(Carafe::Attribute* attribute, const QByteArray& path, uint32_t symbol, bool send);
    void nodeRemoved(Carafe::Node* node, const QByteArray& path, uint32_t symbol, bool send);
    void removeChildren(RemoveStack& stack, bool send);
    void beginRemoval(Carafe::Attribute* attribute, const QByteArray& path, uint32_t symbol, bool send,
                      RemoveStack& stack);
    void finishRemoval(Carafe::Attribute* attribute, Carafe::Attribute* target, uint32_t symbol);
    void attributeRemoved(uint32_t symbol, bool send);
    void onAliasChanged(Carafe::AttributeAlias* alias, const QByteArray& path, uint32_t symbol, bool send);

    // Constant after construction.
    Bastion::SymbolRegistry& m_registry;
    AttributeCache& m_cache;

    // Used on the thread that changes the tree.
    Carafe::ListenerHolder m_holder;
    // The listeners installed per (object, symbol). One object can be watched under several
    // paths (a node in the tree and an alias to it); leaving one path must not silence the others,
    // so removals take out the listeners of that path only. Objects that go away unannounced are
    // forgotten by the holder, and removing an unknown id from a live object does nothing.
    /// The first listener put on each object: a plain attribute, by far the most common object,
    /// has this one only, so it costs one flat slot and no allocation.
    Bastion::FlatHash<Carafe::Attribute*, Installed> m_firstInstalled;
    /// Every further listener (a node's, an object under a second path), with its object.
    std::unordered_multimap<Carafe::Attribute*, Installed> m_moreInstalled;

    mutable Bastion::Mutex m_aliasMutex;
    std::unordered_map<Carafe::AttributeAlias*, Carafe::Attribute*> m_aliases BASTION_GUARDED_BY(m_aliasMutex);

    mutable Bastion::Mutex m_queueMutex;
    std::deque<std::shared_ptr<PendingAdded>> m_pending BASTION_GUARDED_BY(m_queueMutex);

    Bastion::Mutex m_ignoreMutex;
    std::set<Event> m_ignored BASTION_GUARDED_BY(m_ignoreMutex);
    // Size of m_ignored, so that dispatch skips the mutex while nothing is ignored.
    std::atomic<int> m_ignoredCount{0};

    const uint64_t m_id = nextWatcherId.fetch_add(1);
    Bastion::SharedMutex m_listenerLock;
    // Replaced, never edited: a dispatch takes the current table as
    // its snapshot and calls it after releasing the lock.
    std::shared_ptr<const ListenerTable>
        m_listeners BASTION_GUARDED_BY(m_listenerLock) = std::make_shared<ListenerTable>();
    long m_nextListenerId BASTION_GUARDED_BY(m_listenerLock) = 0;
    // Bumped (under the write lock) whenever m_listeners is replaced; read without the lock to
    // tell whether a thread's cached snapshot is still current.
    std::atomic<uint64_t> m_listenerVersion{0};

    std::atomic<bool> m_watching{false};
  };

  // ---------------------------------------------------------------------------------------------
  // Dispatch, listeners, ignore requests

  void NodeWatcher::D::event(EventType type, uint32_t symbol)
  {
    if (m_ignoredCount.load(std::memory_order_acquire) != 0) {
      Bastion::Guard lock(m_ignoreMutex);
      if (m_ignored.erase(Event{type, symbol}) != 0) {
        m_ignoredCount.store(int(m_ignored.size()), std::memory_order_release);
        return;
      }
    }
    DispatchCache& cache = dispatchCache;
    if (cache.watcher != m_id || cache.version != m_listenerVersion.load(std::memory_order_acquire)) {
      std::shared_ptr<const ListenerTable> table;
      uint64_t version;
      {
        Bastion::ReadGuard lock(m_listenerLock);
        table = m_listeners;
        version = m_listenerVersion.load(std::memory_order_relaxed);
      }
      cache.drop();
      cache.table = std::move(table);
      cache.watcher = m_id;
      cache.version = version;
    }
    struct Depth
    {
      DispatchCache& cache;
      explicit Depth(DispatchCache& c)
          : cache(c)
      {
        ++cache.depth;
      }
      ~Depth()
      {
        if (--cache.depth == 0)
          cache.parked.clear();
      }
    } depth(cache);
    const ListenerTable& listeners = *cache.table;
    const Event e{type, symbol};
    for (const auto& entry : listeners)
      entry.second(e);
  }

  long NodeWatcher::D::addListener(const Listener& listener)
  {
    Bastion::WriteGuard lock(m_listenerLock);
    auto table = std::make_shared<ListenerTable>(*m_listeners);
    const long id = m_nextListenerId++;
    table->emplace_back(id, listener);
    m_listeners = std::move(table);
    m_listenerVersion.fetch_add(1, std::memory_order_release);
    return id;
  }

  void NodeWatcher::D::removeListener(long id)
  {
    Bastion::WriteGuard lock(m_listenerLock);
    auto it = std::find_if(m_listeners->begin(), m_listeners->end(), [id](const auto& e) { return e.first == id; });
    if (it == m_listeners->end())
      return;
    auto table = std::make_shared<ListenerTable>(*m_listeners);
    table->erase(table->begin() + (it - m_listeners->begin()));
    m_listeners = std::move(table);
    m_listenerVersion.fetch_add(1, std::memory_order_release);
  }

  void NodeWatcher::D::ignoreOne(const Event& event)
  {
    bool inserted;
    {
      Bastion::Guard lock(m_ignoreMutex);
      inserted = m_ignored.insert(event).second;
      m_ignoredCount.store(int(m_ignored.size()), std::memory_order_release);
    }
    if (!inserted)
      Bastion::warning("NodeWatcher # called ignoreOne for an event that is already ignored");
  }

  void NodeWatcher::D::stopIgnoring(const Event& event)
  {
    Bastion::Guard lock(m_ignoreMutex);
    m_ignored.erase(event);
    m_ignoredCount.store(int(m_ignored.size()), std::memory_order_release);
  }

  // ---------------------------------------------------------------------------------------------
  // Additions

  void NodeWatcher::D::startWatching(Carafe::Node& root, bool send)
  {
    if (m_watching.exchange(true)) {
      Bastion::error("NodeWatcher can only watch one node at a time");
      return;
    }
    const uint32_t rootSymbol = m_registry.lookupOrDefine(QByteArray(""));
    m_cache.add(rootSymbol, &root);
    nodeAdded(&root, QByteArray(), rootSymbol, send);
    Carafe::Node* rootPtr = &root;
    listen(
        rootPtr, rootSymbol,
        [this, rootPtr, rootSymbol] {
          nodeRemoved(rootPtr, QByteArray(), rootSymbol, true);
          forget(rootPtr, rootSymbol);
        },
        Carafe::Attribute::RoleDeleted);
  }

  void NodeWatcher::D::listen(Carafe::Attribute* object, uint32_t symbol, std::function<void()> callback, int role)
  {
    const long id = m_holder.add(object, std::move(callback), role);
    if (id >= 0)
      installed(object, {id, symbol, false});
  }

  void NodeWatcher::D::listenEvent(Carafe::Node* node, uint32_t symbol, const char* name,
                                   std::function<void(Bastion::BinaryData&)> callback)
  {
    const long id = m_holder.addBd(node, name, std::move(callback), Carafe::Node::After);
    if (id >= 0)
      installed(node, {id, symbol, true});
  }

  void NodeWatcher::D::installed(Carafe::Attribute* object, const Installed& entry)
  {
    if (!m_firstInstalled.insert(object, entry).second)
      m_moreInstalled.emplace(object, entry);
  }

  NodeWatcher::D::InstalledList NodeWatcher::D::forget(Carafe::Attribute* object, uint32_t symbol)
  {
    InstalledList taken;
    if (const Installed* first = m_firstInstalled.find(object); first && first->symbol == symbol) {
      taken.push_back(*first);
      m_firstInstalled.erase(object);
    }
    if (!m_moreInstalled.empty()) {
      auto range = m_moreInstalled.equal_range(object);
      for (auto it = range.first; it != range.second;) {
        if (it->second.symbol == symbol) {
          taken.push_back(it->second);
          it = m_moreInstalled.erase(it);
        } else {
          ++it;
        }
      }
    }
    return taken;
  }

  void NodeWatcher::D::unlisten(Carafe::Attribute* object, uint32_t symbol)
  {
    // Out of the tables before any call, so that the tables are consistent whatever a removal does.
    const InstalledList installed = forget(object, symbol);
    for (const Installed& entry : installed) {
      if (entry.nodeEvent)
        static_cast<Carafe::Node*>(object)->eventRemoveListener(entry.id);
      else
        object->removeListener(entry.id);
    }
  }

  // Additions and removals walk the tree with explicit stacks rather than recursion, so that a
  // tree as deep as memory allows (a chain of nodes) cannot overflow the thread's stack. The
  // events come in the order a recursive walk would give: depth first, each node before its
  // children on addition and after them on removal.

  void NodeWatcher::D::somethingAdded(Carafe::Attribute* attribute, const QByteArray& path, uint32_t symbol, bool send)
  {
    AddStack stack;
    addOne(attribute, path, symbol, send, stack);
    addChildren(stack, send);
  }

  void NodeWatcher::D::nodeAdded(Carafe::Node* node, const QByteArray& path, uint32_t symbol, bool send)
  {
    AddStack stack;
    watchNode(node, path, symbol, send, stack);
    addChildren(stack, send);
  }

  void NodeWatcher::D::addChildren(AddStack& stack, bool send)
  {
    while (!stack.empty()) {
      ChildToAdd next = std::move(stack.back());
      stack.pop_back();
      if (next.child->name().isEmpty())
        Bastion::warning("NodeWatcher # Found an attribute with an empty name. This should never happen");
      const QByteArray path = childPath(next.parentPath, next.child->name());
      const uint32_t symbol = ensureCached(next.child, path);
      addOne(next.child, path, symbol, send, stack);
    }
  }

  void NodeWatcher::D::addOne(Carafe::Attribute* attribute, const QByteArray& path, uint32_t symbol, bool send,
                              AddStack& stack)
  {
    if (auto* alias = dynamic_cast<Carafe::AttributeAlias*>(attribute))
      aliasAdded(alias, path, symbol, send, stack);
    else if (auto* node = dynamic_cast<Carafe::Node*>(attribute))
      watchNode(node, path, symbol, send, stack);
    else
      attributeAdded(attribute, symbol, send);
  }

  void NodeWatcher::D::attributeAdded(Carafe::Attribute* attribute, uint32_t symbol, bool send)
  {
    listen(
        attribute, symbol, [this, symbol] { event(AttributeChanged, symbol); }, Carafe::Attribute::RoleChanged);
    if (send)
      event(AttributeAdded, symbol);
  }

  void NodeWatcher::D::watchNode(Carafe::Node* node, const QByteArray& path, uint32_t symbol, bool send,
                                 AddStack& stack)
  {
    m_cache.setIsNode(symbol, true);
    listenEvent(node, symbol, "attribute-added",
                [this, node, path](Bastion::BinaryData& data) { onChildAdded(node, path, data); });
    listenEvent(node, symbol, "attribute-removed",
                [this, path](Bastion::BinaryData& data) { onChildRemoved(path, data); });
    if (send)
      event(NodeAdded, symbol);
    // Last child at the bottom of the stack: the first one is described first.
    const std::vector<Carafe::Attribute*> children = node->attributes();
    for (auto it = children.rbegin(); it != children.rend(); ++it) {
      if (*it)
        stack.push_back({*it, path});
    }
  }

  uint32_t NodeWatcher::D::ensureCached(Carafe::Attribute* attribute, const QByteArray& path)
  {
    const uint32_t symbol = m_registry.lookupOrDefine(path);
    if (!m_cache.find(symbol))
      m_cache.add(symbol, attribute);
    return symbol;
  }

  void NodeWatcher::D::aliasAdded(Carafe::AttributeAlias* alias, const QByteArray& path, uint32_t symbol, bool send,
                                  AddStack& stack)
  {
    Carafe::Attribute* target = finalTarget(alias);
    {
      Bastion::Guard lock(m_aliasMutex);
      m_aliases[alias] = target;
    }
    listen(
        alias, symbol, [this, alias, path, symbol] { onAliasChanged(alias, path, symbol, true); },
        Carafe::Attribute::RoleChanged);
    if (auto* node = dynamic_cast<Carafe::Node*>(target))
      watchNode(node, path, symbol, send, stack);
    else if (target && send)
      event(AttributeAdded, symbol);
  }

  void NodeWatcher::D::onChildAdded(Carafe::Node* node, const QByteArray& nodePath, Bastion::BinaryData& data)
  {
    QByteArray name;
    if (!data.readString(name))
      return;
    Carafe::Attribute* child = node->attribute(name);
    if (!child)
      return;
    const uint32_t symbol = ensureCached(child, childPath(nodePath, name));

    bool send = true;
    {
      Bastion::Guard lock(m_ignoreMutex);
      if (m_ignored.erase(Event{AttributeAdded, symbol}) != 0 || m_ignored.erase(Event{NodeAdded, symbol}) != 0)
        send = false;
      m_ignoredCount.store(int(m_ignored.size()), std::memory_order_release);
    }

    // The temporary listener is registered directly on the attribute (not through the holder):
    // the record removes exactly this one listener when it is claimed or dropped.
    const long listenerId =
        child->addListener([this, symbol] { processPendingAddedChanged(symbol); }, Carafe::Attribute::RoleChanged);
    auto record = std::make_shared<PendingAdded>(symbol, child, send, listenerId);
    Bastion::Guard lock(m_queueMutex);
    m_pending.push_back(std::move(record));
  }

  void NodeWatcher::D::update()
  {
    while (true) {
      std::shared_ptr<PendingAdded> record;
      {
        Bastion::Guard lock(m_queueMutex);
        if (m_pending.empty())
          return;
        record = std::move(m_pending.front());
        m_pending.pop_front();
      }
      if (record->claim())
        processPendingAdded(*record);
    }
  }

  void NodeWatcher::D::processPendingAdded(PendingAdded& record)
  {
    // From here on the object's own listeners report its changes.
    record.removeListener();
    Carafe::Attribute* attribute = m_cache.find(record.symbol);
    if (!attribute) {
      Bastion::error("NodeWatcher::processPendingAdded # Could not find attribute in cache");
      return;
    }
    // Only nodes and aliases need their path (for their children's); a plain attribute, by far
    // the most common addition, is described by its symbol alone.
    QByteArray path;
    const bool needsPath = dynamic_cast<Carafe::AttributeAlias*>(attribute) != nullptr ||
                           dynamic_cast<Carafe::Node*>(attribute) != nullptr;
    if (needsPath && !m_registry.lookup(record.symbol, path))
      path.clear();
    somethingAdded(attribute, path, record.symbol, record.send);
  }

  std::shared_ptr<PendingAdded> NodeWatcher::D::takePending(uint32_t symbol)
  {
    Bastion::Guard lock(m_queueMutex);
    for (auto it = m_pending.begin(); it != m_pending.end(); ++it) {
      if ((*it)->symbol == symbol) {
        std::shared_ptr<PendingAdded> record = std::move(*it);
        m_pending.erase(it);
        return record;
      }
    }
    return nullptr;
  }

  void NodeWatcher::D::processPendingAddedChanged(uint32_t symbol)
  {
    if (std::shared_ptr<PendingAdded> record = takePending(symbol)) {
      if (record->claim())
        processPendingAdded(*record);
    }
    Carafe::Attribute* attribute = m_cache.find(symbol);
    if (!attribute) {
      Bastion::error("NodeWatcher::processPendingAddedChanged # Could not find attribute in cache");
      return;
    }
    if (!dynamic_cast<Carafe::AttributeAlias*>(attribute))
      event(AttributeChanged, symbol);
  }

  bool NodeWatcher::D::isPendingUpdate(uint32_t symbol) const
  {
    Bastion::Guard lock(m_queueMutex);
    for (const auto& record : m_pending) {
      if (record->symbol == symbol)
        return true;
    }
    return false;
  }

  std::vector<uint32_t> NodeWatcher::D::pendingSymbols() const
  {
    std::vector<uint32_t> symbols;
    {
      Bastion::Guard lock(m_queueMutex);
      symbols.reserve(m_pending.size());
      for (const auto& record : m_pending)
        symbols.push_back(record->symbol);
    }
    std::sort(symbols.begin(), symbols.end());
    return symbols;
  }

  // ---------------------------------------------------------------------------------------------
  // Removals

  void NodeWatcher::D::onChildRemoved(const QByteArray& nodePath, Bastion::BinaryData& data)
  {
    QByteArray name;
    if (!data.readString(name))
      return;
    const QByteArray path = childPath(nodePath, name);
    const uint32_t symbol = m_registry.lookup(path);
    Carafe::Attribute* attribute = m_cache.find(symbol);
    if (!attribute)
      return;
    bool send = true;
    if (auto* alias = dynamic_cast<Carafe::AttributeAlias*>(attribute)) {
      // An alias that pointed to nothing was never reported as added.
      Bastion::Guard lock(m_aliasMutex);
      auto it = m_aliases.find(alias);
      if (it != m_aliases.end() && it->second == nullptr)
        send = false;
    }
    somethingRemoved(attribute, path, symbol, send);
  }

  void NodeWatcher::D::somethingRemoved(Carafe::Attribute* attribute, const QByteArray& path, uint32_t symbol,
                                        bool send)
  {
    RemoveStack stack;
    beginRemoval(attribute, path, symbol, send, stack);
    removeChildren(stack, send);
  }

  void NodeWatcher::D::nodeRemoved(Carafe::Node* node, const QByteArray& path, uint32_t symbol, bool send)
  {
    RemoveStack stack;
    stack.push_back({nullptr, node, path, symbol, node->attributes(), 0});
    removeChildren(stack, send);
  }

  void NodeWatcher::D::removeChildren(RemoveStack& stack, bool send)
  {
    while (!stack.empty()) {
      NodeToRemove& top = stack.back();
      if (top.next < top.children.size()) {
        Carafe::Attribute* child = top.children[top.next++];
        if (!child)
          continue;
        const QByteArray path = childPath(top.path, child->name());
        beginRemoval(child, path, m_registry.lookup(path), send, stack);
        continue;
      }
      NodeToRemove done = std::move(stack.back());
      stack.pop_back();
      if (send)
        event(NodeRemoved, done.symbol);
      if (done.attribute)
        finishRemoval(done.attribute, done.node, done.symbol);
    }
  }

  void NodeWatcher::D::beginRemoval(Carafe::Attribute* attribute, const QByteArray& path, uint32_t symbol, bool send,
                                    RemoveStack& stack)
  {
    std::shared_ptr<PendingAdded> record = takePending(symbol);
    Carafe::Attribute* target = finalTarget(attribute);
    if (record) {
      // Never reported: report the whole life at once.
      if (send && target) {
        const bool isNode = dynamic_cast<Carafe::Node*>(target) != nullptr;
        event(isNode ? NodeAdded : AttributeAdded, record->symbol);
        event(isNode ? NodeRemoved : AttributeRemoved, record->symbol);
      }
    } else if (auto* node = dynamic_cast<Carafe::Node*>(target)) {
      // Finished once its children are out.
      stack.push_back({attribute, node, path, symbol, node->attributes(), 0});
      return;
    } else {
      attributeRemoved(symbol, send);
    }
    record.reset();
    finishRemoval(attribute, target, symbol);
  }

  void NodeWatcher::D::finishRemoval(Carafe::Attribute* attribute, Carafe::Attribute* target, uint32_t symbol)
  {
    unlisten(attribute, symbol);
    // A node reached through an alias was watched under the alias's path as well.
    if (target && target != attribute)
      unlisten(target, symbol);
    m_cache.remove(symbol);
    if (auto* alias = dynamic_cast<Carafe::AttributeAlias*>(attribute)) {
      Bastion::Guard lock(m_aliasMutex);
      m_aliases.erase(alias);
    }
  }

  void NodeWatcher::D::attributeRemoved(uint32_t symbol, bool send)
  {
    if (send)
      event(m_cache.isNode(symbol) ? NodeRemoved : AttributeRemoved, symbol);
  }

  void NodeWatcher::D::onAliasChanged(Carafe::AttributeAlias* alias, const QByteArray& path, uint32_t symbol, bool send)
  {
    Carafe::Attribute* newTarget = finalTarget(alias);
    Carafe::Attribute* oldTarget = nullptr;
    {
      Bastion::Guard lock(m_aliasMutex);
      Carafe::Attribute*& entry = m_aliases[alias];
      oldTarget = entry;
      entry = newTarget;
    }
    if (newTarget == oldTarget) {
      if (newTarget && send)
        event(AttributeChanged, symbol);
      return;
    }
    if (oldTarget) {
      if (auto* node = dynamic_cast<Carafe::Node*>(oldTarget)) {
        nodeRemoved(node, path, symbol, send);
        unlisten(node, symbol);
      } else if (send)
        event(m_cache.isNode(symbol) ? NodeRemoved : AttributeRemoved, symbol);
    }
    if (newTarget) {
      if (auto* node = dynamic_cast<Carafe::Node*>(newTarget)) {
        nodeAdded(node, path, symbol, send);
      } else if (send) {
        m_cache.setIsNode(symbol, false);
        event(AttributeAdded, symbol);
      }
    }
  }

  // ---------------------------------------------------------------------------------------------
  // Public shell

  NodeWatcher::NodeWatcher(Bastion::SymbolRegistry& registry, AttributeCache& cache)
      : d(std::make_unique<D>(registry, cache))
  {
  }

  NodeWatcher::~NodeWatcher() = default;

  void NodeWatcher::startWatching(Carafe::Node& root, bool send)
  {
    d->startWatching(root, send);
  }
  void NodeWatcher::update()
  {
    d->update();
  }
  long NodeWatcher::addListener(const Listener& listener)
  {
    return d->addListener(listener);
  }
  void NodeWatcher::removeListener(long id)
  {
    d->removeListener(id);
  }
  void NodeWatcher::ignoreOne(const Event& event)
  {
    d->ignoreOne(event);
  }
  void NodeWatcher::stopIgnoring(const Event& event)
  {
    d->stopIgnoring(event);
  }
  bool NodeWatcher::isPendingUpdate(uint32_t symbol) const
  {
    return d->isPendingUpdate(symbol);
  }
  std::vector<uint32_t> NodeWatcher::pendingSymbols() const
  {
    return d->pendingSymbols();
  }
}
