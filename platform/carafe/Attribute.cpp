#include "carafe/Attribute.hpp"

#include "carafe/AttributeAlias.hpp"
#include "carafe/ListenerHolder.hpp"
#include "carafe/Node.hpp"

#include "bastion/Log.hpp"

#include <algorithm>
#include <atomic>

namespace Carafe
{
  namespace
  {
    std::atomic<long> s_nextListenerId{0};

    template <typename T>
    void eraseOne(std::vector<T*>& list, T* item)
    {
      auto it = std::find(list.begin(), list.end(), item);
      if (it != list.end())
        list.erase(it);
    }

    void unref(detail::Listener* l)
    {
      if (--l->refs == 0)
        delete l;
    }

    void unref(detail::ListenerTable* t)
    {
      if (--t->refs == 0)
        detail::destroyTable(t);
    }

    /// A table the caller may edit: `table` itself when nobody else holds it, else a copy without
    /// the removed listeners (the old table goes on for the walks holding it).
    detail::ListenerTable* editable(detail::ListenerTable* table)
    {
      if (table->refs == 1)
        return table;
      auto* copy = new detail::ListenerTable;
      copy->entries.reserve(table->entries.size() + 1);
      for (detail::Listener* l : table->entries)
        if (!l->removed) {
          ++l->refs;
          copy->entries.push_back(l);
        }
      unref(table);
      return copy;
    }
  }

  void detail::destroyTable(ListenerTable* table)
  {
    for (Listener* l : table->entries)
      unref(l);
    delete table;
  }

  long detail::nextListenerId()
  {
    return s_nextListenerId.fetch_add(1, std::memory_order_relaxed);
  }

  Attribute::Attribute() = default;

  Attribute::~Attribute()
  {
    beginDestruction();
    releaseTable(m_deletedTable);
    releaseTable(m_changedTable);
  }

  void Attribute::releaseTable(detail::ListenerTable* table)
  {
    if (!table)
      return;
    // A walk still holding the table must not call into a deleted object.
    for (detail::Listener* l : table->entries)
      l->removed = true;
    unref(table);
  }

  detail::ListenerTable*& Attribute::tableFor(int role)
  {
    return role == RoleDeleted ? m_deletedTable : m_changedTable;
  }

  long Attribute::addListener(std::function<void()> callback, int role)
  {
    if (role != RoleDeleted && role != RoleChanged) {
      Bastion::error("Carafe: listener role %d does not exist", role);
      return -1;
    }
    if (!callback) {
      Bastion::error("Carafe: empty listener for \"%s\" ignored", m_name.constData());
      return -1;
    }
    detail::ListenerTable*& table = tableFor(role);
    table = table ? editable(table) : new detail::ListenerTable;
    const long id = detail::nextListenerId();
    table->entries.push_back(new detail::Listener{id, std::move(callback)});
    return id;
  }

  bool Attribute::removeListener(long id)
  {
    for (int role : {RoleDeleted, RoleChanged}) {
      detail::ListenerTable*& table = tableFor(role);
      if (!table)
        continue;
      auto it = std::find_if(table->entries.begin(), table->entries.end(),
                             [id](const detail::Listener* l) { return l->id == id && !l->removed; });
      if (it == table->entries.end())
        continue;
      // Walks holding this table or older copies skip it from now on.
      (*it)->removed = true;
      if (table->refs == 1) {
        unref(*it);
        table->entries.erase(it);
      } else {
        table = editable(table);
      }
      if (table->entries.empty()) {
        unref(table);
        table = nullptr;
      }
      return true;
    }
    return false;
  }

  int Attribute::listenerCount(int role) const
  {
    const detail::ListenerTable* table = role == RoleDeleted ? m_deletedTable : m_changedTable;
    if (!table)
      return 0;
    return int(std::count_if(table->entries.begin(), table->entries.end(),
                             [](const detail::Listener* l) { return !l->removed; }));
  }

  void Attribute::setAsDefaults() {}

  QString Attribute::asText() const
  {
    return QString();
  }

  void Attribute::beginDestruction()
  {
    if (m_destroying)
      return;
    m_destroying = true;

    if (detail::ListenerTable* table = m_deletedTable) {
      m_deletedTable = nullptr;
      detail::callAll(table);
      releaseTable(table);
    }
    if (m_host)
      m_host->detachChild(this);
    // Called from the most derived destructor, so the cast still sees a node.
    if (Node* node = dynamic_cast<Node*>(this))
      node->closeIncomingLinks();
    // Each entry is dropped before it is told, so an alias or holder deleted by a listener of
    // an earlier one unregisters cleanly.
    while (!m_aliases.empty()) {
      AttributeAlias* alias = m_aliases.back();
      m_aliases.pop_back();
      alias->targetDeleted(this);
    }
    while (!m_moreHolders.empty() || m_holder) {
      ListenerHolder* holder = m_holder;
      if (m_moreHolders.empty()) {
        m_holder = nullptr;
      } else {
        holder = m_moreHolders.back();
        m_moreHolders.pop_back();
      }
      holder->objectDeleted(this);
    }
  }

  void Attribute::addAlias(AttributeAlias* alias)
  {
    m_aliases.push_back(alias);
  }

  void Attribute::removeAlias(AttributeAlias* alias)
  {
    eraseOne(m_aliases, alias);
  }

  void Attribute::addHolder(ListenerHolder* holder)
  {
    if (!m_holder)
      m_holder = holder;
    else
      m_moreHolders.push_back(holder);
  }

  void Attribute::removeHolder(ListenerHolder* holder)
  {
    if (m_holder == holder)
      m_holder = nullptr;
    else
      eraseOne(m_moreHolders, holder);
  }
}
