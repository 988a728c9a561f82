#include "plexa/app/Peer.hpp"

#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/StringUtils.hpp"
#include "bastion/ThreadSafety.hpp"
#include "carafe/Node.hpp"
#include "plexa/app/FileSessionConnection.hpp"
#include "plexa/app/PeerConnectionFactory.hpp"
#include "plexa/app/PeerServer.hpp"
#include "plexa/app/PeerSession.hpp"
#include "plexa/app/SessionHost.hpp"
#include "plexa/app/TrafficMeter.hpp"
#include "plexa/controller/BundleController.hpp"
#include "plexa/controller/Core.hpp"
#include "plexa/files/AssetBase.hpp"
#include "plexa/files/FileTransferCommand.hpp"
#include "plexa/net/ConnectionThread.hpp"
#include "plexa/net/WriterThread.hpp"
#include "plexa/remote/RemoteNode.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <vector>

#include <sys/eventfd.h>
#include <unistd.h>

namespace Plexa
{
  namespace
  {
    using Clock = std::chrono::steady_clock;

    /// How long a client session holds back its own announcement when the peer sends no
    /// "initialized": a peer that never does would otherwise never hear from it. The peer's
    /// "initialized" comes behind its whole tree, so this must cover a large tree on a slow link:
    /// released too early, the two announcements cross and swap values.
    constexpr int ClientHoldMs = 5000;
  }

  class Peer::D : public SessionHost
  {
  public:
    /// A session the application thread knows of.
    struct Session
    {
      std::shared_ptr<PeerSession> session;
      /// The connection callback was told about it.
      bool reported = false;
      /// A flooding cap was hit and the connection asked to end.
      bool overLimit = false;
      /// A client session sends nothing until the peer's present tree has been applied here.
      bool holding = false;
      Clock::time_point started;
    };

    struct Fetch
    {
      QString path;
      /// Null when no session could serve it: it fails at the next update.
      std::shared_ptr<PeerSession> session;
      Clock::time_point deadline;
      FetchCallback callback;
      /// The peer announced the file: the time limit no longer applies, the stall limit does.
      bool booked = false;
      /// Booking, or the last sign that parts arrive.
      Clock::time_point lastPart;
    };

