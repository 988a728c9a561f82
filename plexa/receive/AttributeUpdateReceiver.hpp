#pragma once

#include "plexa/session/BundleReceiver.hpp"

namespace Plexa
{
  class AttributeStorage;
  class NodeChangeSender;

  /// Applies the peer's value updates (the peer's symbol, then one value) through the
  /// deserializers the AttributeNew records installed, without echoing them back. Update thread
  /// only; the storage and the sender must outlive it.
  class AttributeUpdateReceiver : public BundleReceiver
  {
  public:
    AttributeUpdateReceiver(AttributeStorage& storage, NodeChangeSender& sender);

    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher& session) override;

    /// When set, a value the peer wrote before it had seen this side's latest value of the same
    /// attribute is read past instead of applied.
    void setDropStaleValues(bool drop) { m_dropStaleValues = drop; }
    bool dropStaleValues() const { return m_dropStaleValues; }

  private:
    AttributeStorage& m_storage;
    NodeChangeSender& m_sender;
    bool m_dropStaleValues = false;
  };
}
