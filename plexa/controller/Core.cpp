#include "plexa/controller/Core.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "plexa/bundle/BundleOutput.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/Connection.hpp"
#include "plexa/receive/AttributeRemoveReceiver.hpp"
#include "plexa/receive/AttributeStorage.hpp"
#include "plexa/receive/AttributeUpdateReceiver.hpp"
#include "plexa/receive/NewAttributeReceiver.hpp"
#include "plexa/receive/NodeChangeSender.hpp"
#include "plexa/receive/OneWayEventReceiver.hpp"
#include "plexa/receive/SymbolRegistryReceiver.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/session/BundleSender.hpp"
#include "plexa/session/HandshakeReceiver.hpp"
#include "plexa/session/HandshakeSender.hpp"
#include "plexa/session/SessionFormat.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include <exception>
#include <iterator>

namespace Plexa
{
  Core::Core()
      : m_handshakeSender(std::make_shared<HandshakeSender>())
      , m_handshakeReceiver(std::make_shared<HandshakeReceiver>())
  {
    m_senders.push_back(m_handshakeSender);
    m_receivers[HandshakeMessageType] = m_handshakeReceiver;
    m_modules.push_back({QString::fromLatin1(ModuleNames::Handshake), HandshakeMessageType, m_handshakeReceiver});
  }

  Core::Core(RemoteNode& node, const BundleControllerParams& params)
      : Core()
  {
    m_node = &node;
    m_params = std::make_unique<BundleControllerParams>(params);
    m_receivedSymbols = std::make_unique<Bastion::SymbolRegistry>();
    m_typeRegistry = std::make_unique<TypeRegistry>();
  }

  Core::~Core() = default;

  void Core::ensureIsInitialized()
  {
    if (!m_params || nodeDestroyed())
      return;
    const BundleControllerParams& params = *m_params;
    RemoteNode& node = *m_node;

    m_storage = std::make_shared<AttributeStorage>(node);
    m_storage->setMaxRecords(params.maxSessionAttributes);
    m_enabled.store(params.enabled);

    m_symbolReceiver = std::make_shared<SymbolRegistryReceiver>(*m_receivedSymbols);
    m_symbolReceiver->setMaxSymbols(params.maxSymbols);
    m_symbolReceiver->setMaxPathLength(params.maxPathLength);
    m_symbolReceiver->setMaxPathDepth(params.maxPathDepth);
    addReceiver(ModuleNames::SymbolRegistry, m_symbolReceiver);

    m_changeSender = std::make_shared<NodeChangeSender>(node, *m_storage, *m_typeRegistry);
    addSender(m_changeSender);
    // The watcher reported the tree that was there before the session while no sender listened:
    // queue all of it once now, so the peer's first pass announces the complete tree.
    m_changeSender->sendInitialValues();

    m_removeReceiver = std::make_shared<AttributeRemoveReceiver>(node, *m_storage, *m_receivedSymbols, *m_changeSender);
    addReceiver(ModuleNames::AttributeRemove, m_removeReceiver);

    m_newReceiver =
        std::make_shared<NewAttributeReceiver>(node, *m_storage, *m_receivedSymbols, *m_typeRegistry, *m_changeSender);
    m_newReceiver->setMaxCreated(params.maxCreatedNodes);
    m_newReceiver->setMaxTreeCreated(params.maxTreeCreatedNodes);
    addReceiver(ModuleNames::AttributeNew, m_newReceiver);

    m_updateReceiver = std::make_shared<AttributeUpdateReceiver>(*m_storage, *m_changeSender);
    addReceiver(ModuleNames::AttributeUpdate, m_updateReceiver);

    m_eventReceiver = std::make_shared<OneWayEventReceiver>(*m_receivedSymbols);
    addReceiver(ModuleNames::OneWayEvent, m_eventReceiver);

    m_connection = params.connection;
    m_newReceiver->setDropStaleValues(params.dropStaleValues);
    m_updateReceiver->setDropStaleValues(params.dropStaleValues);
    BundleControllerParams::OneWayEventHandler handler = params.oneWayEventHandler;
    if (!handler) {
      handler = [&node](const QByteArray& name, Bastion::BinaryData& data) { node.handleRemoteEvent(name, data, 0); };
    }
    m_eventReceiver->setHandler(countingEventHandler(std::move(handler)));
    m_newReceiver->setCreateMissingAttributes(params.createMissingAttributes);

    m_params.reset();
  }

