#include "plexa/net/WriterThread.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/net/NetFormat.hpp"

#include <exception>

namespace Plexa
{
  namespace
  {
    enum class KeepAlive
    {
      Idle,
      Pinged,
      TimedOut
    };
  }

  WriterThread::WriterThread(ConnectionThread* connection)
    : Bastion::Thread("Plexa::Writer"), m_connection(connection)
  {
    eventAddOut("data-written");
    eventAddOut("error");
  }

  WriterThread::~WriterThread()
  {
    stop();
    if (!isCurrentThread())
      waitEnd();
  }

  bool WriterThread::run()
  {
    {
      Bastion::Guard guard(m_mutex);
      m_running = true;
    }
    return Bastion::Thread::run();
  }

  int64_t WriterThread::sizeOf(const QList<QByteArray>& parts)
  {
    int64_t size = 0;
    for (const QByteArray& part : parts)
      size += part.size();
    return size;
  }

  void WriterThread::writeData(const QList<QByteArray>& parts, const QByteArray& name)
  {
    Entry entry;
    entry.parts = parts;
    entry.name = name;
    entry.size = sizeOf(parts);
    Bastion::Guard guard(m_mutex);
    m_bufferedBytes += entry.size;
    m_queue.push_back(std::move(entry));
    m_condition.wakeAll();
  }

  void WriterThread::writeData(const QByteArray& data, const QByteArray& name)
  {
    writeData(QList<QByteArray>{data}, name);
  }

  void WriterThread::removeFromBuffer(const QByteArray& name)
  {
    std::vector<std::function<void()>> callbacks;
    {
      Bastion::Guard guard(m_mutex);
      int64_t removed = 0;
      for (auto it = m_queue.begin(); it != m_queue.end();)
      {
        if (it->name == name)
        {
          removed += it->size;
          it = m_queue.erase(it);
        }
        else
          ++it;
      }
      if (removed > 0)
        callbacks = subtractLocked(removed);
    }
    for (auto& callback : callbacks)
      callback();
  }

  void WriterThread::update(const QString& name, std::function<void()> task)
  {
    Bastion::Guard guard(m_mutex);
    m_tasks[name] = std::move(task);
    m_condition.wakeAll();
  }

  int64_t WriterThread::bufferedDataSize() const
  {
    return m_bufferedBytes.load();
  }

  void WriterThread::stop()
  {
    Bastion::Guard guard(m_mutex);
    m_running = false;
    m_condition.wakeAll();
  }

  long WriterThread::addDrainListener(int64_t threshold, std::function<void()> callback)
  {
    Bastion::Guard guard(m_mutex);
    const long id = m_nextDrainListener++;
    m_drainListeners[id] = DrainListener{threshold, std::move(callback)};
    return id;
  }

  bool WriterThread::removeDrainListener(long id)
  {
    Bastion::Guard guard(m_mutex);
    return m_drainListeners.erase(id) > 0;
  }

  bool WriterThread::waitForDrain(int64_t bytes, int timeoutMs)
  {
    const Bastion::TimeStamp deadline =
      Bastion::TimeStamp::getTime() + Bastion::TimeStamp::createSeconds(timeoutMs / 1000.0);
    Bastion::Guard guard(m_mutex);
    const auto waiter = m_drainWaiters.insert(bytes);
    bool below = true;
    while (m_bufferedBytes.load() >= bytes)
    {
      if (timeoutMs < 0)
      {
        m_drained.wait(m_mutex, -1);
        continue;
      }
      const double left = (deadline - Bastion::TimeStamp::getTime()).secondsD();
      if (left <= 0)
      {
        below = false;
        break;
      }
      m_drained.wait(m_mutex, int(left * 1000.0) + 1);
    }
    m_drainWaiters.erase(waiter);
    return below;
  }

  std::vector<std::function<void()>> WriterThread::subtractLocked(int64_t bytes)
  {
    const int64_t before = m_bufferedBytes.load();
    const int64_t after = before - bytes;
    m_bufferedBytes = after;
    if (!m_drainWaiters.empty() && after < *m_drainWaiters.rbegin())
      m_drained.wakeAll();
    std::vector<std::function<void()>> callbacks;
    for (const auto& listener : m_drainListeners)
    {
      if (before >= listener.second.threshold && after < listener.second.threshold)
        callbacks.push_back(listener.second.callback);
    }
    return callbacks;
  }

