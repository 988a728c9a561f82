#pragma once

#include "plexa/remote/SliceAssembler.hpp"
#include "plexa/remote/SyncFlags.hpp"
#include "plexa/tracking/AttributeCache.hpp"
#include "plexa/tracking/NodeWatcher.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/FlatHash.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/SharedMutex.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "carafe/Node.hpp"

#include <QRegularExpression>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <unordered_map>
#include <unordered_set>
#include <vector>

namespace Plexa
{
  /// A node whose contents and events are mirrored with a peer.
  ///
  /// Attributes put under it are watched and published by the session's change sender;
  /// attributes and events from the peer are applied to it by the receivers. Events sent into
  /// it by the application (`eventProcess`) go to the peer instead of being handled here;
  /// events from the peer (`handleRemoteEvent`) are handled here as on any node.
  ///
  /// Threads: the tree, the path listeners (`onChangeImpl`) and `update()` belong to the
  /// application thread. Event listeners may be added, removed and fed from any thread; no lock
  /// of the node is held while a listener runs, so listeners may add or remove listeners.
  ///
  /// Outgoing node events: "initialized" (the peer's sender has started), "destroyed" (sent
  /// first thing in the destructor).
  class RemoteNode : public Carafe::Node
  {
  public:
    /// An event on its way to the peer: the symbol of its name and a copy of its payload.
    struct Event
    {
      uint32_t symbol;
      Bastion::BinaryData data;
    };

    using EventListener = std::function<void(const Event&)>;
    using AttributeCallback = std::function<void(Carafe::Attribute*)>;

    struct PendingAttributeListener
    {
      QRegularExpression pattern;
      AttributeCallback callback;
      /// Key of the callback in the per-symbol tables: one registration per symbol, however
      /// often the attribute is found (by the walk, by its addition, again after a re-addition).
      unsigned long key;
    };

    struct SyncFlagSetting
    {
      QRegularExpression pattern;
      SyncFlags::Flag flag;
      /// The built-in rule for attributes named id: matched by name, without the expression, as
      /// it is checked for every attribute added.
      bool idRule = false;
    };

    using SlicedEvent = SliceAssembler::SlicedEvent;

    /// Constructs the node as `host`'s child `id` (or a root without a host), makes attributes
    /// named id at any depth unpublished, and starts watching itself.
    RemoteNode(Carafe::Node* host, const QByteArray& id);
    ~RemoteNode() override;

    /// The application's per-frame call: describes pending additions, then runs the path
    /// listeners of every attribute that changed since the last call, once each.
    void update();
    /// Describes pending additions only (the watcher's update).
    void processPendingAdditions();

    /// Sends the event to the peer (through the event listeners), unless it is the peer's event
    /// being dispatched right now, which is handled locally as a plain node would.
    void eventProcess(const QByteArray& name, Bastion::BinaryData& data) override;
    /// Sends the event to the peer in slices of `sliceSize` bytes of its encoded payload; an
    /// empty payload or a slice size of 0 sends the plain event.
    void eventProcessSlice(const QByteArray& name, Bastion::BinaryData& data, unsigned long sliceSize);
    /// Entry of an event from the peer. `senderId` keeps the slices of different senders apart.
    /// The names of the node's own events ("attribute-added", "attribute-removed", "destroyed"),
    /// plain or reassembled from slices, are refused with a warning.
    void handleRemoteEvent(const QByteArray& name, Bastion::BinaryData& data, long senderId);
    /// True if this pair (compared by address) is the peer's event being dispatched.
    bool handlingRemoteEvent(const QByteArray& name, const Bastion::BinaryData& data) const;
    /// True while the peer's event being dispatched is one put together from slices.
    bool handlingSlicedEvent() const { return m_handlingSlices; }

    /// Listeners of the events going to the peer; called in id order on the sending thread.
    long addEventListener(const EventListener& listener);
    /// Removes an event listener (the name is spelled this way in the published interface).
    void removeEventLIstener(long id);

    /// Listeners of the watcher's events (see `NodeWatcher`).
    long addAttributeChangeListener(const NodeWatcher::Listener& listener);
    void removeAttributeChangeListener(long id);
    void ignoreOne(const NodeWatcher::Event& event);
    void stopIgnoring(const NodeWatcher::Event& event);

    /// Calls `callback` (at the next `update()`, then once per update in which the attribute
    /// changed) for every attribute whose path matches `pattern`, now and added later. The
    /// argument is null when the attribute went away. Application thread only.
    void onChangeImpl(const QRegularExpression& pattern, AttributeCallback callback);

    /// Sets the sync flags of every attribute whose path matches `pattern`, now and added later;
    /// a later setting overrides an earlier one for the paths both match.
    void setSyncFlags(const QRegularExpression& pattern, SyncFlags::Flag flag);
    /// Applies a setting to the present attributes.
    void updateSyncFlags(const QRegularExpression& pattern, SyncFlags::Flag flag);
    /// Applies every setting, in order, to one newly added attribute.
    void checkForSyncFlags(uint32_t symbol);

