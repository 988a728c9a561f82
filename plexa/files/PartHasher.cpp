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
    while (m_queuedBytes > 0 && m_queuedBytes + data.size() > m_queueLimit)
      m_changed.wait(m_mutex);
    m_queuedBytes += data.size();
    m_peakQueuedBytes = std::max(m_peakQueuedBytes, m_queuedBytes);
    m_queue.push_back({std::move(hash), std::move(data)});
    m_changed.wakeAll();
  }

  void PartHasher::waitIdle()
  {
    Bastion::Guard guard(m_mutex);
    while (!m_queue.empty() || m_busy)
      m_changed.wait(m_mutex);
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
      if (m_queue.empty()) {
        if (m_stopping)
          return;
        m_changed.wait(m_mutex);
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
      m_busy = false;
      m_queuedBytes -= size;
      m_changed.wakeAll();
    }
  }
}
