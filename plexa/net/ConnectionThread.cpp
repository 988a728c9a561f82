#include "plexa/net/ConnectionThread.hpp"

#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/TCPSocket.hpp"
#include "plexa/net/LineSyntax.hpp"
#include "plexa/net/MapBlock.hpp"
#include "plexa/net/NetFormat.hpp"
#include "plexa/net/SharedKey.hpp"
#include "plexa/net/WriterThread.hpp"

#include <exception>

namespace Plexa
{
  namespace
  {
    void reportHeldBack(const QByteArray& peer, const char* kind, int64_t count)
    {
      if (count > 0)
        Bastion::warning("%s: %lld more \"%s\" lines were not logged", peer.constData(), static_cast<long long>(count),
                         kind);
    }
  }

  ConnectionThread::ConnectionThread(Bastion::TCPSocket* socket, bool accepted)
      : Bastion::Thread("Plexa::Connection")
      , m_socket(socket)
      , m_accepted(accepted)
      , m_port(NetFormat::DefaultPort)
      , m_pingTimeout(NetFormat::DefaultPingTimeoutSecs)
      , m_handshakeTimeoutMs(NetFormat::DefaultHandshakeTimeoutMs)
      , m_writeTimeoutMs(NetFormat::DefaultWriteTimeoutMs)
  {
    if (accepted && socket) {
      // An accepted connection knows its peer only from the socket; log lines name it.
      Bastion::Guard guard(m_infoMutex);
      m_host = QString::fromUtf8(socket->peerAddress());
      m_port = socket->peerPort();
    }
    m_writer = new WriterThread(this);
    eventAddIn("write-error");
    eventAddIn("data-written");
    eventAddOut("connected");
    eventAddOut("disconnected");
    m_writer->eventAddListener("error", this, "write-error");
    m_writer->eventAddListener("data-written", this, "data-written");
  }

  ConnectionThread::~ConnectionThread()
  {
    stop();
    if (!isCurrentThread())
      waitEnd();
    m_writer->stop();
    if (!m_writer->isCurrentThread())
      m_writer->waitEnd();
    beginDestruction();
    delete m_writer;
    delete m_socket.exchange(nullptr);
  }

  void ConnectionThread::connectToHost(const QString& host, int port)
  {
    {
      Bastion::Guard guard(m_infoMutex);
      m_host = host;
      m_port = port;
    }
    m_stopRequested = false;
    if (Bastion::Thread::run())
      return;
    // Already running: the loop reconnects to the new address.
    dropConnection();
  }

  void ConnectionThread::dropConnection()
  {
    m_running = false;
    m_writer->stop();
    closeSocket();
  }

  void ConnectionThread::stop()
  {
    m_stopRequested = true;
    m_running = false;
    m_writer->stop();
    {
      Bastion::Guard guard(m_waitMutex);
      m_waitCondition.wakeAll();
    }
    closeSocket();
  }

  void ConnectionThread::shutdown()
  {
    stopBackgroundWork();
    stop();
    waitEnd();
    m_writer->stop();
    m_writer->waitEnd();
  }

  void ConnectionThread::stopBackgroundWork() {}

  bool ConnectionThread::isConnected() const
  {
    return m_running && m_connectedFlag;
  }

  bool ConnectionThread::remoteVersion(int major, int minor, int patch) const
  {
    Bastion::Guard guard(m_infoMutex);
    return m_remoteVersion >= QVersionNumber(major, minor, patch);
  }

  void ConnectionThread::setRemoteVersion(int major, int minor, int patch, const QString& suffix)
  {
    Bastion::Guard guard(m_infoMutex);
    m_remoteVersion = QVersionNumber(major, minor, patch);
    m_remoteSuffix = suffix;
    m_remoteVersionText = suffix.isEmpty() ? m_remoteVersion.toString() : m_remoteVersion.toString() + '-' + suffix;
  }

  bool ConnectionThread::isPlexa15Supported() const
  {
    if (remoteVersion(2, 2, 0))
      return true;
    if (!remoteVersion(2, 0, 4))
      return false;
    Bastion::Guard guard(m_infoMutex);
    return m_remoteSuffix.contains(QLatin1String("vanta"), Qt::CaseSensitive);
  }

  QString ConnectionThread::remoteVersionText() const
  {
    Bastion::Guard guard(m_infoMutex);
    return m_remoteVersionText;
  }

