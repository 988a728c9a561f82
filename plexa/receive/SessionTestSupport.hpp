#pragma once

// Test helpers (not installed) for the session data path: the parts of one session side wired
// together without a controller.

#include "bastion/SymbolRegistry.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/bundle/BundleTestSupport.hpp"
#include "plexa/bundle/BundleWriterCore.hpp"
#include "plexa/receive/AttributeRemoveReceiver.hpp"
#include "plexa/receive/AttributeStorage.hpp"
#include "plexa/receive/AttributeUpdateReceiver.hpp"
#include "plexa/receive/NewAttributeReceiver.hpp"
#include "plexa/receive/NodeChangeSender.hpp"
#include "plexa/receive/OneWayEventReceiver.hpp"
#include "plexa/receive/SymbolRegistryReceiver.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/session/BundleDispatcher.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include <QByteArray>

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <map>

namespace PlexaTest
{
  /// The bits of a float, as a record word.
  inline uint32_t bitsOf(float f)
  {
    uint32_t bits;
    std::memcpy(&bits, &f, 4);
    return bits;
  }

  /// Message types given out by name, from 10 on, in order of asking.
  class FixedDispatcher : public Plexa::BundleDispatcher
  {
  public:
    uint32_t messageTypeFor(const QByteArray& moduleName) override
    {
      auto it = types.find(moduleName);
      if (it == types.end())
        it = types.emplace(moduleName, uint32_t(10 + types.size())).first;
      return it->second;
    }
    /// Only the handshake receiver loads modules; the receivers under test never do.
    void loadModule(uint32_t, const QString&, const QMap<QString, QString>&) override {}
    std::map<QByteArray, uint32_t> types;
  };

  /// The receiving and sending parts of one session side over `node`, wired as a session does,
  /// minus the controller: tests hand bundles to the receivers directly.
  struct SessionSide
  {
    explicit SessionSide(Plexa::RemoteNode& node)
        : node(node)
        , storage(node)
        , sender(node, storage, types)
        , symbols(received)
        , added(node, storage, received, types, sender)
        , updates(storage, sender)
        , removals(node, storage, received, sender)
        , events(received)
    {
      sender.setMessageType(dispatcher.messageTypeFor("Corvanta.Plexa.SymbolRegistry"));
      sender.initialize(dispatcher);
    }

    /// Defines `path` as the peer's `symbol`.
    void define(uint32_t symbol, const QByteArray& path) { received.define(path, symbol); }

    template <typename Receiver>
    void feed(Receiver& receiver, const Plexa::Bundle& bundle)
    {
      Plexa::BundleReaderCore reader(bundle.data());
      receiver.handleBundle(reader, bundle.header(), dispatcher);
    }

    Plexa::RemoteNode& node;
    FixedDispatcher dispatcher;
    Plexa::TypeRegistry types;
    Bastion::SymbolRegistry received;
    Plexa::AttributeStorage storage;
    Plexa::NodeChangeSender sender;
    Plexa::SymbolRegistryReceiver symbols;
    Plexa::NewAttributeReceiver added;
    Plexa::AttributeUpdateReceiver updates;
    Plexa::AttributeRemoveReceiver removals;
    Plexa::OneWayEventReceiver events;
  };
}
