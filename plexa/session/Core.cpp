#include "plexa/session/Core.hpp"

#include "bastion/Log.hpp"
#include "plexa/bundle/BundleOutput.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/session/BundleSender.hpp"
#include "plexa/session/HandshakeReceiver.hpp"
#include "plexa/session/HandshakeSender.hpp"
#include "plexa/session/SessionFormat.hpp"

#include <exception>

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

  Core::~Core() = default;

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
    m_senders.push_back(sender);
    if (!sender->moduleName().isEmpty())
      sender->setMessageType(messageTypeFor(sender->moduleName()));
    sender->initialize(*this);
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
    m_moduleReceivers[moduleName] = std::move(receiver);
  }

  void Core::addModuleFactory(const QByteArray& moduleName, ModuleFactory factory, ModuleReload reload)
  {
    m_moduleFactories[moduleName] = {std::move(factory), std::move(reload)};
  }

  void Core::dispatchBundle(const Bundle& bundle)
  {
    BundleReaderCore reader(&bundle.data(), 0);
    const BundleHeader header = reader.readValue<BundleHeader>();
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
    const auto registered = m_moduleReceivers.find(moduleName);
    if (registered != m_moduleReceivers.end())
      return registered->second;
    const auto entry = m_moduleFactories.find(moduleName);
    if (entry == m_moduleFactories.end() || !entry->second.create)
      return nullptr;
    return entry->second.create(parameters);
  }
}
