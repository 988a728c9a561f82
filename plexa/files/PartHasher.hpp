#pragma once

#include "bastion/Condition.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/Thread.hpp"

#include <QByteArray>

#include <deque>
#include <memory>

namespace Plexa
{
  class RunningMd5;

  /// Hashes received parts on a thread of its own, so that a connection reads and stores the next
  /// part while the previous one is hashed: MD5 costs more than the reading and the writing
  /// together, and on one thread the link would wait for it. The bytes waiting are bounded: add()
  /// blocks while more than the limit is queued, which holds the sender back through TCP.
  ///
  /// Each side sleeps and is woken in batches, not once per part: a hasher that has caught up
  /// rests until WakeBytes are queued (or someone waits for it), and a blocked add() is woken once
  /// half the limit is free. A wake costs two thread switches, as much as hashing a few KiB.
  ///
  /// add() and waitIdle() are meant for one thread (the connection's); the thread starts with the
  /// first add() and ends in the destructor, after hashing what is queued.
  class PartHasher : public Bastion::Thread
  {
  public:
    static constexpr qint64 DefaultQueueLimit = 4 << 20;
    /// Queued bytes that wake a resting hasher (at most half the limit).
    static constexpr qint64 WakeBytes = 256 << 10;

    explicit PartHasher(qint64 queueLimit = DefaultQueueLimit);
    ~PartHasher() override;

    /// Queues `data` to be added to `hash`. Shares the bytes, copies nothing. A null hash is
    /// ignored.
    void add(std::shared_ptr<RunningMd5> hash, QByteArray data);
    /// Returns once every piece queued before the call has been added to its hash.
    void waitIdle();
    /// The most bytes that were ever waiting at once.
    qint64 peakQueuedBytes() const;

  protected:
    void childLoop() override;

  private:
    struct Piece
    {
      std::shared_ptr<RunningMd5> hash;
      QByteArray data;
    };

    const qint64 m_queueLimit;
    const qint64 m_wakeLevel;
    mutable Bastion::Mutex m_mutex;
    Bastion::Condition m_changed;
    std::deque<Piece> m_queue BASTION_GUARDED_BY(m_mutex);
    qint64 m_queuedBytes BASTION_GUARDED_BY(m_mutex) = 0;
    qint64 m_peakQueuedBytes BASTION_GUARDED_BY(m_mutex) = 0;
    bool m_busy BASTION_GUARDED_BY(m_mutex) = false;
    bool m_hasherWaiting BASTION_GUARDED_BY(m_mutex) = false;
    bool m_producerWaiting BASTION_GUARDED_BY(m_mutex) = false;
    int m_idleWaiters BASTION_GUARDED_BY(m_mutex) = 0;
    bool m_stopping BASTION_GUARDED_BY(m_mutex) = false;
  };
}
