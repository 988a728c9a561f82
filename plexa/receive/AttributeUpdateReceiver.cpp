#include "plexa/receive/AttributeUpdateReceiver.hpp"

#include "bastion/Log.hpp"
#include "plexa/bundle/Bundle.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/receive/AttributeStorage.hpp"
#include "plexa/receive/NodeChangeSender.hpp"

namespace Plexa
{
  namespace
  {
    /// Reads past a stale value. Peers write a zero count followed by a second count word on this
    /// path, so a zero count is followed by the real one; the value decoders and the dummy
    /// deserializer do not do this, and an empty stale value therefore takes the next word along.
    void skipStaleValue(BundleReaderCore& reader, uint32_t peerSize)
    {
      if (peerSize != 0) {
        reader.readBounded(peerSize);
        return;
      }
      uint32_t count = reader.readValue<uint32_t>();
      if (count == 0)
        count = reader.readValue<uint32_t>();
      reader.readBounded(count);
    }
  }

  AttributeUpdateReceiver::AttributeUpdateReceiver(AttributeStorage& storage, NodeChangeSender& sender)
      : m_storage(storage)
      , m_sender(sender)
  {
  }

  void AttributeUpdateReceiver::handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher&)
  {
    while (!reader.atEnd()) {
      const uint32_t symbol = reader.readValue<uint32_t>();
      PlexaSessionAttribute* session = m_storage.findByReadSymbol(symbol);
      if (!session) {
        // Without the record the value's length is unknown: nothing behind it can be read.
        if (mayLogRecord("AttributeUpdateHandler::handleBundle"))
          Bastion::error("AttributeUpdateHandler::handleBundle # BUG: unknown attribute with symbol %d", int(symbol));
        return;
      }
      if (!m_dropStaleValues || header.acknowledged >= session->lastSentSequence) {
        if (!session->deserializer)
          session->deserializer = PlexaSessionAttribute::createDummyDeserializer(session->peerSize);
        NodeChangeSender::IgnoreScope ignore(m_sender, {NodeWatcher::AttributeChanged, session->symbol});
        session->deserializer(reader);
      } else {
        skipStaleValue(reader, session->peerSize);
      }
      session->receivedSequence = header.sequence;
    }
  }
}
