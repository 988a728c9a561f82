#include "carafe/ListenerHolder.hpp"

#include "carafe/Node.hpp"

#include <QVarLengthArray>

namespace Carafe
{
  ListenerHolder::~ListenerHolder()
  {
    clear();
  }

  void ListenerHolder::remember(Attribute* object, long id)
  {
    if (m_first.insert(object, id).second)
      object->addHolder(this);
    else
      m_more.emplace(object, id);
  }

  long ListenerHolder::add(Attribute* attribute, std::function<void()> callback, int role)
  {
    if (!attribute || attribute->isBeingDestroyed())
      return -1;
    const long id = attribute->addListener(std::move(callback), role);
    if (id >= 0)
      remember(attribute, id);
    return id;
  }

  long ListenerHolder::addBd(Node* node, const QByteArray& event, std::function<void(Bastion::BinaryData&)> callback,
                             int type)
  {
    if (!node || node->isBeingDestroyed())
      return -1;
    const long id = node->eventAddListener(event, std::move(callback), type);
    if (id >= 0)
      remember(node, ~id);
    return id;
  }

  void ListenerHolder::removeListeners(Attribute* attribute)
  {
    release(attribute, true);
  }

  void ListenerHolder::clear()
  {
    std::vector<Attribute*> objects;
    objects.reserve(m_first.size());
    m_first.forEach([&objects](Attribute* object, long) { objects.push_back(object); });
    for (Attribute* object : objects)
      release(object, true);
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
    const long* first = m_first.find(object);
    if (!first)
      return;
    // Out of the tables before any call, so a re-entrant call finds a consistent holder.
    QVarLengthArray<long, 4> ids;
    ids.push_back(*first);
    m_first.erase(object);
    if (!m_more.empty()) {
      const auto range = m_more.equal_range(object);
      for (auto it = range.first; it != range.second; ++it)
        ids.push_back(it->second);
      m_more.erase(range.first, range.second);
    }
    if (unregister)
      object->removeHolder(this);
    for (long id : ids)
      if (id >= 0)
        object->removeListener(id);
    // Event listeners were only ever added through addBd, on a node.
    for (long id : ids)
      if (id < 0)
        static_cast<Node*>(object)->eventRemoveListener(~id);
  }
}
