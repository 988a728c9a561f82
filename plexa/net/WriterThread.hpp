#pragma once

#include "bastion/Condition.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/Thread.hpp"
#include "bastion/ThreadSafety.hpp"
#include "bastion/TimeStamp.hpp"
#include "carafe/Node.hpp"

#include <QByteArray>
#include <QList>
#include <QString>

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <set>
#include <vector>

namespace Plexa
{
  class ConnectionThread;

  /// The one thread that writes buffered data on a connection's socket, so that no application
  /// thread ever blocks on the network.
  ///
  /// Entries (lists of byte arrays with a name) are written oldest first while the connection's
  /// write mutex is held, so nothing else reaches the socket in the middle of an entry; socket
  /// calls take at most NetFormat::WriteGatherBytes, progress is reported per chunk of at most
  /// NetFormat::WriteChunkBytes. Named tasks run on this thread, also under
  /// the write mutex. While the connection uses pings, the writer sends "ping" after 5 s of silence
  /// (half the ping timeout when that is shorter) and closes the connection when the peer stays
  /// silent for the connection's ping timeout, from the first moment of the connection on.
  ///
  /// An entry of at most one chunk that arrives while the writer is idle (nothing queued, nothing
  /// being written) is written at once by the thread that hands it over, as far as the socket takes
  /// it without waiting; only what is left goes through the queue. A small message then costs no
  /// thread switch, which is most of the latency of a request and its answer.
  ///
  /// Events: "data-written" (string: entry name, int32: bytes of the chunk just written; sent with
  /// the write mutex held, on the thread that finished the chunk) and "error" (no payload, on this
  /// thread) after a write failure or a ping timeout. An exception that escapes a "data-written"
  /// listener or a drain callback is logged and the writing goes on.
  ///
  /// Threads: `writeData`, `removeFromBuffer`, `update`, `stop`, `bufferedDataSize` and the drain
  /// functions may be called from any thread. The owning ConnectionThread starts it (`run`) and
  /// joins it; it must outlive the writer's thread.
  class WriterThread : public Bastion::Thread, public Carafe::Node
  {
  public:
    explicit WriterThread(ConnectionThread* connection);
    /// Stops and joins the thread. The queue is dropped.
    ~WriterThread() override;

    /// Starts the loop (again). Marks the loop running before the thread exists, so a `stop()`
    /// that follows at once is never lost. False when the loop is still running.
    bool run();

    /// Appends one entry (empty name allowed) and wakes the loop. Never blocks on the network.
    void writeData(const QList<QByteArray>& parts, const QByteArray& name);
    void writeData(const QByteArray& data, const QByteArray& name);
    /// Drops every queued entry whose name equals `name` byte for byte; the entry being written,
    /// or the rest of one that a direct write began, is not affected.
    void removeFromBuffer(const QByteArray& name);
    /// Runs `task` on the writer thread under the connection's write mutex, replacing a task of
    /// the same name that has not run yet. Tasks run in name order.
    void update(const QString& name, std::function<void()> task);
    /// Bytes queued and not yet taken for writing.
    int64_t bufferedDataSize() const;
    /// Ends the loop after the current chunk; does not wait. The queue stays.
    void stop();
    /// True while the loop should run (between `run` and `stop`, a write error or a ping timeout).
    bool isActive() const { return m_running.load(); }

    /// Registers `callback`, called each time `bufferedDataSize()` falls from `threshold` bytes or
    /// more to below `threshold` (a producer that paused on a full buffer can resume). It runs on
    /// the thread that made the size fall (this thread, or a caller of `removeFromBuffer`) with no
    /// lock of the writer held; it may queue data. Returns an id for `removeDrainListener`.
    long addDrainListener(int64_t threshold, std::function<void()> callback);
    bool removeDrainListener(long id);
    /// Blocks the caller until `bufferedDataSize()` is below `bytes` or `timeoutMs` passed
    /// (negative: no limit). True when below.
    bool waitForDrain(int64_t bytes, int timeoutMs);
    /// Blocks the caller until nothing is queued and no entry is being written, i.e. every entry
    /// handed over so far has gone to the socket, the loop stopped (stop, write error, ping
    /// timeout), or `timeoutMs` passed (negative: no limit). True only in the first case. Not on
    /// the writer thread (a task), which would wait for itself.
    bool waitForWritten(int timeoutMs);

