#pragma once

#include <QString>

#include <memory>

namespace Plexa
{
  class ConnectionThread;
  class PeerSession;
  class SessionHost;
  class TrafficMeter;

  /// The part of a `Peer`'s connection that is the same whatever the connection's class: one
  /// `PeerSession` per established connection, bundle blocks handed to it, and the connection's
  /// bytes counted. The connection classes forward their hooks here.
  ///
  /// Threads: `connected`, `disconnected`, `parse`, `retrying` and `session` run on the
  /// connection thread; `attach` in the connection's constructor, `detach` in its destructor
  /// after the connection's threads have ended.
  class SessionLink
  {
  public:
    SessionLink(SessionHost& host, std::shared_ptr<TrafficMeter> traffic, const QString& peerAddress);
    ~SessionLink();
    SessionLink(const SessionLink&) = delete;
    SessionLink& operator=(const SessionLink&) = delete;

    /// Counts `connection`'s bytes from now on.
    void attach(const ConnectionThread& connection);
    /// Adds `connection`'s final counts to the totals.
    void detach(const ConnectionThread& connection);

    /// Begins a new session. Blocks of "plexa2" still waiting in the writer's queue belong to an
    /// earlier session and are dropped (the writer has not started yet).
    void connected(ConnectionThread& connection);
    /// Ends the session and drops its blocks still waiting to be written.
    void disconnected(ConnectionThread& connection);
    /// A bundle block goes to the session; false for any other line.
    bool parse(ConnectionThread& connection, const QString& line);
    void retrying(double secondsLeft);

    /// The running session; null between connections.
    const std::shared_ptr<PeerSession>& session() const { return m_session; }
    SessionHost& host() const { return m_host; }

  private:
    SessionHost& m_host;
    const std::shared_ptr<TrafficMeter> m_traffic;
    const QString m_peerAddress;
    // Connection thread only.
    std::shared_ptr<PeerSession> m_session;
  };
}