    D(RemoteNode& node, const PeerOptions& options)
        : node(node)
        , options(options)
        , traffic(std::make_shared<TrafficMeter>())
        , assets(options.fileRoot.isEmpty() ? nullptr : new AssetBase(options.fileRoot))
        , factory(*this, traffic, assets.get(), options.pingTimeoutSecs)
        , wakeFd(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
    {
      if (wakeFd < 0)
        Bastion::error("Peer::Peer # No wake-up descriptor for an event loop: %s",
                       Bastion::StringUtils::errorText(errno).constData());
      // Tree changes happen on the application thread between two waits; additions are only
      // reported by the watcher's update, which `waitAndUpdate` runs before it waits.
      changeListener = node.addAttributeChangeListener([this](const NodeWatcher::Event&) { wake(); });
      eventListener = node.addEventListener([this](const RemoteNode::Event&) { wake(); });
    }

    ~D() override
    {
      stopConnections();
      for (Session& s : sessions)
        s.session->finish();
      sessions.clear();
      node.removeAttributeChangeListener(changeListener);
      node.removeEventLIstener(eventListener);
      if (wakeFd >= 0)
        ::close(wakeFd);
    }

    // ---- SessionHost: connection threads ----

    void sessionStarted(const std::shared_ptr<PeerSession>& session) override
    {
      {
        Bastion::Guard guard(inboxMutex);
        startedSessions.push_back(session);
      }
      wake();
    }

    void retrying(double secondsLeft) override
    {
      {
        Bastion::Guard guard(inboxMutex);
        retrySecondsLeft = secondsLeft;
        retryPending = true;
      }
      wake();
    }

    void fileEvent(const FileEvent& event) override
    {
      {
        Bastion::Guard guard(inboxMutex);
        fileEvents.push_back(event);
      }
      wake();
    }

    void wake() override
    {
      // Cheap when already woken: the watcher calls this for every change of a busy tree.
      if (woken.exchange(true))
        return;
      // Passing through the mutex orders the flag before a waiter that checked it and is about to
      // wait; waking after the unlock spares the waiter from blocking on the mutex straight away.
      {
        Bastion::Guard guard(wakeMutex);
      }
      wakeCondition.wakeAll();
      if (wakeFd >= 0) {
        const uint64_t one = 1;
        // Fails only when the counter is full, and then the descriptor is readable anyway.
        if (::write(wakeFd, &one, sizeof(one)) < 0) {
        }
      }
    }

    /// Empties the event loop's descriptor, which a wake has made readable.
    void drainWakeDescriptor()
    {
      uint64_t count = 0;
      if (wakeFd >= 0 && ::read(wakeFd, &count, sizeof(count)) < 0) {
      }
    }

    // ---- application thread ----

    void waitForWork(int maxWaitMs)
    {
      const Clock::time_point end = Clock::now() + std::chrono::milliseconds(std::max(0, maxWaitMs));
      Bastion::Guard guard(wakeMutex);
      while (!woken.load()) {
        const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (left <= 0)
          break;
        wakeCondition.wait(wakeMutex, int(std::min<long long>(left, 1 << 30)));
      }
      drainWakeDescriptor();
      woken.store(false);
    }

    int updateOnWake()
    {
      // Emptied before the flag is cleared: a wake after the clearing makes it readable again, one
      // before it finds the flag set and is served by this update.
      drainWakeDescriptor();
      woken.store(false);
      update();
      const int limit = waitLimit(INT_MAX);
      return limit == INT_MAX ? -1 : limit;
    }

    /// `maxWaitMs`, or less when a fetch's time limit or a held session's hold ends sooner.
    int waitLimit(int maxWaitMs) const
    {
      long long limit = maxWaitMs;
      const Clock::time_point now = Clock::now();
      // Rounded up, so that the wait ends after the time, not just before it.
      auto until = [now](Clock::time_point t) {
        return std::max<long long>(0, std::chrono::duration_cast<std::chrono::milliseconds>(t - now).count() + 1);
      };
      for (const Session& s : sessions)
        if (s.holding)
          limit = std::min(limit, until(s.started + std::chrono::milliseconds(ClientHoldMs)));
      for (const Fetch& f : fetches) {
        if (!f.booked)
          limit = std::min(limit, until(f.deadline));
        else if (options.fetchStallMs > 0)
          limit = std::min(limit, until(f.lastPart + stallLimit()));
      }
      return int(limit);
    }

    void update()
    {
      std::vector<std::function<void()>> calls;
      takeInbox(calls);
      endSessions(calls);
      updateSessions();
      node.update();
      if (releaseHeldSessions()) {
        // What the released sessions queued while they held (their echo of the peer's
        // announcement among it) leaves now, before the application changes the tree again.
        updateSessions();
      }
      checkLimits();
      checkFetchTimes(calls);
      if (server)
        server->releaseEnded();
      for (const std::function<void()>& call : calls)
        call();
      Carafe::Node::processAfterUpdate();
    }

    /// Services this Peer's own sessions only: the process-wide `BundleController::update` would
    /// serve every Peer's sessions on every Peer's turn, so that a process running n Peers did n
    /// times the work of all of them in each round of its loops.
    void updateSessions()
    {
      // Taken first: a task's listener may start or end sessions.
      std::vector<std::shared_ptr<BundleController>> controllers;
      controllers.reserve(sessions.size());
      for (const Session& s : sessions)
        if (std::shared_ptr<BundleController> controller = s.session->controller())
          controllers.push_back(std::move(controller));
      for (const std::shared_ptr<BundleController>& controller : controllers)
        controller->updateSession();
    }

    void takeInbox(std::vector<std::function<void()>>& calls)
    {
      std::vector<std::shared_ptr<PeerSession>> started;
      std::vector<FileEvent> events;
      bool retry = false;
      double secondsLeft = 0;
      {
        Bastion::Guard guard(inboxMutex);
        started.swap(startedSessions);
        events.swap(fileEvents);
        retry = retryPending;
        secondsLeft = retrySecondsLeft;
        retryPending = false;
      }
      for (const std::shared_ptr<PeerSession>& session : started)
        startSession(session, calls);
      for (const FileEvent& event : events)
        handleFileEvent(event, calls);
      if (retry && retryCallback)
        calls.push_back([callback = retryCallback, secondsLeft] { callback(secondsLeft); });
    }

    void startSession(const std::shared_ptr<PeerSession>& session, std::vector<std::function<void()>>& calls)
    {
      BundleControllerParams params;
      params.createMissingAttributes = options.createMissingAttributes;
      params.dropStaleValues = options.dropStaleValues;
      params.maxSymbols = options.limits.maxSymbols;
      params.maxSessionAttributes = options.limits.maxSessionAttributes;
      params.maxCreatedNodes = options.limits.maxCreatedNodes;
      params.maxTreeCreatedNodes = options.limits.maxTreeCreatedNodes;
      params.maxPathLength = options.limits.maxPathLength;
      params.maxPathDepth = options.limits.maxPathDepth;
      // Each session gets its own sender id, so that slices of sliced events from two sessions
      // are never put together.
      const long senderId = ++sessionNumber;
      RemoteNode* target = &node;
      params.oneWayEventHandler = [target, senderId](const QByteArray& name, Bastion::BinaryData& data) {
        target->handleRemoteEvent(name, data, senderId);
      };
      // Both sides announce their whole tree at the start of a session, and announcements that
      // cross would swap the values both sides hold. The accepting side's tree wins: a client
      // session holds its outgoing work back until the peer's "initialized" has arrived, behind
      // the peer's announcement. It then announces only what the peer did not have, and changes
      // made here since.
      const std::shared_ptr<ConnectionThread> connection = session->connection();
      const bool holding = connection && !connection->isAccepted();
      params.enabled = !holding;
      session->start(node, params);
      Session entry;
      entry.session = session;
      entry.holding = holding;
      entry.started = Clock::now();
      if (session->controller()) {
        entry.reported = true;
        if (connectionCallback)
          calls.push_back(
              [callback = connectionCallback, address = session->peerAddress()] { callback(address, true); });
      }
      sessions.push_back(entry);
    }

    void endSessions(std::vector<std::function<void()>>& calls)
    {
      for (auto it = sessions.begin(); it != sessions.end();) {
        if (!it->session->hasEnded()) {
          ++it;
          continue;
        }
        it->session->finish();
        if (it->reported && connectionCallback)
          calls.push_back(
              [callback = connectionCallback, address = it->session->peerAddress()] { callback(address, false); });
        for (auto f = fetches.begin(); f != fetches.end();) {
          if (f->session == it->session) {
            calls.push_back([callback = f->callback, path = f->path] { callback(path, FetchResult::Failed); });
            f = fetches.erase(f);
          } else {
            ++f;
          }
        }
        it = sessions.erase(it);
      }
    }

    /// Enables the client sessions that have seen the peer's tree; true when there were some.
    bool releaseHeldSessions()
    {
      bool released = false;
      for (Session& s : sessions) {
        if (!s.holding)
          continue;
        const std::shared_ptr<BundleController> controller = s.session->controller();
        if (!controller)
          continue;
        if (controller->peerInitialized() || Clock::now() - s.started > std::chrono::milliseconds(ClientHoldMs)) {
          s.holding = false;
          controller->setEnabled(true);
          released = true;
        }
      }
      return released;
    }

    void checkLimits()
    {
      for (Session& s : sessions) {
        if (s.overLimit)
          continue;
        const std::shared_ptr<BundleController> controller = s.session->controller();
        if (!controller || !controller->limitExceeded())
          continue;
        s.overLimit = true;
        Bastion::error("Peer::update # The session with %s went over a flooding limit (symbols %d, session "
                       "attributes %d, created nodes %d, in the tree %d), disconnecting",
                       s.session->peerAddress().toUtf8().constData(), options.limits.maxSymbols,
                       options.limits.maxSessionAttributes, options.limits.maxCreatedNodes,
                       options.limits.maxTreeCreatedNodes);
        s.session->disconnect();
      }
    }

    std::chrono::milliseconds stallLimit() const { return std::chrono::milliseconds(options.fetchStallMs); }

    void handleFileEvent(const FileEvent& event, std::vector<std::function<void()>>& calls)
    {
      // Every fetch of the path in that session: one download serves them all.
      bool matched = false;
      for (auto it = fetches.begin(); it != fetches.end();) {
        if (!it->session || it->session != event.session ||
            FileTransferCommand::canonicalPath(it->path) != event.path) {
          ++it;
          continue;
        }
        matched = true;
        it->lastPart = Clock::now();
        FetchResult result = FetchResult::Failed;
        switch (event.kind) {
        case FileEvent::Booked:
          it->booked = true;
          ++it;
          continue;
        case FileEvent::Progress:
        case FileEvent::Alive:
          ++it;
          continue;
        case FileEvent::Finished:
          result = event.verified ? FetchResult::Verified : FetchResult::Failed;
          break;
        case FileEvent::Refused:
          result = FetchResult::Refused;
          break;
        }
        calls.push_back([callback = it->callback, path = it->path, result] { callback(path, result); });
        it = fetches.erase(it);
      }
      if (matched && event.kind == FileEvent::Progress && progressCallback)
        calls.push_back(
            [callback = progressCallback, event] { callback(event.path, event.bytesDone, event.bytesTotal); });
    }

    void checkFetchTimes(std::vector<std::function<void()>>& calls)
    {
      const Clock::time_point now = Clock::now();
      for (auto f = fetches.begin(); f != fetches.end();) {
        FetchResult result = FetchResult::Failed;
        if (!f->session) {
          result = FetchResult::Failed;
        } else if (!f->booked && now >= f->deadline) {
          result = FetchResult::TimedOut;
        } else if (f->booked && options.fetchStallMs > 0 && now - f->lastPart >= stallLimit()) {
          result = FetchResult::Stalled;
          Bastion::warning("Peer::update # No part of '%s' arrived from %s for %d ms: fetch given up",
                           f->path.toUtf8().constData(), f->session->peerAddress().toUtf8().constData(),
                           options.fetchStallMs);
        } else {
          ++f;
          continue;
        }
        calls.push_back([callback = f->callback, path = f->path, result] { callback(path, result); });
        const Fetch ended = *f;
        f = fetches.erase(f);
        if (result == FetchResult::TimedOut)
          forgetRequest(ended);
      }
    }

    /// A late answer to a fetch that timed out starts no download, unless another fetch of the
    /// path in that session still waits.
    void forgetRequest(const Fetch& ended)
    {
      for (const Fetch& f : fetches)
        if (f.session == ended.session && f.path == ended.path)
          return;
      std::shared_ptr<ConnectionThread> connection = ended.session->connection();
      if (auto* files = dynamic_cast<FileSessionConnection*>(connection.get()))
        files->forgetFileInfoRequest(ended.path);
    }

    void fetch(const QString& path, int timeoutMs, const FetchCallback& callback)
    {
      Fetch f;
      f.path = path;
      f.deadline = Clock::now() + std::chrono::milliseconds(std::max(0, timeoutMs));
      f.callback = callback;
      for (const Session& s : sessions) {
        if (s.session->hasEnded() || !s.session->controller())
          continue;
        std::shared_ptr<ConnectionThread> connection = s.session->connection();
        if (auto* files = dynamic_cast<FileSessionConnection*>(connection.get())) {
          files->requestFileInfo(path);
          f.session = s.session;
          break;
        }
      }
      fetches.push_back(f);
      // Resolved by the next update, also when it failed at once.
      wake();
    }

    bool flush(int timeoutMs)
    {
      node.processPendingAdditions();
      update();
      const Clock::time_point end = Clock::now() + std::chrono::milliseconds(std::max(0, timeoutMs));
      for (const Session& s : sessions) {
        const std::shared_ptr<ConnectionThread> connection = s.session->connection();
        if (!connection || s.session->hasEnded())
          continue;
        const long long left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
        if (!connection->writerThread()->waitForWritten(timeoutMs < 0 ? -1 : int(std::max(0LL, left))))
          return false;
      }
      return true;
    }

    bool allSentAcknowledged() const
    {
      for (const Session& s : sessions) {
        const std::shared_ptr<BundleController> controller = s.session->controller();
        const std::shared_ptr<Core> core = controller ? controller->core() : nullptr;
        if (s.reported && core && !core->allSentAcknowledged())
          return false;
      }
      return true;
    }

    bool listen(const QString& host, int port, QString* error)
    {
      if (server) {
        if (error)
          *error = QStringLiteral("already listening on port %1").arg(server->localPort());
        return false;
      }
      // The server reports its one bind attempt; a busy address is the caller's to retry.
      server.reset(new PeerServer(factory, options.maxConnections));
      server->setRetryBind(false);
      server->run(host, port);
      const int result = server->waitForBind();
      if (result != 0) {
        server.reset();
        if (error)
          *error = QStringLiteral("cannot listen on %1:%2: %3")
                       .arg(host)
                       .arg(port)
                       .arg(QString::fromLocal8Bit(Bastion::StringUtils::errorText(result)));
        return false;
      }
      return true;
    }

    void connectTo(const QString& host, int port)
    {
      stopClient();
      client = factory.create(nullptr, false, host + ':' + QString::number(port));
      client->connectToHost(host, port);
    }

    void stopClient()
    {
      if (!client)
        return;
      // Joined before it is let go: the connection's own thread may hold a reference for a moment,
      // and must not be the one that drops the last.
      client->shutdown();
      client.reset();
    }

    void stopConnections()
    {
      server.reset();
      stopClient();
    }

    /// The sessions the connection callback has been told about and not yet told the end of: the
    /// count changes with the callbacks, at updates.
    int liveSessionCount(bool initializedOnly) const
    {
      int count = 0;
      for (const Session& s : sessions) {
        if (!s.reported)
          continue;
        const std::shared_ptr<BundleController> controller = s.session->controller();
        if (!initializedOnly || (controller && controller->peerInitialized()))
          ++count;
      }
      return count;
    }

    // Constant after construction.
    RemoteNode& node;
    const PeerOptions options;
    const std::shared_ptr<TrafficMeter> traffic;
    /// Declared before the connections, which use it, so that it goes after them.
    const std::unique_ptr<AssetBase> assets;
    const PeerConnectionFactory factory;
    long changeListener = -1;
    long eventListener = -1;
    /// Readable after a wake, for an event loop that drives the Peer (an eventfd; -1 if none).
    const int wakeFd;

    // Application thread only.
    std::unique_ptr<PeerServer> server;
    std::shared_ptr<ConnectionThread> client;
    std::vector<Session> sessions;
    std::vector<Fetch> fetches;
    long sessionNumber = 0;
    ConnectionCallback connectionCallback;
    RetryCallback retryCallback;
    FetchProgressCallback progressCallback;

    // The wake-up of `waitAndUpdate`; `woken` is set without the mutex when already set.
    std::atomic<bool> woken{false};
    Bastion::Mutex wakeMutex;
    Bastion::Condition wakeCondition;

    // What the connection threads hand over.
    Bastion::Mutex inboxMutex;
    std::vector<std::shared_ptr<PeerSession>> startedSessions BASTION_GUARDED_BY(inboxMutex);
    std::vector<FileEvent> fileEvents BASTION_GUARDED_BY(inboxMutex);
    bool retryPending BASTION_GUARDED_BY(inboxMutex) = false;
    double retrySecondsLeft BASTION_GUARDED_BY(inboxMutex) = 0;
  };

