#include "carafe/Node.hpp"

#include "bastion/BinaryData.hpp"
#include "bastion/Condition.hpp"
#include "bastion/Guard.hpp"
#include "bastion/Log.hpp"

#include <QHash>
#include <QVarLengthArray>

#include <algorithm>
#include <deque>
#include <thread>
#include <typeinfo>

namespace Carafe
{
  namespace
  {
    const QByteArray s_attributeAdded("attribute-added");
    const QByteArray s_attributeRemoved("attribute-removed");

    /// Removes one occurrence of `id`.
    void dropCaller(std::vector<std::thread::id>& callers, std::thread::id id)
    {
      auto it = std::find(callers.begin(), callers.end(), id);
      if (it != callers.end())
        callers.erase(it);
    }

    /// True when a thread other than `self` is in `callers`.
    bool othersIn(const std::vector<std::thread::id>& callers, std::thread::id self)
    {
      return std::any_of(callers.begin(), callers.end(), [self](std::thread::id t) { return t != self; });
    }

    struct AfterUpdateQueue
    {
      Bastion::Mutex mutex;
      std::deque<std::function<void()>> functions BASTION_GUARDED_BY(mutex);
    };

    AfterUpdateQueue& afterUpdateQueue()
    {
      static AfterUpdateQueue queue;
      return queue;
    }
  }

  /// What a link needs of its target node: whether it still takes events, and which threads are
  /// delivering into it (its deletion waits for them).
  struct detail::EventLife
  {
    Bastion::Mutex mutex;
    Bastion::Condition idle;
    Node* node BASTION_GUARDED_BY(mutex); // null once the node is being deleted
    std::vector<std::thread::id> callers BASTION_GUARDED_BY(mutex);

    explicit EventLife(Node* n)
        : node(n)
    {
    }
  };

  namespace
  {
    struct EventEntry
    {
      long id;
      QByteArray name;
      int type;
      Node::EventCallback callback;              // empty for a link
      std::shared_ptr<detail::EventLife> target; // set for a link
      QByteArray inName;
      // Guarded by the mutex of the hub that holds the entry.
      bool removed = false;
      std::vector<std::thread::id> callers;
    };

    /// A node's event tables. Shared with the calls in progress, which copy the matching entries
    /// under the mutex and call them without it.
    struct EventHub
    {
      Bastion::Mutex mutex;
      Bastion::Condition idle;
      std::vector<std::shared_ptr<EventEntry>> entries BASTION_GUARDED_BY(mutex);
      std::vector<QByteArray> outs BASTION_GUARDED_BY(mutex);
      std::vector<QByteArray> ins BASTION_GUARDED_BY(mutex);

      /// Marks `entry` removed and waits until no other thread runs it.
      void retire(const std::shared_ptr<EventEntry>& entry) BASTION_REQUIRES(mutex)
      {
        entry->removed = true;
        const std::thread::id self = std::this_thread::get_id();
        while (othersIn(entry->callers, self))
          idle.wait(mutex);
      }
    };
  }

  struct Node::D
  {
    // tree: application thread
    std::vector<Attribute*> children;
    QHash<QByteArray, Attribute*> index;

    // constant after construction
    std::shared_ptr<EventHub> hub = std::make_shared<EventHub>();
    std::shared_ptr<detail::EventLife> life;
  };

  Node::Node(Node* host, const QByteArray& name)
      : m_d(new D)
  {
    m_d->life = std::make_shared<detail::EventLife>(this);
    if (host && !host->addAttribute(name, this))
      Bastion::error("Carafe: node \"%s\" could not be added to its host", name.constData());
  }

  Node::~Node()
  {
    beginDestruction();
    deleteDescendants();
    std::shared_ptr<EventHub> hub = m_d->hub;
    Bastion::Guard lock(hub->mutex);
    std::vector<std::shared_ptr<EventEntry>> entries;
    entries.swap(hub->entries);
    for (const auto& e : entries)
      hub->retire(e);
  }

  namespace
  {
    /// Plain nodes are taken apart by the walks below; a subclass has destructor steps (or a
    /// `setAsDefaults`) of its own, so it gets the ordinary virtual call.
    Node* plainNode(Attribute* attribute)
    {
      return attribute && typeid(*attribute) == typeid(Node) ? static_cast<Node*>(attribute) : nullptr;
    }
  }

