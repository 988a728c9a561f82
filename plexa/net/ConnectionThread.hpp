#pragma once

#include "bastion/BinaryData.hpp"
#include "bastion/Condition.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/Thread.hpp"
#include "bastion/ThreadSafety.hpp"
#include "bastion/TimeStamp.hpp"
#include "carafe/Node.hpp"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>
#include <QVersionNumber>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>

namespace Bastion
{
  class TCPSocket;
}

namespace Plexa
{
  class WriterThread;

  /// One TCP connection to a peer, run on a thread of its own.
  ///
  /// A client connection (`accepted` false) connects to the address given to `connectToHost`,
  /// retries every 3 seconds while the peer is unreachable and reconnects after a disconnection;
  /// a connection that a server accepted runs once. Each connection starts with the text
  /// handshake (version line, 64-byte challenge, login and MD5 answer over the shared key), then
  /// reads lines: "ping"/"pong" keep-alive lines are handled here, every other line goes to
  /// `parse()`, which subclasses implement. Outgoing data goes through the companion
  /// WriterThread; only the handshake and the ping answers are written directly.
  ///
  /// Events (Carafe node events, sent on the connection thread): "connected" after a successful
  /// handshake, "disconnected" when the connection ends after one. The writer's "error" arrives here as
  /// "write-error" and ends the connection; its "data-written" is linked to this node's incoming
  /// "data-written" (ignored here: listen on `writerThread()` for progress).
  ///
  /// Threads: the connection thread runs `childLoop`, the handshake, every read and every call of
  /// `parse`, `connected`, `disconnected`, `pong`, `connectionFailed` and `retryProgress`. Any
  /// thread may call `connectToHost`, `stop`, the writing functions (`queue`, `writeBuffer...`,
  /// `ping`), and the accessors. The reading functions (`line`, `readData`, `skip`, `readMap`)
  /// belong to the connection thread, i.e. to `parse`.
  ///
  /// An exception that escapes a hook (`parse`, `pong`, `connected`, `disconnected`, a listener of
  /// "connected" or "disconnected", ...) is logged and ends that connection only: "disconnected" is
  /// still sent, the socket closed, the writer stopped, and a client goes on reconnecting.
  ///
  /// Lifetime: held by std::shared_ptr. Subclasses that override `parse` or the hooks must call
  /// `shutdown()` first thing in their destructor, so the thread never calls into a destroyed
  /// subclass. The last reference must not be dropped on the connection's own thread or on its
  /// writer thread.
  class ConnectionThread : public Bastion::Thread,
                           public Carafe::Node,
                           public std::enable_shared_from_this<ConnectionThread>
  {
  public:
    /// `socket` (may be null; owned from now on) is the connection to use; `accepted` marks a
    /// socket that a server accepted: no connecting, no retrying, and the server's role in the
    /// handshake.
    ConnectionThread(Bastion::TCPSocket* socket, bool accepted);
    ~ConnectionThread() override;

    /// Stores the address and starts the thread; on a running thread, drops the current
    /// connection so that the loop reconnects to the new address.
    void connectToHost(const QString& host, int port);
    /// Asks the thread to end: no more retries, the writer stopped, the socket closed. Does not
    /// wait (see `shutdown`).
    virtual void stop();
    /// `stopBackgroundWork()`, `stop()`, then waits for this thread and the writer thread to end.
    /// Not on either thread.
    void shutdown();
    /// Ends the current connection only: the writer stopped, the socket closed, the line loop
    /// ended. Unlike `stop`, a client then reconnects as usual. Any thread.
    void dropConnection();

    /// Connected: the handshake succeeded and the line loop runs.
    bool isConnected() const;
    /// The peer's version is at least (major, minor, patch).
    bool remoteVersion(int major, int minor, int patch) const;
    void setRemoteVersion(int major, int minor, int patch, const QString& suffix);
    /// The peer takes bundle blocks: version 2.2.0 or newer, or 2.0.4 or newer with a suffix that
    /// contains "vanta".
    bool isPlexa15Supported() const;
    /// "major.minor.patch" or "major.minor.patch-suffix" of the peer, empty before a handshake.
    QString remoteVersionText() const;
    /// The login name the peer sent (server side), once accepted.
    QString remoteUser() const;
    QString remoteHost() const;
    int remotePort() const;
    bool isAccepted() const { return m_accepted; }
    /// While true (the default) a client retries and reconnects.
    void setReconnect(bool reconnect);
    bool reconnect() const { return m_reconnect.load(); }

    /// Connection thread: reads one line without its line break. Runs of CR and LF never yield an
    /// empty line; the text ends at the first zero byte. Empty on a read error or after a line
    /// longer than NetFormat::MaxLineBytes, both of which end the connection.
    QString line();
    /// Connection thread: reads exactly `size` bytes; `size` < 1 succeeds at once. A failure logs,
    /// stops the writer and ends the connection.
    bool readData(unsigned char* buffer, int size);
    /// The same into a new array (shorter on failure). Memory grows with the bytes that arrive,
    /// not with `size`.
    QByteArray readData(int size);
    /// Connection thread: reads and drops `size` bytes.
    bool skip(int size);
    /// Writes `text` + "\n" directly on the socket (handshake, ping answers). Callers that are not
    /// the connection thread during the handshake must hold `writeMutex()`.
    bool puts(const QString& text);
    /// Direct socket write; logs a failure.
    bool writeData(const void* data, int size);

    /// Sends `text` as it is: through the writer once connected, otherwise kept until the next
    /// connection is up.
    void queue(const QString& text);
    /// Hands data to the writer thread under a buffer name (see WriterThread::removeFromBuffer).
    void writeBuffer(const QString& text, const QByteArray& name);
    void writeBuffer(const QList<QByteArray>& parts, const QByteArray& name);
    void writeBufferData(const QByteArray& data, const QByteArray& name);
    /// Queues the map block `buildMapBuffer(name, map)` without a buffer name.
    void writeMapBuffer(const QString& name, const QMap<QString, QString>& map);
    /// The map block in the form the peer understands (new form for peers of 1.9.1 and newer).
    QByteArray buildMapBuffer(const QString& name, const QMap<QString, QString>& map) const;
    /// Connection thread: reads the `count` pairs of a map block whose first line the caller has
    /// read. Returns the pairs read; a block over NetFormat::MaxMapBlockBytes ends the connection.
    QMap<QString, QString> readMap(int count);
    /// Queues "ping <payload>\n", or "ping\n" for an empty payload.
    void ping(const QByteArray& payload = QByteArray());

    bool usePing() const { return m_usePing.load(); }
    void setUsePing(bool usePing);
    /// Seconds of silence after which the writer gives up on the peer (default 10), counted from
    /// the handshake on; 0 or less: never.
    double pingTimeout() const { return m_pingTimeout.load(); }
    void setPingTimeout(double seconds);
    /// True once the peer answered a ping on the current connection.
    bool pongReceived() const { return m_pongReceived.load(); }
    /// Time of the last byte read or of the last complete read.
    Bastion::TimeStamp lastActivity() const;

    /// Read time limit during the handshake (milliseconds, default 10000; 0 = none).
    void setHandshakeTimeout(int ms);
    /// Time limit of each socket write (milliseconds, default 30000; 0 = none).
    void setWriteTimeout(int ms);

    int64_t bufferedDataSize() const;
    WriterThread* writerThread() const { return m_writer; }
    uint64_t txBytes() const;
    uint64_t rxBytes() const;
    /// Held during the handshake, around each ping answer and by the writer around each entry.
    Bastion::Mutex& writeMutex() { return m_writeMutex; }

    /// Replaces the key of every later handshake in this process (both ends must agree); an empty
    /// key restores the built-in one. Any thread.
    static void setSharedKey(const QByteArray& key);

    /// `text` in UTF-8 for a log line: whole when short, otherwise its first
    /// NetFormat::LoggedTextChars characters, "..." and its full size.
    static QByteArray loggedText(const QString& text);

  protected:
    void childLoop() override;

  public:
    /// "write-error" ends the connection; "data-written" is ignored; the rest goes to the node.
    void eventProcess(const QByteArray& id, Bastion::BinaryData& data) override;

  protected:
    /// One connection: handshake, then the line loop until the connection ends.
    virtual void handleConnection();
    /// The handshake in the role given by `accepted`; runs with the write mutex held.
    virtual bool handshake() BASTION_REQUIRES(m_writeMutex);
    /// A line that is no keep-alive line; false when it was not understood. An exception that
    /// escapes is logged and ends the connection.
    virtual bool parse(QString line) = 0;
    virtual void connected();
    virtual void disconnected();
    /// Called first by `shutdown()`, on its caller's thread: a subclass that writes to this
    /// connection from threads of its own stops that work for good and waits until none of it
    /// runs, so nothing reaches the socket, the writer or this node while they are torn down.
    /// Must not wait for the connection thread (which still runs). Called again by a later
    /// `shutdown()`.
    virtual void stopBackgroundWork();
    /// Opens the socket to the stored address (client side).
    virtual bool openConnection();
    virtual void connectionFailed();
    /// During the wait before the next attempt: seconds left.
    virtual void retryProgress(double secondsLeft);
    /// A "pong" line arrived with this payload.
    virtual void pong(const QByteArray& payload);

    /// Connection thread: true when a log line of `kind` (a string literal of the caller, compared
    /// by address) may be written now: at most NetFormat::LogBurstLines per kind and connection
    /// within NetFormat::LogWindowSecs. Lines held back are counted and reported in one line when
    /// the window ends or the connection does.
    bool mayLog(const char* kind);

  private:
    friend class WriterThread;

    bool serverHandshake();
    bool clientHandshake();
    bool readLine(int maxBytes, QString& text);
    /// Reads `size` bytes into `out` in growing pieces; false on a short read. No logging.
    bool readInto(QByteArray& out, int size);
    /// Stops the writer and ends the line loop after a read error.
    void failRead();
    void touch();
    /// Closes the current socket, if any; any thread.
    void closeSocket();
    /// Applies the read deadline of the handshake before a read; false when it has passed.
    bool beforeRead();
    /// Writes without logging, for the writer thread; the number of bytes written.
    int writeSocket(const char* data, int size);
    /// Writes what the socket takes without waiting, for the writer; -1 after an error.
    int writeSocketSome(const char* data, int size);
    void waitBeforeRetry(Bastion::TimeStamp start);
    void handOverPending();
    void lineLoop();
    /// Handles one line of the line loop: keep-alive lines here, the rest through `parse`.
    void dispatch(QString& text);
    /// Runs `step`; an exception that escapes it is logged ("while `what`", then `consequence`)
    /// and makes this return false.
    bool guarded(const char* what, const char* consequence, const std::function<void()>& step);
    /// Logs the counts of the lines that `mayLog` held back and forgets the counts.
    void reportHeldBackLogs();
    QByteArray addressUtf8() const;

    // Recursive: the writer's tasks and "data-written" listeners run with it held and may write.
    Bastion::Mutex m_writeMutex{true};
    Bastion::Mutex m_waitMutex;
    Bastion::Condition m_waitCondition;

    /// Set once (by the constructor, or by the first connection attempt) and reused for every
    /// later attempt; freed by the destructor only, after both threads ended. So any thread may
    /// close it while another one reads or writes, and nobody ever touches a freed socket.
    std::atomic<Bastion::TCPSocket*> m_socket;

    std::atomic<bool> m_running{true};
    std::atomic<bool> m_connectedFlag{false};
    std::atomic<bool> m_reconnect{true};
    std::atomic<bool> m_stopRequested{false};
    const bool m_accepted;

    mutable Bastion::Mutex m_infoMutex;
    // Null before a handshake, which compares below every version.
    QVersionNumber m_remoteVersion BASTION_GUARDED_BY(m_infoMutex);
    QString m_remoteSuffix BASTION_GUARDED_BY(m_infoMutex);
    QString m_remoteVersionText BASTION_GUARDED_BY(m_infoMutex);
    QString m_host BASTION_GUARDED_BY(m_infoMutex);
    int m_port BASTION_GUARDED_BY(m_infoMutex);
    QString m_remoteUser BASTION_GUARDED_BY(m_infoMutex);

    // Owned; created in the constructor, destroyed after its thread was joined.
    WriterThread* m_writer = nullptr;

    Bastion::Mutex m_queueMutex;
    QList<QByteArray> m_pending BASTION_GUARDED_BY(m_queueMutex);

    std::atomic<int64_t> m_lastActivity{0};
    std::atomic<bool> m_pongReceived{false};
    std::atomic<bool> m_usePing{true};
    std::atomic<double> m_pingTimeout;
    std::atomic<int> m_handshakeTimeoutMs;
    std::atomic<int> m_writeTimeoutMs;

    // Connection thread only: end of the handshake's read time (0 = no limit).
    Bastion::TimeStamp m_readDeadline;

    struct LogBudget
    {
      Bastion::TimeStamp windowStart;
      int written = 0;
      int64_t heldBack = 0;
    };
    // Connection thread only: one entry per kind of line given to mayLog (a fixed set of literals).
    std::map<const char*, LogBudget> m_logBudgets;
  };
}
