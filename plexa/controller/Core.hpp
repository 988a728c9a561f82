#pragma once

#include "bastion/Mutex.hpp"
#include "plexa/bundle/Bundle.hpp"
#include "plexa/session/BundleControllerParams.hpp"
#include "plexa/session/BundleDispatcher.hpp"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace Bastion
{
  class SymbolRegistry;
}

namespace Plexa
{
  class AttributeRemoveReceiver;
  class AttributeStorage;
  class AttributeUpdateReceiver;
  class BundleReceiver;
  class BundleSender;
  class Connection;
  class HandshakeReceiver;
  class HandshakeSender;
  class NewAttributeReceiver;
  class NodeChangeSender;
  class OneWayEventReceiver;
  class RemoteNode;
  class SymbolRegistryReceiver;
  class TypeRegistry;

  /// The heart of one session: its senders and receivers, the send pass that collects their
  /// bundles, the dispatch of incoming bundles by message type, and the loading of modules on the
  /// peer's request. The module handshake is registered at message type 0 from the start.
  ///
  /// A core made for a remote node (by `BundleController`) also owns the session built on it: the
  /// type registry, the attribute store, the registry of the peer's symbols, the change sender and
  /// the receivers. They are built on first use (`ensureIsInitialized`) from a copy of the
  /// parameters, which is released then. A core made without a node has the dispatch side only.
  ///
  /// Threads: only `addTask`, `isEnabled`, `nodeDestroyed`, `markNodeDestroyed` and
  /// `peerInitializedCount` may be called from any thread. Everything else runs on the session's
  /// update thread (the controller queues work for it).
  class Core : public BundleDispatcher
  {
  public:
    /// Creates the receiver of a loadable module from the peer's parameters. It may throw a
    /// standard exception, which refuses the request with the exception's text.
    using ModuleFactory = std::function<std::shared_ptr<BundleReceiver>(const QMap<QString, QString>& parameters)>;
    /// Applies new parameters to an already loaded module (a "load-module" for the same name and
    /// type). May throw like a factory.
    using ModuleReload = std::function<void(BundleReceiver& receiver, const QMap<QString, QString>& parameters)>;

    /// A module the peer has loaded, and the message type its bundles arrive under.
    struct Module
    {
      QString name;
      uint32_t messageType = 0;
      std::shared_ptr<BundleReceiver> receiver;
    };

    /// An operation queued for the update thread.
    using Task = std::function<void(Core&)>;

    /// A core with the dispatch side only (no session, nothing to initialise).
    Core();
    /// A session core for `node` (which must outlive it, or mark it with `markNodeDestroyed`).
    Core(RemoteNode& node, const BundleControllerParams& params);
    ~Core() override;
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    // ---- Sending -------------------------------------------------------------------------------

    /// The cached outgoing type of `moduleName`; the first call asks the handshake sender to
    /// request the module from the peer.
    uint32_t messageTypeFor(const QByteArray& moduleName) override;

    /// Appends `sender` to the send pass. A sender with a module name is then given that module's
    /// outgoing type, and after that its `initialize` runs.
    void addSender(std::shared_ptr<BundleSender> sender);

    /// The send pass: every sender's `prepareUpdates`, then every sender's `writeUpdates` into one
    /// list, in the order the senders were added (the handshake sender first). Bundles carry
    /// consecutive sequence numbers from the session's send counter. May return an empty list.
    std::vector<Bundle> collect();

    // ---- Receiving -----------------------------------------------------------------------------

    /// Serves the module `moduleName` with `receiver` when the peer loads it. The receiver is only
    /// dispatched to once the peer has loaded it under a message type.
    void addReceiver(const QByteArray& moduleName, std::shared_ptr<BundleReceiver> receiver);

    /// Makes the module `moduleName` loadable through `factory`, which creates a new receiver for
    /// every load. `reload`, when given, applies the parameters of a repeated load.
    void addModuleFactory(const QByteArray& moduleName, ModuleFactory factory, ModuleReload reload = {});

