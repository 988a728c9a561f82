#pragma once

#include "plexa/session/BundleControllerParams.hpp"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <functional>
#include <memory>

namespace Plexa
{
  class RemoteNode;

  /// Caps against a peer that floods a session or the tree; 0 means no cap. The defaults and what
  /// each one stops are those of `BundleControllerParams`. A session that goes over a flooding cap
  /// logs one error and is disconnected; the tree keeps what it already applied. A path over a
  /// path limit is refused on its own.
  struct PeerLimits
  {
    /// Paths the peer may define in its symbol registry per session.
    int maxSymbols = BundleControllerParams::DefaultMaxSymbols;
    /// Session attribute records for paths the peer announces, per session.
    int maxSessionAttributes = BundleControllerParams::DefaultMaxSessionAttributes;
    /// Nodes and attributes the receivers may create in the local tree per session.
    int maxCreatedNodes = BundleControllerParams::DefaultMaxCreatedNodes;
    /// Nodes and attributes created for peers that the tree may hold, across sessions.
    int maxTreeCreatedNodes = BundleControllerParams::DefaultMaxTreeCreatedNodes;
    /// Bytes and names of one path the peer defines.
    int maxPathLength = BundleControllerParams::DefaultMaxPathLength;
    int maxPathDepth = BundleControllerParams::DefaultMaxPathDepth;
  };

  struct PeerOptions
  {
    /// Attributes and nodes the peer announces are created locally when missing.
    bool createMissingAttributes = true;
    /// Values the peer sent before it saw this side's latest value are dropped.
    bool dropStaleValues = false;
    PeerLimits limits;
    /// Server side: live connections at most (0: no cap); one more is closed right after it was
    /// accepted, with a logged warning. Each connection costs two threads and its buffers, so
    /// the default keeps a flood of connections from exhausting them.
    int maxConnections = DefaultMaxConnections;
    static constexpr int DefaultMaxConnections = 64;
    /// Folder that files are served from and fetched into; empty: no file transfer.
    QString fileRoot;
    /// A fetch whose file was announced but of which no part arrived for this long (milliseconds)
    /// ends as Stalled: a peer that keeps the connection alive but stops sending cannot hold it.
    /// 0 or less: no limit.
    int fetchStallMs = 30000;
    /// Seconds a connection may stay silent (no byte, not even the answer to a keep-alive ping)
    /// before it is dropped as dead and its slot freed: a stopped process or a cut cable holds a
    /// connection open without a word. 0 or less: the connection's own default (10 s, 60 s for
    /// connections that serve files).
    double pingTimeoutSecs = 0;
  };

  /// How a fetch ended.
  enum class FetchResult
  {
    /// The file is in place and its MD5 is the one the peer announced.
    Verified,
    /// The MD5 did not match, the file could not be stored, or the session ended (or there was none).
    Failed,
    /// The peer did not announce the file within the time limit: it does not have it.
    TimedOut,
    /// The peer announced the file, but it is being downloaded already over another connection
    /// (or this one has too many downloads running).
    Refused,
    /// The peer announced the file, then sent no part of it for `PeerOptions::fetchStallMs`.
    Stalled
  };

  /// Everything an application needs to keep a `RemoteNode` in sync with a peer: the connection
  /// (a client towards host:port, or the connections a listening server accepts), one session per
  /// established connection, and the update loop that runs them.
  ///
  /// A session starts each time a connection is established (a new controller; the tree's present
  /// contents are announced to the peer) and ends when the connection drops; bundles of an ended
  /// session still waiting to be written are discarded, so none reaches the next session. A client
  /// reconnects by itself, every 3 seconds, until `stop()`.
  ///
  /// Threads: the tree and every call below except `wake()` and the statistics belong to the
  /// application thread, the one that calls `waitAndUpdate`/`update`. Callbacks run there too.
  /// `update` services this Peer's own sessions only, so a turn costs what they need whatever
  /// else the process runs; the Peers of a process still share the tree's after-update queue and
  /// the controllers' list, so all of them must be driven from that one thread. The node must
  /// outlive the Peer.
  ///
  /// Typical use:
  ///
  ///     Plexa::RemoteNode scene(nullptr, "scene");
  ///     Plexa::Peer peer(scene);
  ///     peer.connectTo("127.0.0.1", 4711);
  ///     for (;;)
  ///       peer.waitAndUpdate(100);   // returns early when bundles arrive or the tree changes
  ///
  /// In a Qt application, a `QtPeerDriver` runs the updates from the event loop instead.
  class Peer
  {
  public:
    using ConnectionCallback = std::function<void(const QString& peerAddress, bool connected)>;
    using RetryCallback = std::function<void(double secondsLeft)>;
    using FetchCallback = std::function<void(const QString& path, FetchResult result)>;
    using FetchProgressCallback = std::function<void(const QString& path, int64_t bytesDone, int64_t bytesTotal)>;