  BundleControllerParams::OneWayEventHandler
  Core::countingEventHandler(BundleControllerParams::OneWayEventHandler handler)
  {
    return [this, handler = std::move(handler)](const QByteArray& name, Bastion::BinaryData& data) {
      if (name == "initialized")
        ++m_peerInitialized;
      handler(name, data);
    };
  }

  void Core::addTask(Task task)
  {
    Bastion::Guard guard(m_taskMutex);
    m_tasks.push_back(std::move(task));
  }

  void Core::runTasks()
  {
    std::vector<Task> tasks;
    {
      Bastion::Guard guard(m_taskMutex);
      tasks.swap(m_tasks);
    }
    for (size_t i = 0; i < tasks.size(); ++i) {
      if (nodeDestroyed())
        return;
      try {
        tasks[i](*this);
      } catch (...) {
        // The tasks behind the failed one (received bundle lists among them) still run, at the
        // next call and ahead of anything queued since, or the two trees drift apart for good.
        Bastion::Guard guard(m_taskMutex);
        m_tasks.insert(m_tasks.begin(), std::make_move_iterator(tasks.begin() + std::ptrdiff_t(i + 1)),
                       std::make_move_iterator(tasks.end()));
        throw;
      }
    }
  }

  void Core::process(const std::vector<Bundle>& bundles)
  {
    ensureIsInitialized();
    if (bundles.empty() || nodeDestroyed())
      return;
    // This side's pending changes leave before the peer's are applied. Only the outgoing work
    // depends on `enabled`: a disabled session still applies what it receives and keeps
    // acknowledging it, so nothing the peer sent is lost while this side is quiet.
    if (isEnabled())
      sendUpdates();
    for (const Bundle& bundle : bundles) {
      // A receiver may have destroyed the tree (an event handler, say): the rest is not for us.
      if (nodeDestroyed())
        return;
      // A session over a flooding cap applies nothing more of the peer's (the application is
      // expected to end it): the rest of the flood costs neither work nor a log line per item.
      if (limitExceeded())
        return;
      try {
        dispatchBundle(bundle);
      } catch (const std::exception& e) {
        Bastion::warning("BundleController::process # Failed to process bundle of type type %d: %s",
                         int(bundle.header().messageType), e.what());
      }
    }
  }

  void Core::sendUpdates()
  {
    if (nodeDestroyed())
      return;
    if (m_node)
      m_node->update();
    const std::vector<Bundle> bundles = collect();
    if (!bundles.empty() && m_connection)
      m_connection->send(bundles);
  }

  bool Core::limitExceeded() const
  {
    return (m_storage && m_storage->limitExceeded()) || (m_symbolReceiver && m_symbolReceiver->limitExceeded()) ||
           (m_newReceiver && m_newReceiver->limitExceeded());
  }

  Bastion::SymbolRegistry* Core::symbolRegistrySend()
  {
    ensureIsInitialized();
    // The registry is the node's and went with it.
    return m_node && !nodeDestroyed() ? &m_node->symbolRegistry() : nullptr;
  }

  Bastion::SymbolRegistry* Core::symbolRegistryRecv()
  {
    ensureIsInitialized();
    return m_receivedSymbols.get();
  }

  void Core::debugDump()
  {
    ensureIsInitialized();
    // The store's dump looks the attributes up in the node.
    if (m_storage && !nodeDestroyed())
      m_storage->debugDump();
  }

  uint32_t Core::messageTypeFor(const QByteArray& moduleName)
  {
    const auto it = m_outgoingTypes.find(moduleName);
    if (it != m_outgoingTypes.end())
      return it->second;
    const uint32_t type = m_handshakeSender->loadModule(moduleName);
    m_outgoingTypes.emplace(moduleName, type);
    return type;
  }

  void Core::addSender(std::shared_ptr<BundleSender> sender)
  {
    BundleSender& added = *sender;
    m_senders.push_back(std::move(sender));
    if (!added.moduleName().isEmpty())
      added.setMessageType(messageTypeFor(added.moduleName()));
    added.initialize(*this);
  }