  Peer::Peer(RemoteNode& node, const PeerOptions& options)
      : d(new D(node, options))
  {
  }

  Peer::~Peer() = default;

  void Peer::connectTo(const QString& host, int port)
  {
    d->connectTo(host, port);
  }

  bool Peer::listen(const QString& host, int port, QString* error)
  {
    return d->listen(host, port, error);
  }

  int Peer::listeningPort() const
  {
    return d->server ? d->server->localPort() : 0;
  }

  void Peer::stop()
  {
    d->stopConnections();
  }

  void Peer::update()
  {
    d->update();
  }

  void Peer::waitAndUpdate(int maxWaitMs)
  {
    // Reports the tree's pending additions now, so that a waiting change wakes the wait at once.
    d->node.processPendingAdditions();
    d->waitForWork(d->waitLimit(maxWaitMs));
    d->update();
  }

  void Peer::wake()
  {
    d->wake();
  }

  bool Peer::flush(int timeoutMs)
  {
    return d->flush(timeoutMs);
  }

  bool Peer::allSentAcknowledged() const
  {
    return d->allSentAcknowledged();
  }

  int Peer::wakeDescriptor() const
  {
    return d->wakeFd;
  }

  int Peer::updateOnWake()
  {
    return d->updateOnWake();
  }

  void Peer::prepareToWait()
  {
    d->node.processPendingAdditions();
  }

  int Peer::sessionCount() const
  {
    return d->liveSessionCount(false);
  }

  int Peer::initializedSessionCount() const
  {
    return d->liveSessionCount(true);
  }

  uint64_t Peer::txBytes() const
  {
    return d->traffic->txBytes();
  }

  uint64_t Peer::rxBytes() const
  {
    return d->traffic->rxBytes();
  }

  void Peer::setConnectionCallback(const ConnectionCallback& callback)
  {
    d->connectionCallback = callback;
  }

  void Peer::setRetryCallback(const RetryCallback& callback)
  {
    d->retryCallback = callback;
  }

  void Peer::fetch(const QString& path, int timeoutMs, const FetchCallback& callback)
  {
    d->fetch(path, timeoutMs, callback);
  }

  void Peer::setFetchProgressCallback(const FetchProgressCallback& callback)
  {
    d->progressCallback = callback;
  }

  bool Peer::waitForFileList(int timeoutMs)
  {
    return d->assets && d->assets->waitForFileList(timeoutMs);
  }
}