  QString ConnectionThread::remoteUser() const
  {
    Bastion::Guard guard(m_infoMutex);
    return m_remoteUser;
  }

  QString ConnectionThread::remoteHost() const
  {
    Bastion::Guard guard(m_infoMutex);
    return m_host;
  }

  int ConnectionThread::remotePort() const
  {
    Bastion::Guard guard(m_infoMutex);
    return m_port;
  }

  QByteArray ConnectionThread::addressUtf8() const
  {
    Bastion::Guard guard(m_infoMutex);
    return m_host.toUtf8() + ':' + QByteArray::number(m_port);
  }

  void ConnectionThread::setReconnect(bool reconnect)
  {
    m_reconnect = reconnect;
  }

  void ConnectionThread::setUsePing(bool usePing)
  {
    m_usePing = usePing;
  }

  void ConnectionThread::setPingTimeout(double seconds)
  {
    m_pingTimeout = seconds;
  }

  Bastion::TimeStamp ConnectionThread::lastActivity() const
  {
    return Bastion::TimeStamp::fromValue(m_lastActivity.load(std::memory_order_relaxed));
  }

  void ConnectionThread::setHandshakeTimeout(int ms)
  {
    m_handshakeTimeoutMs = ms;
  }

  void ConnectionThread::setWriteTimeout(int ms)
  {
    m_writeTimeoutMs = ms;
    if (Bastion::TCPSocket* socket = m_socket.load())
      socket->setWriteTimeout(ms);
  }

  int64_t ConnectionThread::bufferedDataSize() const
  {
    return m_writer->bufferedDataSize();
  }

  uint64_t ConnectionThread::txBytes() const
  {
    Bastion::TCPSocket* socket = m_socket.load();
    return socket ? socket->bytesSent() : 0;
  }

  uint64_t ConnectionThread::rxBytes() const
  {
    Bastion::TCPSocket* socket = m_socket.load();
    return socket ? socket->bytesReceived() : 0;
  }

  void ConnectionThread::setSharedKey(const QByteArray& key)
  {
    SharedKey::set(key);
  }

  void ConnectionThread::touch()
  {
    m_lastActivity.store(Bastion::TimeStamp::getTime().value(), std::memory_order_relaxed);
  }

  void ConnectionThread::closeSocket()
  {
    if (Bastion::TCPSocket* socket = m_socket.load())
      socket->close();
  }

  int ConnectionThread::writeSocket(const char* data, int size)
  {
    Bastion::TCPSocket* socket = m_socket.load();
    return socket ? qMax(0, socket->write(data, size)) : 0;
  }

  int ConnectionThread::writeSocketSome(const char* data, int size)
  {
    Bastion::TCPSocket* socket = m_socket.load();
    return socket ? socket->writeSome(data, size) : -1;
  }

  // ---- thread body ----

  void ConnectionThread::childLoop()
  {
    if (m_accepted) {
      handleConnection();
      return;
    }
    for (int retries = 0; !m_stopRequested; ++retries) {
      if (!m_running && !m_reconnect)
        break;
      if (retries > 3)
        Bastion::debug("ConnectionThread::childLoop# %d connection retries to %s", retries,
                       remoteHost().toUtf8().constData());
      const Bastion::TimeStamp start = Bastion::TimeStamp::getTime();
      if (m_reconnect)
        m_running = true;
      // A hook that throws costs this attempt, never the retries that follow.
      bool opened = false;
      guarded("connecting", "retrying", [&] { opened = openConnection(); });
      if (!opened || !m_running)
        guarded("reporting a failed attempt", "retrying", [&] { connectionFailed(); });
      else
        handleConnection();
      if (!m_stopRequested)
        m_running = bool(m_reconnect);
      waitBeforeRetry(start);
    }
    m_running = false;
    // A stop that raced with a connection attempt may have left the socket open.
    if (m_stopRequested)
      closeSocket();
  }

