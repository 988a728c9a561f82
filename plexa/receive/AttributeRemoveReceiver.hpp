#pragma once

#include "plexa/session/BundleReceiver.hpp"

namespace Plexa
{
  class AttributeStorage;
  class NodeChangeSender;
  class RemoteNode;

  /// Applies the peer's removals (the peer's symbol per record): an attribute this side created
  /// because the peer announced it is deleted, one that existed here before is kept; either way
  /// the record then reads later values past. Update thread only; the node, the storage and the
  /// sender must outlive it.
  class AttributeRemoveReceiver : public BundleReceiver
  {
  public:
    AttributeRemoveReceiver(RemoteNode& node, AttributeStorage& storage, NodeChangeSender& sender);

    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher& session) override;

  private:
    RemoteNode& m_node;
    AttributeStorage& m_storage;
    NodeChangeSender& m_sender;
  };
}
