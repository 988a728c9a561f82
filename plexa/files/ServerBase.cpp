#include "plexa/files/ServerBase.hpp"

#include "bastion/BGThread.hpp"
#include "bastion/BinaryData.hpp"
#include "bastion/FunctionTask.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/PlatformUtils.hpp"
#include "bastion/StringUtils.hpp"
#include "bastion/TCPSocket.hpp"
#include "bastion/TimeStamp.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/net/NetFormat.hpp"

#include <algorithm>
#include <cerrno>
#include <exception>

namespace Plexa
{
  ServerBase::ServerBase()
      : Bastion::Thread("Bastion::Thread")
  {
  }

  ServerBase::~ServerBase()
  {
    // The accept loop calls the factory of the object being destroyed: end it first.
    stop(false);
    if (!isCurrentThread())
      waitEnd();
    closeConnections();
    std::vector<std::shared_ptr<Bastion::FunctionTask>> pending;
    {
      Bastion::Guard guard(m_instancesMutex);
      pending.swap(m_pendingRemovals);
    }
    for (const auto& task : pending)
      task->runNow();
  }

  void ServerBase::run(const QString& host, int port)
  {
    if (isRunning())
      return;
    m_running = true;
    {
      Bastion::Guard guard(m_configMutex);
      m_host = host;
      m_port = port;
    }
    {
      Bastion::Guard guard(m_waitMutex);
      m_bindResult = BindPending;
    }
    Bastion::Thread::run();
  }

  void ServerBase::setAutoFirewallRules(bool enabled, const QString& ruleName)
  {
    Bastion::Guard guard(m_configMutex);
    m_autoFirewallRules = enabled;
    m_firewallRuleName = ruleName;
  }

  void ServerBase::setRetryBind(bool retry)
  {
    Bastion::Guard guard(m_configMutex);
    m_retryBind = retry;
  }

  int ServerBase::waitForBind()
  {
    Bastion::Guard guard(m_waitMutex);
    while (m_bindResult == BindPending)
      m_waitCondition.wait(m_waitMutex, -1);
    return m_bindResult;
  }

  void ServerBase::reportBind(int result)
  {
    Bastion::Guard guard(m_waitMutex);
    m_bindResult = result;
    m_waitCondition.wakeAll();
  }

  std::vector<std::shared_ptr<ConnectionThread>> ServerBase::instances() const
  {
    Bastion::Guard guard(m_instancesMutex);
    return m_instances;
  }

  void ServerBase::stop(bool stopConnections)
  {
    m_running = false;
    {
      Bastion::Guard guard(m_waitMutex);
      m_waitCondition.wakeAll();
    }
    close();
    if (!stopConnections)
      return;
    Bastion::Guard guard(m_instancesMutex);
    for (const auto& connection : m_instances)
      connection->stop();
  }

  void ServerBase::closeConnections()
  {
    if (m_running)
      return;
    std::vector<std::shared_ptr<ConnectionThread>> taken;
    {
      Bastion::Guard guard(m_instancesMutex);
      taken.swap(m_instances);
    }
    for (const auto& connection : taken)
      connection->stop();
    for (const auto& connection : taken) {
      connection->waitEnd();
      forgetListeners(connection.get());
    }
    // Retirements that the stopped connections scheduled run now, on this thread, while the
    // caller (usually a subclass destructor) is still whole: none may reach `removedInstance`
    // later, from the background thread, in the middle of the destruction.
    std::vector<std::shared_ptr<Bastion::FunctionTask>> pending;
    {
      Bastion::Guard guard(m_instancesMutex);
      pending = m_pendingRemovals;
    }
    for (const auto& task : pending)
      task->runNow();
  }