    /// Hands `bundle` to the receiver registered for its message type. The first bundle of an
    /// unregistered type logs a warning; that type's bundles are then dropped silently. Sets
    /// `lastDispatched` to the bundle's sequence, also when the receiver throws. Throws
    /// std::out_of_range when the bundle is shorter than its header, and passes on what the
    /// receiver throws (the caller logs it and goes on with the next bundle).
    void dispatchBundle(const Bundle& bundle);

    /// The peer's "load-module" request: registers the module's receiver under `messageType` and
    /// answers "ok" or "error" to the peer through the handshake sender.
    void loadModule(uint32_t messageType, const QString& moduleName, const QMap<QString, QString>& parameters) override;

    // ---- Session -------------------------------------------------------------------------------

    /// Builds the session on first use (see the source for the order); later calls do nothing.
    void ensureIsInitialized();
    /// True once the session has been built (or when there is none to build).
    bool isInitialized() const { return !m_params; }

    /// Appends `task` to the queue under `taskMutex`. Any thread.
    void addTask(Task task);
    /// Runs the tasks queued so far, in queue order. Tasks they queue run at the next call. An
    /// exception from a task leaves after the tasks behind it were put back at the head of the
    /// queue, in order, for the next call.
    void runTasks();

    /// Handles one received list: initialises the session; for a non-empty list, first sends this
    /// side's pending changes when enabled, then dispatches every bundle in order. A standard
    /// exception from one bundle is logged with the bundle's type and the next bundle follows.
    void process(const std::vector<Bundle>& bundles);
    /// The outgoing work: the remote node's `update()`, the send pass, and the connection's `send`
    /// for a non-empty pass.
    void sendUpdates();

    bool isEnabled() const { return m_enabled.load(); }
    void setEnabled(bool enabled) { m_enabled.store(enabled); }

    /// Set once the remote node sent "destroyed": the core then leaves the node, and everything
    /// built on it, alone. Any thread.
    void markNodeDestroyed() { m_nodeDestroyed.store(true); }
    bool nodeDestroyed() const { return m_nodeDestroyed.load(); }

    /// How many "initialized" events the peer sent in this session (one per sender life: 1 once
    /// the peer's change sender has started). Any thread.
    int peerInitializedCount() const { return m_peerInitialized.load(); }
    /// True when a flooding cap of the parameters was hit (false before initialisation).
    bool limitExceeded() const;

    /// The registry numbering the paths this side sends (the remote node's) and the one holding
    /// the peer's numbers. Both initialise the session first; null without a session, and the
    /// first also once the node is destroyed.
    Bastion::SymbolRegistry* symbolRegistrySend();
    Bastion::SymbolRegistry* symbolRegistryRecv();
    /// Prints the session's attribute store to standard output (initialising first); nothing
    /// once the node is destroyed.
    void debugDump();

    /// The session's type registry; null for a core without a node.
    TypeRegistry* typeRegistry() const { return m_typeRegistry.get(); }
    RemoteNode* remoteNode() const { return m_node; }
    /// Null until the session is built, and for a core without a node.
    AttributeStorage* attributeStorage() const { return m_storage.get(); }
    NodeChangeSender* changeSender() const { return m_changeSender.get(); }
    const std::shared_ptr<Connection>& connection() const { return m_connection; }

    // ---- State ---------------------------------------------------------------------------------

