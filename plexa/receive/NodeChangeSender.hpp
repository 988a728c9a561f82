#pragma once

#include "bastion/Mutex.hpp"
#include "plexa/bundle/BundleWriter.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/session/BundleSender.hpp"
#include "plexa/tracking/AttributeChangeCompressor.hpp"
#include "plexa/tracking/NodeWatcher.hpp"

#include <atomic>
#include <cstdint>
#include <unordered_set>
#include <vector>

namespace Plexa
{
  class AttributeStorage;
  class BundleOutput;
  class PlexaSessionAttribute;
  class TypeRegistry;

  /// Publishes the local side of a remote node: hears every watcher event and every outgoing event
  /// of the node, keeps what concerns published attributes, and at each send pass writes the
  /// reduced changes as bundles: symbol definitions first (each path once per sender), then
  /// additions, updates and removals (consecutive changes of one kind share a bundle), then the
  /// one-way events. The first pass of a sender always carries the "initialized" event.
  ///
  /// Threads: watcher events and node events arrive on the application thread (queued under the
  /// change and the event mutex); `writeUpdates` runs in the session's send pass, possibly on
  /// another thread. The receivers call `ignoreOne`/`stopIgnoring` on the update thread, which owns
  /// the tree. The node, the storage and the type registry must outlive the sender, or the node
  /// must have started its deletion (its deletion listener then detaches the sender).
  class NodeChangeSender : public BundleSender
  {
  public:
    /// Brackets a change that applies the peer's value locally, so that it is not sent back:
    /// `ignoreOne` on construction, `stopIgnoring` on destruction, also when applying throws.
    class IgnoreScope
    {
    public:
      IgnoreScope(NodeChangeSender& sender, const NodeWatcher::Event& event)
          : m_sender(sender)
          , m_event(event)
      {
        m_sender.ignoreOne(m_event);
      }
      ~IgnoreScope() { m_sender.stopIgnoring(m_event); }
      IgnoreScope(const IgnoreScope&) = delete;
      IgnoreScope& operator=(const IgnoreScope&) = delete;

    private:
      NodeChangeSender& m_sender;
      NodeWatcher::Event m_event;
    };

    NodeChangeSender(RemoteNode& node, AttributeStorage& storage, TypeRegistry& types);
    ~NodeChangeSender() override;

    /// Looks up the message types of additions, updates, removals and events.
    void initialize(BundleDispatcher& dispatcher) override;
    /// The session's send pass: symbols, then changes, then events.
    void writeUpdates(BundleOutput& output) override;

    /// The message type of additions, updates or removals; any other type logs an error and
    /// gives 0xFFFFFFFF.
    uint32_t messageType(NodeWatcher::EventType type) const;
    using BundleSender::messageType;

    /// Filters a watcher event and queues it when it concerns a published attribute.
    void onAttributeChange(const NodeWatcher::Event& event);
    /// Queues an outgoing event of the node.
    void onEvent(const RemoteNode::Event& event);
    /// Queues an addition for every attribute of the tree, so the peer learns the whole tree.
    void sendInitialValues();

    /// Swallows the next watcher event equal to `event`. Asking twice logs a warning.
    void ignoreOne(const NodeWatcher::Event& event);
    /// Cancels the request; true when exactly one was pending.
    bool stopIgnoring(const NodeWatcher::Event& event);

    /// Takes the queued node events; the first call of the sender's life puts "initialized" first.
    std::vector<RemoteNode::Event> getEvents();
    /// Takes the queued watcher events and reduces them into the current changes.
    void collapseChanges();
    const std::vector<ChangeData>& changes() const { return m_changes; }

  private:
    void sendSymbols(const std::vector<ChangeData>& changes, const std::vector<RemoteNode::Event>& events,
                     BundleOutput& output);
    void sendChanges(const std::vector<ChangeData>& changes, BundleOutput& output);
    void sendEvents(const std::vector<RemoteNode::Event>& events, BundleOutput& output);
    void sendAdded(PlexaSessionAttribute& session, bool changedSinceAdded, BundleOutput& output);
    void sendChanged(PlexaSessionAttribute& session, BundleOutput& output);
    void sendRemoved(PlexaSessionAttribute& session, BundleOutput& output);
    /// The local attribute of a record, or null with the "missing attribute" error logged.
    Carafe::Attribute* sendableAttribute(const PlexaSessionAttribute& session);
    /// Writes a symbol definition unless the symbol was announced before.
    void announce(uint32_t symbol, const QByteArray& path);
    QByteArray pathOf(uint32_t symbol) const;
    void detach();

    // ---- Constant after construction ----
    RemoteNode& m_node;
    AttributeStorage& m_storage;
    TypeRegistry& m_types;
    uint32_t m_newType = 0;
    uint32_t m_updateType = 0;
    uint32_t m_removeType = 0;
    uint32_t m_eventType = 0;

    // ---- Guarded by m_changeMutex ----
    Bastion::Mutex m_changeMutex;
    std::vector<NodeWatcher::Event> m_queue BASTION_GUARDED_BY(m_changeMutex);
    /// Events the receivers are applying from the peer, not to be sent back.
    /// At most a handful at a time (each applied value brackets one), so a plain vector: no
    /// allocation per applied value.
    std::vector<NodeWatcher::Event> m_ignored BASTION_GUARDED_BY(m_changeMutex);
    /// Size of m_ignored, written under the mutex: every local change asks whether it is ignored,
    /// and while nothing is, the answer needs no lock.
    std::atomic<size_t> m_ignoredCount{0};
    /// The one request of the common case, a receiver applying one value at a time (`packed`, or
    /// `NoRequest`): put and used up with one atomic step each, no lock per applied value. Further
    /// requests wait in m_ignored.
    std::atomic<uint64_t> m_ignoredOne{NoRequest};
    static constexpr uint64_t NoRequest = ~uint64_t(0);
    static uint64_t packed(const NodeWatcher::Event& event)
    {
      return uint64_t(uint32_t(event.type)) << 32 | event.symbol;
    }

    // ---- Guarded by m_eventMutex ----
    Bastion::Mutex m_eventMutex;
    std::vector<RemoteNode::Event> m_events BASTION_GUARDED_BY(m_eventMutex);
    bool m_initialized BASTION_GUARDED_BY(m_eventMutex) = false;

    // ---- Send pass only ----
    AttributeChangeCompressor m_compressor;
    std::vector<NodeWatcher::Event> m_batch;
    std::vector<ChangeData> m_changes;
    std::unordered_set<uint32_t> m_announced;
    BundleWriter m_writer;

    // ---- Listener ids on the node; -1 when none (the node dropped them as it went away) ----
    long m_changeListener = -1;
    long m_eventListener = -1;
    long m_deletedListener = -1;
  };
}
