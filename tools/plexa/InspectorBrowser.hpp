#pragma once

#include "bastion/Condition.hpp"
#include "bastion/Mutex.hpp"
#include "bastion/ThreadSafety.hpp"
#include <QByteArray>
#include <QRegularExpression>
#include <QString>

#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <thread>
#include <unordered_map>

namespace Plexa
{
  namespace Cli
  {
    /// What one browser page still has to be sent, and the thread that sends it.
    ///
    /// The page gets a snapshot first, then batches of changes: while the page has not yet
    /// acknowledged the last batch, changes pile up here with the latest value of each attribute
    /// winning, so a slow page costs at most one entry per attribute (and a bounded event list),
    /// however fast the tree changes.
    ///
    /// Every member but `id` is guarded by the hub's mutex, which `InspectorHub` passes in; the
    /// sender thread takes it too.
    class InspectorBrowser
    {
    public:
      /// Sends one text message to the page; false once the page is gone. Called on the sender
      /// thread only.
      using Writer = std::function<bool(const QByteArray& message)>;

      InspectorBrowser(uint64_t id, Bastion::Mutex& mutex, const Writer& writer);
      /// Stops the sender thread (see `stop`).
      ~InspectorBrowser();
      InspectorBrowser(const InspectorBrowser&) = delete;
      InspectorBrowser& operator=(const InspectorBrowser&) = delete;

      /// Starts the sender thread. Without the lock.
      void start();
      /// Ends the sender thread once its present write is done. Without the lock.
      void stop();

      const uint64_t id;

      // ---- under the hub's mutex ----

      /// Path -> ["path","type",value] as compact JSON, or for a removal the path alone as a JSON
      /// string (which starts with '"', where the other starts with '[').
      std::map<QString, QByteArray> changes;
      /// Set: the next message replaces the page's whole tree by `changes`.
      bool snapshot = true;
      /// Events as JSON objects, the oldest dropped beyond the hub's limit (`droppedEvents` counts them).
      std::deque<QByteArray> events;
      int droppedEvents = 0;
      /// Answers to the page's requests, sent without waiting for an acknowledgement.
      std::deque<QByteArray> replies;
      /// The connection's state as a JSON object, empty when unchanged since last sent.
      QByteArray status;
      /// Sets the page's search pattern (empty: everything shows).
      void setFilter(const QRegularExpression& pattern, bool filtered);
      /// Set when a batch went out that the page has not acknowledged yet.
      bool waitingForAck = false;
      /// Wakes the sender thread; notify after changing anything above.
      Bastion::Condition wake;

      /// True when `path` passes the page's search pattern. Each path is matched once per pattern:
      /// a pattern that is slow to match costs once per path, not once per change.
      bool shows(const QString& path);
      /// `path` left the tree.
      void forget(const QString& path) { m_shown.erase(path); }

    private:
      void run();
      /// What goes out next, taken out under the lock; `text` puts it together without it.
      struct Message
      {
        QByteArray reply;
        std::map<QString, QByteArray> changes;
        std::deque<QByteArray> events;
        int droppedEvents = 0;
        QByteArray status;
        bool snapshot = false;

        QByteArray text() const;
      };
      Message takeMessage();

      QRegularExpression m_filter;
      bool m_filtered = false;
      /// Path -> whether it passes `m_filter`; at most one entry per path of the tree.
      std::unordered_map<QString, bool> m_shown;
      Bastion::Mutex& m_mutex;
      Writer m_writer;
      bool m_stopping = false;
      std::thread m_thread;
    };
  }
}
