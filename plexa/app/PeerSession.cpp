#include "plexa/app/PeerSession.hpp"

#include "bastion/Guard.hpp"
#include "plexa/app/SessionHost.hpp"
#include "plexa/controller/BundleController.hpp"
#include "plexa/net/ConnectionThread.hpp"

namespace Plexa
{
  PeerSession::PeerSession(const std::weak_ptr<ConnectionThread>& connection, const QString& peerAddress,
                           SessionHost& host)
      : m_connection(connection)
      , m_peerAddress(peerAddress)
      , m_host(host)
      , m_output(connection)
  {
  }

  PeerSession::~PeerSession() = default;

  void PeerSession::scheduleProcess(const std::vector<Bundle>& bundles)
  {
    {
      // The controller is called with the lock held, so that this thread never holds the last
      // reference to it: a controller must be released on the application thread, which owns
      // the tree its core works on.
      Bastion::Guard guard(m_mutex);
      if (m_ended)
        return;
      if (m_controller)
        m_controller->scheduleProcess(bundles);
      else
        m_kept.push_back(bundles);
    }
    m_host.wake();
  }

  void PeerSession::end()
  {
    {
      Bastion::Guard guard(m_mutex);
      if (m_ended)
        return;
      m_ended = true;
      m_kept.clear();
    }
    m_host.wake();
  }

  bool PeerSession::hasEnded() const
  {
    Bastion::Guard guard(m_mutex);
    return m_ended;
  }

  void PeerSession::start(RemoteNode& node, BundleControllerParams params)
  {
    {
      Bastion::Guard guard(m_mutex);
      if (m_ended || m_started)
        return;
      m_started = true;
    }
    params.connection = shared_from_this();
    std::shared_ptr<BundleController> controller = BundleController::create(node, params);
    Bastion::Guard guard(m_mutex);
    if (m_ended)
      return; // `controller` goes here, on the application thread
    for (const std::vector<Bundle>& bundles : m_kept)
      controller->scheduleProcess(bundles);
    m_kept.clear();
    m_controller = std::move(controller);
  }

  void PeerSession::finish()
  {
    std::shared_ptr<BundleController> controller;
    {
      Bastion::Guard guard(m_mutex);
      controller.swap(m_controller);
    }
    // Released outside the lock: the core's destruction drops its reference to this session.
  }

  std::shared_ptr<BundleController> PeerSession::controller() const
  {
    Bastion::Guard guard(m_mutex);
    return m_controller;
  }

  void PeerSession::send(const std::vector<Bundle>& bundles)
  {
    // Held while queueing: `end` cannot slip in between the test and the write, so once it has
    // returned no block of this session enters the writer's queue any more.
    Bastion::Guard guard(m_mutex);
    if (!m_ended)
      m_output.send(bundles);
  }

  void PeerSession::disconnect()
  {
    const std::shared_ptr<ConnectionThread> connection = m_connection.lock();
    if (!connection)
      return;
    if (connection->isAccepted())
      connection->stop();
    else
      connection->connectToHost(connection->remoteHost(), connection->remotePort());
  }
}