  protected:
    void childLoop() override;

  private:
    struct Entry
    {
      QList<QByteArray> parts;
      QByteArray name;
      int64_t size = 0;
      /// Bytes already written by the thread that handed the entry over (see writeData).
      int64_t sent = 0;
    };
    struct DrainListener
    {
      int64_t threshold = 0;
      std::function<void()> callback;
    };

    static int64_t sizeOf(const QList<QByteArray>& parts);
    /// Lowers the buffered count by `bytes` and returns the drain callbacks that it triggered.
    std::vector<std::function<void()>> subtractLocked(int64_t bytes) BASTION_REQUIRES(m_mutex);
    /// Writes one entry in chunks; false after a write error.
    bool writeEntry(const Entry& entry);
    /// Writes the part of an entry that a direct write left; false after a write error.
    bool writeRest(const Entry& entry);
    /// Writes `entry` without waiting, the write mutex held; the bytes written.
    int64_t writeDirect(const Entry& entry);
    /// The end of the run of parts from `from` on that are each within a chunk and together
    /// within a gathered socket call.
    static int smallPartsEnd(const Entry& entry, int from);
    /// Copies parts [from, end) to `out`; their size.
    static int gather(const Entry& entry, int from, int end, char* out);
    /// Sends the progress of parts [from, end) of which `written` bytes went out: one event per
    /// non-empty part written in full. False when not all of them were.
    bool reportParts(const Entry& entry, int from, int end, int64_t written);
    void sendProgress(const QByteArray& name, int bytes);
    /// Runs `call`, logging an exception that escapes it as a failure of `who`.
    static void runListener(const char* who, const std::function<void()>& call);
    static void runDrainCallbacks(std::vector<std::function<void()>>& callbacks);
    /// Silence after which the keep-alive sends a ping.
    double keepAliveIdleSecs() const;
    /// Longest sleep of the loop between two keep-alive steps.
    int wakeMs() const;
    /// The keep-alive step; false when the peer timed out and the loop must end.
    bool keepAliveLocked() BASTION_REQUIRES(m_mutex);
    /// Wakes the callers of waitForWritten, if any, to look again.
    void wakeWrittenWaitersLocked() BASTION_REQUIRES(m_mutex);

    // Constant after construction.
    ConnectionThread* const m_connection;

    mutable Bastion::Mutex m_mutex;
    Bastion::Condition m_condition;
    /// Woken whenever the buffered count falls (waitForDrain).
    Bastion::Condition m_drained;
    std::deque<Entry> m_queue BASTION_GUARDED_BY(m_mutex);
    std::map<QString, std::function<void()>> m_tasks BASTION_GUARDED_BY(m_mutex);
    std::map<long, DrainListener> m_drainListeners BASTION_GUARDED_BY(m_mutex);
    long m_nextDrainListener BASTION_GUARDED_BY(m_mutex) = 0;
    /// Thresholds of the callers inside waitForDrain: m_drained is only woken when the count falls
    /// below one of them, not for every entry taken (that would cost a context switch per entry).
    std::multiset<int64_t> m_drainWaiters BASTION_GUARDED_BY(m_mutex);
    /// Callers inside waitForWritten: m_drained is also woken when the writer goes idle or stops.
    int m_writtenWaiters BASTION_GUARDED_BY(m_mutex) = 0;
    /// Changed under m_mutex; read without it by bufferedDataSize().
    std::atomic<int64_t> m_bufferedBytes{0};
    std::atomic<bool> m_running{false};
    /// An entry is being written (by this thread or a direct writer): nobody else takes one.
    bool m_writing BASTION_GUARDED_BY(m_mutex) = false;

    // Writer thread only: where runs of small parts are gathered for one socket call.
    std::vector<char> m_gather;
    // Writer thread only: the ping in flight.
    bool m_pingOutstanding = false;
    Bastion::TimeStamp m_pingTime;
    uint64_t m_pingReceivedBytes = 0;
  };
}