  void ConnectionThread::waitBeforeRetry(Bastion::TimeStamp start)
  {
    m_waitMutex.lock();
    for (;;) {
      if (m_stopRequested || (!m_reconnect && !m_running))
        break;
      double left = NetFormat::RetryIntervalSecs - start.sinceSecondsD();
      if (left <= 0)
        break;
      m_waitCondition.wait(m_waitMutex, left > 1.0 ? 1001 : int(1000.0 * left) + 1);
      left = NetFormat::RetryIntervalSecs - start.sinceSecondsD();
      if (left > 0 && !m_stopRequested) {
        // Hooks never run under our locks; stop() re-checks the flags under the mutex, so
        // nothing is lost while it is released.
        m_waitMutex.unlock();
        guarded("reporting the retry wait", "retrying", [&] { retryProgress(left); });
        m_waitMutex.lock();
      }
    }
    m_waitMutex.unlock();
  }

  bool ConnectionThread::openConnection()
  {
    m_writer->stop();
    m_writer->waitEnd();
    Bastion::TCPSocket* socket = m_socket.load();
    if (!socket) {
      // Kept for all later attempts (see m_socket), also when this one fails.
      socket = new Bastion::TCPSocket();
      m_socket = socket;
    }
    // A socket left open by an attempt that did not run its connection is closed first.
    socket->close();
    socket->setWriteTimeout(m_writeTimeoutMs);
    QByteArray host;
    int port = 0;
    {
      Bastion::Guard guard(m_infoMutex);
      host = m_host.toUtf8();
      port = m_port;
    }
    return socket->open(host.constData(), port) == 0;
  }

  void ConnectionThread::handleConnection()
  {
    touch();
    // What an earlier peer answered says nothing about this one.
    m_pongReceived = false;
    m_logBudgets.clear();
    Bastion::TCPSocket* socket = m_socket.load();
    if (!socket) {
      m_running = false;
      return;
    }
    socket->setWriteTimeout(m_writeTimeoutMs);
    bool shookHands = false;
    guarded("shaking hands", "closing connection", [&] {
      Bastion::Guard guard(m_writeMutex);
      const int timeoutMs = m_handshakeTimeoutMs;
      m_readDeadline = timeoutMs > 0
                           ? Bastion::TimeStamp::getTime() + Bastion::TimeStamp::createSeconds(timeoutMs / 1000.0)
                           : Bastion::TimeStamp();
      shookHands = handshake();
    });
    m_readDeadline = Bastion::TimeStamp();
    socket->setReadTimeout(0);
    if (!shookHands) {
      Bastion::error("Handshake failed, closing connection");
      closeSocket();
      m_writer->stop();
      m_running = false;
      return;
    }
    m_connectedFlag = true;
    const bool started = guarded("starting the connection", "closing connection", [&] {
      connected();
      m_writer->run();
      eventSend("connected");
    });
    if (started) {
      if (m_usePing)
        ping(NetFormat::InitialPingPayload);
      handOverPending();
      lineLoop();
    }
    // Every way out of a connection that shook hands comes here, whatever a hook threw: the
    // application always hears of the end, and the socket and the writer never outlive it.
    m_connectedFlag = false;
    m_running = false;
    guarded("ending the connection", "closing connection", [&] { disconnected(); });
    guarded("ending the connection", "closing connection", [&] { eventSend("disconnected"); });
    reportHeldBackLogs();
    closeSocket();
    m_writer->stop();
  }

  void ConnectionThread::handOverPending()
  {
    // Held for the whole hand-over, so that `queue` calls meanwhile land behind the old text.
    Bastion::Guard guard(m_queueMutex);
    while (m_running && !m_pending.isEmpty())
      m_writer->writeData(m_pending.takeFirst(), QByteArray());
  }

  void ConnectionThread::lineLoop()
  {
    while (m_running) {
      bool more = false;
      const bool survived = guarded("handling a command", "closing connection", [&] {
        QString text = line();
        if (text.isEmpty())
          return;
        touch();
        dispatch(text);
        more = true;
      });
      if (!survived)
        m_running = false;
      if (!more)
        break;
    }
  }

  void ConnectionThread::dispatch(QString& text)
  {
    QString pongPayload;
    if (m_usePing && LineSyntax::isPing(text)) {
      text[1] = QLatin1Char('o');
      Bastion::Guard guard(m_writeMutex);
      puts(text);
    } else if (m_usePing && LineSyntax::matchPong(text, pongPayload)) {
      m_pongReceived = true;
      pong(pongPayload.toUtf8());
    } else if (!parse(text) && mayLog("Failed to parse command"))
      Bastion::error("Failed to parse command '%s'", loggedText(text).constData());
  }