  void ServerBase::removeInstance(const std::shared_ptr<ConnectionThread>& connection)
  {
    if (!connection)
      return;
    // The task finds itself in the pending list through this slot (it cannot own itself).
    auto self = std::make_shared<Bastion::FunctionTask*>(nullptr);
    auto task = std::make_shared<Bastion::FunctionTask>([this, connection = connection, self]() mutable {
      connection->waitEnd();
      {
        Bastion::Guard guard(m_instancesMutex);
        m_instances.erase(std::remove(m_instances.begin(), m_instances.end(), connection), m_instances.end());
      }
      forgetListeners(connection.get());
      removedInstance(connection);
      {
        Bastion::Guard guard(m_instancesMutex);
        m_retiring.erase(connection.get());
      }
      // The connection (and its handler, which may refer to what the server serves) goes while
      // the task is still pending: once it left the list below, a closing server no longer waits
      // for it, and the server may be gone.
      connection.reset();
      Bastion::Guard guard(m_instancesMutex);
      m_pendingRemovals.erase(
          std::remove_if(m_pendingRemovals.begin(), m_pendingRemovals.end(),
                         [&](const std::shared_ptr<Bastion::FunctionTask>& t) { return t.get() == *self; }),
          m_pendingRemovals.end());
    });
    *self = task.get();
    Bastion::Guard guard(m_instancesMutex);
    if (!m_retiring.insert(connection.get()).second)
      return;
    m_pendingRemovals.push_back(task);
    Bastion::BGThread::instance().addTask(task);
  }

  void ServerBase::forgetListeners(ConnectionThread* connection)
  {
    Listeners listeners;
    {
      Bastion::Guard guard(m_instancesMutex);
      auto it = m_listeners.find(connection);
      if (it == m_listeners.end())
        return;
      listeners = it->second;
      m_listeners.erase(it);
    }
    connection->eventRemoveListener(listeners.connected);
    connection->eventRemoveListener(listeners.disconnected);
  }

  // The hooks take the pointer by value so that an override may keep it; these defaults do not.
  void ServerBase::removedInstance(std::shared_ptr<ConnectionThread>) {} // NOLINT(performance-unnecessary-value-param)
  void ServerBase::connected(std::shared_ptr<ConnectionThread>) {}       // NOLINT(performance-unnecessary-value-param)
  void ServerBase::disconnected(std::shared_ptr<ConnectionThread>) {}    // NOLINT(performance-unnecessary-value-param)

  int ServerBase::bind()
  {
    QByteArray host;
    int port = 0;
    bool firewall = false;
    QString ruleName;
    {
      Bastion::Guard guard(m_configMutex);
      host = m_host.toUtf8();
      port = m_port;
      firewall = m_autoFirewallRules;
      ruleName = m_firewallRuleName;
    }
    if (firewall)
      Bastion::PlatformUtils::openFirewallPortTCP(port, ruleName);
    return open(host.constData(), port, NetFormat::AcceptBacklog);
  }

  void ServerBase::childLoop()
  {
    if (!m_running) {
      reportBind(ECANCELED);
      return;
    }
    bool retry = true;
    {
      Bastion::Guard guard(m_configMutex);
      retry = m_retryBind;
    }
    for (;;) {
      const int result = bind();
      reportBind(result);
      if (result == 0)
        break;
      if (!retry) {
        m_running = false;
        return;
      }
      // A busy port is retried quietly until it frees up or the server is stopped.
      const Bastion::TimeStamp start = Bastion::TimeStamp::getTime();
      Bastion::Guard guard(m_waitMutex);
      while (m_running) {
        const double left = NetFormat::BindRetrySecs - start.sinceSecondsD();
        if (left <= 0)
          break;
        m_waitCondition.wait(m_waitMutex, int(left * 1000.0) + 1);
      }
      if (!m_running)
        return;
    }
    {
      Bastion::Guard guard(m_configMutex);
      Bastion::info("Listening %s:%d", m_host.toUtf8().constData(), m_port);
    }
    Bastion::TimeStamp lastSweep = Bastion::TimeStamp::getTime();
    int failedAccepts = 0;
    while (m_running) {
      if (!isPendingConnection(NetFormat::AcceptPollUsec)) {
        if (lastSweep.sinceSecondsD() > 1.0) {
          retireEnded();
          lastSweep = Bastion::TimeStamp::getTime();
        }
        continue;
      }
      if (!m_running)
        break;
      int error = 0;
      Bastion::TCPSocket* socket = accept(&error);
      retireEnded();
      if (socket) {
        if (failedAccepts > 0)
          Bastion::info("ServerBase # Accepting connections again after %d failed attempts", failedAccepts);
        failedAccepts = 0;
        accepted(socket);
      } else if (m_running && !failedOnItsOwn(error))
        waitAfterFailedAccept(error, ++failedAccepts);
    }
    // A stop that raced with the bind may have left the socket open.
    close();
  }

