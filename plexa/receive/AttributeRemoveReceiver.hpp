#pragma once

#include "plexa/session/BundleReceiver.hpp"

namespace Bastion
{
  class SymbolRegistry;
}

namespace Plexa
{
  class AttributeStorage;
  class NodeChangeSender;
  class RemoteNode;

  /// Applies the peer's removals (the peer's symbol per record): an attribute this side created
  /// because the peer announced it is deleted, one that existed here before is kept; either way
  /// the record then reads later values past. A removal may name a path the peer never announced
  /// in this session (it removed its copy of this side's announcement before its next pass): the
  /// record is then found by the path of the peer's symbol (`received`). Update thread only; the
  /// node, the storage, the registry and the sender must outlive it.
  class AttributeRemoveReceiver : public BundleReceiver
  {
  public:
    AttributeRemoveReceiver(RemoteNode& node, AttributeStorage& storage, const Bastion::SymbolRegistry& received,
                            NodeChangeSender& sender);

    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher& session) override;

  private:
    RemoteNode& m_node;
    AttributeStorage& m_storage;
    const Bastion::SymbolRegistry& m_received;
    NodeChangeSender& m_sender;
  };
}