    /// Adds `attribute` under `path` (relative to this node, no leading '/'), creating the nodes
    /// on the way. False (logged) when a plain attribute sits where a node is needed, the path
    /// is bad, or the node refuses the attribute; the caller then keeps ownership.
    bool addDeepAttribute(const QByteArray& path, Carafe::Attribute* attribute);
    bool addNode(const QByteArray& path, Carafe::Node* node);

    /// Turns a path pattern into a regular expression that must match the whole path: "*" matches
    /// one path component (one or more characters without '/'), "**" one or more characters of
    /// any kind including '/', every other character stands for itself.
    static QRegularExpression makeRegExp(const QString& pattern);

    Bastion::SymbolRegistry& symbolRegistry() { return m_registry; }
    AttributeCache& attributeCache() { return m_cache; }
    SyncFlags& syncFlags() { return m_syncFlags; }
    NodeWatcher& nodeWatcher() { return *m_watcher; }

    /// Marks an attribute that a session created because the peer announced it, and returns the
    /// mark: a number never given out before by this node, so a mark names that one object even
    /// when a later one gets its address. The mark lasts as long as the attribute stays in the
    /// tree, across sessions: the peer's removal then deletes it in a later session too, instead
    /// of leaving a copy behind. Application thread.
    /// A marked attribute is counted as by `countCreatedForPeer` too.
    uint64_t markCreatedByPeer(Carafe::Attribute* attribute)
    {
      const uint64_t mark = m_nextCreatedMark++;
      m_createdForPeer.set(attribute, mark);
      return mark;
    }
    /// The mark of an attribute created for the peer and still in the tree; 0 for any other.
    uint64_t createdByPeerMark(Carafe::Attribute* attribute) const
    {
      const uint64_t* mark = m_createdForPeer.find(attribute);
      return mark ? *mark : 0;
    }
    /// Counts a node or attribute that a session created for a peer, until it leaves the tree:
    /// the sessions' shared cap on what peers make this tree hold. Application thread.
    void countCreatedForPeer(Carafe::Attribute* object) { m_createdForPeer.insert(object, 0); }
    int createdForPeerCount() const { return int(m_createdForPeer.size()); }

    /// Cap on the bytes held by the peer's unfinished sliced events (default 256 MiB).
    void setMaxSlicedEventBytes(int64_t bytes) { m_slices.setMaxBytes(bytes); }
    int64_t slicedEventBytes() const { return m_slices.heldBytes(); }
    int pendingSlicedEvents() const { return m_slices.pendingCount(); }

  private:
    void insertEvent(const QByteArray& name, Bastion::BinaryData& data);
    void dispatchRemoteEvent(const QByteArray& name, Bastion::BinaryData& data);
    void handleSlice(long senderId, Bastion::BinaryData& data);

    void handleAttributeChange(const NodeWatcher::Event& event);
    void checkForPendingListeners(uint32_t symbol, const QString& path);
    void checkForSyncFlags(uint32_t symbol, const QByteArray& path, const QString& text);
    void addAttributeListener(uint32_t symbol, const PendingAttributeListener& listener);
    void queueNotify(uint32_t symbol);
    void runListeners(uint32_t symbol);
    bool matches(const QRegularExpression& pattern, const QByteArray& path) const;
    static bool matches(const SyncFlagSetting& setting, const QByteArray& path, const QString& text);

    SliceAssembler m_slices;
    bool m_handlingSlices = false;

    // The peer's event being dispatched (addresses only, never dereferenced), null when none.
    std::atomic<const QByteArray*> m_remoteName{nullptr};
    std::atomic<const Bastion::BinaryData*> m_remoteData{nullptr};

    Bastion::SymbolRegistry m_registry;
    AttributeCache m_cache;
    SyncFlags m_syncFlags;
    std::unique_ptr<NodeWatcher> m_watcher;

    // Application thread only.
    std::vector<PendingAttributeListener> m_pendingListeners;
    std::vector<SyncFlagSetting> m_syncFlagSettings;
    std::unordered_map<uint32_t, std::map<unsigned long, AttributeCallback>> m_attributeListeners;
    /// Nodes and attributes in the tree that sessions created for peers, with their marks (0
    /// for those counted only); forgotten when they leave it. A flat table: a mirrored tree puts
    /// every attribute in it.
    Bastion::FlatHash<Carafe::Attribute*, uint64_t> m_createdForPeer;
    uint64_t m_nextCreatedMark = 1;
    unsigned long m_nextAttributeListenerKey = 0;

    Bastion::SharedMutex m_eventListenerLock;
    std::map<long, EventListener> m_eventListeners BASTION_GUARDED_BY(m_eventListenerLock);
    long m_nextEventListenerId BASTION_GUARDED_BY(m_eventListenerLock) = 0;

    Bastion::Mutex m_updateMutex;
    // Symbols whose path listeners run at the next update, in order of
    // their first change, and the same symbols as a set.
    std::vector<uint32_t> m_notifyList BASTION_GUARDED_BY(m_updateMutex);
    std::unordered_set<uint32_t> m_notifySet BASTION_GUARDED_BY(m_updateMutex);
  };
}