  bool ServerBase::failedOnItsOwn(int error)
  {
    // Errors of the one connection being taken (it is gone from the queue): the next one may be
    // fine, so these cost no pause, or a peer could slow the accepting down with them.
    switch (error) {
    case ECONNABORTED:
    case EPROTO:
    case EPERM:
    case ENETDOWN:
    case ENOPROTOOPT:
    case EHOSTDOWN:
    case ENONET:
    case EHOSTUNREACH:
    case EOPNOTSUPP:
    case ENETUNREACH:
      return true;
    default:
      return false;
    }
  }

  void ServerBase::waitAfterFailedAccept(int error, int failures)
  {
    // Out of descriptors, the connection stays pending and the next poll returns at once: without
    // a pause the loop would spin until a descriptor frees up. One line per run of failures.
    if (failures == 1)
      Bastion::error("ServerBase # Cannot accept a connection (%s), retrying at most every %d ms",
                     Bastion::StringUtils::errorText(error).constData(), NetFormat::AcceptRetryMaxMs);
    int pauseMs = NetFormat::AcceptRetryMinMs;
    for (int i = 1; i < failures && pauseMs < NetFormat::AcceptRetryMaxMs; ++i)
      pauseMs *= 2;
    pauseMs = qMin(pauseMs, NetFormat::AcceptRetryMaxMs);
    const Bastion::TimeStamp start = Bastion::TimeStamp::getTime();
    Bastion::Guard guard(m_waitMutex);
    while (m_running) {
      const double left = pauseMs / 1000.0 - start.sinceSecondsD();
      if (left <= 0)
        break;
      m_waitCondition.wait(m_waitMutex, int(left * 1000.0) + 1);
    }
  }

  void ServerBase::accepted(Bastion::TCPSocket* socket)
  {
    std::shared_ptr<ConnectionThread> connection;
    try {
      connection = createConnection(socket);
    } catch (const std::exception& e) {
      Bastion::error("ServerBase::childLoop # createConnection failed: %s", e.what());
      return;
    }
    if (!connection)
      return;
    std::weak_ptr<ConnectionThread> weak = connection;
    Listeners listeners;
    listeners.connected = connection->eventAddListener(
        "connected",
        [this, weak](Bastion::BinaryData&) {
          if (std::shared_ptr<ConnectionThread> alive = weak.lock())
            connected(alive);
        },
        Carafe::Node::After);
    listeners.disconnected = connection->eventAddListener(
        "disconnected",
        [this, weak](Bastion::BinaryData&) {
          std::shared_ptr<ConnectionThread> alive = weak.lock();
          if (alive)
            disconnected(alive);
          removeInstance(alive);
        },
        Carafe::Node::After);
    {
      // Started and listed under one hold: its retirement, which needs the mutex, cannot come
      // first. Tested under it too: a `stop` that came while the socket was being set up has
      // stopped the listed connections already, and this one would escape it.
      Bastion::Guard guard(m_instancesMutex);
      if (m_running) {
        m_listeners[connection.get()] = listeners;
        connection->Bastion::Thread::run();
        m_instances.push_back(connection);
        return;
      }
    }
    connection->eventRemoveListener(listeners.connected);
    connection->eventRemoveListener(listeners.disconnected);
    connection->stop();
  }

  void ServerBase::retireEnded()
  {
    std::vector<std::shared_ptr<ConnectionThread>> ended;
    {
      Bastion::Guard guard(m_instancesMutex);
      for (const auto& connection : m_instances) {
        if (!connection->isRunning() && m_retiring.count(connection.get()) == 0)
          ended.push_back(connection);
      }
    }
    for (const auto& connection : ended)
      removeInstance(connection);
  }
}
