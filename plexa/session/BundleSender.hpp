#pragma once

#include <QByteArray>

#include <cstdint>

namespace Plexa
{
  class BundleDispatcher;
  class BundleOutput;

  /// Base of everything that produces bundles. The session core calls a sender on its update
  /// thread only: `prepareUpdates` at the start of every send pass, then `writeUpdates` with the
  /// pass's output, in the order in which senders were added.
  class BundleSender
  {
  public:
    /// `moduleName` names the module whose bundles this sender writes; the core asks for its
    /// message type when the sender is added. An empty name means the sender chooses its types
    /// itself (the handshake sender, which always uses type 0).
    explicit BundleSender(const QByteArray& moduleName = QByteArray());
    virtual ~BundleSender();
    BundleSender(const BundleSender&) = delete;
    BundleSender& operator=(const BundleSender&) = delete;

    /// Called at the start of each send pass, before any sender writes. Does nothing by default.
    virtual void prepareUpdates();
    /// Writes this sender's bundles of the pass into `output` (possibly none).
    virtual void writeUpdates(BundleOutput& output) = 0;
    /// Runs once, right after the sender obtained its outgoing message type, so that it can look
    /// up further types of its own. Does nothing by default.
    virtual void initialize(BundleDispatcher& dispatcher);

    const QByteArray& moduleName() const { return m_moduleName; }
    uint32_t messageType() const { return m_messageType; }
    void setMessageType(uint32_t messageType) { m_messageType = messageType; }

  private:
    QByteArray m_moduleName;
    uint32_t m_messageType = 0;
  };
}
