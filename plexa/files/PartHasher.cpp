#include "plexa/files/PartHasher.hpp"

#include "plexa/files/RunningMd5.hpp"

#include "bastion/Guard.hpp"

#include <algorithm>
#include <utility>

namespace Plexa
{
  PartHasher::PartHasher(qint64 queueLimit)
      : Bastion::Thread("Plexa::Hasher")
      , m_queueLimit(queueLimit)
      , m_wakeLevel(std::max<qint64>(1, std::min(WakeBytes, queueLimit / 2)))
  {
  }

  PartHasher::~PartHasher()
  {
    {
      Bastion::Guard guard(m_mutex);
      m_stopping = true;
      m_changed.wakeAll();
    }
    waitEnd();
  }

  void PartHasher::add(std::shared_ptr<RunningMd5> hash, QByteArray data)
  {
    if (!hash)
      return;
    if (!isRunning() && !run()) {
      // No thread to be had: hash here rather than queue for nobody.
      hash->addData(data);
      return;
    }
    Bastion::Guard guard(m_mutex);
    // One piece larger than the limit still goes in once the queue is empty.
    while (m_queuedBytes > 0 && m_queuedBytes + data.size() > m_queueLimit) {
      m_producerWaiting = true;
      m_changed.wakeAll();
      m_changed.wait(m_mutex);
    }
    m_producerWaiting = false;
    m_queuedBytes += data.size();
    m_peakQueuedBytes = std::max(m_peakQueuedBytes, m_queuedBytes);
    m_queue.push_back({std::move(hash), std::move(data)});
    if (m_hasherWaiting && m_queuedBytes >= m_wakeLevel)
      m_changed.wakeAll();
  }

  void PartHasher::waitIdle()
  {
    Bastion::Guard guard(m_mutex);
    ++m_idleWaiters;
    m_changed.wakeAll();
    while (!m_queue.empty() || m_busy)
      m_changed.wait(m_mutex);
    --m_idleWaiters;
  }

  qint64 PartHasher::peakQueuedBytes() const
  {
    Bastion::Guard guard(m_mutex);
    return m_peakQueuedBytes;
  }

  void PartHasher::childLoop()
  {
    Bastion::Guard guard(m_mutex);
    for (;;) {
      if (m_queue.empty() && m_stopping)
        return;
      // Rest while there is little to do and nobody waits for the hasher.
      if (m_queue.empty() ||
          (!m_busy && m_queuedBytes < m_wakeLevel && !m_stopping && !m_producerWaiting && m_idleWaiters == 0)) {
        m_hasherWaiting = true;
        m_changed.wait(m_mutex);
        m_hasherWaiting = false;
        m_busy = !m_queue.empty();
        continue;
      }
      Piece piece = std::move(m_queue.front());
      m_queue.pop_front();
      m_busy = true;
      m_mutex.unlock();
      piece.hash->addData(piece.data);
      const qint64 size = piece.data.size();
      piece = Piece();
      m_mutex.lock();
      m_queuedBytes -= size;
      // Busy until the queue is empty: once awake, the hasher drains it without resting.
      m_busy = !m_queue.empty();
      if ((m_producerWaiting && (m_queuedBytes <= m_queueLimit / 2 || m_queue.empty())) ||
          (m_idleWaiters > 0 && m_queue.empty()))
        m_changed.wakeAll();
    }
  }
}
