#pragma once

#include <QByteArray>
#include <QMap>
#include <QString>

#include <cstdint>

namespace Plexa
{
  /// What the senders and receivers of a session may ask of it: a sender, while it registers, the
  /// outgoing message type of a module name; the handshake receiver, the loading of a module the
  /// peer requests. Implemented by the session's core (plexa/controller), which sits above the
  /// senders and receivers and hands itself to them as this interface; used on the session's
  /// update thread only.
  class BundleDispatcher
  {
  public:
    virtual ~BundleDispatcher() = default;

    /// The number this side sends `moduleName`'s bundles under. The first call for a name
    /// allocates the next number and queues a "load-module" request to the peer; later calls
    /// return the same number without a further request.
    virtual uint32_t messageTypeFor(const QByteArray& moduleName) = 0;

    /// The peer's "load-module" request: serves `moduleName`'s bundles arriving under
    /// `messageType` with a receiver made from `parameters`, and answers "ok" or "error".
    virtual void loadModule(uint32_t messageType, const QString& moduleName,
                            const QMap<QString, QString>& parameters) = 0;
  };
}
