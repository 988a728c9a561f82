#include "plexa/net/WriterThread.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/net/NetFormat.hpp"

#include <cstring>
#include <exception>
#include <iterator>

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
      : Bastion::Thread("Plexa::Writer")
      , m_connection(connection)
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
      // A write that ended badly on an earlier run must not keep this one from taking entries.
      m_writing = false;
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
    Bastion::Mutex& writeMutex = m_connection->writeMutex();
    {
      Bastion::Guard guard(m_mutex);
      // Only try the socket here when the entry would be next anyway; tryLock, because whoever
      // holds the write mutex (a line of the connection thread, a task) may be waiting for us.
      const bool direct = m_running && !m_writing && m_queue.empty() && m_tasks.empty() && entry.size > 0 &&
                          entry.size <= NetFormat::WriteChunkBytes && writeMutex.tryLock();
      if (!direct) {
        m_bufferedBytes += entry.size;
        m_queue.push_back(std::move(entry));
        m_condition.wakeAll();
        return;
      }
      m_writing = true;
    }
    entry.sent = writeDirect(entry);
    writeMutex.unlock();

    Bastion::Guard guard(m_mutex);
    m_writing = false;
    wakeWrittenWaitersLocked();
    if (entry.sent < entry.size) {
      // The socket took only part of it (or failed): the writer finishes it, ahead of anything
      // queued meanwhile, and meets the error itself if there was one.
      m_bufferedBytes += entry.size - entry.sent;
      m_queue.push_front(std::move(entry));
    }
    if (!m_queue.empty() || !m_tasks.empty())
      m_condition.wakeAll();
  }

  int64_t WriterThread::writeDirect(const Entry& entry)
  {
    // The entry is within one chunk: its parts go out in one socket call, as one packet. A single
    // part needs no copy for that.
    char buffer[NetFormat::WriteChunkBytes];
    const bool single = entry.parts.size() == 1;
    const int size = single ? entry.parts[0].size() : gather(entry, 0, entry.parts.size(), buffer);
    const int written = qMax(0, m_connection->writeSocketSome(single ? entry.parts[0].constData() : buffer, size));
    // One event per part written in full, as the writer thread reports parts within a chunk.
    reportParts(entry, 0, entry.parts.size(), written);
    return written;
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
      for (auto it = m_queue.begin(); it != m_queue.end();) {
        // An entry that a direct write began is on its way already: dropping its rest would cut a
        // message in two.
        if (it->name == name && it->sent == 0) {
          removed += it->size;
          it = m_queue.erase(it);
        } else
          ++it;
      }
      if (removed > 0)
        callbacks = subtractLocked(removed);
      wakeWrittenWaitersLocked();
    }
    runDrainCallbacks(callbacks);
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
    wakeWrittenWaitersLocked();
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
    while (m_bufferedBytes.load() >= bytes) {
      if (timeoutMs < 0) {
        m_drained.wait(m_mutex, -1);
        continue;
      }
      const double left = (deadline - Bastion::TimeStamp::getTime()).secondsD();
      if (left <= 0) {
        below = false;
        break;
      }
      m_drained.wait(m_mutex, int(left * 1000.0) + 1);
    }
    m_drainWaiters.erase(waiter);
    return below;
  }

  bool WriterThread::waitForWritten(int timeoutMs)
  {
    const Bastion::TimeStamp deadline =
        Bastion::TimeStamp::getTime() + Bastion::TimeStamp::createSeconds(timeoutMs / 1000.0);
    Bastion::Guard guard(m_mutex);
    ++m_writtenWaiters;
    while (m_running && (!m_queue.empty() || m_writing)) {
      const double left = (deadline - Bastion::TimeStamp::getTime()).secondsD();
      if (timeoutMs >= 0 && left <= 0)
        break;
      m_drained.wait(m_mutex, timeoutMs < 0 ? -1 : int(left * 1000.0) + 1);
    }
    --m_writtenWaiters;
    // A stopped loop may have dropped the entry it was writing: nothing vouches for it.
    return m_running && m_queue.empty() && !m_writing;
  }

  void WriterThread::wakeWrittenWaitersLocked()
  {
    if (m_writtenWaiters > 0)
      m_drained.wakeAll();
  }

  std::vector<std::function<void()>> WriterThread::subtractLocked(int64_t bytes)
  {
    const int64_t before = m_bufferedBytes.load();
    const int64_t after = before - bytes;
    m_bufferedBytes = after;
    if (!m_drainWaiters.empty() && after < *m_drainWaiters.rbegin())
      m_drained.wakeAll();
    std::vector<std::function<void()>> callbacks;
    for (const auto& listener : m_drainListeners) {
      if (before >= listener.second.threshold && after < listener.second.threshold)
        callbacks.push_back(listener.second.callback);
    }
    return callbacks;
  }

  void WriterThread::runDrainCallbacks(std::vector<std::function<void()>>& callbacks)
  {
    // A producer's callback that throws must not take the writer (or a caller of
    // removeFromBuffer) with it; the other callbacks still run.
    for (auto& callback : callbacks)
      runListener("A drain listener", callback);
  }

  void WriterThread::runListener(const char* who, const std::function<void()>& call)
  {
    try {
      call();
    } catch (const std::exception& e) {
      Bastion::error("WriterThread # %s failed: %s", who, e.what());
    } catch (...) {
      Bastion::error("WriterThread # %s failed", who);
    }
  }

  void WriterThread::sendProgress(const QByteArray& name, int bytes)
  {
    Bastion::BinaryData progress;
    progress.writeString(name);
    progress.writeInt32(bytes);
    // The chunk is on the wire: a listener that throws must not cut the entry it belongs to.
    runListener("A \"data-written\" listener", [&] { eventSend("data-written", progress); });
  }

  bool WriterThread::writeRest(const Entry& entry)
  {
    Bastion::Guard writeGuard(m_connection->writeMutex());
    int64_t skip = entry.sent;
    for (const QByteArray& part : entry.parts) {
      if (skip >= part.size()) {
        skip -= part.size();
        continue;
      }
      const int size = part.size() - int(skip);
      if (m_connection->writeSocket(part.constData() + skip, size) != size)
        return false;
      skip = 0;
      // A direct write only begins entries of one chunk: the part is the chunk.
      sendProgress(entry.name, part.size());
    }
    return true;
  }

  int WriterThread::smallPartsEnd(const Entry& entry, int from)
  {
    int end = from;
    int64_t total = 0;
    while (end < entry.parts.size() && entry.parts[end].size() <= NetFormat::WriteChunkBytes &&
           total + entry.parts[end].size() <= NetFormat::WriteGatherBytes)
      total += entry.parts[end++].size();
    return end;
  }

  int WriterThread::gather(const Entry& entry, int from, int end, char* out)
  {
    int size = 0;
    for (int i = from; i < end; ++i) {
      std::memcpy(out + size, entry.parts[i].constData(), size_t(entry.parts[i].size()));
      size += entry.parts[i].size();
    }
    return size;
  }

  bool WriterThread::reportParts(const Entry& entry, int from, int end, int64_t written)
  {
    int64_t covered = 0;
    for (int i = from; i < end; ++i) {
      const int size = entry.parts[i].size();
      if (size == 0)
        continue;
      if (covered + size > written)
        return false;
      covered += size;
      sendProgress(entry.name, size);
    }
    return true;
  }

  bool WriterThread::writeEntry(const Entry& entry)
  {
    if (entry.sent > 0)
      return writeRest(entry);
    // The whole entry goes out under the write mutex: a "plexa2" line and its bundles, or a file
    // part header and its bytes, must never have a pong line between them.
    Bastion::Guard writeGuard(m_connection->writeMutex());
    for (int i = 0; i < entry.parts.size();) {
      // Runs of small parts (a line and its bundles) go out in one socket call: one call per part
      // would cost a system call and a packet each, and the peer a wake-up for each packet.
      const int end = smallPartsEnd(entry, i);
      if (end - i > 1) {
        if (m_gather.empty())
          m_gather.resize(size_t(NetFormat::WriteGatherBytes));
        const int size = gather(entry, i, end, m_gather.data());
        const int written = m_connection->writeSocket(m_gather.data(), size);
        if (!reportParts(entry, i, end, written) || written != size)
          return false;
        i = end;
        continue;
      }
      const QByteArray& part = entry.parts[i++];
      for (int offset = 0; offset < part.size();) {
        const int piece = qMin(NetFormat::WriteGatherBytes, part.size() - offset);
        const int written = m_connection->writeSocket(part.constData() + offset, piece);
        // Progress for every chunk of the piece that went out in full, also before a failure.
        for (int chunkStart = 0; chunkStart < written;) {
          const int chunk = qMin(NetFormat::WriteChunkBytes, piece - chunkStart);
          if (chunkStart + chunk > written)
            break;
          chunkStart += chunk;
          sendProgress(entry.name, chunk);
        }
        if (written != piece)
          return false;
        offset += piece;
      }
    }
    return true;
  }

  double WriterThread::keepAliveIdleSecs() const
  {
    const double timeout = m_connection->pingTimeout();
    return timeout > 0 ? qMin(NetFormat::KeepAliveIdleSecs, timeout / 2) : NetFormat::KeepAliveIdleSecs;
  }

  int WriterThread::wakeMs() const
  {
    // Often enough that a short ping timeout is noticed in time.
    return qBound(10, int(keepAliveIdleSecs() * 250.0), NetFormat::WriterWakeMs);
  }

  bool WriterThread::keepAliveLocked()
  {
    // From the handshake on, whether or not the peer ever answered: a peer that holds the
    // connection open and stays silent must not keep it (and a server slot) for hours.
    if (!m_connection->usePing()) {
      m_pingOutstanding = false;
      return true;
    }
    const double idle = keepAliveIdleSecs();
    const Bastion::TimeStamp now = Bastion::TimeStamp::getTime();
    const double silence = (now - m_connection->lastActivity()).secondsD();
    if (!m_pingOutstanding) {
      if (silence > idle) {
        Entry ping;
        ping.parts = QList<QByteArray>{QByteArray(NetFormat::PingLine)};
        ping.name = NetFormat::PingBufferName;
        ping.size = sizeOf(ping.parts);
        m_bufferedBytes += ping.size;
        // Ahead of everything queued (behind megabytes of data it would arrive too late), but
        // behind the rest of an entry that is half written.
        auto at = m_queue.begin();
        if (at != m_queue.end() && at->sent > 0)
          ++at;
        m_queue.insert(at, std::move(ping));
        m_pingTime = now;
        m_pingReceivedBytes = m_connection->rxBytes();
        m_pingOutstanding = true;
      }
      return true;
    }
    if (m_connection->rxBytes() != m_pingReceivedBytes || silence <= idle) {
      m_pingOutstanding = false;
      return true;
    }
    const double timeout = m_connection->pingTimeout();
    const double sincePing = (now - m_pingTime).secondsD();
    return !(timeout > 0 && silence > timeout && sincePing + idle > timeout);
  }

  void WriterThread::childLoop()
  {
    m_mutex.lock();
    // The rest of a message that a direct write began belongs to the stream that ended with the
    // last run: on a new connection it would arrive without its beginning.
    for (auto it = m_queue.begin(); it != m_queue.end();)
      it = it->sent > 0 ? m_queue.erase(it) : std::next(it);
    // Entries queued while the loop was stopped are still there: count them, so the buffered
    // size never goes negative as they drain.
    int64_t queued = 0;
    for (const Entry& entry : m_queue)
      queued += entry.size;
    m_bufferedBytes = queued;
    m_pingOutstanding = false;
    while (m_running) {
      if (!m_tasks.empty()) {
        std::map<QString, std::function<void()>> tasks;
        tasks.swap(m_tasks);
        m_mutex.unlock();
        {
          Bastion::Guard writeGuard(m_connection->writeMutex());
          for (auto& task : tasks) {
            try {
              task.second();
            } catch (const std::exception& e) {
              Bastion::error("WriterThread::childLoop # Task '%s' failed: %s", task.first.toUtf8().constData(),
                             e.what());
            } catch (...) {
              Bastion::error("WriterThread::childLoop # Task '%s' failed", task.first.toUtf8().constData());
            }
          }
        }
        m_mutex.lock();
        continue;
      }
      if (!m_queue.empty() && !m_writing) {
        Entry entry = std::move(m_queue.front());
        m_queue.pop_front();
        std::vector<std::function<void()>> callbacks = subtractLocked(entry.size - entry.sent);
        m_writing = true;
        m_mutex.unlock();
        runDrainCallbacks(callbacks);
        bool written = false;
        try {
          written = writeEntry(entry);
        } catch (const std::exception& e) {
          // The entry may be cut: the stream is out of step, the connection has to end.
          Bastion::error("WriterThread::childLoop # Writing failed: %s", e.what());
        }
        if (!written) {
          Bastion::debug("WriterThread::childLoop # Write error");
          m_running = false;
          eventSend("error");
        }
        m_mutex.lock();
        m_writing = false;
        wakeWrittenWaitersLocked();
        continue;
      }
      if (!keepAliveLocked()) {
        m_running = false;
        m_mutex.unlock();
        Bastion::error("%s:%d: Ping timeout, disconnecting", m_connection->remoteHost().toUtf8().constData(),
                       m_connection->remotePort());
        m_connection->closeSocket();
        eventSend("error");
        m_mutex.lock();
        break;
      }
      if (!m_queue.empty() && !m_writing)
        continue;
      m_condition.wait(m_mutex, wakeMs());
    }
    wakeWrittenWaitersLocked();
    m_mutex.unlock();
  }
}
