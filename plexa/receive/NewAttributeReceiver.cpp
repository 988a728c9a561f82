#include "plexa/receive/NewAttributeReceiver.hpp"

#include "bastion/Log.hpp"
#include "bastion/SymbolRegistry.hpp"
#include "carafe/AttributeAlias.hpp"
#include "carafe/Node.hpp"
#include "plexa/bundle/Bundle.hpp"
#include "plexa/bundle/BundleReaderCore.hpp"
#include "plexa/receive/AttributeStorage.hpp"
#include "plexa/receive/NodeChangeSender.hpp"
#include "plexa/remote/RemoteNode.hpp"
#include "plexa/types/TypeRegistry.hpp"

#include <memory>

namespace Plexa
{
  NewAttributeReceiver::NewAttributeReceiver(RemoteNode& node, AttributeStorage& storage,
                                             Bastion::SymbolRegistry& received, TypeRegistry& types,
                                             NodeChangeSender& sender)
      : m_node(node)
      , m_storage(storage)
      , m_received(received)
      , m_types(types)
      , m_sender(sender)
  {
  }

  bool NewAttributeReceiver::mayCreate()
  {
    if (m_maxCreated > 0 && m_created >= m_maxCreated) {
      if (!m_limitExceeded)
        Bastion::error("NewAttributeReceiver::handleBundle # Limit of %d created nodes and attributes reached; "
                       "refusing to create more",
                       m_maxCreated);
      m_limitExceeded = true;
      return false;
    }
    if (m_maxTreeCreated > 0 && m_node.createdForPeerCount() >= m_maxTreeCreated) {
      if (!m_treeLimitExceeded)
        Bastion::error("NewAttributeReceiver::handleBundle # Limit of %d nodes and attributes created for peers in "
                       "the tree reached; refusing to create more",
                       m_maxTreeCreated);
      m_treeLimitExceeded = true;
      return false;
    }
    return true;
  }

