#include "plexa/controller/BundleController.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Guard.hpp"
#include "carafe/Node.hpp"
#include "plexa/controller/Core.hpp"
#include "plexa/remote/RemoteNode.hpp"


namespace Plexa
{
  namespace
  {
    /// Every controller `create` made, held weakly, and the mutex that guards the list and every
    /// `addTask`. Never destroyed, so controllers ending during static destruction still find it.
    struct ControllerList
    {
      Bastion::Mutex mutex;
      std::vector<std::weak_ptr<BundleController>> controllers BASTION_GUARDED_BY(mutex);
      /// A servicing is queued on the tree's after-update queue and has not run yet.
      bool servicingQueued BASTION_GUARDED_BY(mutex) = false;
    };

    ControllerList& controllerList()
    {
      static ControllerList* list = new ControllerList;
      return *list;
    }
  }

  BundleController::BundleController(RemoteNode& node, const BundleControllerParams& params)
      : m_node(node)
      , m_params(params)
      , m_core(std::make_shared<Core>(node, params))
      , m_weakCore(m_core)
  {
    // The node may go before the controller: from then on the core must not touch it. The core
    // is only marked here (this may run in the middle of the core's own dispatch); the servicing
    // that follows the update cycle takes the controller out of the list.
    Core* core = m_core.get();
    m_destroyedListener = m_node.eventAddListener("destroyed", [this, core](Bastion::BinaryData&) {
      core->markNodeDestroyed();
      m_destroyedListener = -1;
      requestServicing();
    });
  }

  BundleController::~BundleController()
  {
    if (m_destroyedListener >= 0)
      m_node.eventRemoveListener(m_destroyedListener);
    requestServicing();
  }

  std::shared_ptr<BundleController> BundleController::create(RemoteNode& node, const BundleControllerParams& params)
  {
    std::shared_ptr<BundleController> controller(new BundleController(node, params));
    ControllerList& list = controllerList();
    Bastion::Guard guard(list.mutex);
    list.controllers.push_back(controller);
    return controller;
  }

  void BundleController::addTask(const Task& task)
  {
    Bastion::Guard guard(controllerList().mutex);
    const std::shared_ptr<Core> core = m_weakCore.lock();
    if (!core || core->nodeDestroyed())
      return;
    core->addTask(task);
  }

  void BundleController::scheduleProcess(const std::vector<Bundle>& bundles)
  {
    addTask([bundles](Core& core) { core.process(bundles); });
  }

  void BundleController::setEnabled(bool enabled)
  {
    addTask([enabled](Core& core) { core.setEnabled(enabled); });
  }

  void BundleController::debugDump()
  {
    addTask([](Core& core) { core.debugDump(); });
  }

  void BundleController::process(const std::vector<Bundle>& bundles)
  {
    if (const std::shared_ptr<Core> core = m_weakCore.lock())
      core->process(bundles);
  }

  void BundleController::ensureIsInitialized()
  {
    if (const std::shared_ptr<Core> core = m_weakCore.lock())
      core->ensureIsInitialized();
  }

  Bastion::SymbolRegistry* BundleController::symbolRegistrySend()
  {
    const std::shared_ptr<Core> core = m_weakCore.lock();
    return core ? core->symbolRegistrySend() : nullptr;
  }

  Bastion::SymbolRegistry* BundleController::symbolRegistryRecv()
  {
    const std::shared_ptr<Core> core = m_weakCore.lock();
    return core ? core->symbolRegistryRecv() : nullptr;
  }

  void BundleController::update()
  {
    // Held past the list's lock: the last reference to a controller may be one of these, and a
    // controller's destructor takes that lock.
    std::vector<std::shared_ptr<BundleController>> controllers;
    std::vector<std::shared_ptr<Core>> cores;
    {
      ControllerList& list = controllerList();
      Bastion::Guard guard(list.mutex);
      controllers.reserve(list.controllers.size());
      for (const std::weak_ptr<BundleController>& entry : list.controllers) {
        std::shared_ptr<BundleController> controller = entry.lock();
        if (controller && controller->m_core) {
          cores.push_back(controller->m_core);
          controllers.push_back(std::move(controller));
        }
      }
    }
    // The list's lock is not held from here on: tasks may queue tasks and create controllers.
    for (const std::shared_ptr<Core>& core : cores)
      updateCore(*core);
  }

  void BundleController::updateSession()
  {
    if (const std::shared_ptr<Core> core = m_weakCore.lock())
      updateCore(*core);
  }

  void BundleController::updateCore(Core& core)
  {
    // A core whose node has gone is skipped at once; the servicing removes it.
    if (core.nodeDestroyed())
      return;
    core.ensureIsInitialized();
    core.runTasks();
    if (core.isEnabled())
      core.sendUpdates();
  }

  int BundleController::controllerCount()
  {
    ControllerList& list = controllerList();
    Bastion::Guard guard(list.mutex);
    return int(list.controllers.size());
  }

  std::shared_ptr<Core> BundleController::core() const
  {
    return m_weakCore.lock();
  }

  bool BundleController::limitExceeded() const
  {
    const std::shared_ptr<Core> core = m_weakCore.lock();
    return core && core->limitExceeded();
  }

  bool BundleController::peerInitialized() const
  {
    const std::shared_ptr<Core> core = m_weakCore.lock();
    return core && core->peerInitializedCount() > 0;
  }

  void BundleController::requestServicing()
  {
    ControllerList& list = controllerList();
    {
      Bastion::Guard guard(list.mutex);
      if (list.servicingQueued)
        return;
      list.servicingQueued = true;
    }
    Carafe::Node::invokeAfterUpdate(&BundleController::service);
  }

  void BundleController::service()
  {
    // Controllers and cores are let go outside the list's lock: a controller's destructor takes
    // it, and a core's may log or take other locks.
    std::vector<std::shared_ptr<BundleController>> controllers;
    std::vector<std::shared_ptr<Core>> released;
    {
      ControllerList& list = controllerList();
      Bastion::Guard guard(list.mutex);
      list.servicingQueued = false;
      std::vector<std::weak_ptr<BundleController>> kept;
      for (const std::weak_ptr<BundleController>& entry : list.controllers) {
        std::shared_ptr<BundleController> controller = entry.lock();
        if (!controller)
          continue;
        if (controller->m_core && controller->m_core->nodeDestroyed())
          released.push_back(std::move(controller->m_core));
        else
          kept.push_back(entry);
        controllers.push_back(std::move(controller));
      }
      list.controllers.swap(kept);
    }
  }
}
