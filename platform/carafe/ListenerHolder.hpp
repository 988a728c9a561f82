#pragma once

#include "carafe/Attribute.hpp"

#include "bastion/FlatHash.hpp"

#include <functional>
#include <unordered_map>
#include <vector>

namespace Bastion
{
  class BinaryData;
}

namespace Carafe
{
  class Node;

  /// Remembers the listeners it adds, per object, so that all listeners put on one object can be
  /// removed in one call and all of them go when the holder is destroyed. An object being deleted
  /// tells its holders after its role-1 listeners ran: they take their listeners off it then and
  /// never touch it again.
  /// Same thread rule as `Attribute`: use a holder on the thread that owns the tree.
  class ListenerHolder
  {
  public:
    ListenerHolder() = default;
    ~ListenerHolder();

    ListenerHolder(const ListenerHolder&) = delete;
    ListenerHolder& operator=(const ListenerHolder&) = delete;

    /// `attribute->addListener(callback, role)`, remembered. -1 (nothing remembered) when the
    /// listener is refused or the object is null or being deleted.
    long add(Attribute* attribute, std::function<void()> callback, int role);
    /// `node->eventAddListener(event, callback, type)`, remembered.
    long addBd(Node* node, const QByteArray& event, std::function<void(Bastion::BinaryData&)> callback, int type);
    /// Removes every listener this holder put on `attribute`, value and event listeners.
    void removeListeners(Attribute* attribute);
    /// Removes every listener this holder put anywhere.
    void clear();
    /// Number of objects currently holding listeners of this holder.
    int objectCount() const { return int(m_first.size()); }

  private:
    friend class Attribute;

    /// Remembers `id` for `object` (an event listener's id stored as `~id`, below 0).
    void remember(Attribute* object, long id);
    /// Called by an object being deleted, after it dropped this holder from its list.
    void objectDeleted(Attribute* object);
    /// Takes this holder's listeners off `object` and forgets it; `unregister` also drops the
    /// holder from the object's list (not needed when the object is being deleted).
    void release(Attribute* object, bool unregister);

    // Most objects get one listener from a holder (a watched attribute), so the first id of each
    // object sits in a flat table and costs no allocation; further ids go to the second table.
    Bastion::FlatHash<Attribute*, long> m_first;
    std::unordered_multimap<Attribute*, long> m_more;
  };
}
