#pragma once

#include "plexa/session/BundleReceiver.hpp"

#include <QMap>
#include <QString>

namespace Plexa
{
  /// The receiving half of the module handshake (message type 0). Reads the peer's records: its
  /// "info" announcement, "load-module" requests (handed to the session's module loader, which answers
  /// through the handshake sender), and the "ok" / "error" answers to this side's requests (errors
  /// are logged). Used on the session's update thread only.
  class HandshakeReceiver : public BundleReceiver
  {
  public:
    /// Reads every record up to the end of the bundle. A record that cannot be read ends the bundle
    /// with the warning "HandshakeReceiver::handleBundle # Corrupted message"; nothing is thrown.
    void handleBundle(BundleReaderCore& reader, const BundleHeader& header, BundleDispatcher& session) override;

    /// The map of the peer's last "info" record (empty until one arrived).
    const QMap<QString, QString>& peerInfo() const { return m_peerInfo; }

  private:
    void handleRecord(BundleReaderCore& reader, BundleDispatcher& session);

    QMap<QString, QString> m_peerInfo;
  };
}
