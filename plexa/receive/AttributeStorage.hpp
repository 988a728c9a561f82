#pragma once

#include "bastion/SharedMutex.hpp"
#include "plexa/receive/PlexaSessionAttribute.hpp"

#include "bastion/FlatHash.hpp"

#include <QByteArray>

#include <atomic>
#include <cstdint>
#include <deque>

namespace Plexa
{
  class RemoteNode;

  /// All session attribute records of one session, found by path, by this side's symbol and by
  /// the peer's symbol.
  ///
  /// Records are created here and live until the storage is destroyed with the session, so the
  /// raw pointers handed out stay valid for the whole session. Thread-safe: every call takes the
  /// storage's reader-writer lock for its own duration only; the records' fields are not locked.
  class AttributeStorage
  {
  public:
    /// `node` gives the local symbols (its registry) and the local attributes (its cache); it must
    /// outlive the storage.
    explicit AttributeStorage(RemoteNode& node);
    ~AttributeStorage();
    AttributeStorage(const AttributeStorage&) = delete;
    AttributeStorage& operator=(const AttributeStorage&) = delete;

    /// The record the peer's symbol was bound to, or null.
    PlexaSessionAttribute* findByReadSymbol(uint32_t readSymbol) const;
    /// The record of this side's symbol, or null.
    PlexaSessionAttribute* findBySymbol(uint32_t symbol) const;
    PlexaSessionAttribute* findByPath(const QByteArray& path) const;

    /// A new record for `path`, whose symbol is the path's symbol in the node's registry (defined
    /// there if new). Callers ask only after `findByPath` failed; should the path have a record
    /// after all, that record is returned rather than replaced, since the indexes point to it.
    PlexaSessionAttribute* createForPath(const QByteArray& path);
    /// The record of `symbol`, a symbol of the node's registry, made when missing.
    PlexaSessionAttribute* createForSymbol(uint32_t symbol);
    /// The record the peer's announcement of `path` under `readSymbol` refers to, bound to
    /// `readSymbol`: the one the symbol is bound to already, else the path's, else a new one. A
    /// new record is refused (null, one error logged per session) once the storage holds
    /// `maxRecords` records, so a peer cannot grow the session without bound by announcing ever
    /// new paths. One lock for the whole step: it runs for every attribute the peer announces.
    PlexaSessionAttribute* bindForPeer(uint32_t readSymbol, const QByteArray& path);

    /// Binds the peer's symbol to `attribute`. A symbol already bound to another record logs an
    /// error and keeps the first binding.
    void indexByReadSymbol(uint32_t readSymbol, PlexaSessionAttribute* attribute);

    /// Marks `record` as removed by the peer. Any thread that may write records (the update thread).
    void markRemovedByPeer(PlexaSessionAttribute& record);
    /// False while no record was ever marked removed by the peer in this session: the change
    /// sender then needs no look at a record's flag for every local change. Any thread.
    bool anyRemovedByPeer() const { return m_anyRemovedByPeer.load(std::memory_order_relaxed); }

    /// Cap on the records `bindForPeer` makes room for; 0 (the default) means none.
    void setMaxRecords(int maxRecords);
    /// True once `bindForPeer` refused a path because of the cap.
    bool limitExceeded() const;
    int recordCount() const;

    /// Prints every record to standard output: path, the local attribute's class and value, and
    /// under each path the "schema/<path>/<key>" entries that describe it.
    void debugDump() const;

  private:
    PlexaSessionAttribute* createLocked(uint32_t symbol) BASTION_REQUIRES(m_lock);

    RemoteNode& m_node;
    mutable Bastion::SharedMutex m_lock;
    // Flat tables: a session has a record for every attribute of the tree. The peer chooses the
    // read symbols. A path is found through its symbol in the node's registry, which binds this
    // side's paths and symbols for good, so the records need no table of paths of their own.
    Bastion::FlatHash<uint32_t, PlexaSessionAttribute*, true> m_byReadSymbol BASTION_GUARDED_BY(m_lock);
    Bastion::FlatHash<uint32_t, PlexaSessionAttribute*> m_bySymbol BASTION_GUARDED_BY(m_lock);
    /// Owns the records, in order of creation; a deque never moves them.
    std::deque<PlexaSessionAttribute> m_records BASTION_GUARDED_BY(m_lock);
    int m_maxRecords BASTION_GUARDED_BY(m_lock) = 0;
    bool m_limitExceeded BASTION_GUARDED_BY(m_lock) = false;
    /// Set for good by the first `markRemovedByPeer`.
    std::atomic<bool> m_anyRemovedByPeer{false};
  };
}