  void NewAttributeReceiver::handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher&)
  {
    const uint32_t acknowledged = header.acknowledged;
    uint32_t index = uint32_t(-1);
    QByteArray path;
    while (!reader.atEnd()) {
      ++index;
      const uint32_t symbol = reader.readValue<uint32_t>();
      const uint32_t typeId = reader.readValue<uint32_t>();
      const uint32_t size = reader.readValue<uint32_t>();
      const uint32_t hasValue = reader.readValue<uint32_t>() & 1u;

      if (!m_received.lookup(symbol, path)) {
        // Only this record is skipped, whatever the text says.
        if (mayLogRecord("NewAttributeReceiver::handleBundle"))
          Bastion::error("NewAttributeReceiver::handleBundle # Unknown symbol %d at message index %u. Will ignore the "
                         "bundle",
                         int(symbol), index);
        if (hasValue)
          PlexaSessionAttribute::skipValue(reader, size);
        continue;
      }

      // The record the symbol is bound to, else the path's, else a new one; bound to the symbol.
      PlexaSessionAttribute* session = m_storage.bindForPeer(symbol, path);
      if (!session) {
        // Over the session's record cap (logged by the storage).
        if (hasValue)
          PlexaSessionAttribute::skipValue(reader, size);
        continue;
      }
      session->readSymbol = symbol;
      session->removedByPeer = false;
      session->peerTypeId = typeId;
      session->peerSize = size;

      // Written before the peer had seen this side's latest value of the attribute.
      const bool stale = hasValue && acknowledged < session->lastSentSequence;
      bool apply = hasValue && (!m_dropStaleValues || !stale);

      const int slash = path.lastIndexOf('/');
      const QByteArray name = slash < 0 ? path : path.mid(slash + 1);
      Carafe::Node* node = name.isEmpty() ? nullptr : createOrFindNode(path, slash);
      if (!node) {
        // A cap that refused the node has said so once already.
        if (m_createMissingAttributes && !limitExceeded())
          Bastion::error("NewAttributeReceiver::handleBundle # Failed to create target node at path %s",
                         path.constData());
        session->createdMark = 0;
        if (hasValue)
          PlexaSessionAttribute::skipValue(reader, size);
        session->deserializer = PlexaSessionAttribute::createDummyDeserializer(size);
        continue;
      }

      Carafe::Attribute* attribute = node->attribute(name);
      // An attribute an earlier session created for the peer is still the peer's.
      session->createdMark = attribute ? m_node.createdByPeerMark(attribute) : 0;
      session->existedLocally = attribute != nullptr && session->createdMark == 0;
      // This side's own attribute keeps its value against an older one from the peer, even when
      // stale values are taken otherwise: the peer's announcement then carries its copy from an
      // earlier session (of an attribute removed here meanwhile and added again), and the peer
      // takes this side's value, which crosses it; applying both would swap them.
      if (stale && session->existedLocally)
        apply = false;
      if (hasValue && !apply)
        PlexaSessionAttribute::skipValue(reader, size); // this side's newer value wins
      if (!attribute) {
        // Written before the peer had seen this side remove the attribute (typically its echo of
        // our own announcement): the removal is on its way and wins, so nothing is created.
        const bool removedHere = session->removedSequence != 0 && acknowledged < session->removedSequence;
        std::unique_ptr<Carafe::Attribute> created;
        if (m_createMissingAttributes && !removedHere && mayCreate())
          created.reset(m_types.createAttribute(typeId));
        if (created) {
          session->deserializer = createDeserializer(*session, created.get());
          if (apply) {
            session->receivedSequence = header.sequence;
            try {
              session->deserializer(reader);
            } catch (...) {
              // The deserializer captured the attribute that goes with this exception.
              session->deserializer = PlexaSessionAttribute::createDummyDeserializer(size);
              throw;
            }
            created->setAsDefaults();
          }
          Carafe::Attribute* raw = created.get();
          if (node->addAttribute(name, raw)) {
            // The node owns it now.
            static_cast<void>(created.release());
            ++m_created;
            m_node.countCreatedForPeer(raw);
            session->createdMark = m_node.markCreatedByPeer(raw);
            m_node.processPendingAdditions();
          } else {
            // The deserializer captured the attribute that is about to go.
            session->deserializer = PlexaSessionAttribute::createDummyDeserializer(size);
          }
        } else if (apply) {
          PlexaSessionAttribute::skipValue(reader, size);
        }
      } else {
        session->deserializer = createDeserializer(*session, attribute);
        if (apply) {
          NodeChangeSender::IgnoreScope ignore(m_sender, {NodeWatcher::AttributeChanged, session->symbol});
          // An attribute the watcher has not described yet (inside a node added since its last
          // update) reports no changes until it is: its announcement must then carry its value,
          // which this side may have changed after taking the peer's.
          if (m_node.attributeCache().find(session->symbol) == attribute)
            session->receivedSequence = header.sequence;
          session->deserializer(reader);
        }
      }
      if (!session->deserializer)
        session->deserializer = PlexaSessionAttribute::createDummyDeserializer(size);
    }
  }

  Carafe::Node* NewAttributeReceiver::createOrFindNode(const QByteArray& path, int end)
  {
    // The names before `end`, read in place: only a node that is created gets a copy of its name.
    Carafe::Node* current = &m_node;
    for (int start = 0; start <= end;) {
      int next = path.indexOf('/', start);
      if (next < 0 || next > end)
        next = end;
      // A path with an empty component ("a//b", a leading '/') names no node: never create one
      // without a name.
      if (next == start)
        return nullptr;
      const QByteArray name = QByteArray::fromRawData(path.constData() + start, next - start);
      start = next + 1;
      Carafe::Attribute* child = current->attribute(name);
      while (auto* alias = dynamic_cast<Carafe::AttributeAlias*>(child))
        child = alias->attribute();
      if (child) {
        auto* node = dynamic_cast<Carafe::Node*>(child);
        if (!node) {
          Bastion::error("NewAttributeReceiver::createOrFindAttribute # Found an existing attribute where a node was "
                         "expected");
          return nullptr;
        }
        current = node;
        continue;
      }
      if (!m_createMissingAttributes || !mayCreate())
        return nullptr;
      auto* node = new Carafe::Node();
      if (!current->addAttribute(QByteArray(name.constData(), name.size()), node)) {
        delete node;
        return nullptr;
      }
      ++m_created;
      m_node.countCreatedForPeer(node);
      current = node;
    }
    return current;
  }

  Deserializer NewAttributeReceiver::createDeserializer(PlexaSessionAttribute& session, Carafe::Attribute* attribute)
  {
    Deserializer deserializer = m_types.createDeserializer(session.peerTypeId, attribute);
    if (deserializer)
      return deserializer;
    QByteArray path;
    m_received.lookup(session.readSymbol, path);
    Bastion::warning("NewAttributeReceiver::createDeserializer # Found an attribute that we don't know how to "
                     "deserialize at '%s'",
                     path.constData());
    return PlexaSessionAttribute::createDummyDeserializer(session.peerSize);
  }
}
