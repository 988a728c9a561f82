#pragma once

#include <QByteArray>
#include <QString>

#include <functional>
#include <vector>

namespace Carafe
{
  class Node;
  class AttributeAlias;
  class ListenerHolder;

  namespace detail
  {
    /// One listener, shared by every copy of its table (so a removal reaches the copies that
    /// calls are walking). Counted references, not atomic: see `ListenerTable`.
    struct Listener
    {
      long id;
      std::function<void()> callback;
      /// Set when the listener is removed; walks still holding it skip it.
      bool removed = false;
      int refs = 1;
    };

    /// One role's listeners. Shared between the attribute and the calls walking it by a plain
    /// (non-atomic) count: attribute listeners belong to one thread, the one that changes values.
    /// While a call holds the table, changes copy it instead of editing it.
    struct ListenerTable
    {
      int refs = 1;
      std::vector<Listener*> entries;
    };

    /// Next listener id: one process-wide counter from 0 for attribute and node-event listeners.
    long nextListenerId();

    /// Frees a table whose last reference went, with the listeners only it held.
    void destroyTable(ListenerTable* table);

    /// Holds a table for the length of a walk.
    struct TableHold
    {
      ListenerTable* table;
      explicit TableHold(ListenerTable* t)
          : table(t)
      {
        ++t->refs;
      }
      ~TableHold()
      {
        if (--table->refs == 0)
          destroyTable(table);
      }
      TableHold(const TableHold&) = delete;
      TableHold& operator=(const TableHold&) = delete;
    };

    /// Calls every listener of `table` not removed meanwhile. Holds the table for the walk, so
    /// that listeners may change it or delete its attribute: the walk never touches the attribute.
    inline void callAll(ListenerTable* table)
    {
      TableHold hold(table);
      // The entries cannot change while the walk holds the table (changes copy it).
      for (Listener* l : table->entries)
        if (!l->removed)
          l->callback();
    }
  }

  /// A named, typed value in a tree of nodes, with value layers and change listeners.
  ///
  /// Layers: 0 = default, 1 = application, 2 = received. The effective value is that of the
  /// highest layer set; setting layer L clears the layers above L, so a later local change
  /// overrides a received one. Layer 0 always holds a value (initially the type's default).
  ///
  /// Listener roles:
  /// - `RoleDeleted` (1): called once when the object is being deleted, before its host hears of
  ///   it, while the object is still its full dynamic type.
  /// - `RoleChanged` (2): called synchronously, on the changing thread, after the effective value
  ///   changed. Setting an equal value calls nothing.
  /// A call walks the table as it was when the call began: a listener added meanwhile is not
  /// called by it, a listener removed meanwhile (itself included) is skipped. A listener may
  /// delete the attribute it listens to.
  ///
  /// Threads: an attribute, its values and its listeners are used by one thread at a time (the
  /// application's update thread for the tree). Only `Node`'s events may be used from any thread.
  ///
  /// Deletion (see `beginDestruction`): role-1 listeners run, the host unlinks the object and
  /// sends "attribute-removed", aliases targeting it become untargeted (their role 2 fires) and
  /// `ListenerHolder`s forget it; a node then deletes its children the same way.
  class Attribute
  {
  public:
    enum Role
    {
      RoleDeleted = 1,
      RoleChanged = 2
    };

    enum Layer
    {
      LayerDefault = 0,
      LayerApplication = 1,
      LayerReceived = 2
    };

    Attribute();
    virtual ~Attribute();

    Attribute(const Attribute&) = delete;
    Attribute& operator=(const Attribute&) = delete;

    /// The name under which the host holds this attribute; empty until added to a node.
    const QByteArray& name() const { return m_name; }
    /// The node holding (and owning) this attribute, or null.
    Node* host() const { return m_host; }

    /// Adds a listener for `role` (1 or 2). Returns its id, unique in the process and counted
    /// from 0, or -1 (logged) for an unknown role or an empty callback.
    long addListener(std::function<void()> callback, int role);
    /// Removes the listener with that id; false when this attribute has no such listener.
    bool removeListener(long id);
    /// Number of listeners for `role`.
    int listenerCount(int role) const;

    /// Makes the effective value the default (layer 0) and clears the other layers. Calls no
    /// listener. A node applies it to its children.
    virtual void setAsDefaults();
    /// The value as text for debugging dumps.
    virtual QString asText() const;

    /// True once deletion has started (`beginDestruction` ran).
    bool isBeingDestroyed() const { return m_destroying; }

  protected:
    /// Runs the first steps of deletion (see the class comment) while the object is still whole.
    /// Every concrete class's destructor calls it first; later calls do nothing.
    void beginDestruction();
    /// Calls the role-2 listeners.
    void fireChanged();

  private:
    friend class Node;
    friend class AttributeAlias;
    friend class ListenerHolder;

    static void releaseTable(detail::ListenerTable* table);
    detail::ListenerTable*& tableFor(int role);

    // Alias and holder bookkeeping: who must hear that this object is deleted.
    void addAlias(AttributeAlias* alias);
    void removeAlias(AttributeAlias* alias);
    void addHolder(ListenerHolder* holder);
    void removeHolder(ListenerHolder* holder);

    QByteArray m_name;
    Node* m_host = nullptr;
    bool m_destroying = false;
    detail::ListenerTable* m_deletedTable = nullptr;
    detail::ListenerTable* m_changedTable = nullptr;
    std::vector<AttributeAlias*> m_aliases;
    // Holders: almost every object has one at most (the watcher's), kept inline; more go to the
    // list.
    ListenerHolder* m_holder = nullptr;
    std::vector<ListenerHolder*> m_moreHolders;
  };

  inline void Attribute::fireChanged()
  {
    // Kept inline: one listener on a changing value is the hot path.
    if (m_changedTable)
      detail::callAll(m_changedTable);
  }
}