  bool ConnectionThread::guarded(const char* what, const char* consequence, const std::function<void()>& step)
  {
    try {
      step();
      return true;
    } catch (const std::exception& e) {
      Bastion::error("ConnectionThread # Exception while %s with %s, %s: %s", what, addressUtf8().constData(),
                     consequence, e.what());
    } catch (...) {
      Bastion::error("ConnectionThread # Unknown exception while %s with %s, %s", what, addressUtf8().constData(),
                     consequence);
    }
    return false;
  }

  bool ConnectionThread::mayLog(const char* kind)
  {
    LogBudget& budget = m_logBudgets[kind];
    const Bastion::TimeStamp now = Bastion::TimeStamp::getTime();
    if (budget.written > 0 && (now - budget.windowStart).secondsD() >= NetFormat::LogWindowSecs) {
      reportHeldBack(addressUtf8(), kind, budget.heldBack);
      budget = LogBudget();
    }
    if (budget.written == 0)
      budget.windowStart = now;
    if (budget.written < NetFormat::LogBurstLines) {
      ++budget.written;
      return true;
    }
    ++budget.heldBack;
    return false;
  }

  void ConnectionThread::reportHeldBackLogs()
  {
    for (const auto& kind : m_logBudgets)
      reportHeldBack(addressUtf8(), kind.first, kind.second.heldBack);
    m_logBudgets.clear();
  }

  QByteArray ConnectionThread::loggedText(const QString& text)
  {
    if (text.size() <= NetFormat::LoggedTextChars)
      return text.toUtf8();
    return text.left(NetFormat::LoggedTextChars).toUtf8() + "... (" + QByteArray::number(text.size()) + " characters)";
  }

  // ---- handshake ----

  bool ConnectionThread::handshake()
  {
    return m_accepted ? serverHandshake() : clientHandshake();
  }

  bool ConnectionThread::serverHandshake()
  {
    const QByteArray challenge = SharedKey::makeChallenge(this);
    const QByteArray expected = SharedKey::answer(challenge, SharedKey::current());
    if (!puts(NetFormat::VersionLine) || !writeData(challenge.constData(), challenge.size()))
      return false;
    QString first;
    if (!readLine(NetFormat::MaxHandshakeLineBytes, first))
      return false;
    QString login;
    if (first == QLatin1String(NetFormat::LoginName)) {
      // Peers before 1.9.1 send no version line: their login comes first.
      setRemoteVersion(1, 9, 0, QString());
      login = first;
    } else {
      LineSyntax::Version version;
      if (!LineSyntax::parseVersion(first, version)) {
        puts(NetFormat::HandshakeRefused);
        return false;
      }
      setRemoteVersion(version.major, version.minor, version.patch, version.suffix);
      if (!readLine(NetFormat::MaxHandshakeLineBytes, login))
        return false;
    }
    unsigned char answer[NetFormat::AnswerBytes];
    if (!readData(answer, NetFormat::AnswerBytes))
      return false;
    const bool keyOk = SharedKey::equalConstantTime(
        QByteArray::fromRawData(reinterpret_cast<const char*>(answer), NetFormat::AnswerBytes), expected);
    if (login == QLatin1String(NetFormat::LoginName) && keyOk) {
      {
        Bastion::Guard guard(m_infoMutex);
        m_remoteUser = login;
      }
      return puts(NetFormat::HandshakeOk);
    }
    puts(NetFormat::HandshakeRefused);
    return false;
  }

  bool ConnectionThread::clientHandshake()
  {
    QString first;
    if (!readLine(NetFormat::MaxHandshakeLineBytes, first))
      return false;
    LineSyntax::Version version;
    if (!LineSyntax::parseVersion(first, version)) {
      Bastion::error("Unknown server version '%s', expected \"Orrery (1|2).*.*\"", loggedText(first).constData());
      return false;
    }
    setRemoteVersion(version.major, version.minor, version.patch, version.suffix);
    unsigned char challenge[NetFormat::ChallengeBytes];
    if (!readData(challenge, NetFormat::ChallengeHalfBytes) ||
        !readData(challenge + NetFormat::ChallengeHalfBytes, NetFormat::ChallengeHalfBytes))
      return false;
    const QByteArray answer = SharedKey::answer(
        QByteArray(reinterpret_cast<const char*>(challenge), NetFormat::ChallengeBytes), SharedKey::current());
    if (remoteVersion(1, 9, 1) && !puts(NetFormat::VersionLine))
      return false;
    if (!puts(NetFormat::LoginName) || !writeData(answer.constData(), answer.size()))
      return false;
    QString reply;
    if (!readLine(NetFormat::MaxHandshakeLineBytes, reply))
      return false;
    if (reply != QLatin1String(NetFormat::HandshakeOk)) {
      Bastion::error("Remote host sent handshake error: %s", loggedText(reply).constData());
      return false;
    }
    return true;
  }