  void Node::deleteDescendants()
  {
    // The same steps and order as deleting each child in turn, last child first, with each node's
    // children going before the node itself, but with an explicit stack: a tree of any depth (a
    // long chain of nodes built by a program or a peer) cannot overflow the thread's stack.
    // Every node on the stack has begun its destruction, so nothing can be added to it.
    std::vector<Node*> stack{this};
    while (!stack.empty()) {
      Node* node = stack.back();
      std::vector<Attribute*>& children = node->m_d->children;
      if (children.empty()) {
        stack.pop_back();
        if (node != this)
          delete node; // begun and emptied: its own destructor has nothing left to walk
        continue;
      }
      Attribute* child = children.back();
      if (Node* childNode = plainNode(child)) {
        // What its destructor would do first: its deletion listeners, unlinking, its links.
        childNode->beginDestruction();
        stack.push_back(childNode);
      } else {
        delete child;
      }
      if (!children.empty() && children.back() == child) {
        // Unreachable unless the child failed to unlink itself; never loop on it (nor read it:
        // it may be gone).
        children.pop_back();
        QHash<QByteArray, Attribute*>& index = node->m_d->index;
        for (auto it = index.begin(); it != index.end(); ++it) {
          if (it.value() == child) {
            index.erase(it);
            break;
          }
        }
      }
    }
  }

  // ---- tree ----

  bool Node::addAttribute(const QByteArray& name, Attribute* attribute)
  {
    if (!attribute || attribute->m_host || attribute == this || name.isEmpty() || isBeingDestroyed() ||
        attribute->isBeingDestroyed() || m_d->index.contains(name))
      return false;
    // An unhosted ancestor of this node would end up owning itself.
    for (Node* n = m_host; n; n = n->m_host)
      if (n == attribute)
        return false;
    attribute->m_name = name;
    attribute->m_host = this;
    m_d->children.push_back(attribute);
    m_d->index.insert(name, attribute);
    Bastion::BinaryData data;
    data.writeString(name);
    eventSend(s_attributeAdded, data);
    return true;
  }

  Attribute* Node::attribute(const QByteArray& name) const
  {
    return m_d->index.value(name, nullptr);
  }

  std::vector<Attribute*> Node::attributes() const
  {
    return m_d->children;
  }

  int Node::attributeCount() const
  {
    return int(m_d->children.size());
  }

  Attribute* Node::takeAttribute(const QByteArray& name)
  {
    Attribute* child = attribute(name);
    if (child)
      detachChild(child);
    return child;
  }

  bool Node::removeAttribute(const QByteArray& name)
  {
    Attribute* child = attribute(name);
    if (!child)
      return false;
    delete child;
    return true;
  }

  void Node::detachChild(Attribute* child)
  {
    auto& children = m_d->children;
    auto it = std::find(children.rbegin(), children.rend(), child);
    if (it == children.rend())
      return;
    children.erase(std::next(it).base());
    m_d->index.remove(child->m_name);
    child->m_host = nullptr;
    Bastion::BinaryData data;
    data.writeString(child->m_name);
    eventSend(s_attributeRemoved, data);
  }

  void Node::setAsDefaults()
  {
    // Depth first in child order with an explicit stack, so that a deep tree cannot overflow the
    // thread's stack. Each level walks a copy of its children, as the listeners of a child may
    // change the tree.
    struct Level
    {
      std::vector<Attribute*> children;
      size_t next = 0;
    };
    std::vector<Level> stack;
    stack.push_back({attributes()});
    while (!stack.empty()) {
      Level& level = stack.back();
      if (level.next == level.children.size()) {
        stack.pop_back();
        continue;
      }
      Attribute* child = level.children[level.next++];
      if (Node* node = plainNode(child))
        stack.push_back({node->attributes()});
      else
        child->setAsDefaults();
    }
  }

  QString Node::asText() const
  {
    return QString();
  }

  // ---- events ----

  void Node::eventAddOut(const QByteArray& name)
  {
    Bastion::Guard lock(m_d->hub->mutex);
    auto& outs = m_d->hub->outs;
    if (std::find(outs.begin(), outs.end(), name) == outs.end())
      outs.push_back(name);
  }

  void Node::eventAddIn(const QByteArray& name)
  {
    Bastion::Guard lock(m_d->hub->mutex);
    auto& ins = m_d->hub->ins;
    if (std::find(ins.begin(), ins.end(), name) == ins.end())
      ins.push_back(name);
  }

  std::vector<QByteArray> Node::eventsOut() const
  {
    Bastion::Guard lock(m_d->hub->mutex);
    return m_d->hub->outs;
  }

  std::vector<QByteArray> Node::eventsIn() const
  {
    Bastion::Guard lock(m_d->hub->mutex);
    return m_d->hub->ins;
  }

  long Node::eventAddListener(const QByteArray& name, EventCallback callback, int type)
  {
    if (!callback || (type != Before && type != After)) {
      Bastion::error("Carafe: event listener for \"%s\" refused (type %d)", name.constData(), type);
      return -1;
    }
    auto entry = std::make_shared<EventEntry>();
    entry->id = detail::nextListenerId();
    entry->name = name;
    entry->type = type;
    entry->callback = std::move(callback);
    Bastion::Guard lock(m_d->hub->mutex);
    m_d->hub->entries.push_back(entry);
    return entry->id;
  }