  std::vector<Bundle> Core::collect()
  {
    // A copy: a sender may add senders while it writes; they join the next pass.
    const std::vector<std::shared_ptr<BundleSender>> senders = m_senders;
    for (const auto& sender : senders)
      sender->prepareUpdates();
    std::vector<Bundle> bundles;
    BundleOutput output(&bundles, &m_sendCounter, m_lastDispatched);
    for (const auto& sender : senders)
      sender->writeUpdates(output);
    return bundles;
  }

  void Core::addReceiver(const QByteArray& moduleName, std::shared_ptr<BundleReceiver> receiver)
  {
    for (auto& entry : m_moduleReceivers) {
      if (entry.first == moduleName) {
        entry.second = std::move(receiver);
        return;
      }
    }
    m_moduleReceivers.emplace_back(moduleName, std::move(receiver));
  }

  void Core::addModuleFactory(const QByteArray& moduleName, ModuleFactory factory, ModuleReload reload)
  {
    m_moduleFactories[moduleName] = {std::move(factory), std::move(reload)};
  }

  void Core::dispatchBundle(const Bundle& bundle)
  {
    BundleReaderCore reader(&bundle.data(), 0);
    const BundleHeader header = reader.readValue<BundleHeader>();
    m_peerAcknowledged = header.acknowledged;
    try {
      const auto it = m_receivers.find(header.messageType);
      if (it == m_receivers.end()) {
        Bastion::warning("BundleDispatcher::dispatchBundle # Unknown bundle type %u", header.messageType);
        m_receivers.emplace(header.messageType, nullptr);
      } else if (it->second) {
        // Held for the call: the receiver may load modules, which changes the table.
        const std::shared_ptr<BundleReceiver> receiver = it->second;
        receiver->handleBundle(reader, header, *this);
      }
    } catch (...) {
      // A bundle that failed part way has still been consumed: acknowledge it like any other.
      m_lastDispatched = header.sequence;
      throw;
    }
    m_lastDispatched = header.sequence;
  }

  void Core::loadModule(uint32_t messageType, const QString& moduleName, const QMap<QString, QString>& parameters)
  {
    const QString command = QString::fromLatin1(HandshakeCommands::LoadModule);
    const auto refuse = [&](const QString& description) {
      m_handshakeSender->replyError(command, moduleName, description);
    };

    for (const Module& module : m_modules) {
      if (module.name != moduleName)
        continue;
      if (module.messageType != messageType) {
        refuse("Tried to reload module with different message type");
        return;
      }
      const auto entry = m_moduleFactories.find(moduleName.toUtf8());
      if (entry != m_moduleFactories.end() && entry->second.reload) {
        try {
          entry->second.reload(*module.receiver, parameters);
        } catch (const std::exception& e) {
          refuse(QString::fromUtf8(e.what()));
          return;
        }
      }
      m_handshakeSender->replyOk(command, moduleName, "Module reloaded successfully");
      return;
    }

    if (messageType == HandshakeMessageType) {
      refuse("Not implemented");
      return;
    }
    // A null entry only marks a type that arrived before it was loaded: a load may take it over.
    const auto taken = m_receivers.find(messageType);
    if (taken != m_receivers.end() && taken->second) {
      refuse("Message type already in use");
      return;
    }
    std::shared_ptr<BundleReceiver> receiver;
    try {
      receiver = createModule(moduleName.toUtf8(), parameters);
    } catch (const std::exception& e) {
      refuse(QString::fromUtf8(e.what()));
      return;
    }
    if (!receiver) {
      refuse("Module not found");
      return;
    }
    m_receivers[messageType] = receiver;
    m_modules.push_back({moduleName, messageType, receiver});
    m_handshakeSender->replyOk(command, moduleName, "Module loaded successfully");
  }

  std::shared_ptr<BundleReceiver> Core::createModule(const QByteArray& moduleName,
                                                     const QMap<QString, QString>& parameters)
  {
    for (const auto& entry : m_moduleReceivers) {
      if (entry.first == moduleName)
        return entry.second;
    }
    const auto entry = m_moduleFactories.find(moduleName);
    if (entry == m_moduleFactories.end() || !entry->second.create)
      return nullptr;
    return entry->second.create(parameters);
  }
}
