#pragma once

#include <QElapsedTimer>
#include <QString>

#include <cstdint>
#include <unordered_map>

namespace Plexa
{
  class Peer;

  namespace Cli
  {
    class InspectorHub;
    class MirrorNode;

    /// The application thread's side of the inspector: tells the hub what changes in the tree
    /// (batched: each attribute once per `update`, with its latest value), the peer's events and
    /// the connection's state, and sets the values typed on the pages.
    ///
    /// Application thread only; the tree, the peer and the hub must outlive it.
    class Inspector
    {
    public:
      /// Whose tree is shown: a mirror of the peer at `address` (plexa inspect), or the tree this
      /// process serves at `address` (plexa serve).
      enum Role
      {
        Mirror,
        Server
      };

      /// Starts listening to `tree` and posts its present contents.
      Inspector(MirrorNode& tree, Peer& peer, InspectorHub& hub, Role role, const QString& address);
      ~Inspector();
      Inspector(const Inspector&) = delete;
      Inspector& operator=(const Inspector&) = delete;

      /// Posts what changed since the last call and sets the pages' edits; call it after each of
      /// the peer's updates.
      void update();

    private:
      void postStatus();
      void applyEdits();

      MirrorNode& m_tree;
      Peer& m_peer;
      InspectorHub& m_hub;
      const Role m_role;
      const QString m_address;
      long m_listener = -1;
      /// Symbol -> what happened to it last; the tree bounds it.
      std::unordered_map<uint32_t, int> m_dirty;
      QElapsedTimer m_statusClock;
      uint64_t m_lastRx = 0;
      uint64_t m_lastTx = 0;
    };
  }
}
