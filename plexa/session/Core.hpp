#pragma once

#include "plexa/bundle/Bundle.hpp"
#include "plexa/session/BundleDispatcher.hpp"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <vector>

namespace Plexa
{
  class BundleReceiver;
  class BundleSender;
  class HandshakeReceiver;
  class HandshakeSender;

  /// The heart of one session: its senders and receivers, the send pass that collects their
  /// bundles, the dispatch of incoming bundles by message type, and the loading of modules on the
  /// peer's request. The module handshake is registered at message type 0 from the start.
  ///
  /// Everything here runs on the session's update thread (the controller queues work for it); the
  /// class takes no locks and is not thread-safe.
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

    Core();
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
    void loadModule(uint32_t messageType, const QString& moduleName, const QMap<QString, QString>& parameters);

    // ---- State ---------------------------------------------------------------------------------

    HandshakeSender& handshakeSender() { return *m_handshakeSender; }
    HandshakeReceiver& handshakeReceiver() { return *m_handshakeReceiver; }
    /// The `sequence` the next outgoing bundle gets; starts at 1.
    uint32_t sendCounter() const { return m_sendCounter; }
    /// The `sequence` of the last dispatched incoming bundle (0 before the first); written into
    /// outgoing bundles as `acknowledged`.
    uint32_t lastDispatched() const { return m_lastDispatched; }
    /// The dispatch table; a null receiver marks a type whose bundles are dropped.
    const std::map<uint32_t, std::shared_ptr<BundleReceiver>>& receivers() const { return m_receivers; }
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

    // ---- Dispatch state; update thread only ----
    std::shared_ptr<HandshakeSender> m_handshakeSender;
    std::shared_ptr<HandshakeReceiver> m_handshakeReceiver;
    /// Incoming message type -> receiver (null: drop silently). Entries are never removed.
    std::map<uint32_t, std::shared_ptr<BundleReceiver>> m_receivers;
    /// What the peer has loaded so far, in load order.
    std::vector<Module> m_modules;
    /// Receivers registered by the session, served by module name when the peer loads them.
    std::map<QByteArray, std::shared_ptr<BundleReceiver>> m_moduleReceivers;
    /// Modules created on demand, by name.
    std::map<QByteArray, ModuleEntry> m_moduleFactories;
    /// The send pass, in order; the handshake sender is first.
    std::vector<std::shared_ptr<BundleSender>> m_senders;
    /// Module name -> the type this side sends it under.
    std::map<QByteArray, uint32_t> m_outgoingTypes;
    uint32_t m_sendCounter = 1;
    uint32_t m_lastDispatched = 0;
  };
}