  // ---- reading ----

  bool ConnectionThread::beforeRead()
  {
    if (m_readDeadline.value() == 0)
      return true;
    const double left = (m_readDeadline - Bastion::TimeStamp::getTime()).secondsD();
    if (left <= 0)
      return false;
    if (Bastion::TCPSocket* socket = m_socket.load())
      socket->setReadTimeout(qMax(1, int(left * 1000.0)));
    return true;
  }

  void ConnectionThread::failRead()
  {
    m_writer->stop();
    m_running = false;
  }

  QString ConnectionThread::line()
  {
    QString text;
    readLine(NetFormat::MaxLineBytes, text);
    return text;
  }

  bool ConnectionThread::readLine(int maxBytes, QString& text)
  {
    text.clear();
    Bastion::TCPSocket* socket = m_socket.load();
    QByteArray bytes;
    for (;;) {
      char c = 0;
      if (!socket || !beforeRead() || socket->read(&c, 1) != 1) {
        Bastion::debug("ConnectionThread::line # no reply from %s:%d (could not read from socket)",
                       remoteHost().toUtf8().constData(), remotePort());
        failRead();
        return false;
      }
      touch();
      if (c == '\r' || c == '\n') {
        if (bytes.isEmpty())
          continue;
        const int zero = bytes.indexOf('\0');
        text = QString::fromUtf8(bytes.constData(), zero < 0 ? bytes.size() : zero);
        // A line that is empty once cut at its first zero byte is skipped like a blank line:
        // an empty result means "connection ended" to every caller.
        if (text.isEmpty()) {
          bytes.clear();
          continue;
        }
        return true;
      }
      if (bytes.size() >= maxBytes) {
        Bastion::error("ConnectionThread::line # %s sent a line longer than %d bytes, closing connection",
                       addressUtf8().constData(), maxBytes);
        failRead();
        return false;
      }
      bytes.append(c);
    }
  }

  bool ConnectionThread::readInto(QByteArray& out, int size)
  {
    out.clear();
    Bastion::TCPSocket* socket = m_socket.load();
    if (!socket)
      return false;
    while (out.size() < size) {
      const int piece = qMin(size - out.size(), NetFormat::ReadGrowthBytes);
      const int old = out.size();
      if (!beforeRead())
        return false;
      out.resize(old + piece);
      const int got = socket->read(out.data() + old, piece);
      out.resize(old + qMax(0, got));
      if (got != piece)
        return false;
    }
    return true;
  }

  bool ConnectionThread::readData(unsigned char* buffer, int size)
  {
    if (size < 1)
      return true;
    Bastion::TCPSocket* socket = m_socket.load();
    if (!socket || !beforeRead() || socket->read(buffer, size) != size) {
      Bastion::error("ConnectionThread::readData # Read error");
      failRead();
      return false;
    }
    touch();
    return true;
  }

  QByteArray ConnectionThread::readData(int size)
  {
    QByteArray data;
    if (size < 1)
      return data;
    if (!readInto(data, size)) {
      if (!m_stopRequested)
        Bastion::error("ConnectionThread::readData # Read error (%s:%d expected %d bytes, got %d bytes",
                       remoteHost().toUtf8().constData(), remotePort(), size, data.size());
      failRead();
      return data;
    }
    touch();
    return data;
  }

  bool ConnectionThread::skip(int size)
  {
    Bastion::TCPSocket* socket = m_socket.load();
    char piece[NetFormat::SkipPieceBytes];
    for (int left = size; left > 0;) {
      const int n = qMin(left, int(sizeof(piece)));
      if (!socket || !beforeRead() || socket->read(piece, n) != n) {
        Bastion::error("ConnectionThread::skip # Read error");
        failRead();
        return false;
      }
      left -= n;
    }
    touch();
    return true;
  }