    explicit Peer(RemoteNode& node, const PeerOptions& options = PeerOptions());
    /// Stops the connections and ends their sessions.
    ~Peer();
    Peer(const Peer&) = delete;
    Peer& operator=(const Peer&) = delete;

    /// Client: connects to `host`:`port` in the background, retrying every 3 seconds.
    void connectTo(const QString& host, int port);
    /// Server: listens on `host`:`port` (port 0 picks a free one). False, with a readable reason
    /// in `error`, when the address cannot be bound (no retry).
    bool listen(const QString& host, int port, QString* error = nullptr);
    /// The port being listened on, 0 when not listening.
    int listeningPort() const;
    /// Closes every connection and the listening socket; sessions end at the next update.
    void stop();

    /// Runs the queued session work once: incoming bundles, then this side's changes out.
    void update();
    /// Waits until bundles arrived, the tree changed locally, `wake()` was called, or `maxWaitMs`
    /// passed, then runs `update()`. Idles without spinning.
    void waitAndUpdate(int maxWaitMs);
    /// Makes a waiting `waitAndUpdate` return at once. Any thread.
    void wake();

    /// For an event loop that drives the Peer instead of `waitAndUpdate` (`QtPeerDriver` does it
    /// for Qt's): a descriptor that turns readable whenever `waitAndUpdate` would return early.
    /// The Peer owns it; only watch it. -1 when the system had no descriptor to give.
    int wakeDescriptor() const;
    /// The event loop's turn, when the descriptor turned readable or the time returned last is
    /// up: takes the wake-up and runs `update()`. Returns the milliseconds until `update()` must
    /// run for a time limit (a fetch, a held client session), -1 when there is none.
    int updateOnWake();
    /// Reports the tree's pending additions, which wake the Peer: the event loop calls it each
    /// time before it blocks, as `waitAndUpdate` does before it waits.
    void prepareToWait();

    /// Runs `update()`, so that this side's changes are queued, then blocks until every live
    /// connection has written all that is queued for it to its socket, or `timeoutMs` passed
    /// (negative: no limit). True when all was written. A client session that still holds back
    /// (see above) has sent nothing yet. Written is not received: see `allSentAcknowledged`.
    bool flush(int timeoutMs);
    /// True when in every live session the peer has acknowledged every bundle sent to it, i.e.
    /// has received and applied them. A peer acknowledges with the bundles it sends, so one that
    /// sends nothing back acknowledges nothing. Changes at updates.
    bool allSentAcknowledged() const;

    /// Live sessions (established connections). Changes at updates, together with the connection
    /// callback.
    int sessionCount() const;
    /// Sessions in which the peer's "initialized" event has arrived.
    int initializedSessionCount() const;

    /// Bytes written to and read from every connection since construction. Any thread.
    uint64_t txBytes() const;
    uint64_t rxBytes() const;

    void setConnectionCallback(const ConnectionCallback& callback);
    /// Client: seconds left until the next connection attempt, while retrying.
    void setRetryCallback(const RetryCallback& callback);

    /// Asks the peer of the first live session for the file at `path` (relative to its file root,
    /// beginning with '/'); it is stored at the same path below this side's file root once its MD5
    /// matched. `callback` runs once, with Verified, Failed (MD5 mismatch, connection lost),
    /// TimedOut (the peer never answered within `timeoutMs`: it does not have the file), Refused
    /// or Stalled (see FetchResult). Only files asked for here are taken from the peer. A fetch
    /// still running when the Peer is destroyed gets no call.
    void fetch(const QString& path, int timeoutMs, const FetchCallback& callback);
    /// Progress of running fetches, after every few parts and at the end.
    void setFetchProgressCallback(const FetchProgressCallback& callback);
    /// Waits until the list of this side's file root, with the checksums the peer's fetches are
    /// answered with, has been built (it is built in the background from construction on; until
    /// then a file is announced without a checksum, which the fetching side cannot take).
    /// `timeoutMs` negative: no limit. False on timeout, or without a file root.
    bool waitForFileList(int timeoutMs);

  private:
    class D;
    std::unique_ptr<D> d;
  };
}