  long Node::eventAddListener(const QByteArray& outName, Node* target, const QByteArray& inName)
  {
    if (!target) {
      Bastion::error("Carafe: event link from \"%s\" without a target", outName.constData());
      return -1;
    }
    auto entry = std::make_shared<EventEntry>();
    entry->id = detail::nextListenerId();
    entry->name = outName;
    entry->type = After;
    entry->target = target->m_d->life;
    entry->inName = inName;
    Bastion::Guard lock(m_d->hub->mutex);
    auto& entries = m_d->hub->entries;
    // Links whose target is gone are dropped here rather than by the dying target, which would
    // have to reach into every source node.
    entries.erase(std::remove_if(entries.begin(), entries.end(),
                                 [](const std::shared_ptr<EventEntry>& e) {
                                   if (!e->target)
                                     return false;
                                   Bastion::Guard l(e->target->mutex);
                                   return e->target->node == nullptr && e->callers.empty();
                                 }),
                  entries.end());
    entries.push_back(entry);
    return entry->id;
  }

  bool Node::eventRemoveListener(long id)
  {
    EventHub& hub = *m_d->hub;
    Bastion::Guard lock(hub.mutex);
    auto it = std::find_if(hub.entries.begin(), hub.entries.end(),
                           [id](const std::shared_ptr<EventEntry>& e) { return e->id == id; });
    if (it == hub.entries.end())
      return false;
    std::shared_ptr<EventEntry> entry = *it;
    hub.entries.erase(it);
    hub.retire(entry);
    return true;
  }

  void Node::eventSend(const QByteArray& name, Bastion::BinaryData& data)
  {
    deliver(name, data);
  }

  void Node::eventSend(const QByteArray& name)
  {
    Bastion::BinaryData data;
    deliver(name, data);
  }

  void Node::eventProcess(const QByteArray& name, Bastion::BinaryData& data)
  {
    deliver(name, data);
  }

  void Node::deliver(const QByteArray& name, Bastion::BinaryData& data)
  {
    // The hub outlives this call even if a listener deletes the node.
    std::shared_ptr<EventHub> hub = m_d->hub;
    // Inline: a node has a handful of listeners per event, and every child added sends one.
    QVarLengthArray<std::shared_ptr<EventEntry>, 8> selected;
    {
      Bastion::Guard lock(hub->mutex);
      for (int type : {int(Before), int(After)})
        for (const auto& e : hub->entries)
          if (e->type == type && e->name == name)
            selected.push_back(e);
    }
    const std::thread::id self = std::this_thread::get_id();
    for (const auto& e : selected) {
      {
        Bastion::Guard lock(hub->mutex);
        if (e->removed)
          continue;
        e->callers.push_back(self);
      }
      struct Leave
      {
        EventHub& hub;
        EventEntry& entry;
        std::thread::id self;
        ~Leave()
        {
          Bastion::Guard lock(hub.mutex);
          dropCaller(entry.callers, self);
          if (entry.removed)
            hub.idle.wakeAll();
        }
      } leave{*hub, *e, self};
      data.rewind();
      if (!e->target) {
        e->callback(data);
        continue;
      }
      detail::EventLife& life = *e->target;
      Node* target;
      {
        Bastion::Guard lock(life.mutex);
        target = life.node;
        if (!target)
          continue;
        life.callers.push_back(self);
      }
      struct LeaveTarget
      {
        detail::EventLife& life;
        std::thread::id self;
        ~LeaveTarget()
        {
          Bastion::Guard lock(life.mutex);
          dropCaller(life.callers, self);
          if (!life.node)
            life.idle.wakeAll();
        }
      } leaveTarget{life, self};
      target->eventProcess(e->inName, data);
    }
  }

  void Node::closeIncomingLinks()
  {
    detail::EventLife& life = *m_d->life;
    Bastion::Guard lock(life.mutex);
    life.node = nullptr;
    // A delivery running on this thread (the node deleted from inside its own event handling)
    // cannot be waited for; every other one must leave before the node goes.
    const std::thread::id self = std::this_thread::get_id();
    while (othersIn(life.callers, self))
      life.idle.wait(life.mutex);
  }

  // ---- after-update servicing ----

  void Node::invokeAfterUpdate(std::function<void()> fn)
  {
    if (!fn)
      return;
    AfterUpdateQueue& q = afterUpdateQueue();
    Bastion::Guard lock(q.mutex);
    q.functions.push_back(std::move(fn));
  }

  void Node::processAfterUpdate()
  {
    AfterUpdateQueue& q = afterUpdateQueue();
    std::deque<std::function<void()>> batch;
    {
      Bastion::Guard lock(q.mutex);
      batch.swap(q.functions);
    }
    while (!batch.empty()) {
      std::function<void()> fn = std::move(batch.front());
      batch.pop_front();
      try {
        fn();
      } catch (...) {
        // The rest of this cycle's batch still runs, at the next servicing and before newer ones.
        Bastion::Guard lock(q.mutex);
        q.functions.insert(q.functions.begin(), std::make_move_iterator(batch.begin()),
                           std::make_move_iterator(batch.end()));
        throw;
      }
    }
  }
}