  QMap<QString, QString> ConnectionThread::readMap(int count)
  {
    QMap<QString, QString> map;
    if (!remoteVersion(1, 9, 1)) {
      for (int i = 0; i < count; ++i) {
        const QString key = line();
        if (key.isEmpty())
          break;
        const QString value = line();
        if (value.isEmpty())
          break;
        map.insert(key, value);
      }
      return map;
    }
    QByteArray sizeItem;
    if (!readInto(sizeItem, MapBlock::SizeItemBytes)) {
      if (!m_stopRequested)
        Bastion::error("ConnectionThread::readMap # error while reading data");
      failRead();
      return map;
    }
    int32_t size = 0;
    if (!MapBlock::announcedSize(sizeItem, NetFormat::MaxMapBlockBytes, size)) {
      Bastion::error("ConnectionThread::readMap # %s announced a map block of %d bytes (allowed: %d to %d), "
                     "closing connection",
                     addressUtf8().constData(), int(size), MapBlock::SizeItemBytes, NetFormat::MaxMapBlockBytes);
      failRead();
      return map;
    }
    const QByteArray rest = readData(size - MapBlock::SizeItemBytes);
    if (rest.size() != size - MapBlock::SizeItemBytes)
      return map;
    if (!MapBlock::decode(sizeItem + rest, count, map) && mayLog("malformed map block"))
      Bastion::error("ConnectionThread::readMap # malformed map block from %s (%d pairs announced, %d read)",
                     addressUtf8().constData(), count, map.size());
    return map;
  }

  // ---- writing ----

  bool ConnectionThread::puts(const QString& text)
  {
    const QByteArray bytes = (text + QLatin1Char('\n')).toUtf8();
    return writeData(bytes.constData(), bytes.size());
  }

  bool ConnectionThread::writeData(const void* data, int size)
  {
    if (writeSocket(static_cast<const char*>(data), size) != size) {
      Bastion::error("ConnectionThread::writeData # Write error");
      return false;
    }
    return true;
  }

  void ConnectionThread::queue(const QString& text)
  {
    const QByteArray bytes = text.toUtf8();
    // The test and the append happen under one hold with the hand-over: text goes straight to the
    // writer only when nothing older waits, and never lands in `pending` after the hand-over.
    Bastion::Guard guard(m_queueMutex);
    if (isConnected() && m_pending.isEmpty())
      m_writer->writeData(bytes, QByteArray());
    else
      m_pending.append(bytes);
  }

  void ConnectionThread::writeBuffer(const QString& text, const QByteArray& name)
  {
    m_writer->writeData(text.toUtf8(), name);
  }

  void ConnectionThread::writeBuffer(const QList<QByteArray>& parts, const QByteArray& name)
  {
    m_writer->writeData(parts, name);
  }

  void ConnectionThread::writeBufferData(const QByteArray& data, const QByteArray& name)
  {
    m_writer->writeData(data, name);
  }

  void ConnectionThread::writeMapBuffer(const QString& name, const QMap<QString, QString>& map)
  {
    writeBufferData(buildMapBuffer(name, map), QByteArray());
  }

  QByteArray ConnectionThread::buildMapBuffer(const QString& name, const QMap<QString, QString>& map) const
  {
    return MapBlock::encode(name, map, remoteVersion(1, 9, 1));
  }

  void ConnectionThread::ping(const QByteArray& payload)
  {
    m_writer->writeData(payload.isEmpty() ? QByteArray(NetFormat::PingLine) : "ping " + payload + '\n', QByteArray());
  }

  // ---- events and hooks ----

  void ConnectionThread::eventProcess(const QByteArray& id, Bastion::BinaryData& data)
  {
    if (id == "write-error") {
      // The reader may be blocked on a silent peer: closing the socket ends it now rather than at
      // the next line that might never come.
      dropConnection();
      return;
    }
    if (id == "data-written")
      return;
    Carafe::Node::eventProcess(id, data);
  }

  void ConnectionThread::connected() {}
  void ConnectionThread::disconnected() {}
  void ConnectionThread::connectionFailed() {}
  void ConnectionThread::retryProgress(double) {}
  void ConnectionThread::pong(const QByteArray&) {}
}
