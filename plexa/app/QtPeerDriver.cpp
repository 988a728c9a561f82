#include "plexa/app/QtPeerDriver.hpp"

#include <QAbstractEventDispatcher>
#include <QPointer>
#include <QSocketNotifier>
#include <QThread>
#include <QTimer>

namespace Plexa
{
  namespace
  {
    /// Without a wake-up descriptor the driver can only look for work this often.
    constexpr int FallbackPollMs = 20;
  }

  QtPeerDriver::QtPeerDriver(Peer& peer, QObject* parent)
      : QObject(parent)
      , m_peer(peer)
      , m_timer(new QTimer(this))
  {
    qRegisterMetaType<Plexa::FetchResult>();
    m_timer->setSingleShot(true);
    connect(m_timer, &QTimer::timeout, this, &QtPeerDriver::run);
    if (peer.wakeDescriptor() >= 0) {
      m_notifier = new QSocketNotifier(peer.wakeDescriptor(), QSocketNotifier::Read, this);
      connect(m_notifier, &QSocketNotifier::activated, this, &QtPeerDriver::run);
    }
    if (QAbstractEventDispatcher* dispatcher = QAbstractEventDispatcher::instance(thread()))
      connect(dispatcher, &QAbstractEventDispatcher::aboutToBlock, this, [this] { m_peer.prepareToWait(); });

    // The callbacks run inside the update, on this thread; the guard covers a Peer that outlives
    // the driver and finishes a fetch after it.
    const QPointer<QtPeerDriver> self(this);
    peer.setConnectionCallback([self](const QString& address, bool connected) {
      if (self)
        emit self->connectionChanged(address, connected);
    });
    peer.setRetryCallback([self](double secondsLeft) {
      if (self)
        emit self->retrying(secondsLeft);
    });
    peer.setFetchProgressCallback([self](const QString& path, int64_t done, int64_t total) {
      if (self)
        emit self->fetchProgress(path, qint64(done), qint64(total));
    });
    // Work may have come before the driver: look once, from the loop.
    QTimer::singleShot(0, this, &QtPeerDriver::run);
  }

  QtPeerDriver::~QtPeerDriver()
  {
    m_peer.setConnectionCallback(Peer::ConnectionCallback());
    m_peer.setRetryCallback(Peer::RetryCallback());
    m_peer.setFetchProgressCallback(Peer::FetchProgressCallback());
  }

  void QtPeerDriver::fetch(const QString& path, int timeoutMs)
  {
    const QPointer<QtPeerDriver> self(this);
    m_peer.fetch(path, timeoutMs, [self](const QString& fetched, FetchResult result) {
      if (self)
        emit self->fetchFinished(fetched, result);
    });
  }

  void QtPeerDriver::run()
  {
    int next = m_peer.updateOnWake();
    if (!m_notifier)
      next = next < 0 ? FallbackPollMs : qMin(next, FallbackPollMs);
    if (next >= 0)
      m_timer->start(next);
    else
      m_timer->stop();
    emit updated();
  }
}
