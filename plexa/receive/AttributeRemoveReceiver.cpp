#include "plexa/receive/AttributeRemoveReceiver.hpp"

#include "bastion/Log.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/receive/AttributeStorage.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/tracking/NodeChangeSender.hpp"

namespace Plexa
{
  AttributeRemoveReceiver::AttributeRemoveReceiver(RemoteNode& node, AttributeStorage& storage,
                                                   NodeChangeSender& sender)
    : m_node(node), m_storage(storage), m_sender(sender)
  {
  }

  void AttributeRemoveReceiver::handleBundle(BundleReaderCore& reader, const BundleHeader&, Core&)
  {
    while (!reader.atEnd()) {
      const uint32_t symbol = reader.readValue<uint32_t>();
      PlexaSessionAttribute* session = m_storage.findByReadSymbol(symbol);
      if (!session) {
        Bastion::error("AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol %u", symbol);
        continue;
      }
      Carafe::Attribute* attribute = m_node.attributeCache().find(session->symbol);
      if (!attribute) {
        Bastion::error("AttributeRemoveHandler::handleBundle # Attribute %u already removed", symbol);
        continue;
      }
      if (!session->existedLocally && attribute != &m_node) {
        NodeChangeSender::IgnoreScope ignore(m_sender, {NodeWatcher::AttributeRemoved, session->symbol});
        delete attribute;
      }
      session->peerTypeId = 0;
      session->receivedSequence = 0;
      session->deserializer = PlexaSessionAttribute::createDummyDeserializer(session->peerSize);
      session->removedByPeer = true;
      session->lastSentSequence = 0;
    }
  }
}
