#pragma once

#include "plexa/app/Peer.hpp"

#include <QMetaType>
#include <QObject>
#include <QString>

class QSocketNotifier;
class QTimer;

namespace Plexa
{
  /// Drives a `Peer` from the Qt event loop of the thread it is made on, instead of a loop that
  /// calls `waitAndUpdate`, and without polling: a QSocketNotifier watches the Peer's wake-up
  /// descriptor and runs the update when bundles arrived, the tree changed or `wake()` was called;
  /// a single-shot timer runs only while a time limit is pending (a fetch, a held client session).
  /// Additions to the tree made by the loop's handlers are reported each time before the loop
  /// blocks, so they leave without a wait either.
  ///
  /// The Peer's connection, retry and fetch progress callbacks are taken over and offered as the
  /// signals below: do not set them on the Peer while a driver exists. Signals are emitted on the
  /// driver's thread, from inside the update: a slot that wants the driver gone uses deleteLater().
  ///
  /// The driver belongs to the thread that owns the Peer's tree, whose event loop must run; make
  /// it once that thread has its event dispatcher (for the main thread: after QCoreApplication).
  /// The Peer must outlive the driver.
  class QtPeerDriver : public QObject
  {
    Q_OBJECT

  public:
    explicit QtPeerDriver(Peer& peer, QObject* parent = nullptr);
    /// Hands the callbacks back to the Peer, unset.
    ~QtPeerDriver() override;

    Peer& peer() const { return m_peer; }
    /// `Peer::fetch`, ending with `fetchFinished`.
    void fetch(const QString& path, int timeoutMs);

  signals:
    /// A session began (`connected`) or ended.
    void connectionChanged(const QString& peerAddress, bool connected);
    /// Client: seconds left until the next connection attempt, while retrying.
    void retrying(double secondsLeft);
    void fetchProgress(const QString& path, qint64 bytesDone, qint64 bytesTotal);
    void fetchFinished(const QString& path, Plexa::FetchResult result);
    /// After every update the driver ran: the tree may have changed.
    void updated();

  private:
    void run();

    Peer& m_peer;
    QSocketNotifier* m_notifier = nullptr;
    QTimer* m_timer = nullptr;
  };
}

Q_DECLARE_METATYPE(Plexa::FetchResult)