    HandshakeSender& handshakeSender() { return *m_handshakeSender; }
    HandshakeReceiver& handshakeReceiver() { return *m_handshakeReceiver; }
    /// The `sequence` the next outgoing bundle gets; starts at 1.
    uint32_t sendCounter() const { return m_sendCounter; }
    /// The `sequence` of the last dispatched incoming bundle (0 before the first); written into
    /// outgoing bundles as `acknowledged`.
    uint32_t lastDispatched() const { return m_lastDispatched; }
    /// The `acknowledged` of the last dispatched incoming bundle: the peer has dispatched this
    /// side's bundles up to that sequence (0 before the first). Taken as the peer sends it.
    uint32_t peerAcknowledged() const { return m_peerAcknowledged; }
    /// True when the peer has acknowledged every bundle this side has sent in the session.
    bool allSentAcknowledged() const { return m_peerAcknowledged >= m_sendCounter - 1; }
    /// The dispatch table; a null receiver marks a type whose bundles are dropped.
    const std::map<uint32_t, std::shared_ptr<BundleReceiver>>& receivers() const { return m_receivers; }
    /// The receivers served by module name when the peer loads them, in registration order.
    const std::vector<std::pair<QByteArray, std::shared_ptr<BundleReceiver>>>& moduleReceivers() const
    {
      return m_moduleReceivers;
    }
    const std::vector<Module>& modules() const { return m_modules; }
    const std::vector<std::shared_ptr<BundleSender>>& senders() const { return m_senders; }
    const std::map<QByteArray, uint32_t>& outgoingTypes() const { return m_outgoingTypes; }

  private:
    struct ModuleEntry
    {
      ModuleFactory create;
      ModuleReload reload;
    };

    /// The receiver for a load of `moduleName`: a registered one, else a new one from the factory;
    /// null when the name is unknown.
    std::shared_ptr<BundleReceiver> createModule(const QByteArray& moduleName,
                                                 const QMap<QString, QString>& parameters);

    /// The one-way event handler installed in the session: counts the peer's "initialized", then
    /// hands the event to `handler`.
    BundleControllerParams::OneWayEventHandler countingEventHandler(BundleControllerParams::OneWayEventHandler handler);

    // ---- Queue and flags; any thread ----
    Bastion::Mutex m_taskMutex;
    std::vector<Task> m_tasks BASTION_GUARDED_BY(m_taskMutex);
    std::atomic<bool> m_enabled{false};
    std::atomic<bool> m_nodeDestroyed{false};
    std::atomic<int> m_peerInitialized{0};

    // ---- Session; update thread only. Declared before the dispatch state so that the senders
    // and receivers there, which refer to these, are destroyed first. ----
    RemoteNode* m_node = nullptr;
    /// The parameters until the session is built; null afterwards (and without a session).
    std::unique_ptr<BundleControllerParams> m_params;
    std::unique_ptr<Bastion::SymbolRegistry> m_receivedSymbols;
    std::unique_ptr<TypeRegistry> m_typeRegistry;
    std::shared_ptr<AttributeStorage> m_storage;
    std::shared_ptr<NodeChangeSender> m_changeSender;
    std::shared_ptr<SymbolRegistryReceiver> m_symbolReceiver;
    std::shared_ptr<NewAttributeReceiver> m_newReceiver;
    std::shared_ptr<AttributeUpdateReceiver> m_updateReceiver;
    std::shared_ptr<AttributeRemoveReceiver> m_removeReceiver;
    std::shared_ptr<OneWayEventReceiver> m_eventReceiver;
    std::shared_ptr<Connection> m_connection;

    // ---- Dispatch state; update thread only ----
    std::shared_ptr<HandshakeSender> m_handshakeSender;
    std::shared_ptr<HandshakeReceiver> m_handshakeReceiver;
    /// Incoming message type -> receiver (null: drop silently). Entries are never removed.
    std::map<uint32_t, std::shared_ptr<BundleReceiver>> m_receivers;
    /// What the peer has loaded so far, in load order.
    std::vector<Module> m_modules;
    /// Receivers registered by the session, served by module name when the peer loads them; in
    /// registration order (a handful, looked up linearly).
    std::vector<std::pair<QByteArray, std::shared_ptr<BundleReceiver>>> m_moduleReceivers;
    /// Modules created on demand, by name.
    std::map<QByteArray, ModuleEntry> m_moduleFactories;
    /// The send pass, in order; the handshake sender is first.
    std::vector<std::shared_ptr<BundleSender>> m_senders;
    /// Module name -> the type this side sends it under.
    std::map<QByteArray, uint32_t> m_outgoingTypes;
    uint32_t m_sendCounter = 1;
    uint32_t m_lastDispatched = 0;
    uint32_t m_peerAcknowledged = 0;
  };
}
