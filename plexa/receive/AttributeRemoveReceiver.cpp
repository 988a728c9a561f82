#include "plexa/receive/AttributeRemoveReceiver.hpp"

#include "bastion/Log.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/receive/AttributeStorage.hpp"
#include "plexa/receive/NodeChangeSender.hpp"
#include "plexa/remote/RemoteNode.hpp"

namespace Plexa
{
  AttributeRemoveReceiver::AttributeRemoveReceiver(RemoteNode& node, AttributeStorage& storage,
                                                   const Bastion::SymbolRegistry& received, NodeChangeSender& sender)
      : m_node(node)
      , m_storage(storage)
      , m_received(received)
      , m_sender(sender)
  {
  }

  void AttributeRemoveReceiver::handleBundle(BundleReaderCore& reader, const BundleHeader&, BundleDispatcher&)
  {
    while (!reader.atEnd()) {
      const uint32_t symbol = reader.readValue<uint32_t>();
      PlexaSessionAttribute* session = m_storage.findByReadSymbol(symbol);
      QByteArray path;
      if (!session && m_received.lookup(symbol, path)) {
        // Never creates a record: a removal of a path this side has no record of has nothing to do.
        session = m_storage.findByPath(path);
        if (session && session->readSymbol == 0)
          m_storage.indexByReadSymbol(symbol, session);
      }
      if (!session) {
        if (mayLogRecord("AttributeRemoveHandler::handleBundle"))
          Bastion::error("AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol %u", symbol);
        continue;
      }
      Carafe::Attribute* attribute = m_node.attributeCache().find(session->symbol);
      if (!attribute) {
        if (mayLogRecord("AttributeRemoveHandler::handleBundle"))
          Bastion::error("AttributeRemoveHandler::handleBundle # Attribute %u already removed", symbol);
        continue;
      }
      // Only the very object created for the peer goes: the application, or another session's
      // peer, may have put its own at the path since, and a late or repeated removal must not
      // delete that one.
      if (session->createdMark != 0 && attribute != &m_node &&
          m_node.createdByPeerMark(attribute) == session->createdMark) {
        {
          NodeChangeSender::IgnoreScope ignore(m_sender, {NodeWatcher::AttributeRemoved, session->symbol});
          delete attribute;
        }
        // The sender does not hear of this removal, so it cannot drop the serializer itself.
        session->dropSerializer();
      }
      session->createdMark = 0;
      session->peerTypeId = 0;
      session->receivedSequence = 0;
      session->deserializer = PlexaSessionAttribute::createDummyDeserializer(session->peerSize);
      m_storage.markRemovedByPeer(*session);
      session->lastSentSequence = 0;
    }
  }
}
