#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

namespace Bastion
{
  class SymbolRegistry;
}

namespace Carafe
{
  class Node;
}

namespace Plexa
{
  class AttributeCache;

  /// Turns the life of a local node tree into a stream of events (added, removed, changed), each
  /// naming the registry symbol of the object's path relative to the watched root.
  ///
  /// Listeners run synchronously on the thread that changes the tree (as a rule the application
  /// thread), with no lock of the watcher held: they may add or remove listeners, ignore requests
  /// and tree contents. The registry and the cache must outlive the watcher.
  class NodeWatcher
  {
  public:
    /// The numbers are fixed: later stages switch on them and map the first three to message types.
    enum EventType : int32_t
    {
      AttributeAdded = 0,
      AttributeRemoved = 1,
      AttributeChanged = 2,
      NodeAdded = 3,
      NodeRemoved = 4
    };

    struct Event
    {
      EventType type;
      uint32_t symbol;

      /// Symbol first, then type as a signed integer: the order of the ignore sets.
      bool operator<(const Event& o) const
      {
        return symbol != o.symbol ? symbol < o.symbol : int32_t(type) < int32_t(o.type);
      }
      bool operator==(const Event& o) const { return symbol == o.symbol && type == o.type; }
      bool operator!=(const Event& o) const { return !(*this == o); }
    };

    using Listener = std::function<void(const Event&)>;

    /// Calls `stopIgnoring(event)` when it goes out of scope. It does not call `ignoreOne` itself:
    /// the caller does that first.
    class IgnoreGuard
    {
    public:
      IgnoreGuard(NodeWatcher& watcher, const Event& event)
          : m_watcher(watcher)
          , m_event(event)
      {
      }
      ~IgnoreGuard() { m_watcher.stopIgnoring(m_event); }
      IgnoreGuard(const IgnoreGuard&) = delete;
      IgnoreGuard& operator=(const IgnoreGuard&) = delete;

    private:
      NodeWatcher& m_watcher;
      Event m_event;
    };

    NodeWatcher(Bastion::SymbolRegistry& registry, AttributeCache& cache);
    /// Removes every listener the watcher installed on the tree.
    ~NodeWatcher();
    NodeWatcher(const NodeWatcher&) = delete;
    NodeWatcher& operator=(const NodeWatcher&) = delete;

    /// Begins watching `root` (which must outlive the watcher or be deleted while watched) and
    /// its whole subtree. With `send` the current contents are reported as added events, parents
    /// before children. A watcher watches one root for its whole life; a second call only logs.
    void startWatching(Carafe::Node& root, bool send);

    /// Reports the objects added since the last call, in the order they were added. Objects
    /// added at run time are reported here (not when added) because their creator usually is
    /// still setting them up; a change before this call reports the addition at once.
    void update();

    long addListener(const Listener& listener);
    /// Unknown ids are ignored.
    void removeListener(long id);

    /// The next event equal to `event` is swallowed (used once). Thread-safe.
    void ignoreOne(const Event& event);
    /// Cancels such a request if it was not used up. Thread-safe.
    void stopIgnoring(const Event& event);

    /// True while an addition of `symbol` waits for the next `update()`.
    bool isPendingUpdate(uint32_t symbol) const;
    /// The symbols whose additions wait for the next `update()`, sorted: one lock for a caller
    /// that asks about every attribute of a tree.
    std::vector<uint32_t> pendingSymbols() const;

  private:
    class D;
    std::unique_ptr<D> d;
  };
}
