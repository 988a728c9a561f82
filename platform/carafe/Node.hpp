#pragma once

#include "carafe/Attribute.hpp"

#include <functional>
#include <memory>
#include <vector>

namespace Bastion
{
  class BinaryData;
}

namespace Carafe
{
  namespace detail
  {
    struct EventLife;
  }

  /// An attribute holding named child attributes (the tree), and a hub of named events.
  ///
  /// Tree: used on the application thread only. Children are owned; `attributes()` keeps
  /// insertion order and `attribute(name)` is a hash lookup. "attribute-added" and
  /// "attribute-removed" are sent after the change, with the child's name as a string item.
  ///
  /// Events: may be sent and listened to from any thread. Listeners run synchronously on the
  /// sending thread, never under a lock of the node. Removing a listener waits until calls of it
  /// running on other threads return (so its captures may be freed right after); a listener may
  /// remove itself. A link (`eventAddListener` with a target node) is dropped when either node
  /// is deleted; a target being deleted waits for link deliveries into it running on other threads.
  class Node : public Attribute
  {
  public:
    using EventCallback = std::function<void(Bastion::BinaryData&)>;

    enum ListenerType
    {
      Before = 0,
      After = 1
    };

    /// With a host, the node is added to it under `name` and owned by it (logged if refused).
    explicit Node(Node* host = nullptr, const QByteArray& name = {});
    ~Node() override;

    // ---- tree (application thread) ----

    /// Takes ownership of `attribute`, sets its name and host, appends it, then sends
    /// "attribute-added". Refused (false; nothing changes and the caller keeps `attribute`) when
    /// it is null, already hosted, this node itself, the name is empty or taken, or this node is
    /// being deleted.
    bool addAttribute(const QByteArray& name, Attribute* attribute);
    /// The child with that name, or null.
    Attribute* attribute(const QByteArray& name) const;
    /// The children in insertion order (a copy: safe to iterate while calling out).
    std::vector<Attribute*> attributes() const;
    int attributeCount() const;
    /// Detaches the child (the caller owns it; it keeps its name) and sends "attribute-removed".
    /// Null when there is no such child.
    Attribute* takeAttribute(const QByteArray& name);
    /// Detaches and deletes the child (its deletion sends "attribute-removed").
    bool removeAttribute(const QByteArray& name);

    /// Applies `setAsDefaults` to every child.
    void setAsDefaults() override;
    /// Empty: a node has no value of its own.
    QString asText() const override;

    // ---- events (any thread) ----

    /// Declares an event this node sends. Informative: undeclared names work as well.
    void eventAddOut(const QByteArray& name);
    /// Declares an event this node handles. Informative.
    void eventAddIn(const QByteArray& name);
    std::vector<QByteArray> eventsOut() const;
    std::vector<QByteArray> eventsIn() const;

    /// Listens to event `name`. Type 0 (Before) listeners run first, then type 1 (After), each in
    /// id order. Returns the id (process-wide counter shared with attribute listeners), or -1
    /// (logged) for an empty callback or an unknown type.
    long eventAddListener(const QByteArray& name, EventCallback callback, int type = After);
    /// Links `outName` of this node to `inName` of `target`: sending `outName` calls
    /// `target->eventProcess(inName, data)` (as an After listener). -1 for a null target.
    long eventAddListener(const QByteArray& outName, Node* target, const QByteArray& inName);
    /// Removes a listener or link of this node; false when unknown.
    bool eventRemoveListener(long id);

    /// Calls the listeners of `name` synchronously on this thread; `data` is rewound before each.
    void eventSend(const QByteArray& name, Bastion::BinaryData& data);
    /// Same with an empty payload.
    void eventSend(const QByteArray& name);
    /// Entry of an incoming event; this base delivers it to the listeners of `name` like
    /// `eventSend`.
    virtual void eventProcess(const QByteArray& name, Bastion::BinaryData& data);

    // ---- after-update servicing ----

    /// Queues `fn` to run once at the next `processAfterUpdate()`. Any thread.
    static void invokeAfterUpdate(std::function<void()> fn);
    /// Runs the queued functions in order, on the calling thread (the application's update
    /// thread, once per cycle). Functions queued while it runs wait for the next call.
    static void processAfterUpdate();

  private:
    friend class Attribute;

    struct D;

    /// Deletion steps of the node's own: incoming links stop.
    void closeIncomingLinks();
    /// Deletes every child and their descendants, without recursion.
    void deleteDescendants();
    /// Unlinks a child being deleted (or taken) and sends "attribute-removed".
    void detachChild(Attribute* child);
    void deliver(const QByteArray& name, Bastion::BinaryData& data);

    std::unique_ptr<D> m_d;
  };
}
