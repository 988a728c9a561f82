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

    // Caps against a peer that floods the session or the tree; 0 means no cap. Once over a cap
    // the receivers refuse what goes beyond it, log it once per session, and
    // `BundleController::limitExceeded()` turns true: the session applies nothing more from the
    // peer, and the application should end it.
    // The defaults leave room for trees larger than the 100,000 attributes the benchmarks mirror,
    // while bounding what one peer can make this process hold: a node created for a peer costs
    // about 2 KiB with its listeners, cache and registry entries and path, so a session that
    // reaches `maxCreatedNodes` with long paths holds about 550 MiB.

    /// Paths the peer may define in the receive-side symbol registry (every path and event name
    /// it uses once): stops a peer that defines ever new paths.
    int maxSymbols = DefaultMaxSymbols;
    /// Session attribute records made for paths the peer announces: stops ever new announcements.
    int maxSessionAttributes = DefaultMaxSessionAttributes;
    /// Nodes and attributes the new attribute receiver may create in the local tree per session.
    int maxCreatedNodes = DefaultMaxCreatedNodes;
    /// Nodes and attributes created for peers that the tree may hold at once, counted per tree
    /// across sessions: a peer that reconnects cannot grow the tree by another session's worth
    /// each time.
    int maxTreeCreatedNodes = DefaultMaxTreeCreatedNodes;

    // Limits on each path the peer defines; a path beyond one is refused (with one line per
    // session), and so is what the peer later says about its symbol. Not counted as a flood.

    /// Bytes of one path. Every node on the way gets its path stored, so a long path costs about
    /// its length times its depth.
    int maxPathLength = DefaultMaxPathLength;
    /// Names in one path, and so the depth of the nodes a peer can make this side create.
    int maxPathDepth = DefaultMaxPathDepth;

    static constexpr int DefaultMaxSymbols = 250000;
    static constexpr int DefaultMaxSessionAttributes = 250000;
    static constexpr int DefaultMaxCreatedNodes = 250000;
    static constexpr int DefaultMaxTreeCreatedNodes = 500000;
    static constexpr int DefaultMaxPathLength = 512;
    static constexpr int DefaultMaxPathDepth = 64;
  };
}
