#pragma once

#include <QByteArray>

#include <functional>
#include <memory>

namespace Bastion
{
  class BinaryData;
}

namespace Plexa
{
  class Connection;

  /// How a session is set up; read once, when the session's core first initialises.
  struct BundleControllerParams
  {
    /// Receives the peer's one-way events: the event's name (the path of its symbol) and its
    /// payload, valid only during the call. Runs on the update thread.
    using OneWayEventHandler = std::function<void(const QByteArray& name, Bastion::BinaryData& data)>;

    /// The session's outgoing side: every non-empty send pass goes to its `send`. May be null (the
    /// send pass still runs and its bundles are dropped).
    std::shared_ptr<Connection> connection;
    /// Installed in the one-way event receiver. When empty, the peer's events go to the remote
    /// node's `handleRemoteEvent(name, data, 0)`.
    OneWayEventHandler oneWayEventHandler;
    /// Values the peer sent before it had seen this side's latest value of the same attribute are
    /// dropped (given to the new attribute and the update receivers).
    bool dropStaleValues = false;
    /// Attributes and nodes the peer announces are created locally when missing.
    bool createMissingAttributes = false;
    /// Whether the session sends its own changes from the start; `BundleController::setEnabled`
    /// changes it later.
    bool enabled = true;

    // Caps against a peer that floods the session; 0 means no cap. Once over a cap the receivers
    // refuse what goes beyond it and `BundleController::limitExceeded()` turns true, so the
    // application can end the session.

    /// Paths the peer may define in the receive-side symbol registry.
    int maxSymbols = 0;
    /// Session attribute records (paths mentioned by either side).
    int maxSessionAttributes = 0;
    /// Nodes and attributes the new attribute receiver may create in the local tree.
    int maxCreatedNodes = 0;
  };
}
