#pragma once

#include "plexa/session/BundleReceiver.hpp"
#include "plexa/types/TypeFunctions.hpp"

#include <QByteArray>

#include <cstdint>

namespace Bastion
{
  class SymbolRegistry;
}

namespace Carafe
{
  class Attribute;
  class Node;
}

namespace Plexa
{
  class AttributeStorage;
  class NodeChangeSender;
  class PlexaSessionAttribute;
  class RemoteNode;
  class TypeRegistry;

  /// Handles the peer's AttributeNew records (the peer's symbol, type id, fixed size, a has-value
  /// word and maybe a value): binds the peer's symbol to a session record, finds the attribute at
  /// the announced path (or creates it, with the nodes on the way, when allowed), installs the
  /// deserializer later updates use, and applies the value that came along without echoing it.
  ///
  /// Update thread only, which must own the tree. Everything given to the constructor must
  /// outlive the receiver.
  class NewAttributeReceiver : public BundleReceiver
  {
  public:
    NewAttributeReceiver(RemoteNode& node, AttributeStorage& storage, Bastion::SymbolRegistry& received,
                         TypeRegistry& types, NodeChangeSender& sender);

    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher& session) override;

    /// Missing nodes and attributes the peer announces are created (off at construction).
    void setCreateMissingAttributes(bool create) { m_createMissingAttributes = create; }
    bool createMissingAttributes() const { return m_createMissingAttributes; }
    /// When set, a value the peer wrote before it had seen this side's latest value is skipped.
    void setDropStaleValues(bool drop) { m_dropStaleValues = drop; }
    bool dropStaleValues() const { return m_dropStaleValues; }

    /// Cap on the nodes and attributes this receiver creates in the tree (0, the default: none).
    /// Beyond it the records are handled as if creation were off, one error is logged and
    /// `limitExceeded()` turns true: it keeps a peer from growing the local tree without bound.
    void setMaxCreated(int maxCreated) { m_maxCreated = maxCreated; }
    /// Cap on the nodes and attributes that sessions created for peers and that the tree still
    /// holds (the remote node counts them across sessions; 0, the default: none). Beyond it as
    /// above, with an error of its own: without it each new session of a reconnecting peer could
    /// add another session's worth.
    void setMaxTreeCreated(int maxTreeCreated) { m_maxTreeCreated = maxTreeCreated; }
    bool limitExceeded() const { return m_limitExceeded || m_treeLimitExceeded; }
    int createdCount() const { return m_created; }

  private:
    /// The node that holds the attribute at `path`, whose last '/' is at `end` (-1: the attribute
    /// is a child of the remote node), or null when the walk fails. Creates missing nodes when
    /// allowed.
    Carafe::Node* createOrFindNode(const QByteArray& path, int end);
    Deserializer createDeserializer(PlexaSessionAttribute& session, Carafe::Attribute* attribute);
    /// False (and the cap's error once) when creating one more object would break the cap.
    bool mayCreate();

    RemoteNode& m_node;
    AttributeStorage& m_storage;
    Bastion::SymbolRegistry& m_received;
    TypeRegistry& m_types;
    NodeChangeSender& m_sender;
    bool m_createMissingAttributes = false;
    bool m_dropStaleValues = false;
    int m_maxCreated = 0;
    int m_created = 0;
    bool m_limitExceeded = false;
    int m_maxTreeCreated = 0;
    bool m_treeLimitExceeded = false;
  };
}
