#include "carafe/ListenerHolder.hpp"

#include "carafe/Node.hpp"

namespace Carafe
{
  ListenerHolder::~ListenerHolder()
  {
    clear();
  }

  ListenerHolder::Entry& ListenerHolder::entryFor(Attribute* object)
  {
    auto it = m_entries.find(object);
    if (it != m_entries.end())
      return it->second;
    object->addHolder(this);
    return m_entries[object];
  }

  long ListenerHolder::add(Attribute* attribute, std::function<void()> callback, int role)
  {
    if (!attribute || attribute->isBeingDestroyed())
      return -1;
    const long id = attribute->addListener(std::move(callback), role);
    if (id >= 0)
      entryFor(attribute).valueIds.push_back(id);
    return id;
  }

  long ListenerHolder::addBd(Node* node, const QByteArray& event, std::function<void(Bastion::BinaryData&)> callback,
                             int type)
  {
    if (!node || node->isBeingDestroyed())
      return -1;
    const long id = node->eventAddListener(event, std::move(callback), type);
    if (id >= 0)
      entryFor(node).eventIds.push_back(id);
    return id;
  }

  void ListenerHolder::removeListeners(Attribute* attribute)
  {
    release(attribute, true);
  }

  void ListenerHolder::clear()
  {
    while (!m_entries.empty())
      release(m_entries.begin()->first, true);
  }

  void ListenerHolder::objectDeleted(Attribute* object)
  {
    // The object is still whole: take the listeners off now, so that nothing of this holder runs
    // during the rest of its deletion (a node sends "attribute-removed" for each child it deletes,
    // possibly after the holder's owner is gone). It already dropped this holder from its list.
    release(object, false);
  }

  void ListenerHolder::release(Attribute* object, bool unregister)
  {
    auto it = m_entries.find(object);
    if (it == m_entries.end())
      return;
    // Out of the table before any call, so a re-entrant call finds a consistent holder.
    const Entry entry = std::move(it->second);
    m_entries.erase(it);
    if (unregister)
      object->removeHolder(this);
    for (long id : entry.valueIds)
      object->removeListener(id);
    if (!entry.eventIds.empty()) {
      // Event listeners were only ever added through addBd, on a node.
      Node* node = static_cast<Node*>(object);
      for (long id : entry.eventIds)
        node->eventRemoveListener(id);
    }
  }
}