  bool WriterThread::writeEntry(const Entry& entry)
  {
    // The whole entry goes out under the write mutex: a "plexa2" line and its bundles, or a file
    // part header and its bytes, must never have a pong line between them.
    Bastion::Guard writeGuard(m_connection->writeMutex());
    for (const QByteArray& part : entry.parts)
    {
      for (int offset = 0; offset < part.size();)
      {
        const int piece = qMin(NetFormat::WriteGatherBytes, part.size() - offset);
        const int written = m_connection->writeSocket(part.constData() + offset, piece);
        // Progress for every chunk of the piece that went out in full, also before a failure.
        for (int chunkStart = 0; chunkStart < written;)
        {
          const int chunk = qMin(NetFormat::WriteChunkBytes, piece - chunkStart);
          if (chunkStart + chunk > written)
            break;
          chunkStart += chunk;
          Bastion::BinaryData progress;
          progress.writeString(entry.name);
          progress.writeInt32(chunk);
          eventSend("data-written", progress);
        }
        if (written != piece)
          return false;
        offset += piece;
      }
    }
    return true;
  }

  bool WriterThread::keepAliveLocked()
  {
    if (!m_connection->usePing() || !m_connection->pongReceived())
    {
      m_pingOutstanding = false;
      return true;
    }
    const Bastion::TimeStamp now = Bastion::TimeStamp::getTime();
    const double silence = (now - m_connection->lastActivity()).secondsD();
    if (!m_pingOutstanding)
    {
      if (silence > NetFormat::KeepAliveIdleSecs)
      {
        Entry ping;
        ping.parts = QList<QByteArray>{QByteArray(NetFormat::PingLine)};
        ping.name = NetFormat::PingBufferName;
        ping.size = sizeOf(ping.parts);
        m_bufferedBytes += ping.size;
        // Ahead of everything queued: behind megabytes of data it would arrive too late.
        m_queue.push_front(std::move(ping));
        m_pingTime = now;
        m_pingReceivedBytes = m_connection->rxBytes();
        m_pingOutstanding = true;
      }
      return true;
    }
    if (m_connection->rxBytes() != m_pingReceivedBytes || silence <= NetFormat::KeepAliveIdleSecs)
    {
      m_pingOutstanding = false;
      return true;
    }
    const double timeout = m_connection->pingTimeout();
    const double sincePing = (now - m_pingTime).secondsD();
    return !(silence > timeout && sincePing + NetFormat::KeepAliveIdleSecs > timeout);
  }

  void WriterThread::childLoop()
  {
    m_mutex.lock();
    // Entries queued while the loop was stopped are still there: count them, so the buffered
    // size never goes negative as they drain.
    int64_t queued = 0;
    for (const Entry& entry : m_queue)
      queued += entry.size;
    m_bufferedBytes = queued;
    m_pingOutstanding = false;
    while (m_running)
    {
      if (!m_tasks.empty())
      {
        std::map<QString, std::function<void()>> tasks;
        tasks.swap(m_tasks);
        m_mutex.unlock();
        {
          Bastion::Guard writeGuard(m_connection->writeMutex());
          for (auto& task : tasks)
          {
            try
            {
              task.second();
            }
            catch (const std::exception& e)
            {
              Bastion::error("WriterThread::childLoop # Task '%s' failed: %s", task.first.toUtf8().constData(),
                             e.what());
            }
            catch (...)
            {
              Bastion::error("WriterThread::childLoop # Task '%s' failed", task.first.toUtf8().constData());
            }
          }
        }
        m_mutex.lock();
        continue;
      }
      if (!m_queue.empty())
      {
        Entry entry = std::move(m_queue.front());
        m_queue.pop_front();
        std::vector<std::function<void()>> callbacks = subtractLocked(entry.size);
        m_mutex.unlock();
        for (auto& callback : callbacks)
          callback();
        if (!writeEntry(entry))
        {
          Bastion::debug("WriterThread::childLoop # Write error");
          m_running = false;
          eventSend("error");
        }
        m_mutex.lock();
        continue;
      }
      if (!keepAliveLocked())
      {
        m_running = false;
        m_mutex.unlock();
        Bastion::error("%s:%d: Ping timeout, disconnecting", m_connection->remoteHost().toUtf8().constData(),
                       m_connection->remotePort());
        m_connection->closeSocket();
        eventSend("error");
        m_mutex.lock();
        break;
      }
      if (!m_queue.empty())
        continue;
      m_condition.wait(m_mutex, NetFormat::WriterWakeMs);
    }
    m_mutex.unlock();
  }
}
