#pragma once

#include "plexa/bundle/BundleStream.hpp"
#include "plexa/session/BundleControllerParams.hpp"

#include <functional>
#include <memory>
#include <vector>

namespace Bastion
{
  class SymbolRegistry;
}

namespace Plexa
{
  class Core;
  class RemoteNode;

  /// One session between a remote node and a peer. The controller owns the session's `Core` and is
  /// the only way other threads reach it: they queue tasks (`addTask`, `scheduleProcess`,
  /// `setEnabled`, `debugDump`), and the application's update thread runs them in `update()`.
  ///
  /// Every controller that `create` makes is entered in a process-wide list, which `update()`
  /// services as a whole. The list holds controllers weakly: the application owns a controller
  /// through the pointer `create` returns, and ends the session by letting it go. A controller
  /// whose remote node sends "destroyed" is skipped by `update()` from that moment on; at the
  /// next after-update servicing of the tree (`Carafe::Node::processAfterUpdate`) it leaves the
  /// list and releases its core, after which tasks queued to it are dropped.
  ///
  /// Threads: `addTask`, `scheduleProcess`, `setEnabled`, `debugDump`, `peerInitialized` and
  /// `controllerCount` may be called from any thread; the rest on the update thread, which must
  /// be the thread that owns the remote node's tree.
  class BundleController : public BundleListScheduler, public std::enable_shared_from_this<BundleController>
  {
  public:
    using Task = std::function<void(Core&)>;

    /// A controller for `node` (which must outlive it or send "destroyed"), entered in the
    /// process-wide list. Its core initialises at the first `update()` or task.
    static std::shared_ptr<BundleController> create(RemoteNode& node, const BundleControllerParams& params);
    ~BundleController() override;
    BundleController(const BundleController&) = delete;
    BundleController& operator=(const BundleController&) = delete;

    /// Queues `task` for the update thread, in order. Dropped when the core has gone.
    void addTask(const Task& task);
    /// Queues the dispatch of a received list (the bundles' bytes are shared, not copied). An
    /// empty list only initialises the session. Called by the connection's bundle block reader.
    void scheduleProcess(const std::vector<Bundle>& bundles) override;
    /// Queues the change of whether this side sends its own changes; it takes effect after the
    /// tasks queued before it. Incoming bundles are applied either way.
    void setEnabled(bool enabled);
    /// Queues a print of the session's attribute store to standard output.
    void debugDump();

    /// Runs on the update thread: what a `scheduleProcess` task does, right now.
    void process(const std::vector<Bundle>& bundles);
    /// Builds the session if that has not happened yet. Update thread.
    void ensureIsInitialized();
    /// The registries of the paths this side sends and of the peer's symbols (initialising the
    /// session first); null once the core has gone, and the first from the node's "destroyed"
    /// on. Update thread.
    Bastion::SymbolRegistry* symbolRegistrySend();
    Bastion::SymbolRegistry* symbolRegistryRecv();

    /// Services every live controller, not only this one (so it is static): for each, the session
    /// is initialised, its queued tasks run in order, and an enabled one then does its outgoing
    /// work (remote node update, send pass, connection send). Application's update thread.
    static void update();
    /// Services this controller alone, as `update()` services each: a process running many
    /// sessions on their own update loops (a Peer each) serves on each turn only the sessions of
    /// that loop, so a turn costs what its own sessions need, not what every session of the
    /// process does. Update thread of this controller's node.
    void updateSession();
    /// Controllers in the process-wide list (destroyed nodes included until the next servicing).
    static int controllerCount();

    /// The parameters the controller was created with.
    const BundleControllerParams& params() const { return m_params; }
    /// The core; null once it has been released after the node's destruction.
    std::shared_ptr<Core> core() const;
    /// True once a flooding cap of the parameters was hit; from then on the session applies
    /// nothing more that the peer sends, and the application should end it. Update thread.
    bool limitExceeded() const;
    /// True once the peer's "initialized" event has arrived in this session. Any thread.
    bool peerInitialized() const;

  private:
    BundleController(RemoteNode& node, const BundleControllerParams& params);
    /// Queued after a controller's node went or a controller ended: drops the list's entries of
    /// both kinds and releases the cores of destroyed nodes.
    static void service();
    /// What `update()` and `updateSession()` do for one core.
    static void updateCore(Core& core);
    static void requestServicing();

    RemoteNode& m_node;
    const BundleControllerParams m_params;
    /// Set by the constructor, released (under the list's mutex) at the servicing after the
    /// node's "destroyed".
    std::shared_ptr<Core> m_core;
    /// What queued work locks first: a task for a core that has gone is dropped.
    std::weak_ptr<Core> m_weakCore;
    /// The "destroyed" listener on the node; -1 once the node has dropped it.
    long m_destroyedListener = -1;
  };
}
