#pragma once

#include "bastion/Condition.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/TCPServerSocket.hpp"
#include "bastion/Thread.hpp"
#include "bastion/ThreadSafety.hpp"

#include <QString>

#include <atomic>
#include <map>
#include <memory>
#include <set>
#include <vector>

namespace Bastion
{
  class FunctionTask;
  class TCPSocket;
}

namespace Plexa
{
  class ConnectionThread;

  /// The accepting end: binds a listening socket (retrying every 5 s while the port is busy),
  /// turns every accepted socket into a connection thread through the application's factory,
  /// starts it, keeps the live connections and retires each one in the background once it has
  /// ended.
  ///
  /// Threads: the server's own thread binds and accepts and calls `createConnection`. Each
  /// connection's thread calls `connected` and `disconnected`; the framework's shared background
  /// thread (Bastion::BGThread) calls `removedInstance`, after the connection's thread has ended and
  /// the connection has left `instances()`. `run`, `stop`, `instances`, `closeConnections` and
  /// `removeInstance` may be called from any thread. No hook runs under a lock of the server.
  ///
  /// Shutdown: a subclass calls `stop(true)` and `closeConnections()` in its own destructor, so
  /// that no hook runs while it is being destroyed; the base destructor does both again (idempotent)
  /// and then completes pending retirements on the destroying thread.
  class ServerBase : public Bastion::Thread, public Bastion::TCPServerSocket
  {
  public:
    ServerBase();
    ~ServerBase() override;

    /// Starts binding `host` (UTF-8 name or address; empty = all interfaces) and `port` on the
    /// server's thread. Does nothing while the thread runs.
    void run(const QString& host, int port);
    /// Asks the platform to open the port before every bind attempt. Takes effect at the next one.
    void setAutoFirewallRules(bool enabled, const QString& ruleName);
    /// Whether a failed bind is tried again every few seconds (the default) or ends the server's
    /// thread. Takes effect at the next `run`.
    void setRetryBind(bool retry);
    /// Blocks until the server's thread has tried to bind since the last `run`: 0 when the last
    /// attempt bound the address, else its error number (ECANCELED when the server was stopped
    /// before it tried). Not on the server's thread.
    int waitForBind();
    /// The connections accepted and not yet retired (a copy).
    std::vector<std::shared_ptr<ConnectionThread>> instances() const;
    /// Stops accepting (a pending bind retry ends at once); with `stopConnections`, also stops
    /// every connection. Waits for nothing.
    void stop(bool stopConnections);
    /// Only after `stop`: takes every connection out of the list, stops them and waits for their
    /// threads, in list order, then completes the retirements still pending on the calling
    /// thread (so `removedInstance` has run for them on return). Does nothing while the server runs.
    void closeConnections();
    /// Schedules the retirement of `connection` on the background thread (see class comment).
    /// Null and connections already being retired are ignored.
    void removeInstance(const std::shared_ptr<ConnectionThread>& connection);
    /// True between `run` and `stop`.
    bool isServing() const { return m_running.load(); }

  protected:
    void childLoop() override;
    /// The application's factory: a connection thread for `socket` (which it takes over), or
    /// null to drop it. Runs on the server's thread.
    virtual std::shared_ptr<ConnectionThread> createConnection(Bastion::TCPSocket* socket) = 0;
    /// After a connection was retired; background thread.
    virtual void removedInstance(std::shared_ptr<ConnectionThread> connection);
    /// After a connection's handshake; connection's thread.
    virtual void connected(std::shared_ptr<ConnectionThread> connection);
    /// When a connection has ended; connection's thread.
    virtual void disconnected(std::shared_ptr<ConnectionThread> connection);

  private:
    struct Listeners
    {
      long connected = -1;
      long disconnected = -1;
    };

    /// One attempt; 0 or the error number.
    int bind();
    void reportBind(int result);
    /// Starts and lists a new connection; stops it instead when the server stopped meanwhile.
    void accepted(Bastion::TCPSocket* socket);
    /// True for an accept error that concerns only the connection being taken.
    static bool failedOnItsOwn(int error);
    /// The pause after the `failures`-th failed accept in a row (errno `error`, out of descriptors
    /// or memory, or an error of the listening socket); ends early on stop.
    void waitAfterFailedAccept(int error, int failures);
    /// Retires listed connections whose thread has ended without a "disconnected" event (a failed
    /// handshake sends none).
    void retireEnded();
    /// Removes the server's listeners from a connection whose thread has ended.
    void forgetListeners(ConnectionThread* connection);

    Bastion::Mutex m_waitMutex;
    /// Woken by `stop` (a pending bind retry ends) and after every bind attempt.
    Bastion::Condition m_waitCondition;
    /// The result of the last bind attempt; BindPending from `run` until the first.
    int m_bindResult BASTION_GUARDED_BY(m_waitMutex) = BindPending;
    static constexpr int BindPending = -1;

    mutable Bastion::Mutex m_configMutex;
    QString m_host BASTION_GUARDED_BY(m_configMutex);
    int m_port BASTION_GUARDED_BY(m_configMutex) = 0;
    bool m_autoFirewallRules BASTION_GUARDED_BY(m_configMutex) = false;
    bool m_retryBind BASTION_GUARDED_BY(m_configMutex) = true;
    QString m_firewallRuleName BASTION_GUARDED_BY(m_configMutex);

    std::atomic<bool> m_running{false};

    mutable Bastion::Mutex m_instancesMutex;
    std::vector<std::shared_ptr<ConnectionThread>> m_instances BASTION_GUARDED_BY(m_instancesMutex);
    std::vector<std::shared_ptr<Bastion::FunctionTask>> m_pendingRemovals BASTION_GUARDED_BY(m_instancesMutex);
    /// Connections whose retirement is scheduled, so none is retired twice.
    std::set<ConnectionThread*> m_retiring BASTION_GUARDED_BY(m_instancesMutex);
    std::map<ConnectionThread*, Listeners> m_listeners BASTION_GUARDED_BY(m_instancesMutex);
  };
}
