#pragma once

#include "bastion/Mutex.hpp"
#include "bastion/ThreadSafety.hpp"
#include "plexa/bundle/BundleStream.hpp"
#include "plexa/bundle/Connection.hpp"
#include "plexa/bundle/Plexa1Connection.hpp"
#include "plexa/session/BundleControllerParams.hpp"

#include <QString>

#include <memory>
#include <vector>

namespace Plexa
{
  class BundleController;
  class ConnectionThread;
  class RemoteNode;
  class SessionHost;

  /// One session of a `Peer`: what happens over one established connection, from its "connected"
  /// to its "disconnected". It is both ends of the session's bundle traffic: the connection's
  /// block reader hands it the peer's bundle lists (`scheduleProcess`), and the session's core
  /// sends through it (`send`).
  ///
  /// It exists before its controller does: the connection thread makes it when the connection is
  /// established, the application thread starts it (`start` creates the controller) at its next
  /// update. Lists that arrive in between are kept and handed over, in order, by `start`.
  ///
  /// Once `end` has been called (the connection is gone), nothing more is received or sent: a list
  /// the core produces after that is dropped, never left in the writer's queue for the connection's
  /// next session. (Blocks queued before `end` that the writer had not taken yet are removed by
  /// whoever ends or starts a session on that connection, see `SessionLink`.)
  ///
  /// Threads: `scheduleProcess`, `end`, `hasEnded` and the accessors from any thread; `start`,
  /// `send`, `finish`, `controller` and `disconnect` on the application thread. The core holds
  /// the session (as its connection) while the session holds the controller: `finish` breaks that
  /// cycle and must be called before the session is let go.
  class PeerSession : public BundleListScheduler, public Connection, public std::enable_shared_from_this<PeerSession>
  {
  public:
    PeerSession(const std::weak_ptr<ConnectionThread>& connection, const QString& peerAddress, SessionHost& host);
    ~PeerSession() override;
    PeerSession(const PeerSession&) = delete;
    PeerSession& operator=(const PeerSession&) = delete;

    /// Connection thread: queues the list for the controller (kept until `start`), then wakes the
    /// host. Dropped after `end`.
    void scheduleProcess(const std::vector<Bundle>& bundles) override;
    /// The connection is gone: drops what is kept, refuses everything from now on, wakes the host.
    void end();
    bool hasEnded() const;

    /// Application thread: creates the session's controller for `node` with `params` (its
    /// connection replaced by this session) and hands it the lists kept so far. Does nothing after
    /// `end` or a previous `start`.
    void start(RemoteNode& node, BundleControllerParams params);
    /// Application thread: lets the controller go (its core is released here).
    void finish();
    /// Null before `start` and after `finish`.
    std::shared_ptr<BundleController> controller() const;

    /// The core's outgoing side: one "plexa2" block on the connection, unless the session ended.
    void send(const std::vector<Bundle>& bundles) override;

    /// Ends the connection under this session: an accepted one stops, a client one drops the
    /// connection and connects again (a new session follows).
    void disconnect();

    const QString& peerAddress() const { return m_peerAddress; }
    std::shared_ptr<ConnectionThread> connection() const { return m_connection.lock(); }

  private:
    // Constant after construction.
    const std::weak_ptr<ConnectionThread> m_connection;
    const QString m_peerAddress;
    SessionHost& m_host;
    Plexa1Connection m_output;

    mutable Bastion::Mutex m_mutex;
    bool m_ended BASTION_GUARDED_BY(m_mutex) = false;
    bool m_started BASTION_GUARDED_BY(m_mutex) = false;
    std::shared_ptr<BundleController> m_controller BASTION_GUARDED_BY(m_mutex);
    /// Lists received before `start`, in order.
    std::vector<std::vector<Bundle>> m_kept BASTION_GUARDED_BY(m_mutex);
  };
}
